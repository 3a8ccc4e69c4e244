// What the DLL offers a client besides its objects: class objects and the
// module lock count behind DllCanUnloadNow, the message table and the
// embedded type library.
#include <wrl/client.h>

#include <map>
#include <tuple>

#include "classtable.h"
#include "com/raii.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** out) {
    using Fn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
    static auto get = reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(
        ::LoadLibraryW(DllPath().c_str()), "DllGetClassObject")));  // stays loaded for the run
    return get(clsid, iid, out);
}

TEST(ClassObjects, TheModuleStaysLockedWhileAnObjectOrAClassObjectIsHeldOutside) {
    void* out = reinterpret_cast<void*>(1);
    EXPECT_HR(CLASS_E_CLASSNOTAVAILABLE, GetClassObject(IID_IStream, IID_IClassFactory, &out));
    EXPECT_EQ(nullptr, out);
    ComPtr<IClassFactory> factory;
    ComPtr<IUnknown> godfather;
    ASSERT_HR(S_OK, GetClassObject(CLSID_MTAObjectGodfather, IID_PPV_ARGS(&factory)));
    ASSERT_HR(S_OK, factory->CreateInstance(nullptr, IID_PPV_ARGS(&godfather)));
    factory.Reset();
    EXPECT_HR(S_FALSE, DllCanUnloadNow());  // the object
    godfather.Reset();  // the singleton stays with its class object, which does not count
    EXPECT_HR(S_OK, DllCanUnloadNow());
    for (BOOL lock : {TRUE, FALSE}) {
        ASSERT_HR(S_OK, GetClassObject(CLSID_MTAObjectGodfather, IID_PPV_ARGS(&factory)));
        EXPECT_HR(S_FALSE, DllCanUnloadNow());  // the class object
        EXPECT_HR(S_OK, factory->LockServer(lock));
        factory.Reset();
        EXPECT_HR(lock ? S_FALSE : S_OK, DllCanUnloadNow());  // the lock
    }
}

// An outer object for aggregation requests; it never keeps the inner.
struct Outer : IUnknown {
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        return IsEqualIID(riid, IID_IUnknown) ? (*ppv = this, S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
};

TEST(ClassObjects, SingletonsAndAggregationAsEachClassDeclares) {
    Outer outer;
    for (const auto& c : kExpectedClasses) {
        if (!Served(*c.clsid)) continue;
        SCOPED_TRACE(Narrow(c.progId));
        ComPtr<IClassFactory> factory;
        ASSERT_HR(S_OK, GetClassObject(*c.clsid, IID_PPV_ARGS(&factory)));
        EXPECT_HR(E_POINTER, factory->CreateInstance(nullptr, IID_IUnknown, nullptr));
        ComPtr<IUnknown> a, b;
        ASSERT_HR(S_OK, factory->CreateInstance(nullptr, IID_PPV_ARGS(&a)));
        ASSERT_HR(S_OK, factory->CreateInstance(nullptr, IID_PPV_ARGS(&b)));
        EXPECT_EQ(c.singleton, a.Get() == b.Get());
        IUnknown* inner = reinterpret_cast<IUnknown*>(1);
        EXPECT_HR(c.aggregatable ? S_OK : CLASS_E_NOAGGREGATION,
                  factory->CreateInstance(&outer, IID_IUnknown, reinterpret_cast<void**>(&inner)));
        EXPECT_EQ(c.aggregatable, inner != nullptr);
        if (inner) inner->Release();
    }
}

// Every code of the library's numbering has its text, each ending in CR LF:
// a sample from each range, and the number of entries of the whole table.
TEST(Messages, CodesHaveTheirTextsAndOthersNone) {
    HMODULE dll = ::LoadLibraryExW(DllPath().c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    const std::pair<unsigned long, const wchar_t*> messages[] = {
        {0x00041001ul, L"Asynchronous operation was successfully started."},
        {0x80041021ul, L"Element was not found."},
        {0x80041203ul, L"Time limit, set by the server side time limit parameter, was exceeded."},
        {0x80041312ul, L"LDAP request object has no result object."},
        {0x80041003ul, nullptr},
    };
    for (auto [code, text] : messages) {
        wchar_t* buffer = nullptr;
        DWORD length = ::FormatMessageW(
            FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS, dll, code,
            MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
        EXPECT_EQ(text ? text + std::wstring(L"\r\n") : L"", std::wstring(buffer ? buffer : L"", length)) << Hex(code);
        ::LocalFree(buffer);
    }
    auto* data = static_cast<const MESSAGE_RESOURCE_DATA*>(
        ::LockResource(::LoadResource(dll, ::FindResourceW(dll, MAKEINTRESOURCEW(1), RT_MESSAGETABLE))));
    ASSERT_NE(nullptr, data);
    DWORD entries = 0;
    for (DWORD i = 0; i < data->NumberOfBlocks; ++i) entries += data->Blocks[i].HighId - data->Blocks[i].LowId + 1;
    EXPECT_EQ(77u, entries);
    ::FreeLibrary(dll);
}

TEST(TypeLibrary, DescribesThePublicTypesWithTheirIdentifiers) {
    ComPtr<ITypeLib> lib;
    ASSERT_HR(S_OK, ::LoadTypeLibEx(DllPath().c_str(), REGKIND_NONE, &lib));
    TLIBATTR* attr = nullptr;
    ASSERT_HR(S_OK, lib->GetLibAttr(&attr));
    // widl has been seen writing a wrong LIBID; this guards against it.
    EXPECT_TRUE(IsEqualGUID(LIBID_KyUtils, attr->guid));
    EXPECT_EQ(std::make_tuple(1, 0, 0x0409ul), std::make_tuple(int(attr->wMajorVerNum), int(attr->wMinorVerNum), attr->lcid));
    lib->ReleaseTLibAttr(attr);
    std::map<std::wstring, ComPtr<ITypeInfo>> byName;
    for (UINT i = 0; i < lib->GetTypeInfoCount(); ++i) {
        com::Bstr name;
        lib->GetDocumentation(i, name.Out(), nullptr, nullptr, nullptr);
        lib->GetTypeInfo(i, &byName[name.Get()]);
    }
    // The internal interfaces are left out.
    for (const wchar_t* name : {L"IEnumKyTask", L"IEnumBSTR", L"IKyFileSystem"}) EXPECT_EQ(0u, byName.count(name));
    // type, member, identifier: a sample of the dual and dispatch interfaces, coclasses, enumerations and records
    const std::tuple<const wchar_t*, const wchar_t*, MEMBERID> members[] = {
        {L"IKyTask", L"Tag", 0x6002000a},          {L"IKyTasks", L"Item", DISPID_VALUE},
        {L"IKyTasks", L"_NewEnum", DISPID_NEWENUM}, {L"_IKyTasksEvents", L"OnUpdate", 3},
        {L"KyLoggerChannel", L"dwID", 0x40000000}, {L"KyLoggerChannel", L"bstrName", 0x40000002},
        {L"KyStrings", L"", DISPID_UNKNOWN},       {L"KYTASKFLAGS", L"", DISPID_UNKNOWN},
    };
    for (auto [type, member, expected] : members) {
        LPOLESTR names[] = {const_cast<LPOLESTR>(member)};
        MEMBERID id = DISPID_UNKNOWN;
        ASSERT_TRUE(byName[type]) << Narrow(type);
        if (*member) byName[type]->GetIDsOfNames(names, 1, &id);
        EXPECT_EQ(expected, id) << Narrow(type) << "." << Narrow(member);
    }
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
