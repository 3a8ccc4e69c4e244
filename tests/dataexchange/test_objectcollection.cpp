// Object collections made by the factory from arrays and from client
// enumerators, their three clone policies and their enumerators, with the
// objects' reference counts checked against their start values.
#include <wrl/client.h>

#include <memory>
#include <vector>

#include "exchange.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

// The selected objects are test-owned objects that count their references.
using Item = Counted;

// What the client enumerators of one test share: injected failures and
// what was asked of them.
struct EnumControl {
    HRESULT cloneResult = S_OK;
    int clonesBeforeFailure = -1;  // -1: never fail
    bool cloneGivesNull = false;
    HRESULT nextResult = S_OK;
    int nextCalls = 0;
    ULONG largestRequest = 0;
};

// A client's enumerator over items, holding a reference on each.
class ItemEnum : public IEnumUnknown {
public:
    static ComPtr<IEnumUnknown> Make(std::vector<IUnknown*> items, std::shared_ptr<EnumControl> control,
                                     size_t position = 0) {
        return ComPtr<IEnumUnknown>(new ItemEnum(std::move(items), std::move(control), position));
    }

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        return AnswerFor(this, IID_IEnumUnknown, riid, ppv);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ::InterlockedIncrement(&m_refs); }
    STDMETHODIMP_(ULONG) Release() override {
        LONG refs = ::InterlockedDecrement(&m_refs);
        if (refs == 0) delete this;
        return refs;
    }
    STDMETHODIMP Next(ULONG celt, IUnknown** rgelt, ULONG* fetched) override {
        ++m_control->nextCalls;
        if (celt > m_control->largestRequest) m_control->largestRequest = celt;
        if (FAILED(m_control->nextResult)) return m_control->nextResult;
        ULONG count = 0;
        while (count < celt && m_position < m_items.size()) {
            rgelt[count] = m_items[m_position++];
            rgelt[count++]->AddRef();
        }
        if (fetched) *fetched = count;
        return count == celt ? S_OK : S_FALSE;
    }
    STDMETHODIMP Skip(ULONG celt) override {
        m_position += celt;
        if (m_position <= m_items.size()) return S_OK;
        m_position = m_items.size();
        return S_FALSE;
    }
    STDMETHODIMP Reset() override {
        m_position = 0;
        return S_OK;
    }
    STDMETHODIMP Clone(IEnumUnknown** ppenum) override {
        *ppenum = nullptr;
        if (m_control->clonesBeforeFailure == 0 || FAILED(m_control->cloneResult))
            return FAILED(m_control->cloneResult) ? m_control->cloneResult : E_NOTIMPL;
        if (m_control->clonesBeforeFailure > 0) --m_control->clonesBeforeFailure;
        if (m_control->cloneGivesNull) return S_OK;
        *ppenum = new ItemEnum(m_items, m_control, m_position);
        (*ppenum)->AddRef();
        return S_OK;
    }

private:
    ItemEnum(std::vector<IUnknown*> items, std::shared_ptr<EnumControl> control, size_t position)
        : m_items(std::move(items)), m_control(std::move(control)), m_position(position) {
        for (IUnknown* item : m_items) item->AddRef();
    }
    virtual ~ItemEnum() {
        for (IUnknown* item : m_items) item->Release();
    }

    volatile LONG m_refs = 0;  // (MinGW's ComPtr adds a reference even on Attach)
    std::vector<IUnknown*> m_items;
    std::shared_ptr<EnumControl> m_control;
    size_t m_position;
};

ComPtr<IKyObjectCollectionFactory> Factory() {
    return CreateInstance<IKyObjectCollectionFactory>(CLSID_KyObjectCollectionFactory);
}

KYOBJECTCOLLECTIONTYPE TypeOf(IKyObjectCollection* c) {
    KYOBJECTCOLLECTIONTYPE type = static_cast<KYOBJECTCOLLECTIONTYPE>(-1);
    EXPECT_HR(S_OK, c->get_type(&type));
    return type;
}

// The objects an enumerator yields from where it stands, fetched one by one.
std::vector<IUnknown*> Drain(IEnumUnknown* e) {
    std::vector<IUnknown*> out;
    IUnknown* item = nullptr;
    ULONG fetched = 0;
    while (e->Next(1, &item, &fetched) == S_OK) {
        out.push_back(item);
        item->Release();
    }
    return out;
}

std::vector<IUnknown*> Contents(IKyObjectCollection* c) {
    ComPtr<IEnumUnknown> e;
    EXPECT_HR(S_OK, c->EnumObjects(&e));
    return e ? Drain(e.Get()) : std::vector<IUnknown*>();
}

IUnknown* ActiveOf(IKyObjectCollection* c) {
    ComPtr<IUnknown> active;
    EXPECT_HR(S_OK, c->get_Active(&active));
    return active.Get();  // the test's items outlive the collection
}

class ObjectCollections : public ::testing::Test {
protected:
    void SetUp() override {
        for (Item* item : {&a, &x, &y, &z}) m_start.push_back(item->Refs());
    }
    // Every collection, clone and enumerator of the test is gone by now.
    void TearDown() override {
        std::vector<LONG> now;
        for (Item* item : {&a, &x, &y, &z}) now.push_back(item->Refs());
        EXPECT_EQ(m_start, now);
    }

    Item a, x, y, z;  // a is the active object
    std::shared_ptr<EnumControl> control = std::make_shared<EnumControl>();

private:
    std::vector<LONG> m_start;
};

TEST_F(ObjectCollections, TheFactoryIsOneObjectAndRefusesAggregation) {
    ComPtr<IKyObjectCollectionFactory> f1 = Factory(), f2 = Factory();
    EXPECT_EQ(f1.Get(), f2.Get());
    IUnknown* inner = reinterpret_cast<IUnknown*>(1);
    EXPECT_HR(CLASS_E_NOAGGREGATION,
              ::CoCreateInstance(CLSID_KyObjectCollectionFactory, &a, CLSCTX_INPROC_SERVER, IID_IUnknown,
                                 reinterpret_cast<void**>(&inner)));
    EXPECT_EQ(nullptr, inner);
    // The collection class has no class object of its own.
    ComPtr<IKyObjectCollection> unused;
    EXPECT_NE(S_OK, ::CoCreateInstance(IID_IKyObjectCollection, nullptr, CLSCTX_INPROC_SERVER,
                                       IID_IKyObjectCollection, &unused));
}

TEST_F(ObjectCollections, FromAnArrayTheCountGivesTheType) {
    IUnknown* objects[3] = {&x, &y, &z};
    ComPtr<IKyObjectCollection> none, one, many;
    ASSERT_HR(S_OK, Factory()->CreateObjectCollection(&a, 0, nullptr, &none));
    ASSERT_HR(S_OK, Factory()->CreateObjectCollection(&a, 1, objects, &one));
    ASSERT_HR(S_OK, Factory()->CreateObjectCollection(&a, 3, objects, &many));
    // The caller may reuse its array at once.
    objects[0] = objects[1] = objects[2] = &a;

    EXPECT_EQ(KYOCT_NO_OBJECTS, TypeOf(none.Get()));
    EXPECT_EQ(KYOCT_SINGLE_OBJECT, TypeOf(one.Get()));
    EXPECT_EQ(KYOCT_MULTIPLE_OBJECTS, TypeOf(many.Get()));
    EXPECT_TRUE(Contents(none.Get()).empty());  // an empty enumerator, not a failure
    EXPECT_EQ(std::vector<IUnknown*>({&x}), Contents(one.Get()));
    EXPECT_EQ(std::vector<IUnknown*>({&x, &y, &z}), Contents(many.Get()));
    EXPECT_EQ(static_cast<IUnknown*>(&a), ActiveOf(many.Get()));
}

TEST_F(ObjectCollections, FromAnArrayBadArgumentsAreRefused) {
    IUnknown* objects[2] = {&x, &y};
    auto factory = Factory();
    IKyObjectCollection* c = reinterpret_cast<IKyObjectCollection*>(1);
    EXPECT_HR(E_INVALIDARG, factory->CreateObjectCollection(&a, 2, nullptr, &c));
    EXPECT_EQ(nullptr, c);
    EXPECT_HR(E_INVALIDARG, factory->CreateObjectCollection(&a, 0, objects, &c));
    EXPECT_HR(E_INVALIDARG, factory->CreateObjectCollection(nullptr, 2, objects, &c));
    EXPECT_EQ(nullptr, c);
    EXPECT_HR(E_POINTER, factory->CreateObjectCollection(&a, 2, objects, nullptr));
}

TEST_F(ObjectCollections, FromAnEnumeratorUpToTwoObjectsAreCounted) {
    auto factory = Factory();
    ComPtr<IKyObjectCollection> none, empty, one, many;
    ASSERT_HR(S_OK, factory->ConvertEnumToObjectCollection(&a, nullptr, &none));
    ASSERT_HR(S_OK, factory->ConvertEnumToObjectCollection(&a, ItemEnum::Make({}, control).Get(), &empty));
    ASSERT_HR(S_OK, factory->ConvertEnumToObjectCollection(&a, ItemEnum::Make({&x}, control).Get(), &one));
    control->nextCalls = 0;
    control->largestRequest = 0;
    ASSERT_HR(S_OK,
              factory->ConvertEnumToObjectCollection(&a, ItemEnum::Make({&x, &y, &z, &x, &y}, control).Get(), &many));
    EXPECT_EQ(1, control->nextCalls);
    EXPECT_EQ(2u, control->largestRequest);

    // Unlike an empty array, no objects means no enumerator here.
    ComPtr<IEnumUnknown> e;
    EXPECT_EQ(KYOCT_NO_OBJECTS, TypeOf(none.Get()));
    EXPECT_HR(E_UNEXPECTED, none->EnumObjects(&e));
    EXPECT_EQ(KYOCT_NO_OBJECTS, TypeOf(empty.Get()));
    EXPECT_HR(E_UNEXPECTED, empty->EnumObjects(&e));
    EXPECT_EQ(nullptr, e.Get());
    EXPECT_EQ(KYOCT_SINGLE_OBJECT, TypeOf(one.Get()));
    EXPECT_EQ(std::vector<IUnknown*>({&x}), Contents(one.Get()));
    EXPECT_EQ(KYOCT_MULTIPLE_OBJECTS, TypeOf(many.Get()));
    EXPECT_EQ(5u, Contents(many.Get()).size());
    EXPECT_EQ(static_cast<IUnknown*>(&a), ActiveOf(many.Get()));
}

TEST_F(ObjectCollections, FromAnEnumeratorCountingStartsWhereItStandsAndLeavesItThere) {
    ComPtr<IEnumUnknown> client = ItemEnum::Make({&x, &y, &z}, control);
    ASSERT_HR(S_OK, client->Skip(2));
    ComPtr<IKyObjectCollection> c;
    ASSERT_HR(S_OK, Factory()->ConvertEnumToObjectCollection(&a, client.Get(), &c));
    EXPECT_EQ(KYOCT_SINGLE_OBJECT, TypeOf(c.Get()));
    EXPECT_EQ(std::vector<IUnknown*>({&z}), Contents(c.Get()));
    EXPECT_EQ(std::vector<IUnknown*>({&z}), Drain(client.Get()));  // the client's own is not moved
}

TEST_F(ObjectCollections, FromAnEnumeratorTheClientsFailuresComeBack) {
    auto factory = Factory();
    ComPtr<IEnumUnknown> client = ItemEnum::Make({&x, &y}, control);
    ComPtr<IKyObjectCollection> c;
    EXPECT_HR(E_INVALIDARG, factory->ConvertEnumToObjectCollection(nullptr, client.Get(), &c));
    EXPECT_HR(E_POINTER, factory->ConvertEnumToObjectCollection(&a, client.Get(), nullptr));

    control->cloneResult = E_ACCESSDENIED;
    EXPECT_HR(E_ACCESSDENIED, factory->ConvertEnumToObjectCollection(&a, client.Get(), &c));
    control->cloneResult = S_OK;
    control->cloneGivesNull = true;
    EXPECT_HR(E_UNEXPECTED, factory->ConvertEnumToObjectCollection(&a, client.Get(), &c));
    control->cloneGivesNull = false;
    control->nextResult = E_OUTOFMEMORY;
    EXPECT_HR(E_OUTOFMEMORY, factory->ConvertEnumToObjectCollection(&a, client.Get(), &c));
    control->nextResult = S_OK;
    // Counting succeeds, keeping a copy fails.
    control->clonesBeforeFailure = 1;
    EXPECT_HR(E_NOTIMPL, factory->ConvertEnumToObjectCollection(&a, client.Get(), &c));
    EXPECT_EQ(nullptr, c.Get());
    // (The half-made collections are gone: the fixture checks the references.)
}

TEST_F(ObjectCollections, EveryEnumeratorStartsAtTheFirstObject) {
    IUnknown* objects[3] = {&x, &y, &z};
    ComPtr<IKyObjectCollection> c;
    ASSERT_HR(S_OK, Factory()->CreateObjectCollection(&a, 3, objects, &c));
    ComPtr<IEnumUnknown> first, second;
    ASSERT_HR(S_OK, c->EnumObjects(&first));
    IUnknown* item = nullptr;
    ULONG fetched = 0;
    ASSERT_HR(S_OK, first->Next(1, &item, &fetched));
    EXPECT_EQ(static_cast<IUnknown*>(&x), item);
    item->Release();
    ASSERT_HR(S_OK, c->EnumObjects(&second));
    EXPECT_NE(first.Get(), second.Get());
    EXPECT_EQ(std::vector<IUnknown*>({&x, &y, &z}), Drain(second.Get()));
    EXPECT_EQ(std::vector<IUnknown*>({&y, &z}), Drain(first.Get()));
    EXPECT_HR(E_POINTER, c->EnumObjects(nullptr));
    EXPECT_HR(E_POINTER, c->get_Active(nullptr));
    EXPECT_HR(E_POINTER, c->get_type(nullptr));
}

TEST_F(ObjectCollections, ClonePoliciesFromAnArrayCollection) {
    IUnknown* objects[3] = {&x, &y, &z};
    ComPtr<IKyObjectCollection> c, all, single, ignored;
    ASSERT_HR(S_OK, Factory()->CreateObjectCollection(&a, 3, objects, &c));
    ASSERT_HR(S_OK, c->Clone(KYOCCP_CLONEALL, &all));
    ASSERT_HR(S_OK, c->Clone(KYOCCP_CONVERTTOSINGLEOBJECT, &single));
    ASSERT_HR(S_OK, c->Clone(KYOCCP_IGNOREOBJECTS, &ignored));
    for (auto* clone : {all.Get(), single.Get(), ignored.Get()}) EXPECT_EQ(static_cast<IUnknown*>(&a), ActiveOf(clone));

    EXPECT_EQ(KYOCT_MULTIPLE_OBJECTS, TypeOf(all.Get()));
    EXPECT_EQ(std::vector<IUnknown*>({&x, &y, &z}), Contents(all.Get()));
    EXPECT_EQ(KYOCT_SINGLE_OBJECT, TypeOf(single.Get()));
    EXPECT_EQ(std::vector<IUnknown*>({&a}), Contents(single.Get()));
    EXPECT_EQ(KYOCT_NO_OBJECTS, TypeOf(ignored.Get()));
    ComPtr<IEnumUnknown> e;
    EXPECT_HR(E_UNEXPECTED, ignored->EnumObjects(&e));

    IKyObjectCollection* bad = reinterpret_cast<IKyObjectCollection*>(1);
    EXPECT_HR(E_INVALIDARG, c->Clone(static_cast<KYOBJECTCOLLECTIONCLONEPOLICY>(3), &bad));
    EXPECT_EQ(nullptr, bad);
    EXPECT_HR(E_POINTER, c->Clone(KYOCCP_CLONEALL, nullptr));
}

TEST_F(ObjectCollections, CloningAllOfAnEnumeratorCollectionDoesNotCountAgain) {
    ComPtr<IKyObjectCollection> c, all, none, noneClone;
    ASSERT_HR(S_OK, Factory()->ConvertEnumToObjectCollection(&a, ItemEnum::Make({&x, &y, &z}, control).Get(), &c));
    const int nextCalls = control->nextCalls;
    ASSERT_HR(S_OK, c->Clone(KYOCCP_CLONEALL, &all));
    EXPECT_EQ(nextCalls, control->nextCalls);  // the type is known
    EXPECT_EQ(KYOCT_MULTIPLE_OBJECTS, TypeOf(all.Get()));
    EXPECT_EQ(std::vector<IUnknown*>({&x, &y, &z}), Contents(all.Get()));

    // A collection without objects clones to one without objects.
    ASSERT_HR(S_OK, Factory()->CreateObjectCollection(&a, 0, nullptr, &none));
    ASSERT_HR(S_OK, none->Clone(KYOCCP_CLONEALL, &noneClone));
    EXPECT_EQ(KYOCT_NO_OBJECTS, TypeOf(noneClone.Get()));
    ComPtr<IEnumUnknown> e;
    EXPECT_HR(E_UNEXPECTED, noneClone->EnumObjects(&e));
}

// Enumerators are checked within one apartment only: Wine 8's x86_64
// proxy of IEnumUnknown::Next loses its results across apartments (its
// stub fetches, the caller receives nothing), with any enumerator.
TEST_F(ObjectCollections, WorkThroughProxiesFromASingleThreadedApartment) {
    ComPtr<IKyObjectCollectionFactory> factory = Factory();
    IStream* marshaled = nullptr;
    ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IKyObjectCollectionFactory, factory.Get(), &marshaled));
    RunInApartment(COINIT_APARTMENTTHREADED, [&] {
        ComPtr<IKyObjectCollectionFactory> proxy;
        ASSERT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(marshaled, IID_IKyObjectCollectionFactory, &proxy));
        IUnknown* objects[2] = {&x, &y};
        ComPtr<IKyObjectCollection> c, single;
        ASSERT_HR(S_OK, proxy->CreateObjectCollection(&a, 2, objects, &c));
        EXPECT_EQ(KYOCT_MULTIPLE_OBJECTS, TypeOf(c.Get()));
        // Back in its own apartment, the active object is itself again.
        EXPECT_EQ(static_cast<IUnknown*>(&a), ActiveOf(c.Get()));
        ASSERT_HR(S_OK, c->Clone(KYOCCP_CONVERTTOSINGLEOBJECT, &single));
        EXPECT_EQ(KYOCT_SINGLE_OBJECT, TypeOf(single.Get()));
        EXPECT_HR(E_INVALIDARG, c->Clone(static_cast<KYOBJECTCOLLECTIONCLONEPOLICY>(7), &single));
        EXPECT_HR(E_INVALIDARG, proxy->CreateObjectCollection(&a, 0, objects, &c));
    });
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
