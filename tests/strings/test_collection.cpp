// The string collection as a client uses it: lookup by position and by text,
// Add with and without uniqueness, Remove, Sort over ranges, use from several
// threads, the enumerator and the persisted form.
#include <algorithm>
#include <random>
#include <thread>

#include "stringstest.h"

namespace ky::test {
namespace {

using namespace std::string_literals;

// The element found for `index` ("null" for a null one), or the failure in hex.
std::wstring Item(IStrings* strings, const VARIANT& index) {
    BSTR item = reinterpret_cast<BSTR>(1);  // cleared whatever the outcome
    HRESULT hr = strings->get_Item(index, &item);
    if (FAILED(hr)) return Widen(Hex(hr)) + (item ? L" (not cleared)" : L"");
    com::Bstr owned;
    owned.Attach(item);
    return item ? Text(item) : L"null";
}

TEST(Strings, ItemTakesTextOnlyAsAPlainBstrAndEverythingElseAsAPosition) {
    ComPtr<IStrings> strings = NewStrings();
    ASSERT_HR(S_OK, strings->Add(nullptr));
    AddAll(strings.Get(), {L"alpha", L"2", L"", L"0", L"ab"});
    ASSERT_HR(S_OK, strings->Add(com::Bstr(L"ab\0cd", 5)));  // kept up to the first zero
    LONG four = 4;
    com::Bstr one(L"1");
    BSTR oneRef = one;
    const std::wstring notFound = Widen(Hex(E_KY_ELEMENTNOTFOUND));
    const std::pair<Arg, std::wstring> cases[] = {
        {Arg(0L), L"null"}, {Arg(L"0"), L"0"}, {Arg(L"alpha"), L"alpha"}, {Arg(1.6), L"2"}, {Arg(6L), L"ab"},
        {Arg(VT_I4, &four), L"0"}, {Arg(VT_BSTR, &oneRef), L"alpha"},  // by reference even text is a position
        {Arg(-1L), notFound}, {Arg(7L), notFound}, {Arg(L"ALPHA"), notFound}, {Arg(), notFound},
    };
    for (const auto& [key, expected] : cases) EXPECT_EQ(expected, Item(strings.Get(), key)) << Narrow(expected);
    EXPECT_HR(E_POINTER, strings->get_Item(Arg(0L), nullptr));
}

// Only VARIANT_TRUE switches uniqueness on; then Add refuses duplicates under
// the compare flags while lookup stays case-sensitive. The dirty flag
// changes only when the list does.
TEST(Strings, AddRemoveAndUniquenessChangeTheDirtyFlagOnlyWhenTheListChanges) {
    ComPtr<IStrings> strings = NewStrings();
    VARIANT_BOOL unique = 7;
    EXPECT_HR(S_OK, strings->put_UniqueStrings(1));
    EXPECT_HR(S_OK, strings->get_UniqueStrings(&unique));
    EXPECT_EQ(VARIANT_FALSE, unique);
    AddAll(strings.Get(), {L"a", L"b", L"a"});
    EXPECT_HR(S_OK, strings->put_UniqueStrings(VARIANT_TRUE));
    EXPECT_HR(S_OK, strings->put_CompareFlags(NORM_IGNORECASE));
    SaveClean(strings.Get());
    EXPECT_HR(S_FALSE, AddText(strings.Get(), L"B"));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, strings->Remove(Arg(L"A")));
    EXPECT_HR(E_KY_ELEMENTNOTFOUND, strings->Remove(Arg(3L)));
    EXPECT_HR(S_FALSE, IsDirty(strings.Get()));
    EXPECT_HR(S_OK, strings->Remove(Arg(L"a")));  // the first one
    EXPECT_HR(S_OK, IsDirty(strings.Get()));
    EXPECT_EQ(L"b a", Joined(strings.Get()));
}

// The collection answers from indexes and sorts by sort keys where it can;
// plain scans and std::stable_sort with VarBstrCmp are the reference: with
// uniqueness on, Add refuses exactly what VarBstrCmp under the compare flags
// calls equal to an element; Item and Remove by text find the first element
// equal under flags 0; Sort gives the same stable order, both ways. Some
// elements come in by Load, which keeps zeros and duplicates.
TEST(Uniqueness, IndexesAndSortAgreeWithAComparisonScan) {
    // Case, width, kana, accents precomposed and combined, ignorables, symbols, digits.
    const wchar_t kAlphabet[] = L"aAbB09-' .\u00e9e\u0301\u00c9\uff41\uff21\u30a2\u3042\u00ad\u200b\u00df\u2460"
                                L"\uff10\u0130\u0131iI\u03a3\u03c3\u03c2";
    auto bstr = [](const std::wstring& s) { return com::Bstr(s.data(), UINT(s.size())); };
    const std::wstring preloaded[] = {L"a\0b"s, L"\0A"s, L"ab"s, L"AB"s};
    Bytes image;
    PutUInt32(image, 5);
    for (const auto& text : preloaded) PutString(image, text.data(), text.size());
    PutUInt32(image, 0);  // and a null
    std::vector<com::Bstr> candidates(1);  // a null one first, then an empty one
    candidates.push_back(bstr(L""));
    std::mt19937 random(20031107);
    while (candidates.size() < 200) {
        std::wstring text;
        for (size_t i = random() % 4; i > 0; --i) text.push_back(kAlphabet[random() % (std::size(kAlphabet) - 1)]);
        candidates.push_back(bstr(text));
        // And a variant: case flipped or an ignorable character or a zero inserted.
        for (wchar_t& c : text) c = random() % 2 ? c : iswupper(c) ? towlower(c) : towupper(c);
        if (random() % 2) text.insert(random() % (text.size() + 1), 1, random() % 2 ? L'\u00ad' : L'\0');
        candidates.push_back(bstr(text));
    }
    const ULONG flagSets[] = {0, NORM_IGNORECASE, NORM_IGNORENONSPACE | NORM_IGNORESYMBOLS, NORM_IGNOREWIDTH |
                              NORM_IGNOREKANATYPE, SORT_STRINGSORT, LINGUISTIC_IGNORECASE, 0x40000000, 0xFFFFFFFF};
    for (ULONG flags : flagSets) {
        SCOPED_TRACE("flags " + Hex(static_cast<HRESULT>(flags)));
        ComPtr<IStrings> strings = NewStrings();
        ASSERT_HR(S_OK, LoadFrom(strings.Get(), image));
        ASSERT_HR(S_OK, strings->put_CompareFlags(flags));
        ASSERT_HR(S_OK, strings->put_UniqueStrings(VARIANT_TRUE));
        std::vector<com::Bstr> held;  // what the collection holds, as it holds it
        for (const auto& text : preloaded) held.push_back(bstr(text));
        held.emplace_back();
        auto equalIn = [&](BSTR text, ULONG under) {
            return std::find_if(held.begin(), held.end(), [&](const com::Bstr& item) {
                return ::VarBstrCmp(item, text, LOCALE_USER_DEFAULT, under) == VARCMP_EQ;
            });
        };
        auto joined = [&] {
            std::wstring text;
            for (size_t k = 0; k < held.size(); ++k) text += (k ? L" " : L"") + Text(held[k]);
            return text;
        };
        for (size_t i = 0; i < candidates.size(); ++i) {
            bool duplicate = equalIn(candidates[i], flags) != held.end();
            ASSERT_HR(duplicate ? S_FALSE : S_OK, strings->Add(candidates[i])) << i;
            if (!duplicate) held.emplace_back(static_cast<BSTR>(candidates[i]));  // cut at a zero, as Add copies
            if (i % 17 == 16) {  // now and then one out of the middle
                ASSERT_HR(S_OK, strings->Remove(Arg(long(held.size() / 2))));
                held.erase(held.begin() + held.size() / 2);
            }
        }
        EXPECT_EQ(joined(), Joined(strings.Get()));
        for (size_t i = 0; i < candidates.size(); i += 3) {
            VARIANT key;  // the text as it is, zeros and null included
            V_VT(&key) = VT_BSTR;
            V_BSTR(&key) = candidates[i];
            auto first = equalIn(candidates[i], 0);
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

// Ranges are half-open, 0 as the end means the end, and only VARIANT_TRUE
// is ascending. Sorting leaves the dirty flag alone.
TEST(Strings, SortRanges) {
    const std::wstring original = L"echo charlie delta alpha bravo";
    const struct { VARIANT_BOOL ascending; long first, last; HRESULT hr; std::wstring after; } cases[] = {
        {VARIANT_TRUE, 1, 4, S_OK, L"echo alpha charlie delta bravo"},
        {1, 3, 0, S_OK, L"echo charlie delta bravo alpha"},
        {VARIANT_TRUE, 0, 99, S_OK, L"alpha bravo charlie delta echo"},
        {VARIANT_FALSE, 0, 0, S_OK, L"echo delta charlie bravo alpha"},
        {VARIANT_TRUE, 5, 0, S_FALSE, original},
        {VARIANT_TRUE, 3, 3, E_INVALIDARG, original},
        {VARIANT_TRUE, 6, 0, E_INVALIDARG, original},
        {VARIANT_TRUE, -1, 3, E_INVALIDARG, original},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.ascending << " " << c.first << " " << c.last);
        ComPtr<IStrings> list = NewStrings();
        AddAll(list.Get(), {L"echo", L"charlie", L"delta", L"alpha", L"bravo"});
        SaveClean(list.Get());
        EXPECT_HR(c.hr, list->Sort(c.ascending, c.first, c.last));
        EXPECT_EQ(c.after, Joined(list.Get()));
        EXPECT_HR(S_FALSE, IsDirty(list.Get()));
    }
}

TEST(Strings, AddsFromSeveralThreadsAllLandAndStayUnique) {
    ComPtr<IStrings> strings = NewStrings();
    ASSERT_HR(S_OK, strings->put_UniqueStrings(VARIANT_TRUE));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {  // 500 names that all threads add, then 500 of its own
        threads.emplace_back([&, t] {
            for (int i = 0; i < 1000; ++i)
                AddText(strings.Get(), (std::to_wstring(i < 500 ? 9 : t) + L"-" + std::to_wstring(i)).c_str());
        });
    }
    for (auto& thread : threads) thread.join();
    long count = 0;
    EXPECT_HR(S_OK, strings->get_Count(&count));
    EXPECT_EQ(500 + 4 * 500, count);
}

// The next element through each face ("-" at the end).
std::wstring Next(IEnumBSTR* e) {
    com::Bstr item;
    return e->Next(1, item.Out(), nullptr) == S_OK ? Text(item) : L"-";
}
std::wstring Next(IEnumVARIANT* e) {
    com::Variant item;
    return e->Next(1, item.Out(), nullptr) == S_OK ? Text(V_BSTR(&item)) : L"-";
}
std::wstring Next(IEnumString* e) {  // a null element comes out empty
    com::TaskMem<OLECHAR> item;
    return e->Next(1, item.Out(), nullptr) != S_OK ? L"-" : item.Get() ? item.Get() : L"null";
}

// The three faces of the enumerator share one cursor over the live list,
// which they keep alive; clones get their own cursor, with all three faces.
TEST(Enumerator, FacesShareOneCursorOverTheLiveList) {
    ComPtr<IStrings> strings = NewStrings();
    AddAll(strings.Get(), {L"a", L"b", L"c"});
    ASSERT_HR(S_OK, strings->Add(nullptr));
    ComPtr<IUnknown> unknown;
    ASSERT_HR(S_OK, strings->get__NewEnum(&unknown));
    ComPtr<IEnumBSTR> bstrs;
    ComPtr<IEnumVARIANT> variants, clone;
    ComPtr<IEnumString> texts, cloneTexts;
    ASSERT_TRUE(SUCCEEDED(unknown.As(&bstrs)) && SUCCEEDED(unknown.As(&variants)) && SUCCEEDED(unknown.As(&texts)));
    auto walk = [&](const char* faces) {  // b, v, s: the three faces; c: a clone
        std::wstring out;
        for (const char* f = faces; *f; ++f)
            out += (f == faces ? L"" : L" ") + (*f == 'b'   ? Next(bstrs.Get())
                                                : *f == 'v' ? Next(variants.Get())
                                                : *f == 's' ? Next(texts.Get())
                                                            : Next(cloneTexts.Get()));
        return out;
    };
    EXPECT_EQ(L"a b c  -", walk("bvssb"));
    EXPECT_HR(S_OK, variants->Reset());
    EXPECT_EQ(L"a", walk("s"));
    ASSERT_HR(S_OK, variants->Clone(&clone));
    ASSERT_HR(S_OK, clone.As(&cloneTexts));
    EXPECT_EQ(L"b c b", walk("ccb"));
    // Elements added at the tail are seen; removing under the cursor is tolerated.
    AddAll(strings.Get(), {L"e"});
    EXPECT_HR(S_OK, texts->Skip(3));
    for (int i = 0; i < 3; ++i) EXPECT_HR(S_OK, strings->Remove(Arg(0L)));
    EXPECT_EQ(L"-", walk("s"));
    EXPECT_HR(S_OK, texts->Reset());
    strings.Reset();
    EXPECT_EQ(L" e -", walk("bvs"));
    EXPECT_HR(S_FALSE, DllCanUnloadNow());
}

// A count, then per element its byte length with the terminator (0 for a
// null element) and the text. Load empties the list first and keeps
// duplicates, embedded zeros and odd lengths; Save writes them back.
TEST(StringsImage, ElementsAreWrittenExactlyAndReadBack) {
    ComPtr<IStrings> strings = NewStrings();
    ASSERT_HR(S_OK, strings->Add(nullptr));
    AddAll(strings.Get(), {L"", L"ab"});
    Bytes image{3, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 6, 0, 0, 0, 'a', 0, 'b', 0, 0, 0};
    EXPECT_EQ(image, Saved(strings.Get()));
    ULARGE_INTEGER bound{};
    EXPECT_HR(S_OK, PersistOf(strings.Get())->GetSizeMax(&bound));
    EXPECT_EQ(4u + 6 + 6 + 10, bound.QuadPart);  // generous for the null element
    image[0] = 6;
    PutString(image, L"a\0b", 3);
    PutString(image, L"ab");
    PutUInt32(image, 5);  // three bytes of text and the terminator
    image.insert(image.end(), {'x', 0, 'y', 0, 0});
    ComPtr<IStrings> loaded = NewStrings();
    ASSERT_HR(S_OK, loaded->put_UniqueStrings(VARIANT_TRUE));  // not applied by Load
    AddAll(loaded.Get(), {L"old"});
    EXPECT_HR(S_OK, LoadFrom(loaded.Get(), image));
    EXPECT_HR(S_FALSE, IsDirty(loaded.Get()));
    EXPECT_EQ(image, Saved(loaded.Get()));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
