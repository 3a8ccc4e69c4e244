// What the DLL offers a client besides its service objects: class objects
// and the module lock count behind DllCanUnloadNow, the message table, the
// embedded type library and the apartment godfathers.
#include <wrl/client.h>

#include <atomic>
#include <cstring>
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
    ASSERT_HR(S_OK, GetClassObject(CLSID_MTAObjectGodfather, IID_PPV_ARGS(&factory)));
    ComPtr<IUnknown> godfather;
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

// Every code of the library's numbering has its text, each ending in CR LF
// (a sample from each range); other codes have none.
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
    // type, member (none: the type itself), identifier (-1: no such type; the internal interfaces are left out)
    const std::tuple<const GUID*, const wchar_t*, MEMBERID> members[] = {
        {&IID_IKyTask, L"Tag", 0x6002000a},           {&IID_IKyTasks, L"Item", DISPID_VALUE},
        {&IID_IKyTasks, L"_NewEnum", DISPID_NEWENUM}, {&IID_IStrings, L"Sort", 0x60020009},
        {&DIID__IKyTasksEvents, L"OnUpdate", 3},      {&CLSID_KyStrings, nullptr, 0},
        {&IID_IEnumKyTask, nullptr, -1},              {&IID_IKyFileSystem, nullptr, -1},
    };
    for (auto [guid, member, expected] : members) {
        ComPtr<ITypeInfo> info;
        MEMBERID id = SUCCEEDED(lib->GetTypeInfoOfGuid(*guid, &info)) ? 0 : -1;
        LPOLESTR names[] = {const_cast<LPOLESTR>(member)};
        if (info && member) info->GetIDsOfNames(names, 1, &id);
        EXPECT_EQ(expected, id) << GuidText(*guid) << Narrow(member ? member : L"");
    }
}

// For the godfathers, which hand an object to other apartments through COM's marshaling: a plain object (no
// free-threaded marshaler) that notes the thread each call arrives on. It speaks IObjectGodfather only because
// that interface has a proxy/stub; the call is a probe, not an introduction.
struct Probe final : IObjectGodfather {
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!IsEqualIID(riid, IID_IUnknown) && !IsEqualIID(riid, IID_IObjectGodfather)) return *ppv = nullptr, E_NOINTERFACE;
        return *ppv = this, AddRef(), S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
    STDMETHODIMP_(ULONG) Release() override { return --refs ? refs.load() : (delete this, 0); }
    STDMETHODIMP IntroduceIntoApartment(ULONG_PTR, REFIID, void** ppv) override {
        lastThread = ::GetCurrentThreadId();
        if (ppv) *ppv = nullptr;
        return S_FALSE;
    }
    std::atomic<DWORD> lastThread{0};
    std::atomic<ULONG> refs{1};
};

ComPtr<IObjectGodfather> Godfather(const CLSID& clsid) {
    ComPtr<IObjectGodfather> godfather;
    EXPECT_HR(S_OK, ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&godfather)));
    return godfather;
}

// The STA godfather, made on an STA thread and called from here through its proxy.
ComPtr<IObjectGodfather> StaGodfather(StaThread& sta) {
    IStream* marshaled = nullptr;
    sta.Run([&] {
        ::CoMarshalInterThreadInterfaceInStream(IID_IObjectGodfather, Godfather(CLSID_STAObjectGodfather).Get(),
                                                &marshaled);
    });
    ComPtr<IObjectGodfather> godfather;
    EXPECT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(marshaled, IID_PPV_ARGS(&godfather)));
    return godfather;
}

TEST(Godfather, IntroducesAnObjectIntoTheCallersApartmentOrGivesItBackInTheSameOne) {
    StaThread sta;
    Probe* probe = nullptr;
    sta.Run([&] { probe = new Probe; });
    ComPtr<IObjectGodfather> introduced;
    ASSERT_HR(S_OK, StaGodfather(sta)->IntroduceIntoApartment(reinterpret_cast<ULONG_PTR>(probe), IID_IObjectGodfather,
                                                              reinterpret_cast<void**>(introduced.GetAddressOf())));
    EXPECT_NE(static_cast<IObjectGodfather*>(probe), introduced.Get());  // a proxy into this apartment
    void* unused = nullptr;
    EXPECT_HR(S_FALSE, introduced->IntroduceIntoApartment(1, IID_IUnknown, &unused));
    EXPECT_EQ(sta.ThreadId(), probe->lastThread.load());  // run on the object's own thread
    introduced.Reset();
    sta.Run([&] { probe->Release(); });

    // In the same apartment the object itself comes back.
    ComPtr<IObjectGodfather> godfather = Godfather(CLSID_MTAObjectGodfather);
    ComPtr<Probe> local;
    *local.GetAddressOf() = new Probe;  // takes over the first reference
    const auto object = reinterpret_cast<ULONG_PTR>(local.Get());
    ASSERT_HR(S_OK, godfather->IntroduceIntoApartment(object, IID_IObjectGodfather,
                                                      reinterpret_cast<void**>(introduced.GetAddressOf())));
    EXPECT_EQ(static_cast<IObjectGodfather*>(local.Get()), introduced.Get());
    // Bad arguments: the zero pointer is checked before the out pointer.
    void* out = reinterpret_cast<void*>(1);
    EXPECT_HR(E_INVALIDARG, godfather->IntroduceIntoApartment(0, IID_IUnknown, nullptr));
    EXPECT_HR(E_POINTER, godfather->IntroduceIntoApartment(object, IID_IUnknown, nullptr));
    EXPECT_HR(E_NOINTERFACE, godfather->IntroduceIntoApartment(object, IID_IStream, &out));
    EXPECT_EQ(nullptr, out);
}

// A pointer to freed memory, a small integer, and an object whose table
// points to freed memory: the call faults, in this apartment or in the STA
// godfather's, and the godfather answers E_UNEXPECTED instead of dying.
TEST(Godfather, ADanglingPointerIsAnsweredWithEUnexpected) {
    auto freedPage = [](void* content, size_t size) {
        void* page = ::VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
        std::memcpy(page, content, size);
        ::VirtualFree(page, 0, MEM_RELEASE);
        return page;
    };
    Probe* probe = new Probe;
    void* const freedObject = freedPage(probe, sizeof(void*));  // a copy of the object, then gone
    void* freedTable = freedPage(*reinterpret_cast<void**>(probe), 3 * sizeof(void*));
    void* const objectWithFreedTable = &freedTable;  // its first word points to the freed table
    probe->Release();
    StaThread sta;
    for (const auto& godfather : {Godfather(CLSID_MTAObjectGodfather), StaGodfather(sta)}) {
        for (void* pointer : {freedObject, reinterpret_cast<void*>(16), objectWithFreedTable}) {
            void* out = reinterpret_cast<void*>(1);
            EXPECT_HR(E_UNEXPECTED, godfather->IntroduceIntoApartment(reinterpret_cast<ULONG_PTR>(pointer),
                                                                      IID_IUnknown, &out));
            EXPECT_EQ(nullptr, out);
        }
    }
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
