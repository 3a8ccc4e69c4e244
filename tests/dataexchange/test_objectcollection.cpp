// Object collections made by the factory from arrays and from client
// enumerators, their clone policies and their enumerators. Every test ends
// with the selected objects' reference counts back at their start values.
#include <deque>
#include <string>
#include <vector>

#include "exchange.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

using Items = std::vector<IUnknown*>;

// What a client enumerator and its clones share: the failures to inject and
// the sizes of the Next requests they were asked.
struct Control {
    std::deque<HRESULT> clones;  // outcomes of the coming Clone calls (S_FALSE: S_OK without a clone)
    HRESULT nextResult = S_OK;
    std::vector<ULONG> requests;
};

// A client's enumerator over the test's objects (which outlive it); the
// collections only clone and fetch.
class ItemEnum : public IEnumUnknown {
public:
    ItemEnum(Items items, Control* control, size_t position)
        : m_items(std::move(items)), m_control(control), m_position(position) {}
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        *ppv = IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IEnumUnknown) ? this : nullptr;
        if (!*ppv) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ::InterlockedIncrement(&m_refs); }
    STDMETHODIMP_(ULONG) Release() override {
        LONG refs = ::InterlockedDecrement(&m_refs);
        if (refs == 0) delete this;
        return refs;
    }
    STDMETHODIMP Next(ULONG celt, IUnknown** rgelt, ULONG* fetched) override {
        m_control->requests.push_back(celt);
        if (FAILED(m_control->nextResult)) return m_control->nextResult;
        ULONG count = 0;
        for (; count < celt && m_position < m_items.size(); ++count) (rgelt[count] = m_items[m_position++])->AddRef();
        if (fetched) *fetched = count;
        return count == celt ? S_OK : S_FALSE;
    }
    STDMETHODIMP Skip(ULONG) override { return E_NOTIMPL; }
    STDMETHODIMP Reset() override { return E_NOTIMPL; }
    STDMETHODIMP Clone(IEnumUnknown** ppenum) override {
        *ppenum = nullptr;
        HRESULT hr = S_OK;
        if (!m_control->clones.empty()) {
            hr = m_control->clones.front();
            m_control->clones.pop_front();
        }
        if (hr != S_OK) return hr == S_FALSE ? S_OK : hr;
        (*ppenum = new ItemEnum(m_items, m_control, m_position))->AddRef();
        return S_OK;
    }

private:
    virtual ~ItemEnum() = default;
    volatile LONG m_refs = 0;  // (MinGW's ComPtr adds a reference even when it attaches)
    Items m_items;
    Control* m_control;
    size_t m_position;
};

ComPtr<IKyObjectCollectionFactory> Factory() {
    return CreateInstance<IKyObjectCollectionFactory>(CLSID_KyObjectCollectionFactory);
}

class ObjectCollections : public ::testing::Test {
protected:
    // Every collection, clone and enumerator of the test is gone by now.
    void TearDown() override {
        for (Counted* item : {&a, &x, &y, &z}) EXPECT_EQ(1, item->Refs());
    }
    ComPtr<IEnumUnknown> Client(Items items, size_t position = 0) {
        return ComPtr<IEnumUnknown>(new ItemEnum(items, &control, position));
    }
    std::string Name(IUnknown* p) { return p == &a ? "a" : p == &x ? "x" : p == &y ? "y" : p == &z ? "z" : "?"; }
    // The names of the objects an enumerator yields from where it stands, fetched one by one.
    std::string Drain(IEnumUnknown* e) {
        std::string names;
        IUnknown* item = nullptr;
        ULONG fetched = 0;
        while (e->Next(1, &item, &fetched) == S_OK) {
            names += Name(item);
            item->Release();
        }
        return names;
    }
    // "<type> <active> <objects>", e.g. "multiple a xyz"; the objects read "-"
    // when the collection has no enumerator (EnumObjects gives E_UNEXPECTED).
    std::string Describe(IKyObjectCollection* c) {
        static const char* const kTypes[] = {"none", "single", "multiple"};
        KYOBJECTCOLLECTIONTYPE type = KYOCT_NO_OBJECTS;
        ComPtr<IUnknown> active;
        ComPtr<IEnumUnknown> e;
        EXPECT_HR(S_OK, c->get_type(&type));
        EXPECT_HR(S_OK, c->get_Active(&active));
        HRESULT hr = c->EnumObjects(&e);
        std::string text = std::string(kTypes[type % 3]) + " " + Name(active.Get()) + " ";
        if (hr == E_UNEXPECTED && !e) return text + "-";
        EXPECT_HR(S_OK, hr);
        return text + (e ? Drain(e.Get()) : "?");
    }

    Counted a, x, y, z;  // a is the active object
    Control control;
};

TEST_F(ObjectCollections, FromAnArrayTheCountGivesTheTypeAndBadPairsAreRefused) {
    IUnknown* objects[3] = {&x, &y, &z};
    auto factory = Factory();
    ComPtr<IKyObjectCollection> none, one, many;
    ASSERT_HR(S_OK, factory->CreateObjectCollection(&a, 0, nullptr, &none));
    ASSERT_HR(S_OK, factory->CreateObjectCollection(&a, 1, objects, &one));
    ASSERT_HR(S_OK, factory->CreateObjectCollection(&a, 3, objects, &many));
    objects[0] = objects[1] = objects[2] = &a;  // the caller may reuse its array at once
    EXPECT_EQ("none a ", Describe(none.Get()));  // an empty enumerator, not a failure
    EXPECT_EQ("single a x", Describe(one.Get()));
    EXPECT_EQ("multiple a xyz", Describe(many.Get()));

    IKyObjectCollection* c = reinterpret_cast<IKyObjectCollection*>(1);
    EXPECT_HR(E_INVALIDARG, factory->CreateObjectCollection(&a, 2, nullptr, &c));
    EXPECT_EQ(nullptr, c);
    EXPECT_HR(E_INVALIDARG, factory->CreateObjectCollection(&a, 0, objects, &c));
    EXPECT_HR(E_INVALIDARG, factory->CreateObjectCollection(nullptr, 2, objects, &c));
    EXPECT_HR(E_POINTER, factory->CreateObjectCollection(&a, 2, objects, nullptr));
    EXPECT_HR(E_POINTER, many->EnumObjects(nullptr));
    EXPECT_HR(E_POINTER, many->get_Active(nullptr));
    EXPECT_HR(E_POINTER, many->get_type(nullptr));
}

TEST_F(ObjectCollections, FromAnEnumeratorUpToTwoObjectsAreCountedFromWhereItStands) {
    auto factory = Factory();
    ComPtr<IKyObjectCollection> none, empty, one, many, rest;
    ASSERT_HR(S_OK, factory->ConvertEnumToObjectCollection(&a, nullptr, &none));
    ASSERT_HR(S_OK, factory->ConvertEnumToObjectCollection(&a, Client({}).Get(), &empty));
    ASSERT_HR(S_OK, factory->ConvertEnumToObjectCollection(&a, Client({&x}).Get(), &one));
    control.requests.clear();
    ASSERT_HR(S_OK, factory->ConvertEnumToObjectCollection(&a, Client({&x, &y, &z, &x, &y}).Get(), &many));
    EXPECT_EQ(std::vector<ULONG>({2}), control.requests);
    EXPECT_EQ("none a -", Describe(none.Get()));  // unlike an empty array: no enumerator
    EXPECT_EQ("none a -", Describe(empty.Get()));
    EXPECT_EQ("single a x", Describe(one.Get()));
    EXPECT_EQ("multiple a xyzxy", Describe(many.Get()));

    // The client's own enumerator is not moved.
    ComPtr<IEnumUnknown> client = Client({&x, &y, &z}, 2);
    ASSERT_HR(S_OK, factory->ConvertEnumToObjectCollection(&a, client.Get(), &rest));
    EXPECT_EQ("single a z", Describe(rest.Get()));
    EXPECT_EQ("z", Drain(client.Get()));
}

TEST_F(ObjectCollections, FromAnEnumeratorTheClientsFailuresComeBack) {
    auto factory = Factory();
    ComPtr<IEnumUnknown> client = Client({&x, &y});
    ComPtr<IKyObjectCollection> c;
    EXPECT_HR(E_INVALIDARG, factory->ConvertEnumToObjectCollection(nullptr, client.Get(), &c));
    EXPECT_HR(E_POINTER, factory->ConvertEnumToObjectCollection(&a, client.Get(), nullptr));
    control.clones = {E_ACCESSDENIED};
    EXPECT_HR(E_ACCESSDENIED, factory->ConvertEnumToObjectCollection(&a, client.Get(), &c));
    control.clones = {S_FALSE};
    EXPECT_HR(E_UNEXPECTED, factory->ConvertEnumToObjectCollection(&a, client.Get(), &c));
    control.clones = {S_OK, E_NOTIMPL};  // counting succeeds, keeping a copy fails
    EXPECT_HR(E_NOTIMPL, factory->ConvertEnumToObjectCollection(&a, client.Get(), &c));
    control.nextResult = E_OUTOFMEMORY;
    EXPECT_HR(E_OUTOFMEMORY, factory->ConvertEnumToObjectCollection(&a, client.Get(), &c));
    EXPECT_EQ(nullptr, c.Get());
}

TEST_F(ObjectCollections, EveryEnumeratorStartsAtTheFirstObject) {
    IUnknown* objects[3] = {&x, &y, &z};
    ComPtr<IKyObjectCollection> c;
    ASSERT_HR(S_OK, Factory()->CreateObjectCollection(&a, 3, objects, &c));
    ComPtr<IEnumUnknown> first, second;
    ASSERT_HR(S_OK, c->EnumObjects(&first));
    ASSERT_HR(S_OK, c->EnumObjects(&second));
    EXPECT_EQ("xyz", Drain(first.Get()));
    EXPECT_EQ("xyz", Drain(second.Get()));
}

TEST_F(ObjectCollections, ClonesFollowTheirPolicyAndKeepTheActiveObject) {
    IUnknown* objects[3] = {&x, &y, &z};
    ComPtr<IKyObjectCollection> c, all, single, ignored;
    ASSERT_HR(S_OK, Factory()->CreateObjectCollection(&a, 3, objects, &c));
    ASSERT_HR(S_OK, c->Clone(KYOCCP_CLONEALL, &all));
    ASSERT_HR(S_OK, c->Clone(KYOCCP_CONVERTTOSINGLEOBJECT, &single));
    ASSERT_HR(S_OK, c->Clone(KYOCCP_IGNOREOBJECTS, &ignored));
    EXPECT_EQ("multiple a xyz", Describe(all.Get()));
    EXPECT_EQ("single a a", Describe(single.Get()));
    EXPECT_EQ("none a -", Describe(ignored.Get()));
    IKyObjectCollection* bad = reinterpret_cast<IKyObjectCollection*>(1);
    EXPECT_HR(E_INVALIDARG, c->Clone(static_cast<KYOBJECTCOLLECTIONCLONEPOLICY>(3), &bad));
    EXPECT_EQ(nullptr, bad);
    EXPECT_HR(E_POINTER, c->Clone(KYOCCP_CLONEALL, nullptr));

    // Cloning all of an enumerator collection does not count again: the type is known.
    ComPtr<IKyObjectCollection> fromClient, allOfClient, none, allOfNone;
    ASSERT_HR(S_OK, Factory()->ConvertEnumToObjectCollection(&a, Client({&x, &y, &z}).Get(), &fromClient));
    control.requests.clear();
    ASSERT_HR(S_OK, fromClient->Clone(KYOCCP_CLONEALL, &allOfClient));
    EXPECT_TRUE(control.requests.empty());
    EXPECT_EQ("multiple a xyz", Describe(allOfClient.Get()));
    // A collection without objects clones to one without an enumerator.
    ASSERT_HR(S_OK, Factory()->CreateObjectCollection(&a, 0, nullptr, &none));
    ASSERT_HR(S_OK, none->Clone(KYOCCP_CLONEALL, &allOfNone));
    EXPECT_EQ("none a -", Describe(allOfNone.Get()));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
