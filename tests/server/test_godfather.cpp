// Apartment introduction: the godfather living in an object's apartment
// hands the object to callers elsewhere through COM's marshaling.
#include <wrl/client.h>

#include <atomic>
#include <cstring>

#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

// A plain object (no free-threaded marshaler) that notes the thread each
// call arrives on. It speaks IObjectGodfather only because that interface has
// a proxy/stub; the call is a probe, not an introduction.
struct Probe : IObjectGodfather {
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!IsEqualIID(riid, IID_IUnknown) && !IsEqualIID(riid, IID_IObjectGodfather)) return *ppv = nullptr, E_NOINTERFACE;
        return *ppv = this, AddRef(), S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
    STDMETHODIMP_(ULONG) Release() override { return --refs ? refs.load() : (delete this, 0); }
    virtual ~Probe() = default;
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
