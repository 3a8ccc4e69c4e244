// The helper object as clients use it: kernel-object names, the library's
// resources as streams, and its identity with the aggregated orderer.
#include <wrl/client.h>

#include <string>

#include "helpers/schemas.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

BSTR Sentinel() { return reinterpret_cast<BSTR>(static_cast<ULONG_PTR>(0x10)); }

VARIANT Text(BSTR text) {
    VARIANT v;
    V_VT(&v) = VT_BSTR;
    V_BSTR(&v) = text;
    return v;
}

VARIANT Number(VARTYPE type, LONG value) {
    VARIANT v = {};
    V_VT(&v) = type;
    if (type == VT_I2 || type == VT_UI2)
        V_I2(&v) = static_cast<SHORT>(value);
    else if (type == VT_UI1)
        V_UI1(&v) = static_cast<BYTE>(value);
    else
        V_I4(&v) = value;  // I4, UI4, INT and UINT share the storage
    return v;
}

std::string Bytes(IStream* stream) {
    std::string bytes;
    char buffer[4096];
    ULONG read = 0;
    while (SUCCEEDED(stream->Read(buffer, sizeof buffer, &read)) && read > 0) bytes.append(buffer, read);
    return bytes;
}

std::string FileBytes(const std::wstring& path) {
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return "<missing " + Narrow(path) + ">";
    std::string bytes(::GetFileSize(file, nullptr), '\0');
    DWORD read = 0;
    ::ReadFile(file, &bytes[0], static_cast<DWORD>(bytes.size()), &read, nullptr);
    ::CloseHandle(file);
    return bytes;
}

class Helpers : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_HR(S_OK,
                  ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_IKyStdStrings, &m_strings));
        ASSERT_HR(S_OK, m_strings.As(&m_resources));
    }
    std::wstring Name(long global, long user, const wchar_t* suffix) {
        BSTR name = nullptr, text = ::SysAllocString(suffix);
        EXPECT_HR(S_OK, m_strings->CreateKernelObjectName(global, user, text, &name));
        std::wstring result = name ? name : L"<null>";
        ::SysFreeString(name);
        ::SysFreeString(text);
        return result;
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
    EXPECT_EQ(std::wstring(L"Local\\") + user + L"x", Name(0, -5, L"x"));
    EXPECT_EQ(L"Local\\a\\b c", Name(0, 0, L"a\\b c"));  // nothing escaped

    BSTR name = Sentinel(), empty = ::SysAllocString(L""), suffix = ::SysAllocString(L"x");
    EXPECT_HR(E_INVALIDARG, m_strings->CreateKernelObjectName(1, 1, empty, &name));
    EXPECT_HR(E_INVALIDARG, m_strings->CreateKernelObjectName(1, 1, nullptr, &name));
    EXPECT_HR(E_INVALIDARG, m_strings->CreateKernelObjectName(0, 0, suffix, nullptr));
    EXPECT_EQ(Sentinel(), name);
    ::SysFreeString(empty);
    ::SysFreeString(suffix);
}

TEST_F(Helpers, SchemasComeBackAsCopiesOfTheirFilesAtPositionZero) {
    const wchar_t* const schemas[][2] = {{schemas::kDirectoryDataV1, L"dsml1.xsd"},
                                         {schemas::kDirectoryDataV2, L"dsml2.xsd"},
                                         {schemas::kEntryTemplates, L"entrytemplates.xsd"},
                                         {schemas::kQueryOptions, L"queryoptions.xsd"},
                                         {L"dsml1.xsd", L"dsml1.xsd"}};  // names ignore case
    BSTR type = ::SysAllocString(schemas::kSchemaType);
    for (const auto& schema : schemas) {
        SCOPED_TRACE(Narrow(schema[0]));
        BSTR name = ::SysAllocString(schema[0]);
        ComPtr<IStream> stream;
        ASSERT_HR(S_OK, Load(Text(type), Text(name), &stream));
        ::SysFreeString(name);
        LARGE_INTEGER zero = {};
        ULARGE_INTEGER position = {};
        ASSERT_HR(S_OK, stream->Seek(zero, STREAM_SEEK_CUR, &position));
        EXPECT_EQ(0u, position.QuadPart);
        const std::string expected = FileBytes(std::wstring(KY_SOURCE_DIR L"/resources/schemas/") + schema[1]);
        STATSTG stat = {};
        ASSERT_HR(S_OK, stream->Stat(&stat, STATFLAG_NONAME));
        EXPECT_EQ(expected.size(), stat.cbSize.QuadPart);
        EXPECT_EQ(expected, Bytes(stream.Get()));
        // A copy of its own: it stays writable and grows.
        ULONG written = 0;
        EXPECT_HR(S_OK, stream->Write("<!-- -->", 8, &written));
        EXPECT_EQ(8u, written);
    }
    ::SysFreeString(type);
}

TEST_F(Helpers, IdentifiersAreNamesOrTheLow16BitsOfIntegers) {
    // The type library is resource 1 of type "TYPELIB".
    BSTR typelib = ::SysAllocString(L"TYPELIB"), unknown = ::SysAllocString(L"NOSUCH.XSD");
    ComPtr<IStream> stream;
    for (VARTYPE type : {VT_I2, VT_UI2, VT_I4, VT_UI4, VT_INT, VT_UINT})
        EXPECT_HR(S_OK, Load(Text(typelib), Number(type, 1), &stream)) << type;
    EXPECT_HR(S_OK, Load(Text(typelib), Number(VT_I4, 0x7FFF0001), &stream));
    EXPECT_HR(S_OK, Load(Text(typelib), Number(VT_UI4, static_cast<LONG>(0xABCD0001)), &stream));
    EXPECT_HR(E_FAIL, Load(Number(VT_I4, 10), Number(VT_I4, 1), &stream));  // no RT_RCDATA 1
    EXPECT_HR(E_FAIL, Load(Text(typelib), Text(unknown), &stream));

    // Any other type, by-reference ones included, is refused.
    VARIANT byRef, empty;
    V_VT(&byRef) = VT_BSTR | VT_BYREF;
    V_BSTRREF(&byRef) = &typelib;
    ::VariantInit(&empty);
    for (const VARIANT& bad : {Number(VT_UI1, 1), Number(VT_R8, 0), byRef, empty, Text(nullptr)})
        EXPECT_HR(E_INVALIDARG, Load(Text(typelib), bad, &stream)) << V_VT(&bad);
    EXPECT_EQ(nullptr, stream.Get());
    VARIANT name = Text(unknown);
    IStream* untouched = reinterpret_cast<IStream*>(Sentinel());
    EXPECT_HR(E_INVALIDARG, m_resources->LoadResource(nullptr, &name, &untouched));
    EXPECT_HR(E_INVALIDARG, m_resources->LoadResource(&name, &name, nullptr));
    EXPECT_HR(E_FAIL, m_resources->LoadResource(&name, &name, &untouched));
    EXPECT_EQ(reinterpret_cast<IStream*>(Sentinel()), untouched);
    ::SysFreeString(typelib);
    ::SysFreeString(unknown);
}

TEST_F(Helpers, ThePropertyPageOrderIsPartOfTheHelpersIdentity) {
    ComPtr<IKyPropPageOrder> order;
    ASSERT_HR(S_OK, m_strings.As(&order));
    ComPtr<IUnknown> fromOrder, fromStrings;
    ASSERT_HR(S_OK, order.As(&fromOrder));
    ASSERT_HR(S_OK, m_strings.As(&fromStrings));
    EXPECT_EQ(fromStrings.Get(), fromOrder.Get());
    ComPtr<IKyFileSystem> files;
    EXPECT_HR(S_OK, order.As(&files));
    ComPtr<IDispatch> dispatch;
    EXPECT_HR(E_NOINTERFACE, order.As(&dispatch));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
