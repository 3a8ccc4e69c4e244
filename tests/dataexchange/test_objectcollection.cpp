// Object collections made from arrays and client enumerators, and their clones. Every test
// ends with the selected objects' reference counts back at their start values.
#include <deque>

#include "exchange.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

using Items = std::vector<IUnknown*>;

// Shared by a client enumerator and its clones: the outcomes of the coming Clone calls
// (S_FALSE: S_OK without a clone), the outcome of Next, the sizes Next was asked for.
struct Control {
    std::deque<HRESULT> clones;
    HRESULT next = S_OK;
    std::vector<ULONG> requests;
};

class ItemEnum final : public IEnumUnknown {
public:
    ItemEnum(Items items, Control* control, size_t at) : m_items(std::move(items)), m_control(control), m_at(at) {}
    STDMETHODIMP QueryInterface(REFIID, void** ppv) override { return *ppv = this, AddRef(), S_OK; }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_refs; }
    STDMETHODIMP_(ULONG) Release() override {
        const ULONG left = --m_refs;
        if (left == 0) delete this;
        return left;
    }
    STDMETHODIMP Next(ULONG celt, IUnknown** rgelt, ULONG* fetched) override {
        m_control->requests.push_back(celt);
        if (FAILED(m_control->next)) return m_control->next;
        ULONG count = 0;
        for (; count < celt && m_at < m_items.size(); ++count) (rgelt[count] = m_items[m_at++])->AddRef();
        if (fetched) *fetched = count;
        return count == celt ? S_OK : S_FALSE;
    }
    STDMETHODIMP Skip(ULONG) override { return E_NOTIMPL; }
    STDMETHODIMP Reset() override { return E_NOTIMPL; }
    STDMETHODIMP Clone(IEnumUnknown** ppenum) override {
        HRESULT hr = m_control->clones.empty() ? S_OK : m_control->clones.front();
        if (!m_control->clones.empty()) m_control->clones.pop_front();
        *ppenum = hr == S_OK ? new ItemEnum(m_items, m_control, m_at) : nullptr;
        if (*ppenum) (*ppenum)->AddRef();
        return hr == S_FALSE ? S_OK : hr;
    }

private:
    ULONG m_refs = 0;  // (the collections use it on the test's thread)
    Items m_items;
    Control* m_control;
    size_t m_at;
};

class ObjectCollections : public ::testing::Test {
protected:
    void TearDown() override {  // every collection, clone and enumerator is gone by now
        for (Counted* item : {&a, &x, &y, &z}) EXPECT_EQ(1, item->Refs());
    }
    ComPtr<IEnumUnknown> Client(Items items, size_t at = 0) { return new ItemEnum(items, &control, at); }
    // "<type> <active> <objects>", e.g. "2 a xyz"; the objects read "-" when the
    // collection has no enumerator (EnumObjects gives E_UNEXPECTED).
    std::string Describe(IKyObjectCollection* c) {
        auto name = [&](IUnknown* p) { return p == &a ? "a" : p == &x ? "x" : p == &y ? "y" : p == &z ? "z" : "?"; };
        KYOBJECTCOLLECTIONTYPE type = KYOCT_NO_OBJECTS;
        ComPtr<IUnknown> active;
        ComPtr<IEnumUnknown> e;
        EXPECT_HR(S_OK, c->get_type(&type) | c->get_Active(&active));
        std::string text = std::to_string(type) + " " + name(active.Get()) + " ";
        if (c->EnumObjects(&e) == E_UNEXPECTED) return text + "-";
        for (IUnknown* item = nullptr; e->Next(1, &item, nullptr) == S_OK; item->Release()) text += name(item);
        return text;
    }

    Counted a, x, y, z;  // a is the active object
    Control control;
    ComPtr<IKyObjectCollectionFactory> factory =
        CreateInstance<IKyObjectCollectionFactory>(CLSID_KyObjectCollectionFactory);
};

// Types: 0 no objects, 1 a single object, 2 multiple objects.
TEST_F(ObjectCollections, TheCountOfObjectsGivesTheType) {
    for (auto [count, expected] : {std::pair<ULONG, std::string>{0, "0 a "}, {1, "1 a x"}, {2, "2 a xy"}}) {
        IUnknown* objects[2] = {&x, &y};
        ComPtr<IKyObjectCollection> c;
        ASSERT_HR(S_OK, factory->CreateObjectCollection(&a, count, count ? objects : nullptr, &c));
        objects[0] = &a;  // the caller may reuse its array at once
        EXPECT_EQ(expected, Describe(c.Get()));  // no objects: an empty enumerator
    }
    // An enumerator is counted up to two from where it stands; no objects: no enumerator.
    for (auto [client, expected] : {std::pair<ComPtr<IEnumUnknown>, std::string>{nullptr, "0 a -"}, {Client({}), "0 a -"},
                                    {Client({&x}), "1 a x"}, {Client({&x, &y, &z}), "2 a xyz"}, {Client({&x, &y}, 1), "1 a y"}}) {
        ComPtr<IKyObjectCollection> c;
        control.requests.clear();
        ASSERT_HR(S_OK, factory->ConvertEnumToObjectCollection(&a, client.Get(), &c));
        EXPECT_EQ(client ? std::vector<ULONG>{2} : std::vector<ULONG>{}, control.requests);
        EXPECT_EQ(expected, Describe(c.Get()));
    }
}

TEST_F(ObjectCollections, BadArgumentsAndTheClientsFailuresComeBack) {
    IUnknown* objects[2] = {&x, &y};
    ComPtr<IEnumUnknown> client = Client({&x, &y});
    IKyObjectCollection* c = reinterpret_cast<IKyObjectCollection*>(1);
    EXPECT_HR(E_INVALIDARG, factory->CreateObjectCollection(&a, 2, nullptr, &c));
    EXPECT_EQ(nullptr, c);
    EXPECT_HR(E_INVALIDARG, factory->CreateObjectCollection(&a, 0, objects, &c));
    EXPECT_HR(E_INVALIDARG, factory->CreateObjectCollection(nullptr, 2, objects, &c));
    EXPECT_HR(E_POINTER, factory->CreateObjectCollection(&a, 2, objects, nullptr));
    EXPECT_HR(E_INVALIDARG, factory->ConvertEnumToObjectCollection(nullptr, client.Get(), &c));
    EXPECT_HR(E_POINTER, factory->ConvertEnumToObjectCollection(&a, client.Get(), nullptr));
    // The outcomes of the client's Clone calls: counting, then keeping a copy.
    for (auto [clones, expected] : {std::pair<std::deque<HRESULT>, HRESULT>{{E_ACCESSDENIED}, E_ACCESSDENIED},
                                    {{S_FALSE}, E_UNEXPECTED}, {{S_OK, E_NOTIMPL}, E_NOTIMPL}}) {
        control.clones = clones;
        EXPECT_HR(expected, factory->ConvertEnumToObjectCollection(&a, client.Get(), &c));
    }
    control.next = E_OUTOFMEMORY;
    EXPECT_HR(E_OUTOFMEMORY, factory->ConvertEnumToObjectCollection(&a, client.Get(), &c));
    EXPECT_EQ(nullptr, c);
}

TEST_F(ObjectCollections, ClonesFollowTheirPolicyAndKeepTheActiveObject) {
    IUnknown* objects[3] = {&x, &y, &z};
    ComPtr<IKyObjectCollection> array, client, empty, clone;
    ASSERT_HR(S_OK, factory->CreateObjectCollection(&a, 3, objects, &array));
    ASSERT_HR(S_OK, factory->ConvertEnumToObjectCollection(&a, Client({&x, &y, &z}).Get(), &client));
    ASSERT_HR(S_OK, factory->CreateObjectCollection(&a, 0, nullptr, &empty));
    for (auto [from, policy, expected] : {std::tuple<IKyObjectCollection*, int, std::string>{array.Get(), KYOCCP_CLONEALL,
         "2 a xyz"}, {array.Get(), KYOCCP_CONVERTTOSINGLEOBJECT, "1 a a"}, {array.Get(), KYOCCP_IGNOREOBJECTS, "0 a -"},
         {client.Get(), KYOCCP_CLONEALL, "2 a xyz"}, {empty.Get(), KYOCCP_CLONEALL, "0 a -"}}) {
        ASSERT_HR(S_OK, from->Clone(KYOBJECTCOLLECTIONCLONEPOLICY(policy), &clone));
        EXPECT_EQ(expected, Describe(clone.Get()));
    }
    IKyObjectCollection* bad = reinterpret_cast<IKyObjectCollection*>(1);
    EXPECT_HR(E_INVALIDARG, array->Clone(KYOBJECTCOLLECTIONCLONEPOLICY(3), &bad));
    EXPECT_EQ(nullptr, bad);
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
