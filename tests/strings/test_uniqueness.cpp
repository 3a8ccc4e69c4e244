// With uniqueness on, Add must refuse exactly the strings that VarBstrCmp,
// under the collection's compare flags, finds equal to one already held.
// The collection answers that without scanning where it can; these tests
// hold its answers against a plain scan done here, over strings chosen to
// sit on the edges of the comparison: letter case, width, kana, accents
// precomposed and combined, ignorable characters, symbols, digits, embedded
// and leading zeros, null and empty strings, and elements that only a
// stream can bring in.
#include <random>

#include "stringstest.h"

namespace ky::test {
namespace {

// Characters that the comparison flags treat specially, and plain ones.
const wchar_t kAlphabet[] =
    L"aAbBzZ09-' .,!\u00e9e\u0301\u00c9\uff41\uff21\u30a2\u3042\u30ab\u304b\u00ad\u200b"
    L"\u00df\u00e6\u00f1\u2460\u0031\u00bd\uff10\u0130\u0131iI\u03a3\u03c3\u03c2";
constexpr size_t kAlphabetSize = sizeof(kAlphabet) / sizeof(kAlphabet[0]) - 1;

// Strings with their variants, so that equal pairs are frequent.
std::vector<com::Bstr> Candidates(std::mt19937& random, int count) {
    std::vector<com::Bstr> out;
    out.emplace_back();  // null
    out.emplace_back(L"");
    out.emplace_back(L"\0x", 2);  // starts with a zero
    out.emplace_back(L"\0y", 2);
    out.emplace_back(L"x\0", 2);
    while (static_cast<int>(out.size()) < count) {
        std::wstring text;
        size_t length = random() % 5;
        for (size_t i = 0; i < length; ++i) text.push_back(kAlphabet[random() % kAlphabetSize]);
        out.emplace_back(text.data(), static_cast<UINT>(text.size()));
        // A variant: case flipped, a character widened, or an ignorable one inserted.
        std::wstring variant = text;
        switch (random() % 3) {
            case 0:
                for (wchar_t& c : variant) c = iswupper(c) ? towlower(c) : towupper(c);
                break;
            case 1:
                for (wchar_t& c : variant)
                    if (c >= L'a' && c <= L'z') c = static_cast<wchar_t>(c - L'a' + 0xFF41);
                break;
            default:
                variant.insert(random() % (variant.size() + 1), 1, random() % 2 ? L'\u00ad' : L'\0');
        }
        out.emplace_back(variant.data(), static_cast<UINT>(variant.size()));
    }
    return out;
}

bool ScanFindsEqual(const std::vector<com::Bstr>& held, BSTR text, ULONG flags) {
    for (const com::Bstr& item : held) {
        if (::VarBstrCmp(text, item, LOCALE_USER_DEFAULT, flags) == VARCMP_EQ) return true;
    }
    return false;
}

// Adds every candidate to a unique collection, with some removals between,
// and checks each answer against the scan. `preload` are loaded first.
void CheckAgainstScan(ULONG flags, const std::vector<com::Bstr>& preload, const std::vector<com::Bstr>& candidates) {
    SCOPED_TRACE("flags " + Hex(static_cast<HRESULT>(flags)));
    ComPtr<IStrings> strings = NewStrings();
    Bytes image;
    PutUInt32(image, static_cast<ULONG>(preload.size()));
    for (const com::Bstr& text : preload) {
        if (text.IsNull())
            PutUInt32(image, 0);
        else
            PutString(image, text, text.Length());
    }
    ASSERT_HR(S_OK, LoadFrom(strings.Get(), image));
    ASSERT_HR(S_OK, strings->put_CompareFlags(flags));
    ASSERT_HR(S_OK, strings->put_UniqueStrings(VARIANT_TRUE));

    // What the collection should hold, as Add stores it (cut at a zero).
    std::vector<com::Bstr> held;
    for (const com::Bstr& text : preload) {
        held.emplace_back();
        held.back().Assign(text);
    }
    int refused = 0;
    for (size_t i = 0; i < candidates.size(); ++i) {
        BSTR text = candidates[i];
        bool duplicate = ScanFindsEqual(held, text, flags);
        HRESULT hr = strings->Add(text);
        ASSERT_HR(duplicate ? S_FALSE : S_OK, hr) << "candidate " << i << " \"" << Narrow(Text(text)) << "\"";
        if (duplicate) {
            ++refused;
        } else {
            held.emplace_back(text);  // SysAllocString, as Add copies
        }
        // Now and then take out an element from the middle.
        if (i % 17 == 16 && held.size() > 2) {
            long position = static_cast<long>(held.size() / 2);
            ASSERT_HR(S_OK, strings->Remove(Arg(position)));
            held.erase(held.begin() + position);
        }
    }
    EXPECT_GT(refused, 0);
    long count = 0;
    EXPECT_HR(S_OK, strings->get_Count(&count));
    EXPECT_EQ(static_cast<long>(held.size()), count);
}

TEST(Uniqueness, AddRefusesExactlyWhatAComparisonScanFindsEqual) {
    std::mt19937 random(20031107);
    const std::vector<com::Bstr> candidates = Candidates(random, 700);
    const ULONG flagSets[] = {
        0,
        NORM_IGNORECASE,
        NORM_IGNORENONSPACE,
        NORM_IGNORESYMBOLS,
        NORM_IGNOREKANATYPE,
        NORM_IGNOREWIDTH,
        SORT_STRINGSORT,
        SORT_DIGITSASNUMBERS,
        LINGUISTIC_IGNORECASE,
        LINGUISTIC_IGNOREDIACRITIC,
        NORM_LINGUISTIC_CASING | NORM_IGNORECASE,
        NORM_IGNORECASE | NORM_IGNOREWIDTH | NORM_IGNOREKANATYPE,
        NORM_IGNORECASE | NORM_IGNORENONSPACE | NORM_IGNORESYMBOLS | SORT_STRINGSORT,
        // Flags that are no comparison flags at all.
        LCMAP_LOWERCASE,
        LCMAP_BYTEREV | NORM_IGNORECASE,
        0x40000000,
        0xFFFFFFFF,
    };
    for (ULONG flags : flagSets) CheckAgainstScan(flags, {}, candidates);
}

TEST(Uniqueness, ElementsThatOnlyAStreamBringsInAreComparedTheSameWay) {
    std::vector<com::Bstr> preload;
    preload.emplace_back(L"a\0b", 3);  // embedded zero
    preload.emplace_back(L"\0A", 2);   // leading zero
    preload.emplace_back(L"ab");
    preload.emplace_back(L"AB");  // duplicates under ignore-case, loaded all the same
    preload.emplace_back();
    std::vector<com::Bstr> candidates;
    for (const wchar_t* text : {L"ab", L"Ab", L"a\u00adb", L"", L"x"}) candidates.emplace_back(text);
    candidates.emplace_back(L"a\0B", 3);
    candidates.emplace_back(L"\0a", 2);
    candidates.emplace_back(L"\0b", 2);
    for (ULONG flags : {0ul, static_cast<ULONG>(NORM_IGNORECASE), static_cast<ULONG>(LCMAP_LOWERCASE)}) {
        CheckAgainstScan(flags, preload, candidates);
    }
}

}  // namespace
}  // namespace ky::test
