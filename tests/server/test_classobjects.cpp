// Class objects as a client meets them: lookup, the two kinds, aggregation
// per class, and the module lock count behind DllCanUnloadNow.
#include <wrl/client.h>

#include "classtable.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

using GetClassObjectFn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);

class ClassObjects : public ::testing::Test {
protected:
    void SetUp() override {
        m_dll = ::LoadLibraryW(DllPath().c_str());
        ASSERT_NE(nullptr, m_dll);
        m_get = reinterpret_cast<GetClassObjectFn>(
            reinterpret_cast<void*>(::GetProcAddress(m_dll, "DllGetClassObject")));
    }
    void TearDown() override { ::FreeLibrary(m_dll); }

    HMODULE m_dll = nullptr;
    GetClassObjectFn m_get = nullptr;
};

// An outer object for aggregation requests; it never keeps the inner.
class Outer : public IUnknown {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!IsEqualIID(riid, IID_IUnknown)) return E_NOINTERFACE;
        *ppv = this;
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
};

TEST_F(ClassObjects, UnknownClassIsNotAvailable) {
    void* out = reinterpret_cast<void*>(1);
    EXPECT_HR(CLASS_E_CLASSNOTAVAILABLE, m_get(IID_IStream, IID_IClassFactory, &out));
    EXPECT_EQ(nullptr, out);
}

TEST_F(ClassObjects, ModuleStaysLockedWhileAnObjectLives) {
    EXPECT_HR(S_OK, DllCanUnloadNow());
    ComPtr<IObjectGodfather> godfather;
    ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_MTAObjectGodfather, nullptr, CLSCTX_INPROC_SERVER,
                                       IID_IObjectGodfather, &godfather));
    EXPECT_HR(S_FALSE, DllCanUnloadNow());
    godfather.Reset();
    // The singleton is still kept by its class object, which does not count.
    EXPECT_HR(S_OK, DllCanUnloadNow());
}

TEST_F(ClassObjects, AClassObjectHeldOutsideOrLockedKeepsTheModule) {
    ComPtr<IClassFactory> factory;
    ASSERT_HR(S_OK, m_get(CLSID_MTAObjectGodfather, IID_IClassFactory, &factory));
    EXPECT_HR(S_FALSE, DllCanUnloadNow());
    EXPECT_HR(S_OK, factory->LockServer(TRUE));
    factory.Reset();
    EXPECT_HR(S_FALSE, DllCanUnloadNow());
    ASSERT_HR(S_OK, m_get(CLSID_MTAObjectGodfather, IID_IClassFactory, &factory));
    EXPECT_HR(S_OK, factory->LockServer(FALSE));
    factory.Reset();
    EXPECT_HR(S_OK, DllCanUnloadNow());
}

TEST_F(ClassObjects, OneClassObjectPerClass) {
    ComPtr<IClassFactory> a, b;
    ASSERT_HR(S_OK, m_get(CLSID_MTAObjectGodfather, IID_IClassFactory, &a));
    ASSERT_HR(S_OK, m_get(CLSID_MTAObjectGodfather, IID_IUnknown, &b));
    ComPtr<IUnknown> aIdentity;
    a.As(&aIdentity);
    EXPECT_EQ(aIdentity.Get(), b.Get());
}

TEST_F(ClassObjects, SingletonsGiveTheSameObjectEveryTime) {
    for (const auto& c : kExpectedClasses) {
        if (!c.singleton || !Served(*c.clsid)) continue;
        SCOPED_TRACE(Narrow(c.progId));
        ComPtr<IClassFactory> factory;
        ASSERT_HR(S_OK, m_get(*c.clsid, IID_IClassFactory, &factory));
        ComPtr<IUnknown> a, b;
        ASSERT_HR(S_OK, factory->CreateInstance(nullptr, IID_IUnknown, &a));
        ASSERT_HR(S_OK, factory->CreateInstance(nullptr, IID_IUnknown, &b));
        EXPECT_EQ(a.Get(), b.Get());
        EXPECT_HR(E_POINTER, factory->CreateInstance(nullptr, IID_IUnknown, nullptr));
    }
}

TEST_F(ClassObjects, AggregationIsGrantedOrRefusedPerClass) {
    Outer outer;
    for (const auto& c : kExpectedClasses) {
        if (!Served(*c.clsid)) continue;
        SCOPED_TRACE(Narrow(c.progId));
        ComPtr<IClassFactory> factory;
        ASSERT_HR(S_OK, m_get(*c.clsid, IID_IClassFactory, &factory));
        IUnknown* inner = reinterpret_cast<IUnknown*>(1);
        HRESULT hr = factory->CreateInstance(&outer, IID_IUnknown, reinterpret_cast<void**>(&inner));
        if (c.aggregatable) {
            EXPECT_HR(S_OK, hr);
            ASSERT_NE(nullptr, inner);
            EXPECT_NE(static_cast<IUnknown*>(&outer), inner);
            inner->Release();
        } else {
            EXPECT_HR(CLASS_E_NOAGGREGATION, hr);
            EXPECT_EQ(nullptr, inner);
            EXPECT_HR(E_POINTER, factory->CreateInstance(&outer, IID_IUnknown, nullptr));
        }
    }
}

TEST_F(ClassObjects, TheProxyStubClassObjectIsServedFirst) {
    std::wstring proxyStub;
    ASSERT_TRUE(ReadRegString(HKEY_CLASSES_ROOT, L"Interface\\" + GuidText(IID_IObjectGodfather) + L"\\ProxyStubClsid32",
                              nullptr, &proxyStub));
    CLSID clsid;
    ASSERT_HR(S_OK, ::CLSIDFromString(proxyStub.c_str(), &clsid));
    ComPtr<IPSFactoryBuffer> buffer;
    EXPECT_HR(S_OK, m_get(clsid, IID_IPSFactoryBuffer, &buffer));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
