// The object base and the singleton class object: interfaces, identity,
// reference counting, the module lock and aggregation. (The class objects of
// the DLL's own classes are tested through the DLL in the server's tests.)
#include <wrl/client.h>

#include <thread>
#include <vector>

#include "kytest.h"
#include "testobjects.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

LONG Locks() { return com::Module::Get().LockCount(); }

TEST(Object, OneIdentityAndTheModuleLockedWhileItLives) {
    IPersistStream* stream = nullptr;
    ASSERT_HR(S_OK, Widget::CreateInstance(nullptr, IID_IPersistStream, reinterpret_cast<void**>(&stream)));
    EXPECT_EQ(1, Locks());
    ComPtr<IPersist> persist;
    ComPtr<IUnknown> a, b;
    ASSERT_HR(S_OK, stream->QueryInterface(IID_PPV_ARGS(&persist)));
    EXPECT_EQ(static_cast<IPersist*>(stream), persist.Get());
    stream->QueryInterface(IID_PPV_ARGS(&a));
    persist.As(&b);
    EXPECT_EQ(a.Get(), b.Get());
    void* out = reinterpret_cast<void*>(1);
    EXPECT_HR(E_NOINTERFACE, stream->QueryInterface(IID_IStream, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_HR(E_POINTER, stream->QueryInterface(IID_IUnknown, nullptr));
    persist.Reset(), a.Reset(), b.Reset();
    EXPECT_EQ(0u, stream->Release());
    EXPECT_EQ(0, Locks());
    Widget::s_failures = 1;  // a failed construction leaves nothing behind
    EXPECT_HR(E_ACCESSDENIED, Widget::CreateInstance(nullptr, IID_IPersist, &out));
    EXPECT_EQ(nullptr, out);
}

// A hand-written outer object aggregating a Widget.
struct Outer : IUnknown {
    Outer() { EXPECT_HR(S_OK, Widget::CreateInstance(this, IID_IUnknown, reinterpret_cast<void**>(&inner))); }
    ~Outer() { inner->Release(); }
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!IsEqualIID(riid, IID_IUnknown)) return inner->QueryInterface(riid, ppv);
        *ppv = this;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
    STDMETHODIMP_(ULONG) Release() override { return --refs; }
    ULONG refs = 1;
    IUnknown* inner = nullptr;
};

TEST(Object, AnAggregatedInnerDelegatesToItsOuterAndIsMadeForIUnknownOnly) {
    Outer outer;
    ComPtr<IPersistStream> stream;
    ASSERT_HR(S_OK, outer.QueryInterface(IID_PPV_ARGS(&stream)));
    EXPECT_EQ(2u, outer.refs);  // the reference went to the outer
    ComPtr<IUnknown> identity;
    ASSERT_HR(S_OK, stream.As(&identity));
    EXPECT_EQ(static_cast<IUnknown*>(&outer), identity.Get());
    identity.Reset(), stream.Reset();
    void* out = reinterpret_cast<void*>(1);
    EXPECT_HR(CLASS_E_NOAGGREGATION, Widget::CreateInstance(&outer, IID_IPersistStream, &out));
    EXPECT_EQ(nullptr, out);
}

TEST(SingletonFactory, MakesTheOneObjectOnceAndRemembersAFailure) {
    for (int failures : {0, 1}) {
        ComPtr<com::SingletonFactory<Widget>> factory;
        ASSERT_HR(S_OK, com::SingletonFactory<Widget>::Make(factory));
        Widget::s_constructed = 0, Widget::s_failures = failures;
        ComPtr<IUnknown> a, b;
        EXPECT_HR(failures ? E_ACCESSDENIED : S_OK, factory->CreateInstance(nullptr, IID_PPV_ARGS(&a)));
        EXPECT_HR(failures ? E_ACCESSDENIED : S_OK, factory->CreateInstance(nullptr, IID_PPV_ARGS(&b)));  // not retried
        EXPECT_EQ(a.Get(), b.Get());
        EXPECT_EQ(1, Widget::s_constructed);
    }
}

// Threads that meet on one lock, each entering it twice over: every
// increment of the plain counter happens under it, none is lost.
TEST(CriticalSection, ExcludesOtherThreadsAndLetsItsHolderReenter) {
    com::CriticalSection section;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 200000; ++i) {
                com::Lock outer(section);
                com::Lock inner(section);
                counter = counter + 1;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(800000, counter);
}

}  // namespace
}  // namespace ky::test
