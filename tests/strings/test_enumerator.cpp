// The collection's enumerator: three faces on one cursor over the live list.
#include "stringstest.h"

namespace ky::test {
namespace {

struct Enumerator : ::testing::Test {
    void SetUp() override {
        strings = NewStrings();
        AddAll(strings.Get(), {L"a", L"b", L"c", L"d"});
        ComPtr<IUnknown> unknown;
        ASSERT_HR(S_OK, strings->get__NewEnum(&unknown));
        ASSERT_HR(S_OK, unknown.As(&bstrs));
        ASSERT_HR(S_OK, unknown.As(&variants));
        ASSERT_HR(S_OK, unknown.As(&texts));
    }
    // The next element through each face ("" at the end).
    std::wstring NextBstr(IEnumBSTR* e) {
        com::Bstr item;
        return e->Next(1, item.Out(), nullptr) == S_OK ? Text(item) : L"";
    }
    std::wstring NextVariant() {
        com::Variant item;
        if (variants->Next(1, item.Out(), nullptr) != S_OK) return L"";
        EXPECT_EQ(VT_BSTR, V_VT(&item));
        return Text(V_BSTR(&item));
    }
    std::wstring NextText() {
        com::TaskMem<OLECHAR> item;
        return texts->Next(1, item.Out(), nullptr) == S_OK ? std::wstring(item.Get()) : L"";
    }

    ComPtr<IStrings> strings;
    ComPtr<IEnumBSTR> bstrs;
    ComPtr<IEnumVARIANT> variants;
    ComPtr<IEnumString> texts;
};

TEST_F(Enumerator, AllFacesShareOneCursor) {
    EXPECT_EQ(L"a", NextBstr(bstrs.Get()));
    EXPECT_EQ(L"b", NextVariant());
    EXPECT_EQ(L"c", NextText());
    EXPECT_HR(S_OK, texts->Skip(1));
    EXPECT_EQ(L"", NextBstr(bstrs.Get()));
    EXPECT_HR(S_OK, variants->Reset());
    EXPECT_EQ(L"a", NextText());
}

TEST_F(Enumerator, NextFetchesWhatIsThereAndSaysWhenItRanShort) {
    BSTR items[3] = {};
    ULONG fetched = 99;
    EXPECT_HR(E_POINTER, bstrs->Next(3, items, nullptr));
    EXPECT_HR(S_OK, bstrs->Next(0, items, nullptr));
    EXPECT_HR(S_OK, bstrs->Next(3, items, &fetched));
    EXPECT_EQ(3u, fetched);
    EXPECT_EQ(L"c", Text(items[2]));
    for (BSTR& item : items) ::SysFreeString(item);

    VARIANT rest[3];
    EXPECT_HR(S_FALSE, variants->Next(3, rest, &fetched));
    ASSERT_EQ(1u, fetched);
    EXPECT_EQ(L"d", Text(V_BSTR(&rest[0])));
    ::VariantClear(&rest[0]);
    LPOLESTR none = nullptr;
    EXPECT_HR(S_FALSE, texts->Next(1, &none, &fetched));
    EXPECT_EQ(0u, fetched);
    EXPECT_EQ(nullptr, none);

    EXPECT_HR(S_OK, bstrs->Reset());
    EXPECT_HR(S_FALSE, bstrs->Skip(5));
    EXPECT_EQ(L"", NextVariant());
}

TEST_F(Enumerator, ItWalksTheLiveListNotASnapshot) {
    EXPECT_HR(S_OK, bstrs->Skip(4));
    EXPECT_EQ(L"", NextBstr(bstrs.Get()));
    AddAll(strings.Get(), {L"e"});
    EXPECT_EQ(L"e", NextBstr(bstrs.Get()));

    // Removing elements under the cursor is tolerated: the walk goes on
    // over what is left.
    EXPECT_HR(S_OK, bstrs->Reset());
    EXPECT_HR(S_OK, bstrs->Skip(3));
    EXPECT_HR(S_OK, strings->Remove(Arg(0L)));
    EXPECT_HR(S_OK, strings->Remove(Arg(0L)));
    EXPECT_HR(S_OK, strings->Remove(Arg(0L)));
    EXPECT_EQ(L"", NextText());
    EXPECT_HR(S_FALSE, texts->Skip(1));
    EXPECT_HR(S_OK, texts->Reset());
    EXPECT_EQ(L"d", NextText());
}

TEST_F(Enumerator, ClonesStartWhereTheOriginalIsAndMoveOnTheirOwn) {
    EXPECT_EQ(L"a", NextBstr(bstrs.Get()));
    ComPtr<IEnumBSTR> bstrClone;
    ASSERT_HR(S_OK, bstrs->Clone(&bstrClone));
    ComPtr<IEnumVARIANT> variantClone;
    ASSERT_HR(S_OK, variants->Clone(&variantClone));
    ComPtr<IEnumString> textClone;
    ASSERT_HR(S_OK, texts->Clone(&textClone));
    EXPECT_HR(E_POINTER, texts->Clone(nullptr));

    EXPECT_EQ(L"b", NextBstr(bstrClone.Get()));
    EXPECT_EQ(L"c", NextBstr(bstrClone.Get()));
    EXPECT_EQ(L"b", NextBstr(bstrs.Get()));  // the original did not move
    com::TaskMem<OLECHAR> text;
    ASSERT_HR(S_OK, textClone->Next(1, text.Out(), nullptr));
    EXPECT_STREQ(L"b", text.Get());
    // A clone has all three faces too.
    ComPtr<IEnumBSTR> other;
    EXPECT_HR(S_OK, variantClone.As(&other));
    EXPECT_EQ(L"b", NextBstr(other.Get()));
}

TEST_F(Enumerator, NullElementsComeOutAsNullBstrsAndEmptyTaskStrings) {
    ComPtr<IStrings> holder = NewStrings();
    ASSERT_HR(S_OK, holder->Add(nullptr));
    ComPtr<IUnknown> unknown;
    ASSERT_HR(S_OK, holder->get__NewEnum(&unknown));
    ComPtr<IEnumVARIANT> asVariants;
    ASSERT_HR(S_OK, unknown.As(&asVariants));
    com::Variant item;
    ASSERT_HR(S_OK, asVariants->Next(1, item.Out(), nullptr));
    EXPECT_EQ(VT_BSTR, V_VT(&item));
    EXPECT_EQ(nullptr, V_BSTR(&item));

    ComPtr<IEnumString> asTexts;
    ASSERT_HR(S_OK, unknown.As(&asTexts));
    ASSERT_HR(S_OK, asTexts->Reset());
    com::TaskMem<OLECHAR> text;
    ASSERT_HR(S_OK, asTexts->Next(1, text.Out(), nullptr));
    ASSERT_NE(nullptr, text.Get());
    EXPECT_STREQ(L"", text.Get());
}

TEST_F(Enumerator, TheEnumeratorOutlivesTheClientsReferenceToTheCollection) {
    strings.Reset();
    EXPECT_EQ(L"a", NextBstr(bstrs.Get()));
    EXPECT_HR(S_FALSE, DllCanUnloadNow());
}

}  // namespace
}  // namespace ky::test
