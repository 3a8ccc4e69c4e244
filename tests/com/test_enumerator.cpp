// Snapshot enumerators: the standard Next/Skip/Reset/Clone contract.
#include <wrl/client.h>

#include <comcat.h>

#include "com/enumerator.h"
#include "kytest.h"
#include "testobjects.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

using GuidEnum = com::SnapshotEnumerator<IEnumGUID, GUID>;

GUID Numbered(unsigned n) {
    GUID g = GUID_NULL;
    g.Data1 = n;
    return g;
}

ComPtr<IEnumGUID> FiveGuids() {
    std::vector<GUID> items;
    for (unsigned i = 1; i <= 5; ++i) items.push_back(Numbered(i));
    ComPtr<GuidEnum> e;
    EXPECT_HR(S_OK, GuidEnum::Make(e, items));
    ComPtr<IEnumGUID> result;
    e.As(&result);
    return result;
}

TEST(SnapshotEnumerator, NextFetchesUntilTheEnd) {
    ComPtr<IEnumGUID> e = FiveGuids();
    GUID got[3];
    ULONG fetched = 99;
    EXPECT_HR(S_OK, e->Next(3, got, &fetched));
    EXPECT_EQ(3u, fetched);
    EXPECT_EQ(3u, got[2].Data1);
    EXPECT_HR(S_FALSE, e->Next(3, got, &fetched));
    EXPECT_EQ(2u, fetched);
    EXPECT_EQ(5u, got[1].Data1);
    EXPECT_HR(S_FALSE, e->Next(1, got, &fetched));
    EXPECT_EQ(0u, fetched);
}

TEST(SnapshotEnumerator, CountPointerMayBeOmittedForOneItemOnly) {
    ComPtr<IEnumGUID> e = FiveGuids();
    GUID got[2];
    EXPECT_HR(S_OK, e->Next(1, got, nullptr));
    EXPECT_HR(E_POINTER, e->Next(2, got, nullptr));
    EXPECT_HR(E_POINTER, e->Next(1, nullptr, nullptr));
    ULONG fetched = 0;
    EXPECT_HR(S_OK, e->Next(1, got, &fetched));
    EXPECT_EQ(2u, got[0].Data1);  // the refused calls did not move the cursor
}

TEST(SnapshotEnumerator, SkipResetAndClone) {
    ComPtr<IEnumGUID> e = FiveGuids();
    EXPECT_HR(S_OK, e->Skip(2));
    ComPtr<IEnumGUID> clone;
    ASSERT_HR(S_OK, e->Clone(&clone));
    GUID got;
    EXPECT_HR(S_OK, clone->Next(1, &got, nullptr));
    EXPECT_EQ(3u, got.Data1);  // the clone starts where its original stood
    EXPECT_HR(S_OK, e->Next(1, &got, nullptr));
    EXPECT_EQ(3u, got.Data1);  // and moves on its own
    EXPECT_HR(S_FALSE, e->Skip(10));
    EXPECT_HR(S_FALSE, e->Next(1, &got, nullptr));
    EXPECT_HR(S_OK, e->Reset());
    EXPECT_HR(S_OK, e->Next(1, &got, nullptr));
    EXPECT_EQ(1u, got.Data1);
}

TEST(SnapshotEnumerator, CountZeroCanBeRefused) {
    using Strict = com::SnapshotEnumerator<IEnumGUID, GUID, com::CopyTraits<GUID>, com::ZeroCount::Refused>;
    ComPtr<Strict> e;
    ASSERT_HR(S_OK, Strict::Make(e, {Numbered(1)}));
    GUID got;
    ULONG fetched;
    EXPECT_HR(E_INVALIDARG, e->Next(0, &got, &fetched));
    EXPECT_HR(S_OK, FiveGuids()->Next(0, &got, &fetched));
}

TEST(SnapshotEnumerator, HoldsAndHandsOutReferences) {
    std::vector<IUnknown*> items;
    for (int i = 0; i < 3; ++i) {
        IUnknown* w = nullptr;
        ASSERT_HR(S_OK, Widget::CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&w)));
        items.push_back(w);  // the snapshot takes this reference over
    }
    using UnknownEnum = com::SnapshotEnumerator<IEnumUnknown, IUnknown*>;
    ComPtr<UnknownEnum> e;
    ASSERT_HR(S_OK, UnknownEnum::Make(e, items));
    IUnknown* got[3] = {};
    ULONG fetched = 0;
    EXPECT_HR(S_OK, e->Next(3, got, &fetched));
    EXPECT_EQ(items[1], got[1]);
    for (IUnknown* p : got) p->Release();
    EXPECT_EQ(3, Widget::s_live);
    e.Reset();
    EXPECT_EQ(0, Widget::s_live);
}

// Copies fail from the third item on.
struct FailingCopy : com::CopyTraits<VARIANT> {
    static int copies;
    static int clears;
    static HRESULT Copy(VARIANT* target, const VARIANT& source) {
        if (++copies > 2) return E_OUTOFMEMORY;
        return com::CopyTraits<VARIANT>::Copy(target, source);
    }
    static void Clear(VARIANT* target) {
        ++clears;
        com::CopyTraits<VARIANT>::Clear(target);
    }
};
int FailingCopy::copies = 0;
int FailingCopy::clears = 0;

TEST(SnapshotEnumerator, AFailedCopyTakesBackWhatTheCallHandedOut) {
    using VariantEnum = com::SnapshotEnumerator<IEnumVARIANT, VARIANT, FailingCopy>;
    std::vector<VARIANT> items(4);
    for (auto& v : items) {
        ::VariantInit(&v);
        V_VT(&v) = VT_BSTR;
        V_BSTR(&v) = ::SysAllocString(L"text");
    }
    ComPtr<VariantEnum> e;
    ASSERT_HR(S_OK, VariantEnum::Make(e, items));
    VARIANT got[4];
    ULONG fetched = 99;
    EXPECT_HR(E_OUTOFMEMORY, e->Next(4, got, &fetched));
    EXPECT_EQ(0u, fetched);
    EXPECT_EQ(2, FailingCopy::clears);
}

}  // namespace
}  // namespace ky::test
