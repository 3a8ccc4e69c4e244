// The collection's enumerator: three faces on one cursor over the live list.
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
    if (e->Next(1, item.Out(), nullptr) != S_OK) return L"-";
    EXPECT_EQ(VT_BSTR, V_VT(&item));
    return Text(V_BSTR(&item));
}
std::wstring Next(IEnumString* e) {
    com::TaskMem<OLECHAR> item;
    if (e->Next(1, item.Out(), nullptr) != S_OK) return L"-";
    EXPECT_NE(nullptr, item.Get());  // a null element comes out empty
    return item.Get() ? item.Get() : L"null";
}

struct Enumerator : ::testing::Test {
    void SetUp() override {
        strings = NewStrings();
        AddAll(strings.Get(), {L"a", L"b", L"c"});
        ASSERT_HR(S_OK, strings->Add(nullptr));
        ComPtr<IUnknown> unknown;
        ASSERT_HR(S_OK, strings->get__NewEnum(&unknown));
        ASSERT_HR(S_OK, unknown.As(&bstrs));
        ASSERT_HR(S_OK, unknown.As(&variants));
        ASSERT_HR(S_OK, unknown.As(&texts));
    }
    ComPtr<IStrings> strings;
    ComPtr<IEnumBSTR> bstrs;
    ComPtr<IEnumVARIANT> variants;
    ComPtr<IEnumString> texts;
};

TEST_F(Enumerator, AllFacesShareOneCursorAndClonesGetTheirOwn) {
    EXPECT_EQ(L"a", Next(bstrs.Get()));
    EXPECT_EQ(L"b", Next(variants.Get()));
    EXPECT_EQ(L"c", Next(texts.Get()));
    EXPECT_EQ(L"", Next(texts.Get()));
    EXPECT_EQ(L"-", Next(bstrs.Get()));
    EXPECT_HR(S_OK, variants->Reset());
    EXPECT_EQ(L"a", Next(texts.Get()));

    // A clone starts where the original is, moves on its own and has all three faces.
    ComPtr<IEnumVARIANT> clone;
    ASSERT_HR(S_OK, variants->Clone(&clone));
    ComPtr<IEnumString> cloneTexts;
    ASSERT_HR(S_OK, clone.As(&cloneTexts));
    EXPECT_EQ(L"b", Next(cloneTexts.Get()));
    EXPECT_EQ(L"c", Next(cloneTexts.Get()));
    EXPECT_EQ(L"b", Next(bstrs.Get()));
    EXPECT_HR(E_POINTER, texts->Clone(nullptr));
}

TEST_F(Enumerator, NextFetchesWhatIsThereFromTheLiveListWhichItKeepsAlive) {
    BSTR items[3] = {};
    ULONG fetched = 99;
    EXPECT_HR(E_POINTER, bstrs->Next(3, items, nullptr));
    EXPECT_HR(S_OK, bstrs->Next(3, items, &fetched));
    EXPECT_EQ(3u, fetched);
    EXPECT_EQ(L"c", Text(items[2]));
    for (BSTR& item : items) ::SysFreeString(item);
    VARIANT rest[3];
    EXPECT_HR(S_FALSE, variants->Next(3, rest, &fetched));
    ASSERT_EQ(1u, fetched);
    EXPECT_EQ(VT_BSTR, V_VT(&rest[0]));
    EXPECT_EQ(nullptr, V_BSTR(&rest[0]));  // the null element
    EXPECT_EQ(L"-", Next(bstrs.Get()));

    // Elements added at the tail are seen; removing elements under the
    // cursor is tolerated, the walk goes on over what is left.
    AddAll(strings.Get(), {L"e"});
    EXPECT_EQ(L"e", Next(bstrs.Get()));
    EXPECT_HR(S_OK, bstrs->Reset());
    EXPECT_HR(S_OK, bstrs->Skip(3));
    for (int i = 0; i < 3; ++i) EXPECT_HR(S_OK, strings->Remove(Arg(0L)));
    EXPECT_EQ(L"-", Next(texts.Get()));
    EXPECT_HR(S_OK, texts->Reset());
    EXPECT_HR(S_FALSE, texts->Skip(5));
    EXPECT_HR(S_OK, texts->Reset());
    EXPECT_EQ(L"", Next(texts.Get()));

    strings.Reset();
    EXPECT_EQ(L"e", Next(bstrs.Get()));
    EXPECT_HR(S_FALSE, DllCanUnloadNow());
}

}  // namespace
}  // namespace ky::test
