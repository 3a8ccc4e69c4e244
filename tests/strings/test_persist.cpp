// The collection's enumerator and its persisted form.
#include "stringstest.h"

namespace ky::test {
namespace {

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
    EXPECT_EQ(L"a", Next(bstrs.Get()));
    EXPECT_EQ(L"b", Next(variants.Get()));
    EXPECT_EQ(L"c", Next(texts.Get()));
    EXPECT_EQ(L"", Next(texts.Get()));
    EXPECT_EQ(L"-", Next(bstrs.Get()));
    EXPECT_HR(S_OK, variants->Reset());
    EXPECT_EQ(L"a", Next(texts.Get()));
    ASSERT_HR(S_OK, variants->Clone(&clone));
    ASSERT_HR(S_OK, clone.As(&cloneTexts));
    EXPECT_EQ(L"b", Next(cloneTexts.Get()));
    EXPECT_EQ(L"c", Next(cloneTexts.Get()));
    EXPECT_EQ(L"b", Next(bstrs.Get()));
    // Elements added at the tail are seen; removing under the cursor is tolerated.
    AddAll(strings.Get(), {L"e"});
    EXPECT_HR(S_OK, texts->Skip(3));
    for (int i = 0; i < 3; ++i) EXPECT_HR(S_OK, strings->Remove(Arg(0L)));
    EXPECT_EQ(L"-", Next(texts.Get()));
    EXPECT_HR(S_OK, texts->Reset());
    strings.Reset();
    EXPECT_EQ(L"", Next(texts.Get()));
    EXPECT_EQ(L"e", Next(texts.Get()));
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

// A damaged image fails with the elements read before the damage kept.
TEST(StringsImage, DamagedImagesFailWithWhatWasReadKept) {
    const Bytes tails[] = {
        {},                                 // fewer records than counted
        {10, 0, 0, 0, 'x', 0, 'y', 0},      // a body cut short
        {1, 0, 0, 0, 'z', 0, 0, 0},         // a length below the terminator's
        {0xF0, 0xFF, 0xFF, 0xFF, 'z', 0, 0, 0},
    };
    for (const Bytes& tail : tails) {
        Bytes image;
        PutUInt32(image, 3);
        PutString(image, L"one");
        PutString(image, L"two");
        image.insert(image.end(), tail.begin(), tail.end());
        ComPtr<IStrings> strings = NewStrings();
        EXPECT_HR(E_FAIL, LoadFrom(strings.Get(), image));
        EXPECT_EQ(L"one two", Joined(strings.Get()));
    }
}

}  // namespace
}  // namespace ky::test
