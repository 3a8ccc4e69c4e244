// The helper object as clients use it: kernel-object names, the library's
// resources as streams, and its identity with the aggregated orderer.
#include <wrl/client.h>

#include <string>
#include <vector>

#include "helpers/schemas.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

std::wstring UserName() {
    wchar_t user[257];
    DWORD size = 257;
    EXPECT_TRUE(::GetUserNameW(user, &size));
    return user;
}

class Helpers : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_IKyStdStrings,
                                           &m_strings));
        ASSERT_HR(S_OK, m_strings.As(&m_resources));
    }

    std::wstring Name(long global, long user, const wchar_t* suffix) {
        BSTR name = nullptr;
        BSTR text = ::SysAllocString(suffix);
        EXPECT_HR(S_OK, m_strings->CreateKernelObjectName(global, user, text, &name));
        ::SysFreeString(text);
        std::wstring result = name ? name : L"<null>";
        ::SysFreeString(name);
        return result;
    }

    // The whole content of a stream from its current position.
    static std::string ReadAll(IStream* stream) {
        std::string bytes;
        char buffer[4096];
        ULONG read = 0;
        while (SUCCEEDED(stream->Read(buffer, sizeof buffer, &read)) && read > 0) bytes.append(buffer, read);
        return bytes;
    }

    HRESULT Load(VARIANT type, VARIANT name, ComPtr<IStream>* stream) {
        return m_resources->LoadResource(&type, &name, stream->ReleaseAndGetAddressOf());
    }

    ComPtr<IKyStdStrings> m_strings;
    ComPtr<IKyResourceData> m_resources;
};

VARIANT Text(BSTR text) {
    VARIANT v;
    V_VT(&v) = VT_BSTR;
    V_BSTR(&v) = text;
    return v;
}

VARIANT Int(VARTYPE type, LONG value) {
    VARIANT v;
    V_VT(&v) = type;
    V_I4(&v) = 0;
    switch (type) {
        case VT_I2: V_I2(&v) = static_cast<SHORT>(value); break;
        case VT_UI2: V_UI2(&v) = static_cast<USHORT>(value); break;
        case VT_UI1: V_UI1(&v) = static_cast<BYTE>(value); break;
        default: V_I4(&v) = value; break;  // I4, UI4, INT and UINT share the storage
    }
    return v;
}

std::string FileBytes(const std::wstring& path) {
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    std::string bytes;
    if (file == INVALID_HANDLE_VALUE) return "<missing " + Narrow(path) + ">";
    char buffer[4096];
    DWORD read = 0;
    while (::ReadFile(file, buffer, sizeof buffer, &read, nullptr) && read > 0) bytes.append(buffer, read);
    ::CloseHandle(file);
    return bytes;
}

TEST_F(Helpers, KernelObjectNamesCarryTheSessionPrefixAndTheUser) {
    // Every system this runs on has terminal-services namespaces.
    EXPECT_EQ(L"Local\\AppMutex", Name(0, 0, L"AppMutex"));
    EXPECT_EQ(L"Global\\AppMutex", Name(1, 0, L"AppMutex"));
    EXPECT_EQ(L"Global\\" + UserName() + L"AppMutex", Name(1, 1, L"AppMutex"));
    EXPECT_EQ(L"Local\\" + UserName() + L"x", Name(0, 1, L"x"));
    // Any non-zero value is a set flag.
    EXPECT_EQ(L"Global\\" + UserName() + L"x", Name(-1, 7, L"x"));
    // The suffix is taken as it is: nothing escaped, nothing added.
    EXPECT_EQ(L"Local\\a\\b c", Name(0, 0, L"a\\b c"));
}

TEST_F(Helpers, KernelObjectNamesRefuseAnEmptySuffixOrNoResult) {
    BSTR name = reinterpret_cast<BSTR>(static_cast<ULONG_PTR>(1));
    BSTR empty = ::SysAllocString(L"");
    EXPECT_HR(E_INVALIDARG, m_strings->CreateKernelObjectName(1, 1, empty, &name));
    EXPECT_HR(E_INVALIDARG, m_strings->CreateKernelObjectName(1, 1, nullptr, &name));
    EXPECT_EQ(reinterpret_cast<BSTR>(static_cast<ULONG_PTR>(1)), name);  // untouched
    BSTR suffix = ::SysAllocString(L"x");
    EXPECT_HR(E_INVALIDARG, m_strings->CreateKernelObjectName(0, 0, suffix, nullptr));
    ::SysFreeString(suffix);
    ::SysFreeString(empty);
}

TEST_F(Helpers, SchemasComeBackAsCopiesOfTheirFilesAtPositionZero) {
    const struct {
        const wchar_t* name;
        const wchar_t* file;
    } schemas[] = {{schemas::kDirectoryDataV1, L"dsml1.xsd"},
                   {schemas::kDirectoryDataV2, L"dsml2.xsd"},
                   {schemas::kEntryTemplates, L"entrytemplates.xsd"},
                   {schemas::kQueryOptions, L"queryoptions.xsd"}};
    BSTR type = ::SysAllocString(schemas::kSchemaType);
    for (const auto& schema : schemas) {
        SCOPED_TRACE(Narrow(schema.name));
        BSTR name = ::SysAllocString(schema.name);
        ComPtr<IStream> stream;
        ASSERT_HR(S_OK, Load(Text(type), Text(name), &stream));
        ::SysFreeString(name);
        ULARGE_INTEGER position;
        LARGE_INTEGER zero = {};
        ASSERT_HR(S_OK, stream->Seek(zero, STREAM_SEEK_CUR, &position));
        EXPECT_EQ(0u, position.QuadPart);
        const std::string expected = FileBytes(std::wstring(KY_SOURCE_DIR L"/resources/schemas/") + schema.file);
        STATSTG stat = {};
        ASSERT_HR(S_OK, stream->Stat(&stat, STATFLAG_NONAME));
        EXPECT_EQ(expected.size(), stat.cbSize.QuadPart);
        const std::string bytes = ReadAll(stream.Get());
        EXPECT_EQ(expected, bytes);
        EXPECT_NE(std::string::npos, bytes.find("<xs:schema"));
    }
    // Resource names are not case-sensitive.
    BSTR lower = ::SysAllocString(L"dsml1.xsd");
    ComPtr<IStream> stream;
    EXPECT_HR(S_OK, Load(Text(type), Text(lower), &stream));
    ::SysFreeString(lower);
    ::SysFreeString(type);
}

TEST_F(Helpers, IntegerIdentifiersUseTheirLow16Bits) {
    // The type library is resource 1 of type "TYPELIB"; the registry script
    // of this very class is a "REGISTRY" resource.
    BSTR typelib = ::SysAllocString(L"TYPELIB");
    ComPtr<IStream> stream;
    for (VARTYPE type : {VT_I2, VT_UI2, VT_I4, VT_UI4, VT_INT, VT_UINT}) {
        SCOPED_TRACE(type);
        EXPECT_HR(S_OK, Load(Text(typelib), Int(type, 1), &stream));
    }
    EXPECT_HR(S_OK, Load(Text(typelib), Int(VT_I4, 0x7FFF0001), &stream));
    EXPECT_HR(S_OK, Load(Text(typelib), Int(VT_UI4, 0xABCD0001), &stream));
    STATSTG stat = {};
    ASSERT_HR(S_OK, stream->Stat(&stat, STATFLAG_NONAME));
    EXPECT_GT(stat.cbSize.QuadPart, 1000u);
    // Typed by number too: RT_RCDATA is 10 and the library has none numbered 1.
    EXPECT_HR(E_FAIL, Load(Int(VT_I4, 10), Int(VT_I4, 1), &stream));
    ::SysFreeString(typelib);
}

TEST_F(Helpers, LoadResourceRefusesOtherVariantTypesAndMissingResources) {
    BSTR type = ::SysAllocString(schemas::kSchemaType);
    BSTR unknown = ::SysAllocString(L"NOSUCH.XSD");
    ComPtr<IStream> stream;
    EXPECT_HR(E_INVALIDARG, Load(Text(type), Int(VT_UI1, 1), &stream));
    EXPECT_HR(E_INVALIDARG, Load(Int(VT_R8, 0), Text(unknown), &stream));
    VARIANT byRef;
    V_VT(&byRef) = VT_BSTR | VT_BYREF;
    V_BSTRREF(&byRef) = &type;
    EXPECT_HR(E_INVALIDARG, Load(Text(type), byRef, &stream));
    VARIANT empty;
    ::VariantInit(&empty);
    EXPECT_HR(E_INVALIDARG, Load(empty, Text(unknown), &stream));
    EXPECT_HR(E_FAIL, Load(Text(type), Text(unknown), &stream));
    EXPECT_EQ(nullptr, stream.Get());

    VARIANT name = Text(unknown);
    IStream* untouched = reinterpret_cast<IStream*>(static_cast<ULONG_PTR>(1));
    EXPECT_HR(E_INVALIDARG, m_resources->LoadResource(nullptr, &name, &untouched));
    EXPECT_HR(E_INVALIDARG, m_resources->LoadResource(&name, nullptr, &untouched));
    EXPECT_HR(E_FAIL, m_resources->LoadResource(&name, &name, &untouched));
    EXPECT_EQ(reinterpret_cast<IStream*>(static_cast<ULONG_PTR>(1)), untouched);
    EXPECT_HR(E_INVALIDARG, m_resources->LoadResource(&name, &name, nullptr));
    ::SysFreeString(type);
    ::SysFreeString(unknown);
}

TEST_F(Helpers, TheStreamOutlivesTheHelperAndIsTheCallersToChange) {
    BSTR type = ::SysAllocString(schemas::kSchemaType);
    BSTR name = ::SysAllocString(schemas::kQueryOptions);
    ComPtr<IStream> stream;
    ASSERT_HR(S_OK, Load(Text(type), Text(name), &stream));
    m_resources.Reset();
    m_strings.Reset();
    // A growable memory copy: writable, and it grows.
    LARGE_INTEGER zero = {};
    ASSERT_HR(S_OK, stream->Seek(zero, STREAM_SEEK_END, nullptr));
    ULONG written = 0;
    EXPECT_HR(S_OK, stream->Write("<!-- more -->", 13, &written));
    EXPECT_EQ(13u, written);
    ::SysFreeString(type);
    ::SysFreeString(name);
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
    // The helper is not itself an aggregate for others.
    ComPtr<IClassFactory> factory;
    EXPECT_HR(S_OK, ::CoGetClassObject(CLSID_KyHelpers, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                                       &factory));
    ComPtr<IUnknown> aggregate;
    EXPECT_HR(CLASS_E_NOAGGREGATION, factory->CreateInstance(fromStrings.Get(), IID_IUnknown, &aggregate));
}

TEST_F(Helpers, OneHelperServesEveryApartment) {
    // "Both": created in a single-threaded apartment, called from here
    // directly (the object is free-threaded).
    ComPtr<IKyStdStrings> fromSta;
    RunInApartment(COINIT_APARTMENTTHREADED, [&] {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_IKyStdStrings,
                                           &fromSta));
    });
    ASSERT_NE(nullptr, fromSta.Get());
    BSTR suffix = ::SysAllocString(L"x");
    BSTR name = nullptr;
    EXPECT_HR(S_OK, fromSta->CreateKernelObjectName(0, 0, suffix, &name));
    EXPECT_STREQ(L"Local\\x", name);
    ::SysFreeString(name);
    ::SysFreeString(suffix);
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
