// The string collection as a client uses it: lookup by position and by text,
// Add with and without uniqueness, Remove, Sort over ranges, calls by name
// through IDispatch, aggregation and use from several threads.
#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include "stringstest.h"

namespace ky::test {
namespace {

using namespace std::string_literals;

const std::wstring kNotFound = Widen(Hex(E_KY_ELEMENTNOTFOUND));

struct Strings : ::testing::Test {
    void SetUp() override { strings = NewStrings(); }
    // The element found for `index` ("null" for a null one), or the failure in hex.
    std::wstring Item(const VARIANT& index) {
        BSTR item = reinterpret_cast<BSTR>(1);  // cleared whatever the outcome
        HRESULT hr = strings->get_Item(index, &item);
        if (FAILED(hr)) {
            EXPECT_EQ(nullptr, item);
            return Widen(Hex(hr));
        }
        com::Bstr owned;
        owned.Attach(item);
        return item ? Text(item) : L"null";
    }
    ComPtr<IStrings> strings;
};

TEST_F(Strings, PositionsAndTextsAreLookedUpOnTheSameList) {
    AddAll(strings.Get(), {L"alpha", L"2", L"beta", L"gamma", L"0"});
    EXPECT_EQ(L"alpha", Item(Arg(0L)));
    EXPECT_EQ(L"0", Item(Arg(L"0")));  // a string of digits is text, not a position
    EXPECT_EQ(L"gamma", Item(Arg(L"gamma")));
    EXPECT_EQ(L"beta", Item(Arg(1.6)));  // other types convert to a position, rounding
    LONG four = 4;
    EXPECT_EQ(L"0", Item(Arg(VT_I4, &four)));
    com::Bstr one(L"1");  // only a plain VT_BSTR is text: by reference it is a position
    BSTR oneRef = one;
    EXPECT_EQ(L"2", Item(Arg(VT_BSTR, &oneRef)));

    // The count itself is not "index out of range" but not found, like the rest.
    for (long position : {-1L, 5L}) EXPECT_EQ(kNotFound, Item(Arg(position)));
    for (const wchar_t* text : {L"ALPHA", L"delta"}) EXPECT_EQ(kNotFound, Item(Arg(text)));
    EXPECT_EQ(kNotFound, Item(Arg()));

    EXPECT_HR(E_POINTER, strings->get_Item(Arg(0L), nullptr));
    EXPECT_HR(E_POINTER, strings->get__NewEnum(nullptr));
}

TEST_F(Strings, AddAndRemoveChangeTheListAndTheDirtyFlag) {
    EXPECT_HR(S_FALSE, IsDirty(strings.Get()));
    EXPECT_HR(S_OK, strings->Add(nullptr));
    EXPECT_HR(S_OK, IsDirty(strings.Get()));
    AddAll(strings.Get(), {L"", L"a", L"b", L"a"});
    EXPECT_HR(S_OK, strings->Add(com::Bstr(L"ab\0cd", 5)));  // kept up to the first zero

    EXPECT_EQ(L"null", Item(Arg(0L)));
    EXPECT_EQ(L"", Item(Arg(1L)));
    EXPECT_EQ(L"ab", Item(Arg(5L)));

    SaveClean(strings.Get());
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, strings->Remove(Arg(L"A")));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, strings->Remove(Arg(6L)));
    EXPECT_HR(S_FALSE, IsDirty(strings.Get()));
    EXPECT_HR(S_OK, strings->Remove(Arg(L"a")));  // the first one
    EXPECT_HR(S_OK, IsDirty(strings.Get()));
    EXPECT_HR(S_OK, strings->Remove(Arg(0L)));
    EXPECT_EQ(L" b a ab", Joined(strings.Get()));
}

TEST_F(Strings, UniquenessFollowsCompareFlagsWhileLookupStaysCaseSensitive) {
    // Only VARIANT_TRUE itself switches uniqueness on.
    VARIANT_BOOL unique = 7;
    EXPECT_HR(S_OK, strings->put_UniqueStrings(1));
    EXPECT_HR(S_OK, strings->get_UniqueStrings(&unique));
    EXPECT_EQ(VARIANT_FALSE, unique);
    EXPECT_HR(S_OK, strings->put_UniqueStrings(VARIANT_TRUE));
    EXPECT_HR(S_OK, strings->put_CompareFlags(NORM_IGNORECASE));

    AddAll(strings.Get(), {L"Mail", L"cn"});
    SaveClean(strings.Get());
    EXPECT_HR(S_FALSE, AddText(strings.Get(), L"CN"));
    EXPECT_HR(S_FALSE, IsDirty(strings.Get()));  // a refused duplicate changes nothing
    EXPECT_EQ(L"Mail cn", Joined(strings.Get()));
    // Lookup ignores the flags: the case variant that Add refused is not found.
    EXPECT_EQ(kNotFound, Item(Arg(L"CN")));
    EXPECT_EQ(L"cn", Item(Arg(L"cn")));
}

// The collection answers from indexes and sorts by sort keys where it can;
// plain scans and std::stable_sort with VarBstrCmp are the reference here,
// over strings on the edges of the comparison and elements that only a
// stream brings in: with uniqueness on, Add refuses exactly what VarBstrCmp
// under the compare flags calls equal to an element; Item and Remove by text
// find the first element that it calls equal under flags 0; Sort gives the
// same stable order, both ways.
TEST(Uniqueness, IndexesAndSortAgreeWithAComparisonScan) {
    // Case, width, kana, accents precomposed and combined, ignorables, symbols, digits.
    const wchar_t kAlphabet[] =
        L"aAbBzZ09-' .,!\u00e9e\u0301\u00c9\uff41\uff21\u30a2\u3042\u30ab\u304b\u00ad\u200b"
        L"\u00df\u00e6\u00f1\u2460\u00bd\uff10\u0130\u0131iI\u03a3\u03c3\u03c2";
    auto bstr = [](const std::wstring& s) { return com::Bstr(s.data(), UINT(s.size())); };
    // Loaded first: embedded and leading zeros, duplicates under ignore-case, then a null.
    const std::wstring preloaded[] = {L"a\0b"s, L"\0A"s, L"ab"s, L"AB"s};
    Bytes image;
    PutUInt32(image, 5);
    for (const auto& text : preloaded) PutString(image, text.data(), text.size());
    PutUInt32(image, 0);
    std::vector<com::Bstr> candidates(1);  // a null one first
    for (const auto& text : {L""s, L"Ab"s, L"a\u00adb"s, L"\0a"s, L"x\0"s}) candidates.push_back(bstr(text));
    std::mt19937 random(20031107);
    while (candidates.size() < 400) {
        std::wstring text;
        for (size_t i = random() % 5; i > 0; --i) text.push_back(kAlphabet[random() % (std::size(kAlphabet) - 1)]);
        candidates.push_back(bstr(text));
        // And a variant: case flipped, letters widened, or an ignorable character or a zero inserted.
        const auto kind = random() % 3;
        for (wchar_t& c : text) {
            if (kind == 0) c = iswupper(c) ? towlower(c) : towupper(c);
            if (kind == 1 && c >= L'a' && c <= L'z') c = wchar_t(c - L'a' + 0xFF41);
        }
        if (kind == 2) text.insert(random() % (text.size() + 1), 1, random() % 2 ? L'\u00ad' : L'\0');
        candidates.push_back(bstr(text));
    }
    // The flags the index may be used with, alone and combined, and some it must not be.
    const ULONG flagSets[] = {0, NORM_IGNORECASE, NORM_IGNORENONSPACE, NORM_IGNORESYMBOLS, NORM_IGNOREKANATYPE,
                              NORM_IGNOREWIDTH, SORT_STRINGSORT, SORT_DIGITSASNUMBERS, LINGUISTIC_IGNORECASE,
                              LINGUISTIC_IGNOREDIACRITIC, NORM_LINGUISTIC_CASING | NORM_IGNORECASE,
                              NORM_IGNORECASE | NORM_IGNOREWIDTH | NORM_IGNOREKANATYPE,
                              NORM_IGNORECASE | NORM_IGNORENONSPACE | NORM_IGNORESYMBOLS | SORT_STRINGSORT,
                              LCMAP_LOWERCASE, LCMAP_BYTEREV | NORM_IGNORECASE, 0x40000000, 0xFFFFFFFF};
    for (ULONG flags : flagSets) {
        SCOPED_TRACE("flags " + Hex(static_cast<HRESULT>(flags)));
        ComPtr<IStrings> strings = NewStrings();
        ASSERT_HR(S_OK, LoadFrom(strings.Get(), image));
        ASSERT_HR(S_OK, strings->put_CompareFlags(flags));
        ASSERT_HR(S_OK, strings->put_UniqueStrings(VARIANT_TRUE));
        std::vector<com::Bstr> held;  // what the collection holds, as it holds it
        for (const auto& text : preloaded) held.push_back(bstr(text));
        held.emplace_back();
        int refused = 0;
        for (size_t i = 0; i < candidates.size(); ++i) {
            BSTR text = candidates[i];
            bool duplicate = std::any_of(held.begin(), held.end(), [&](const com::Bstr& item) {
                return ::VarBstrCmp(text, item, LOCALE_USER_DEFAULT, flags) == VARCMP_EQ;
            });
            ASSERT_HR(duplicate ? S_FALSE : S_OK, strings->Add(text)) << i << " \"" << Narrow(Text(text)) << "\"";
            refused += duplicate;
            if (!duplicate) held.emplace_back(text);  // cut at the first zero, as Add copies
            if (i % 17 == 16) {  // now and then one out of the middle
                ASSERT_HR(S_OK, strings->Remove(Arg(long(held.size() / 2))));
                held.erase(held.begin() + held.size() / 2);
            }
        }
        EXPECT_GT(refused, 0);
        auto joined = [&] {
            std::wstring text;
            for (size_t k = 0; k < held.size(); ++k) text += (k ? L" " : L"") + Text(held[k]);
            return text;
        };
        EXPECT_EQ(joined(), Joined(strings.Get()));
        // Lookups and removals by text: the first equal element under flags 0.
        for (size_t i = 0; i < candidates.size(); i += 3) {
            BSTR text = candidates[i];
            VARIANT key;  // the text as it is, zeros and null included
            V_VT(&key) = VT_BSTR;
            V_BSTR(&key) = text;
            auto first = std::find_if(held.begin(), held.end(), [&](const com::Bstr& item) {
                return ::VarBstrCmp(item, text, LOCALE_USER_DEFAULT, 0) == VARCMP_EQ;
            });
            com::Bstr found;
            EXPECT_HR(first == held.end() ? E_KY_ELEMENTNOTFOUND : S_OK, strings->get_Item(key, found.Out()));
            if (first == held.end()) continue;
            EXPECT_EQ(Text(*first), Text(found));
            if (i % 2) continue;
            EXPECT_HR(S_OK, strings->Remove(key));
            held.erase(first);
        }
        EXPECT_EQ(joined(), Joined(strings.Get()));
        for (VARIANT_BOOL ascending : {VARIANT_TRUE, VARIANT_FALSE}) {
            const HRESULT precedes = ascending ? VARCMP_LT : VARCMP_GT;
            std::stable_sort(held.begin(), held.end(), [&](const com::Bstr& a, const com::Bstr& b) {
                return ::VarBstrCmp(a, b, LOCALE_USER_DEFAULT, flags) == precedes;
            });
            EXPECT_HR(S_OK, strings->Sort(ascending, 0, 0));
            EXPECT_EQ(joined(), Joined(strings.Get())) << "ascending " << int(ascending);
        }
    }
}

TEST_F(Strings, SortRangesAreHalfOpenZeroMeansTheEndAndOnlyVariantTrueIsAscending) {
    const std::wstring original = L"echo charlie delta alpha bravo";
    const struct {
        VARIANT_BOOL ascending;
        long first, last;
        HRESULT hr;
        std::wstring after;
    } cases[] = {
        {VARIANT_TRUE, 1, 4, S_OK, L"echo alpha charlie delta bravo"},
        {1, 3, 0, S_OK, L"echo charlie delta bravo alpha"},
        {VARIANT_TRUE, 0, 99, S_OK, L"alpha bravo charlie delta echo"},
        {VARIANT_FALSE, 0, 0, S_OK, L"echo delta charlie bravo alpha"},
        {VARIANT_TRUE, 5, 0, S_FALSE, original},
        {VARIANT_TRUE, 5, 9, S_FALSE, original},
        {VARIANT_TRUE, 3, 3, E_INVALIDARG, original},
        {VARIANT_TRUE, 6, 0, E_INVALIDARG, original},
        {VARIANT_TRUE, 6, 9, E_INVALIDARG, original},
        {VARIANT_TRUE, 4, 2, E_INVALIDARG, original},
        {VARIANT_TRUE, -1, 3, E_INVALIDARG, original},
        {VARIANT_TRUE, -1, 0, E_INVALIDARG, original},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.ascending << " " << c.first << " " << c.last);
        ComPtr<IStrings> list = NewStrings();
        AddAll(list.Get(), {L"echo", L"charlie", L"delta", L"alpha", L"bravo"});
        EXPECT_HR(c.hr, list->Sort(c.ascending, c.first, c.last));
        EXPECT_EQ(c.after, Joined(list.Get()));
    }
    EXPECT_HR(S_FALSE, strings->Sort(VARIANT_TRUE, 0, 0));  // an empty collection
}

TEST_F(Strings, SortIsStableUnderTheCompareFlagsAndLeavesTheDirtyFlag) {
    // Under ignore-case only the first letter counts; the rest spells each
    // string's first position in letter case, so that ties show their order.
    std::vector<std::wstring> texts;
    for (int i = 0; i < 200; ++i) {
        texts.emplace_back(1, L"bBaAc"[i * 7 % 5]);
        for (int bit = 0; bit < 8; ++bit) texts.back().push_back((i >> bit) & 1 ? L'X' : L'x');
        ASSERT_HR(S_OK, AddText(strings.Get(), texts.back().c_str()));
    }
    ASSERT_HR(S_OK, strings->put_CompareFlags(NORM_IGNORECASE));
    SaveClean(strings.Get());
    EXPECT_HR(S_OK, strings->Sort(VARIANT_TRUE, 10, 150));
    EXPECT_HR(S_OK, strings->Sort(VARIANT_FALSE, 100, 0));
    auto key = [](const std::wstring& text) { return towlower(text[0]); };
    std::stable_sort(texts.begin() + 10, texts.begin() + 150, [&](auto& a, auto& b) { return key(a) < key(b); });
    std::stable_sort(texts.begin() + 100, texts.end(), [&](auto& a, auto& b) { return key(a) > key(b); });
    std::wstring expected;
    for (const auto& text : texts) expected += (expected.empty() ? L"" : L" ") + text;
    EXPECT_EQ(expected, Joined(strings.Get()));
    EXPECT_HR(S_FALSE, IsDirty(strings.Get()));
}

// The script samples show hosts calling members by name; this shows what
// a failure looks like to them.
TEST_F(Strings, ScriptsCallTheMembersByNameAndSeeFailuresAsExceptions) {
    ComPtr<IDispatch> dispatch;
    ASSERT_HR(S_OK, strings.As(&dispatch));
    com::Variant result;
    EXCEPINFO error{};
    auto call = [&](const wchar_t* name, WORD flags, VARIANT arg) {
        DISPID id = DISPID_UNKNOWN;
        LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
        EXPECT_HR(S_OK, dispatch->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id));
        DISPPARAMS params{&arg, nullptr, 1, 0};
        return dispatch->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result.Out(), &error, nullptr);
    };
    EXPECT_HR(S_OK, call(L"Add", DISPATCH_METHOD, Arg(L"pear")));
    EXPECT_HR(S_OK, call(L"Item", DISPATCH_PROPERTYGET, Arg(0L)));
    EXPECT_EQ(L"pear", Text(V_BSTR(&result)));
    EXPECT_HR(DISP_E_EXCEPTION, call(L"Item", DISPATCH_PROPERTYGET, Arg(L"plum")));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, error.scode);
    for (BSTR text : {error.bstrSource, error.bstrDescription, error.bstrHelpFile}) ::SysFreeString(text);
}

// An outer object that aggregates a collection and counts its own references.
struct Outer : IUnknown {
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!IsEqualIID(riid, IID_IUnknown)) return inner->QueryInterface(riid, ppv);
        *ppv = this;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
    STDMETHODIMP_(ULONG) Release() override { return --refs; }
    ComPtr<IUnknown> inner;
    ULONG refs = 1;
};

TEST(StringsAggregate, TheCollectionWorksInsideAnOuterObjectThatItsEnumeratorKeepsAlive) {
    Outer outer;
    ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyStrings, &outer, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&outer.inner)));
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
    identity.Reset();
    strings.Reset();
    EXPECT_EQ(1u, outer.refs);
    outer.inner.Reset();
}

TEST(StringsThreads, AddsFromManyThreadsAllLandAndStayUnique) {
    ComPtr<IStrings> strings = NewStrings();
    ASSERT_HR(S_OK, strings->put_UniqueStrings(VARIANT_TRUE));
    ASSERT_HR(S_OK, strings->put_CompareFlags(NORM_IGNORECASE));
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (++ready; ready < 4;) std::this_thread::yield();  // all start together
            // The same 1000 names from every thread in its own letter case, then 1000 of its own.
            for (int i = 0; i < 2000; ++i) {
                std::wstring text = i < 1000 ? (t % 2 ? L"NAME" : L"name") : std::to_wstring(t) + L"-";
                AddText(strings.Get(), (text + std::to_wstring(i)).c_str());
            }
        });
    }
    for (auto& thread : threads) thread.join();
    long count = 0;
    EXPECT_HR(S_OK, strings->get_Count(&count));
    EXPECT_EQ(1000 + 4 * 1000, count);
}

}  // namespace
}  // namespace ky::test
