// The helper object as clients use it: kernel-object names, the library's
// resources as streams, and its identity with the aggregated orderer.
#include <wrl/client.h>

#include <fstream>
#include <sstream>
#include <string>

#include "com/raii.h"
#include "helpers/schemas.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

VARIANT Text(BSTR text) {
    VARIANT v = {};
    V_VT(&v) = VT_BSTR;
    V_BSTR(&v) = text;
    return v;
}

class Helpers : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&m_strings)));
        ASSERT_HR(S_OK, m_strings.As(&m_resources));
    }
    std::wstring Name(long global, long user, const wchar_t* suffix) {
        com::Bstr name;
        EXPECT_HR(S_OK, m_strings->CreateKernelObjectName(global, user, com::Bstr(suffix), name.Out()));
        return name.IsNull() ? L"<null>" : name.Get();
    }
    HRESULT Load(VARIANT type, VARIANT name, ComPtr<IStream>* stream) {
        return m_resources->LoadResource(&type, &name, stream->ReleaseAndGetAddressOf());
    }

    ComPtr<IKyStdStrings> m_strings;
    ComPtr<IKyResourceData> m_resources;
};

TEST_F(Helpers, KernelObjectNamesCarryTheSessionPrefixAndTheUserAsTheyAre) {
    wchar_t user[257];
    DWORD size = 257;
    ASSERT_TRUE(::GetUserNameW(user, &size));
    // Every system this runs on has terminal-services namespaces.
    EXPECT_EQ(L"Local\\AppMutex", Name(0, 0, L"AppMutex"));
    EXPECT_EQ(L"Global\\AppMutex", Name(1, 0, L"AppMutex"));
    EXPECT_EQ(std::wstring(L"Global\\") + user + L"AppMutex", Name(1, 1, L"AppMutex"));
    EXPECT_EQ(std::wstring(L"Local\\") + user + L"a\\b c", Name(0, -5, L"a\\b c"));  // nothing escaped

    BSTR untouched = reinterpret_cast<BSTR>(0x10);
    EXPECT_HR(E_INVALIDARG, m_strings->CreateKernelObjectName(1, 1, com::Bstr(L""), &untouched));
    EXPECT_HR(E_INVALIDARG, m_strings->CreateKernelObjectName(1, 1, nullptr, &untouched));
    EXPECT_HR(E_INVALIDARG, m_strings->CreateKernelObjectName(0, 0, com::Bstr(L"x"), nullptr));
    EXPECT_EQ(reinterpret_cast<BSTR>(0x10), untouched);
}

TEST_F(Helpers, SchemasComeBackAsWritableCopiesOfTheirFilesAtPositionZero) {
    const wchar_t* const schemas[][2] = {{schemas::kDirectoryDataV1, L"dsml1.xsd"},
                                         {schemas::kDirectoryDataV2, L"dsml2.xsd"},
                                         {schemas::kEntryTemplates, L"entrytemplates.xsd"},
                                         {schemas::kQueryOptions, L"queryoptions.xsd"},
                                         {L"dsml1.xsd", L"dsml1.xsd"}};  // names ignore case
    com::Bstr type(schemas::kSchemaType);
    for (const auto& schema : schemas) {
        SCOPED_TRACE(Narrow(schema[0]));
        ComPtr<IStream> stream;
        ASSERT_HR(S_OK, Load(Text(type), Text(com::Bstr(schema[0])), &stream));
        LARGE_INTEGER zero = {};
        ULARGE_INTEGER position = {};
        STATSTG stat = {};
        ASSERT_HR(S_OK, stream->Seek(zero, STREAM_SEEK_CUR, &position));
        ASSERT_HR(S_OK, stream->Stat(&stat, STATFLAG_NONAME));
        EXPECT_EQ(0u, position.QuadPart);
        std::ifstream file((std::wstring(KY_SOURCE_DIR L"/resources/schemas/") + schema[1]).c_str(), std::ios::binary);
        std::ostringstream expected;
        expected << file.rdbuf();
        EXPECT_EQ(expected.str().size(), stat.cbSize.QuadPart);
        std::string bytes(stat.cbSize.LowPart, '\0');
        ASSERT_HR(S_OK, stream->Read(&bytes[0], stat.cbSize.LowPart, nullptr));
        EXPECT_EQ(expected.str(), bytes);
        EXPECT_HR(S_OK, stream->Write("<!-- -->", 8, nullptr));
    }
}

TEST_F(Helpers, ResourceIdentifiersAreNamesOrTheLow16BitsOfIntegers) {
    // The type library is resource 1 of type "TYPELIB".
    com::Bstr typelib(L"TYPELIB"), unknown(L"NOSUCH.XSD");
    ComPtr<IStream> stream;
    for (VARTYPE type : {VT_I2, VT_UI2, VT_I4, VT_UI4, VT_INT, VT_UINT})
        EXPECT_HR(S_OK, Load(Text(typelib), Number(1, type), &stream)) << type;
    EXPECT_HR(S_OK, Load(Text(typelib), Number(0x7FFF0001, VT_I4), &stream));
    EXPECT_HR(S_OK, Load(Text(typelib), Number(static_cast<LONG>(0xABCD0001), VT_UI4), &stream));
    EXPECT_HR(E_FAIL, Load(Number(10, VT_I4), Number(1, VT_I4), &stream));  // no RT_RCDATA 1
    EXPECT_HR(E_FAIL, Load(Text(typelib), Text(unknown), &stream));

    // Any other type, by-reference ones included, is refused; the result is
    // left alone.
    BSTR raw = typelib;
    VARIANT byRef = Number(0, VT_BSTR | VT_BYREF), name = Text(typelib);
    V_BSTRREF(&byRef) = &raw;
    IStream* untouched = reinterpret_cast<IStream*>(0x10);
    for (VARIANT bad : {Number(1, VT_UI1), Number(0, VT_R8), Number(0, VT_EMPTY), Text(nullptr), byRef})
        EXPECT_HR(E_INVALIDARG, m_resources->LoadResource(&name, &bad, &untouched)) << V_VT(&bad);
    EXPECT_HR(E_INVALIDARG, m_resources->LoadResource(nullptr, &name, &untouched));
    EXPECT_HR(E_INVALIDARG, m_resources->LoadResource(&name, &name, nullptr));
    EXPECT_HR(E_FAIL, m_resources->LoadResource(&name, &name, &untouched));
    EXPECT_EQ(reinterpret_cast<IStream*>(0x10), untouched);
}

TEST_F(Helpers, ThePropertyPageOrderIsPartOfTheHelpersIdentity) {
    ComPtr<IKyPropPageOrder> order;
    ComPtr<IUnknown> fromOrder, fromStrings;
    ComPtr<IKyFileSystem> files;
    ASSERT_HR(S_OK, m_strings.As(&order));
    ASSERT_HR(S_OK, order.As(&fromOrder));
    ASSERT_HR(S_OK, m_strings.As(&fromStrings));
    EXPECT_EQ(fromStrings.Get(), fromOrder.Get());
    EXPECT_HR(S_OK, order.As(&files));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
