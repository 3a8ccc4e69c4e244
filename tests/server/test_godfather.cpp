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
class Probe : public IObjectGodfather {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IObjectGodfather)) {
            *ppv = static_cast<IObjectGodfather*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_refs; }
    STDMETHODIMP_(ULONG) Release() override {
        ULONG refs = --m_refs;
        if (refs == 0) delete this;
        return refs;
    }
    virtual ~Probe() = default;
    STDMETHODIMP IntroduceIntoApartment(ULONG_PTR, REFIID, void** ppv) override {
        lastThread = ::GetCurrentThreadId();
        if (ppv) *ppv = nullptr;
        return S_FALSE;
    }
    std::atomic<DWORD> lastThread{0};

private:
    std::atomic<ULONG> m_refs{1};
};

TEST(Godfather, StaGodfatherIntroducesAnStaObjectToAnotherApartment) {
    StaThread sta;
    Probe* probe = nullptr;
    IStream* marshaled = nullptr;
    sta.Run([&] {
        probe = new Probe;
        ComPtr<IObjectGodfather> godfather;
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_STAObjectGodfather, nullptr, CLSCTX_INPROC_SERVER,
                                           IID_IObjectGodfather, &godfather));
        ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IObjectGodfather, godfather.Get(), &marshaled));
    });
    ASSERT_NE(nullptr, marshaled);

    // This (MTA) thread calls the STA godfather through its proxy.
    ComPtr<IObjectGodfather> godfather;
    ASSERT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(marshaled, IID_IObjectGodfather, &godfather));
    ComPtr<IObjectGodfather> introduced;
    ASSERT_HR(S_OK, godfather->IntroduceIntoApartment(reinterpret_cast<ULONG_PTR>(probe), IID_IObjectGodfather,
                                                      reinterpret_cast<void**>(introduced.GetAddressOf())));
    ASSERT_NE(nullptr, introduced.Get());
    EXPECT_NE(static_cast<IObjectGodfather*>(probe), introduced.Get());  // a proxy into this apartment

    // Calls through it run on the object's own thread.
    void* unused = nullptr;
    EXPECT_HR(S_FALSE, introduced->IntroduceIntoApartment(1, IID_IUnknown, &unused));
    EXPECT_EQ(sta.ThreadId(), probe->lastThread.load());

    introduced.Reset();
    godfather.Reset();
    sta.Run([&] { probe->Release(); });
}

TEST(Godfather, InTheSameApartmentTheObjectItselfComesBack) {
    ComPtr<IObjectGodfather> godfather;
    ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_MTAObjectGodfather, nullptr, CLSCTX_INPROC_SERVER, IID_IObjectGodfather,
                                       &godfather));
    ComPtr<Probe> probe;
    *probe.ReleaseAndGetAddressOf() = new Probe;  // takes over the first reference
    IObjectGodfather* same = nullptr;
    ASSERT_HR(S_OK, godfather->IntroduceIntoApartment(reinterpret_cast<ULONG_PTR>(probe.Get()), IID_IObjectGodfather,
                                                      reinterpret_cast<void**>(&same)));
    EXPECT_EQ(static_cast<IObjectGodfather*>(probe.Get()), same);
    same->Release();
}

TEST(Godfather, RefusesBadArguments) {
    ComPtr<IObjectGodfather> godfather;
    ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_MTAObjectGodfather, nullptr, CLSCTX_INPROC_SERVER, IID_IObjectGodfather,
                                       &godfather));
    // The zero pointer is checked before the out pointer.
    EXPECT_HR(E_INVALIDARG, godfather->IntroduceIntoApartment(0, IID_IUnknown, nullptr));
    ComPtr<Probe> probe;
    *probe.ReleaseAndGetAddressOf() = new Probe;  // takes over the first reference
    EXPECT_HR(E_POINTER, godfather->IntroduceIntoApartment(reinterpret_cast<ULONG_PTR>(probe.Get()), IID_IUnknown,
                                                           nullptr));
    void* out = reinterpret_cast<void*>(1);
    EXPECT_HR(E_NOINTERFACE,
              godfather->IntroduceIntoApartment(reinterpret_cast<ULONG_PTR>(probe.Get()), IID_IStream, &out));
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
    auto introduce = [&](IObjectGodfather* godfather) {
        for (void* pointer : {freedObject, reinterpret_cast<void*>(16), objectWithFreedTable}) {
            void* out = reinterpret_cast<void*>(1);
            EXPECT_HR(E_UNEXPECTED, godfather->IntroduceIntoApartment(reinterpret_cast<ULONG_PTR>(pointer),
                                                                      IID_IUnknown, &out));
            EXPECT_EQ(nullptr, out);
        }
    };
    ComPtr<IObjectGodfather> godfather;
    ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_MTAObjectGodfather, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&godfather)));
    introduce(godfather.Get());
    // The STA godfather, called from here, runs on its own thread: the fault is caught there.
    StaThread sta;
    IStream* marshaled = nullptr;
    sta.Run([&] {
        ComPtr<IObjectGodfather> staGodfather;
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_STAObjectGodfather, nullptr, CLSCTX_INPROC_SERVER,
                                           IID_PPV_ARGS(&staGodfather)));
        ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IObjectGodfather, staGodfather.Get(), &marshaled));
    });
    ASSERT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(marshaled, IID_PPV_ARGS(godfather.ReleaseAndGetAddressOf())));
    introduce(godfather.Get());
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
