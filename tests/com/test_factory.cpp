// Ordinary and singleton class objects, and how cached objects count in the
// module lock count.
#include <wrl/client.h>

#include <thread>
#include <vector>

#include "kytest.h"
#include "testobjects.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

LONG Locks() { return com::Module::Get().LockCount(); }

// Makes a class object the way the server's object map does: cached.
template <class Factory>
ComPtr<IClassFactory> CachedClassObject() {
    ComPtr<Factory> factory;
    EXPECT_HR(S_OK, Factory::Make(factory));
    factory->MakeCached();
    ComPtr<IClassFactory> classObject;
    factory.As(&classObject);
    return classObject;
}

TEST(ClassFactory, CachedClassObjectCountsOnlyWhenHeldOutside) {
    ComPtr<IClassFactory> keeper = CachedClassObject<com::ClassFactory<Widget>>();
    EXPECT_EQ(0, Locks());
    ComPtr<IClassFactory> client = keeper;  // a second reference, as a client's
    EXPECT_EQ(1, Locks());
    client.Reset();
    EXPECT_EQ(0, Locks());
    EXPECT_HR(S_OK, keeper->LockServer(TRUE));
    EXPECT_EQ(1, Locks());
    EXPECT_HR(S_OK, keeper->LockServer(FALSE));
    EXPECT_EQ(0, Locks());
}

TEST(ClassFactory, MakesANewObjectPerRequest) {
    ComPtr<IClassFactory> factory = CachedClassObject<com::ClassFactory<Widget>>();
    ComPtr<IUnknown> a, b;
    ASSERT_HR(S_OK, factory->CreateInstance(nullptr, IID_IUnknown, &a));
    ASSERT_HR(S_OK, factory->CreateInstance(nullptr, IID_IUnknown, &b));
    EXPECT_NE(a.Get(), b.Get());
    EXPECT_EQ(2, Widget::s_live);
}

TEST(ClassFactory, RefusedAggregationChecksTheOutPointerFirst) {
    ComPtr<IClassFactory> factory = CachedClassObject<com::ClassFactory<Agile>>();
    ComPtr<IUnknown> outer;
    ASSERT_HR(S_OK, Widget::CreateInstance(nullptr, IID_IUnknown, &outer));
    EXPECT_HR(E_POINTER, factory->CreateInstance(outer.Get(), IID_IUnknown, nullptr));
    void* out = reinterpret_cast<void*>(1);
    EXPECT_HR(CLASS_E_NOAGGREGATION, factory->CreateInstance(outer.Get(), IID_IUnknown, &out));
    EXPECT_EQ(nullptr, out);
}

TEST(SingletonFactory, EveryRequestGetsTheSameObject) {
    ComPtr<IClassFactory> factory = CachedClassObject<com::SingletonFactory<Widget>>();
    ComPtr<IUnknown> a, b;
    ASSERT_HR(S_OK, factory->CreateInstance(nullptr, IID_IUnknown, &a));
    ASSERT_HR(S_OK, factory->CreateInstance(nullptr, IID_IPersist, &b));
    ComPtr<IUnknown> bIdentity;
    b.As(&bIdentity);
    EXPECT_EQ(a.Get(), bIdentity.Get());
    EXPECT_EQ(1, Widget::s_live);
    // A reference held outside counts; the one the class object keeps does not.
    EXPECT_EQ(1, Locks());
    a.Reset();
    b.Reset();
    bIdentity.Reset();
    EXPECT_EQ(0, Locks());
    EXPECT_EQ(1, Widget::s_live);  // kept by its class object
    factory.Reset();
    EXPECT_EQ(0, Widget::s_live);
}

TEST(SingletonFactory, RefusesAggregationAndNullOutPointer) {
    ComPtr<IClassFactory> factory = CachedClassObject<com::SingletonFactory<Widget>>();
    ComPtr<IUnknown> outer;
    ASSERT_HR(S_OK, Agile::CreateInstance(nullptr, IID_IUnknown, &outer));
    EXPECT_HR(E_POINTER, factory->CreateInstance(nullptr, IID_IUnknown, nullptr));
    void* out = reinterpret_cast<void*>(1);
    EXPECT_HR(CLASS_E_NOAGGREGATION, factory->CreateInstance(outer.Get(), IID_IUnknown, &out));
    EXPECT_EQ(nullptr, out);
}

TEST(SingletonFactory, ConcurrentFirstRequestsMakeOneObject) {
    for (int round = 0; round < 20; ++round) {
        ComPtr<IClassFactory> factory = CachedClassObject<com::SingletonFactory<Widget>>();
        std::vector<IUnknown*> got(8, nullptr);
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (size_t i = 0; i < got.size(); ++i) {
            threads.emplace_back([&, i] {
                ++ready;
                while (ready < static_cast<int>(got.size())) {
                }
                factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&got[i]));
            });
        }
        for (auto& t : threads) t.join();
        for (IUnknown* p : got) {
            EXPECT_EQ(got[0], p);
            if (p) p->Release();
        }
        EXPECT_EQ(1, Widget::s_live);
    }
}

TEST(SingletonFactory, RemembersAFailedCreation) {
    ComPtr<IClassFactory> factory = CachedClassObject<com::SingletonFactory<Fragile>>();
    Fragile::s_constructed = 0;
    Fragile::s_failures = 1;
    void* out = nullptr;
    EXPECT_HR(E_ACCESSDENIED, factory->CreateInstance(nullptr, IID_IUnknown, &out));
    EXPECT_HR(E_ACCESSDENIED, factory->CreateInstance(nullptr, IID_IUnknown, &out));
    EXPECT_EQ(1, Fragile::s_constructed);  // not retried
}

TEST(SingletonFactory, UnsupportedInterfaceStillKeepsTheInstance) {
    ComPtr<IClassFactory> factory = CachedClassObject<com::SingletonFactory<Widget>>();
    void* out = reinterpret_cast<void*>(1);
    EXPECT_HR(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_IStream, &out));
    EXPECT_EQ(nullptr, out);
    ComPtr<IPersist> persist;
    EXPECT_HR(S_OK, factory->CreateInstance(nullptr, IID_IPersist, &persist));
}

}  // namespace
}  // namespace ky::test
