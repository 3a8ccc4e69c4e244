// The string collection as a client uses it: lookup by position and by text,
// Add with and without uniqueness, Remove, Sort over ranges, calls by name
// through IDispatch, aggregation and use from several threads.
#include <algorithm>
#include <random>
#include <thread>

#include "stringstest.h"

namespace ky::test {
namespace {

struct Strings : ::testing::Test {
    void SetUp() override { strings = NewStrings(); }
    std::wstring ItemText(const VARIANT& index) {
        com::Bstr item;
        EXPECT_HR(S_OK, strings->get_Item(index, item.Out()));
        return Text(item);
    }
    HRESULT ItemResult(const VARIANT& index) {
        BSTR item = reinterpret_cast<BSTR>(1);
        HRESULT hr = strings->get_Item(index, &item);
        EXPECT_EQ(nullptr, item);
        ::SysFreeString(SUCCEEDED(hr) ? item : nullptr);
        return hr;
    }
    ComPtr<IStrings> strings;
};

TEST_F(Strings, PositionsAndTextsAreLookedUpOnTheSameList) {
    AddAll(strings.Get(), {L"alpha", L"2", L"beta", L"gamma", L"0"});

    EXPECT_EQ(L"alpha", ItemText(Arg(0L)));
    EXPECT_EQ(L"0", ItemText(Arg(L"0")));  // a string of digits is text, not a position
    EXPECT_EQ(L"2", ItemText(Arg(L"2")));
    EXPECT_EQ(L"gamma", ItemText(Arg(L"gamma")));

    // Every other type is converted to a position.
    Arg real(Arg::Typed{VT_R8});
    V_R8(&real) = 1.6;  // rounds to 2
    EXPECT_EQ(L"beta", ItemText(real));
    Arg shortInt(Arg::Typed{VT_I2});
    V_I2(&shortInt) = 3;
    EXPECT_EQ(L"gamma", ItemText(shortInt));
    Arg no(Arg::Typed{VT_BOOL});
    V_BOOL(&no) = VARIANT_FALSE;
    EXPECT_EQ(L"alpha", ItemText(no));
    LONG four = 4;
    Arg byRef(Arg::Typed{VT_I4 | VT_BYREF});
    V_I4REF(&byRef) = &four;
    EXPECT_EQ(L"0", ItemText(byRef));
    // Only a plain VT_BSTR is text: a string by reference is a position.
    BSTR one = ::SysAllocString(L"1");
    Arg textByRef(Arg::Typed{VT_BSTR | VT_BYREF});
    V_BSTRREF(&textByRef) = &one;
    EXPECT_EQ(L"2", ItemText(textByRef));
    ::SysFreeString(one);
}

TEST_F(Strings, FailedLookupsAnswerElementNotFound) {
    AddAll(strings.Get(), {L"alpha", L"beta"});
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(Arg(-1L)));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(Arg(2L)));  // the count itself: not "index out of range"
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(Arg(L"ALPHA")));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(Arg(L"delta")));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(Arg(Arg::Typed{VT_EMPTY})));
    Arg missing(Arg::Typed{VT_ERROR});
    V_ERROR(&missing) = DISP_E_PARAMNOTFOUND;
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(missing));
    Arg object(Arg::Typed{VT_UNKNOWN});
    V_UNKNOWN(&object) = nullptr;
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(object));

    EXPECT_HR(E_POINTER, strings->get_Item(Arg(0L), nullptr));
    EXPECT_HR(E_POINTER, strings->get_Count(nullptr));
    EXPECT_HR(E_POINTER, strings->get__NewEnum(nullptr));
    EXPECT_HR(E_POINTER, strings->get_UniqueStrings(nullptr));
    EXPECT_HR(E_POINTER, strings->get_CompareFlags(nullptr));
}

TEST_F(Strings, AddKeepsNullEmptyAndCutsAtTheFirstZero) {
    EXPECT_HR(S_FALSE, IsDirty(strings.Get()));
    EXPECT_HR(S_OK, strings->Add(nullptr));
    EXPECT_HR(S_OK, IsDirty(strings.Get()));
    EXPECT_HR(S_OK, AddText(strings.Get(), L""));
    com::Bstr embedded(L"ab\0cd", 5);
    EXPECT_HR(S_OK, strings->Add(embedded));

    com::Bstr item;
    EXPECT_HR(S_OK, strings->get_Item(Arg(0L), item.Out()));
    EXPECT_TRUE(item.IsNull());
    EXPECT_HR(S_OK, strings->get_Item(Arg(1L), item.Out()));
    EXPECT_FALSE(item.IsNull());
    EXPECT_EQ(0u, item.Length());
    EXPECT_HR(S_OK, strings->get_Item(Arg(2L), item.Out()));
    EXPECT_EQ(2u, item.Length());
}

TEST_F(Strings, UniquenessFollowsCompareFlagsWhileLookupStaysCaseSensitive) {
    VARIANT_BOOL unique = VARIANT_TRUE;
    EXPECT_HR(S_OK, strings->get_UniqueStrings(&unique));
    EXPECT_EQ(VARIANT_FALSE, unique);
    ULONG flags = 99;
    EXPECT_HR(S_OK, strings->get_CompareFlags(&flags));
    EXPECT_EQ(0u, flags);

    // Only VARIANT_TRUE itself switches uniqueness on.
    EXPECT_HR(S_OK, strings->put_UniqueStrings(1));
    EXPECT_HR(S_OK, strings->get_UniqueStrings(&unique));
    EXPECT_EQ(VARIANT_FALSE, unique);
    EXPECT_HR(S_OK, strings->put_UniqueStrings(VARIANT_TRUE));
    EXPECT_HR(S_OK, strings->get_UniqueStrings(&unique));
    EXPECT_EQ(VARIANT_TRUE, unique);

    // Case-sensitive comparison first: case variants are different strings.
    EXPECT_HR(S_OK, AddText(strings.Get(), L"Mail"));
    EXPECT_HR(S_OK, AddText(strings.Get(), L"MAIL"));
    EXPECT_HR(S_FALSE, AddText(strings.Get(), L"Mail"));

    EXPECT_HR(S_OK, strings->put_CompareFlags(NORM_IGNORECASE));
    SaveClean(strings.Get());
    EXPECT_HR(S_FALSE, AddText(strings.Get(), L"mail"));
    EXPECT_HR(S_FALSE, IsDirty(strings.Get()));  // a refused duplicate changes nothing
    EXPECT_HR(S_OK, AddText(strings.Get(), L"cn"));
    EXPECT_HR(S_FALSE, AddText(strings.Get(), L"CN"));
    EXPECT_EQ((std::vector<std::wstring>{L"Mail", L"MAIL", L"cn"}), Contents(strings.Get()));

    // Lookup ignores the flags: the case variant that Add refused is not found.
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, ItemResult(Arg(L"CN")));
    EXPECT_EQ(L"cn", ItemText(Arg(L"cn")));

    // A removed string no longer counts as a duplicate.
    EXPECT_HR(S_OK, strings->Remove(Arg(L"cn")));
    EXPECT_HR(S_OK, AddText(strings.Get(), L"CN"));

    // Null and empty strings are equal to each other.
    EXPECT_HR(S_OK, strings->Add(nullptr));
    EXPECT_HR(S_FALSE, AddText(strings.Get(), L""));

    // With uniqueness off again, anything goes.
    EXPECT_HR(S_OK, strings->put_UniqueStrings(VARIANT_FALSE));
    EXPECT_HR(S_OK, AddText(strings.Get(), L"cn"));
    EXPECT_HR(S_OK, AddText(strings.Get(), L"cn"));
    EXPECT_EQ(6, static_cast<long>(Contents(strings.Get()).size()));
}

TEST_F(Strings, RemoveTakesOneElementByPositionOrText) {
    AddAll(strings.Get(), {L"a", L"b", L"a", L"c"});
    SaveClean(strings.Get());

    EXPECT_HR(E_KY_ELEMENTNOTFOUND, strings->Remove(Arg(L"A")));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, strings->Remove(Arg(4L)));
    EXPECT_HR(S_FALSE, IsDirty(strings.Get()));
    EXPECT_HR(S_OK, strings->Remove(Arg(L"a")));  // the first one
    EXPECT_HR(S_OK, IsDirty(strings.Get()));
    EXPECT_EQ((std::vector<std::wstring>{L"b", L"a", L"c"}), Contents(strings.Get()));
    EXPECT_HR(S_OK, strings->Remove(Arg(2L)));
    EXPECT_EQ((std::vector<std::wstring>{L"b", L"a"}), Contents(strings.Get()));
}

struct SortRange : Strings {
    void SetUp() override {
        Strings::SetUp();
        AddAll(strings.Get(), {L"echo", L"charlie", L"delta", L"alpha", L"bravo"});
    }
};

TEST_F(SortRange, TheRangeIsHalfOpenAndZeroMeansTheEnd) {
    EXPECT_HR(S_OK, strings->Sort(VARIANT_TRUE, 1, 4));
    EXPECT_EQ((std::vector<std::wstring>{L"echo", L"alpha", L"charlie", L"delta", L"bravo"}), Contents(strings.Get()));
    EXPECT_HR(S_OK, strings->Sort(VARIANT_TRUE, 3, 0));
    EXPECT_EQ((std::vector<std::wstring>{L"echo", L"alpha", L"charlie", L"bravo", L"delta"}), Contents(strings.Get()));
    EXPECT_HR(S_OK, strings->Sort(VARIANT_TRUE, 0, 99));
    EXPECT_EQ((std::vector<std::wstring>{L"alpha", L"bravo", L"charlie", L"delta", L"echo"}), Contents(strings.Get()));
}

TEST_F(SortRange, EmptyRangesAnswerFalseAndImpossibleOnesAreRefused) {
    const auto before = Contents(strings.Get());
    EXPECT_HR(S_FALSE, strings->Sort(VARIANT_TRUE, 5, 0));
    EXPECT_HR(S_FALSE, strings->Sort(VARIANT_TRUE, 5, 9));
    EXPECT_HR(E_INVALIDARG, strings->Sort(VARIANT_TRUE, 3, 3));
    EXPECT_HR(E_INVALIDARG, strings->Sort(VARIANT_TRUE, 6, 0));
    EXPECT_HR(E_INVALIDARG, strings->Sort(VARIANT_TRUE, 6, 9));
    EXPECT_HR(E_INVALIDARG, strings->Sort(VARIANT_TRUE, 4, 2));
    EXPECT_HR(E_INVALIDARG, strings->Sort(VARIANT_TRUE, -1, 3));
    EXPECT_HR(E_INVALIDARG, strings->Sort(VARIANT_TRUE, -1, 0));
    EXPECT_EQ(before, Contents(strings.Get()));

    ComPtr<IStrings> empty = NewStrings();
    EXPECT_HR(S_FALSE, empty->Sort(VARIANT_TRUE, 0, 0));
}

TEST_F(SortRange, OnlyVariantTrueSortsAscending) {
    const std::vector<std::wstring> descending{L"echo", L"delta", L"charlie", L"bravo", L"alpha"};
    EXPECT_HR(S_OK, strings->Sort(1, 0, 0));
    EXPECT_EQ(descending, Contents(strings.Get()));
    EXPECT_HR(S_OK, strings->Sort(VARIANT_TRUE, 0, 0));
    EXPECT_HR(S_OK, strings->Sort(VARIANT_FALSE, 0, 0));
    EXPECT_EQ(descending, Contents(strings.Get()));
}

TEST_F(Strings, SortIsStableUnderTheCompareFlagsAndLeavesTheDirtyFlag) {
    AddAll(strings.Get(), {L"b1", L"B1", L"a1", L"A1", L"b1"});
    // Tag each string so that equal ones can be told apart after sorting.
    ComPtr<IStrings> tagged = NewStrings();
    AddAll(tagged.Get(), {L"b", L"B", L"a", L"A", L"b"});
    ASSERT_HR(S_OK, tagged->put_CompareFlags(NORM_IGNORECASE));
    SaveClean(tagged.Get());

    EXPECT_HR(S_OK, tagged->Sort(VARIANT_TRUE, 0, 0));
    EXPECT_EQ((std::vector<std::wstring>{L"a", L"A", L"b", L"B", L"b"}), Contents(tagged.Get()));
    EXPECT_HR(S_OK, tagged->Sort(VARIANT_FALSE, 0, 0));
    EXPECT_EQ((std::vector<std::wstring>{L"b", L"B", L"b", L"a", L"A"}), Contents(tagged.Get()));
    EXPECT_HR(S_FALSE, IsDirty(tagged.Get()));
}

TEST_F(Strings, LongRangesSortStablyUnderTheCompareFlags) {
    // Long enough for the merging sort. Each string is two key letters and a
    // tag whose letter case spells its original position: under ignore-case
    // only the key letters count, so ties abound, yet every string differs.
    std::mt19937 random(7);
    std::vector<std::wstring> texts;
    for (int i = 0; i < 700; ++i) {
        std::wstring text;
        for (int j = 0; j < 2; ++j) text.push_back(L"aAbBcC"[random() % 6]);
        for (int bit = 0; bit < 10; ++bit) text.push_back((i >> bit) & 1 ? L'X' : L'x');
        texts.push_back(text);
    }
    ASSERT_HR(S_OK, strings->put_CompareFlags(NORM_IGNORECASE));
    for (const auto& text : texts) ASSERT_HR(S_OK, AddText(strings.Get(), text.c_str()));
    EXPECT_HR(S_OK, strings->Sort(VARIANT_FALSE, 100, 600));

    auto keyOf = [](const std::wstring& s) { return std::wstring{towlower(s[0]), towlower(s[1])}; };
    auto expected = texts;
    std::stable_sort(expected.begin() + 100, expected.begin() + 600,
                     [&](const std::wstring& a, const std::wstring& b) { return keyOf(a) > keyOf(b); });
    EXPECT_EQ(expected, Contents(strings.Get()));
}

// --- Calls by name ----------------------------------------------------------------

struct ByName : Strings {
    HRESULT Call(DISPID id, WORD flags, std::vector<VARIANT> args, VARIANT* result, EXCEPINFO* error = nullptr) {
        ComPtr<IDispatch> dispatch;
        EXPECT_HR(S_OK, strings.As(&dispatch));
        DISPPARAMS params{args.data(), nullptr, static_cast<UINT>(args.size()), 0};
        return dispatch->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result, error, nullptr);
    }
    DISPID IdOf(const wchar_t* name) {
        ComPtr<IDispatch> dispatch;
        EXPECT_HR(S_OK, strings.As(&dispatch));
        LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
        DISPID id = DISPID_UNKNOWN;
        EXPECT_HR(S_OK, dispatch->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id));
        return id;
    }
};

TEST_F(ByName, MembersHaveTheirDispatchIdentifiers) {
    EXPECT_EQ(0x60020000, IdOf(L"Count"));
    EXPECT_EQ(DISPID_VALUE, IdOf(L"Item"));
    EXPECT_EQ(DISPID_NEWENUM, IdOf(L"_NewEnum"));
    EXPECT_EQ(0x60020003, IdOf(L"UniqueStrings"));
    EXPECT_EQ(0x60020005, IdOf(L"CompareFlags"));
    EXPECT_EQ(0x60020007, IdOf(L"Add"));
    EXPECT_EQ(0x60020008, IdOf(L"Remove"));
    EXPECT_EQ(0x60020009, IdOf(L"Sort"));
}

TEST_F(ByName, ScriptsAddLookUpEnumerateAndSeeFailures) {
    com::Variant result;
    EXPECT_HR(S_OK, Call(0x60020007, DISPATCH_METHOD, {Arg(L"pear")}, result.Out()));
    EXPECT_HR(S_OK, Call(0x60020007, DISPATCH_METHOD, {Arg(L"apple")}, result.Out()));
    EXPECT_HR(S_OK, Call(DISPID_VALUE, DISPATCH_PROPERTYGET, {Arg(1L)}, result.Out()));
    ASSERT_EQ(VT_BSTR, V_VT(&result));
    EXPECT_EQ(L"apple", Text(V_BSTR(&result)));
    EXPECT_HR(S_OK, Call(0x60020000, DISPATCH_PROPERTYGET, {}, result.Out()));
    EXPECT_EQ(2, V_I4(&result));

    EXCEPINFO error{};
    EXPECT_HR(DISP_E_EXCEPTION, Call(DISPID_VALUE, DISPATCH_PROPERTYGET, {Arg(L"plum")}, result.Out(), &error));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, error.scode);
    ::SysFreeString(error.bstrSource);
    ::SysFreeString(error.bstrDescription);
    ::SysFreeString(error.bstrHelpFile);

    // Script hosts also call the getters as methods: JScript's Enumerator
    // asks for _NewEnum so, and a statement `names.Item("x");` for Item.
    EXPECT_HR(DISP_E_EXCEPTION, Call(DISPID_VALUE, DISPATCH_METHOD, {Arg(L"plum")}, nullptr, &error));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, error.scode);
    ::SysFreeString(error.bstrSource);
    ::SysFreeString(error.bstrDescription);
    ::SysFreeString(error.bstrHelpFile);
    EXPECT_HR(S_OK, Call(DISPID_NEWENUM, DISPATCH_METHOD, {}, result.Out()));
    ASSERT_EQ(VT_UNKNOWN, V_VT(&result));
    ComPtr<IEnumVARIANT> items;
    ASSERT_HR(S_OK, V_UNKNOWN(&result)->QueryInterface(IID_PPV_ARGS(&items)));
    VARIANT first;
    ASSERT_HR(S_OK, items->Next(1, &first, nullptr));
    EXPECT_EQ(L"pear", Text(V_BSTR(&first)));
    ::VariantClear(&first);
}

// --- Aggregation and threads --------------------------------------------------------

// An outer object that aggregates a collection and counts its own references.
class Outer : public IUnknown {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (IsEqualIID(riid, IID_IUnknown)) {
            *ppv = static_cast<IUnknown*>(this);
            AddRef();
            return S_OK;
        }
        return inner->QueryInterface(riid, ppv);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
    STDMETHODIMP_(ULONG) Release() override { return --refs; }
    ComPtr<IUnknown> inner;
    ULONG refs = 1;
};

TEST(StringsAggregate, TheCollectionWorksInsideAnOuterObjectThatItsEnumeratorKeepsAlive) {
    Outer outer;
    ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyStrings, &outer, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&outer.inner)));
    {
        ComPtr<IStrings> strings;
        ASSERT_HR(S_OK, outer.QueryInterface(IID_PPV_ARGS(&strings)));
        ComPtr<IUnknown> identity;
        ASSERT_HR(S_OK, strings.As(&identity));
        EXPECT_EQ(static_cast<IUnknown*>(&outer), identity.Get());
        AddAll(strings.Get(), {L"x"});
        ULONG before = outer.refs;
        ComPtr<IUnknown> enumerator;
        ASSERT_HR(S_OK, strings->get__NewEnum(&enumerator));
        EXPECT_EQ(before + 1, outer.refs);
        enumerator.Reset();
        EXPECT_EQ(before, outer.refs);
    }
    EXPECT_EQ(1u, outer.refs);
    outer.inner.Reset();
}

TEST(StringsThreads, PointersCrossApartmentsUnmarshalledAndAddsFromManyThreadsAllLand) {
    ComPtr<IStrings> strings = NewStrings();
    ComPtr<IMarshal> marshal;
    EXPECT_HR(S_OK, strings.As(&marshal));

    IStream* marshaled = nullptr;
    ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IStrings, strings.Get(), &marshaled));
    RunInApartment(COINIT_APARTMENTTHREADED, [&] {
        ComPtr<IStrings> there;
        ASSERT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(marshaled, IID_PPV_ARGS(&there)));
        EXPECT_EQ(strings.Get(), there.Get());  // the free-threaded marshaler hands out the object itself
    });

    ASSERT_HR(S_OK, strings->put_UniqueStrings(VARIANT_TRUE));
    ASSERT_HR(S_OK, strings->put_CompareFlags(NORM_IGNORECASE));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            // Every thread adds the same 300 names in its own letter case.
            for (int i = 0; i < 300; ++i) {
                std::wstring text = (t % 2 ? L"NAME" : L"name") + std::to_wstring(i);
                AddText(strings.Get(), text.c_str());
            }
            for (int i = 0; i < 200; ++i)
                AddText(strings.Get(), (L"t" + std::to_wstring(t) + L"-" + std::to_wstring(i)).c_str());
        });
    }
    for (auto& thread : threads) thread.join();
    long count = 0;
    EXPECT_HR(S_OK, strings->get_Count(&count));
    EXPECT_EQ(300 + 4 * 200, count);
}

}  // namespace
}  // namespace ky::test
