// The object base: QueryInterface from the interface list, reference
// counting, the module lock, aggregation and the free-threaded marshaler.
#include <wrl/client.h>

#include "kytest.h"
#include "testobjects.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

LONG Locks() { return com::Module::Get().LockCount(); }

TEST(Object, AnswersListedInterfacesWithOneIdentity) {
    ComPtr<IPersistStream> stream;
    ASSERT_HR(S_OK, Widget::CreateInstance(nullptr, IID_IPersistStream, &stream));
    ComPtr<IPersist> persist;
    ASSERT_HR(S_OK, stream.As(&persist));
    EXPECT_EQ(static_cast<IPersist*>(stream.Get()), persist.Get());  // IPersist through IPersistStream

    ComPtr<IUnknown> a, b;
    ASSERT_HR(S_OK, stream.As(&a));
    ASSERT_HR(S_OK, persist.As(&b));
    EXPECT_EQ(a.Get(), b.Get());

    ComPtr<IStream> notThere;
    void* out = reinterpret_cast<void*>(1);
    EXPECT_HR(E_NOINTERFACE, stream->QueryInterface(IID_IStream, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_HR(E_POINTER, stream->QueryInterface(IID_IUnknown, nullptr));
}

TEST(Object, LivesByItsReferencesAndLocksTheModuleMeanwhile) {
    ASSERT_EQ(0, Locks());
    IPersist* persist = nullptr;
    ASSERT_HR(S_OK, Widget::CreateInstance(nullptr, IID_IPersist, reinterpret_cast<void**>(&persist)));
    EXPECT_EQ(1, Widget::s_live);
    EXPECT_EQ(1, Locks());
    EXPECT_EQ(2u, persist->AddRef());
    EXPECT_EQ(1u, persist->Release());
    EXPECT_EQ(0u, persist->Release());
    EXPECT_EQ(0, Widget::s_live);
    EXPECT_EQ(0, Locks());
}

TEST(Object, FailedConstructionLeavesNothingBehind) {
    Fragile::s_failures = 1;
    void* out = reinterpret_cast<void*>(1);
    EXPECT_HR(E_ACCESSDENIED, Fragile::CreateInstance(nullptr, IID_IPersist, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(0, Locks());
    EXPECT_HR(E_NOINTERFACE, Fragile::CreateInstance(nullptr, IID_IStream, &out));
    EXPECT_EQ(0, Locks());
}

// A hand-written outer object aggregating a Widget.
class Outer : public IPersistFile {
public:
    Outer() { EXPECT_HR(S_OK, Widget::CreateInstance(this, IID_IUnknown, reinterpret_cast<void**>(&m_inner))); }
    ~Outer() { m_inner->Release(); }
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IPersistFile)) {
            *ppv = static_cast<IPersistFile*>(this);
            AddRef();
            return S_OK;
        }
        return m_inner->QueryInterface(riid, ppv);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
    STDMETHODIMP_(ULONG) Release() override { return --refs; }
    STDMETHODIMP GetClassID(CLSID*) override { return E_NOTIMPL; }
    STDMETHODIMP IsDirty() override { return E_NOTIMPL; }
    STDMETHODIMP Load(LPCOLESTR, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Save(LPCOLESTR, BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP SaveCompleted(LPCOLESTR) override { return E_NOTIMPL; }
    STDMETHODIMP GetCurFile(LPOLESTR*) override { return E_NOTIMPL; }

    ULONG refs = 1;
    IUnknown* m_inner = nullptr;
};

TEST(Object, AggregatedInnerDelegatesToItsOuter) {
    {
        Outer outer;
        ASSERT_NE(nullptr, outer.m_inner);
        IPersistStream* stream = nullptr;
        ASSERT_HR(S_OK, outer.QueryInterface(IID_IPersistStream, reinterpret_cast<void**>(&stream)));
        EXPECT_EQ(2u, outer.refs);  // the reference went to the outer

        IUnknown* identity = nullptr;
        ASSERT_HR(S_OK, stream->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity)));
        EXPECT_EQ(static_cast<IUnknown*>(static_cast<IPersistFile*>(&outer)), identity);
        IPersistFile* file = nullptr;
        EXPECT_HR(S_OK, stream->QueryInterface(IID_IPersistFile, reinterpret_cast<void**>(&file)));
        identity->Release();
        file->Release();
        stream->Release();
        EXPECT_EQ(1u, outer.refs);
        EXPECT_EQ(1, Widget::s_live);
    }
    EXPECT_EQ(0, Widget::s_live);
}

TEST(Object, AggregationAsksForIUnknownOnly) {
    Outer outer;
    void* out = reinterpret_cast<void*>(1);
    EXPECT_HR(CLASS_E_NOAGGREGATION,
              Widget::CreateInstance(static_cast<IPersistFile*>(&outer), IID_IPersistStream, &out));
    EXPECT_EQ(nullptr, out);
}

TEST(Object, FreeThreadedObjectIsNotMarshalled) {
    ComPtr<IPersist> agile;
    ASSERT_HR(S_OK, Agile::CreateInstance(nullptr, IID_IPersist, &agile));
    ComPtr<IMarshal> marshal;
    EXPECT_HR(S_OK, agile.As(&marshal));
    marshal.Reset();

    IStream* stream = nullptr;
    ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IPersist, agile.Get(), &stream));
    IPersist* elsewhere = nullptr;
    RunInApartment(COINIT_APARTMENTTHREADED, [&] {
        EXPECT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(stream, IID_IPersist, reinterpret_cast<void**>(&elsewhere)));
    });
    EXPECT_EQ(agile.Get(), elsewhere);  // the raw pointer, not a proxy
    if (elsewhere) elsewhere->Release();
}

TEST(Object, MakeGivesTheClassItself) {
    ComPtr<Widget> widget;
    ASSERT_HR(S_OK, Widget::Make(widget));
    CLSID clsid;
    EXPECT_HR(S_OK, widget->GetClassID(&clsid));
    EXPECT_EQ(1, Locks());
}

}  // namespace
}  // namespace ky::test
