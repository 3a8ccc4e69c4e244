// Object metadata as a provider fills it and a view reads it.
#include <wrl/client.h>

#include "com/raii.h"
#include "kytest.h"

namespace ky::test {
namespace {

using Microsoft::WRL::ComPtr;

GUID Guid(unsigned long data1) { return GUID{data1, 0x1234, 0x5678, {0x90, 0, 0, 0, 0, 0, 0, 0}}; }

class MetaData : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyObjectMetaData, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&get)));
        ASSERT_HR(S_OK, get.As(&set));
    }
    std::vector<LONG_PTR> IconsThenResult(std::vector<ULONG> types) {
        std::vector<LONG_PTR> handles(types.size(), -1);
        handles.push_back(get->GetIcons(static_cast<unsigned>(types.size()), types.data(), handles.data()));
        return handles;
    }
    ComPtr<IKyObjectMetaData> get;
    ComPtr<IKySetObjectMetaData> set;
};

TEST_F(MetaData, TheFirstMatchingRuleDecidesAndTheOtherwiseTextIsTheFallback) {
    const std::tuple<int, ULONG, const wchar_t*, HRESULT> rules[] = {
        {KYDSR_MASK, 0, L"x", E_INVALIDARG}, {KYDSR_ONE, 0, L"x", E_INVALIDARG}, {3, 1, L"x", E_UNEXPECTED},
        {0, 1, L"x", E_UNEXPECTED}, {-1, 1, L"x", E_UNEXPECTED}, {KYDSR_MASK, 0x6, L"all of 6", S_OK},
        {KYDSR_ONE, 0x30, L"one of 30", S_OK}, {KYDSR_EQUAL, 0x10, L"shadowed", S_OK}, {KYDSR_EQUAL, 0, L"zero", S_OK},
        {KYDSR_ONE, 0x100, nullptr, S_OK}, {KYDSR_OTHERWISE, 0, L"other", S_OK}, {KYDSR_OTHERWISE, 0, L"x", E_UNEXPECTED}};
    for (auto [kind, mask, text, expected] : rules)
        EXPECT_HR(expected, set->AddDecodeStateRule(KYDECODESTATERULE(kind), mask, com::Bstr(text)));
    // "text|rule" (S_OK), "text|fallback" (S_FALSE); "(null)" for no text.
    for (auto [state, expected] : {std::pair<ULONG, std::wstring>{0x7, L"all of 6|rule"}, {0x5, L"other|fallback"},
                                   {0x10, L"one of 30|rule"}, {0, L"zero|rule"}, {0x101, L"(null)|rule"}}) {
        com::Bstr text;
        HRESULT hr = get->DecodeState(state, text.Out());
        EXPECT_EQ(expected, (text.IsNull() ? L"(null)" : std::wstring(text)) + (hr == S_OK ? L"|rule" : hr == S_FALSE ? L"|fallback" : L"|failed"));
    }
}

TEST_F(MetaData, IconTypesAreValidatedAndListsReportPartialResults) {
    EXPECT_HR(S_OK, set->AddIcon(0x101, 11));
    EXPECT_HR(E_FAIL, set->AddIcon(0x101, 12));  // the first handle stays
    for (ULONG bad : {0x103ul, 0x301ul, 0x001ul, 0x100ul}) EXPECT_HR(E_INVALIDARG, set->AddIcon(bad, 13)) << bad;
    EXPECT_HR(E_INVALIDARG, set->AddIcon(0x102, 0));
    ULONG types[3] = {0x210, 0x103, 0x202};
    LONG_PTR handles[3] = {15, 16, 17};
    EXPECT_HR(S_FALSE, set->AddIcons(2, types, handles));  // 0x210 stays
    EXPECT_HR(E_FAIL, set->AddIcons(1, types + 1, handles + 1));
    EXPECT_HR(S_OK, set->AddIcons(1, types + 2, handles + 2));
    EXPECT_EQ((std::vector<LONG_PTR>{11, 15, 17, S_OK}), IconsThenResult({0x101, 0x210, 0x202}));
    EXPECT_EQ((std::vector<LONG_PTR>{0, E_FAIL}), IconsThenResult({0x104}));
    EXPECT_EQ((std::vector<LONG_PTR>{17, 0, 11, S_FALSE}), IconsThenResult({0x202, 0x103, 0x101}));
}

TEST_F(MetaData, SupportedInterfacesAreListedInByteOrderByALiveView) {
    IID list[3] = {Guid(0x0001), Guid(0x0100), GUID_NULL};  // Data1 is little-endian: 0x0100 comes first
    EXPECT_HR(S_FALSE, set->AddSupportedInterfaces(3, list));
    EXPECT_HR(E_FAIL, set->AddSupportedInterfaces(1, list + 2));
    EXPECT_HR(S_OK, set->AddSupportedInterfaces(2, list));  // already there: kept once, still a success
    EXPECT_HR(S_OK, get->IsInterfaceSupported(Guid(0x0001)));
    EXPECT_HR(static_cast<HRESULT>(0x80041021), get->IsInterfaceSupported(Guid(3)));  // element not found
    ComPtr<IEnumGUID> e;
    ASSERT_HR(S_OK, get->get_SupportedInterfaces(&e));
    std::vector<GUID> seen(1);
    ASSERT_HR(S_OK, e->Next(1, &seen[0], nullptr));
    ASSERT_HR(S_OK, set->AddSupportedInterface(Guid(0x0002)));  // behind the cursor: seen
    ASSERT_HR(S_OK, set->AddSupportedInterface(Guid(0x0000)));  // before it: not seen
    get.Reset(), set.Reset();  // the enumerator keeps its object alive
    for (GUID g; e->Next(1, &g, nullptr) == S_OK;) seen.push_back(g);
    EXPECT_EQ((std::vector<GUID>{Guid(0x0100), Guid(0x0001), Guid(0x0002)}), seen);
}

TEST_F(MetaData, SortingPreferenceHonoursOnlyVariantTrueAsAscending) {
    ULONG value = 0;
    auto preference = [&](VARIANT_BOOL ascending) { return get->get_SortingPreference(ascending, &value), value; };
    EXPECT_EQ(0xFFFFFFFFu, preference(VARIANT_TRUE));  // until set
    EXPECT_HR(S_OK, set->put_SortingPreference(7, 9));  // both directions at once
    EXPECT_EQ((std::vector<ULONG>{7, 9, 9}), (std::vector<ULONG>{preference(VARIANT_TRUE), preference(0), preference(1)}));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
