// Object metadata as a provider fills it and a view reads it: state
// decoding, icons, sorting preference and supported interfaces.
#include <wrl/client.h>

#include <string>
#include <vector>

#include "com/raii.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

constexpr HRESULT kElementNotFound = static_cast<HRESULT>(0x80041021ul);

ComPtr<IKyObjectMetaData> Create() {
    ComPtr<IKyObjectMetaData> meta;
    EXPECT_HR(S_OK, ::CoCreateInstance(CLSID_KyObjectMetaData, nullptr, CLSCTX_INPROC_SERVER, IID_IKyObjectMetaData,
                                       &meta));
    return meta;
}

// "text|rule" for a state decoded by a rule, "text|fallback" for one decoded
// by the otherwise text; a null text reads "<null>".
std::wstring Decode(IKyObjectMetaData* meta, ULONG state) {
    com::Bstr text;
    HRESULT hr = meta->DecodeState(state, text.Out());
    std::wstring result = text.IsNull() ? L"<null>" : std::wstring(text, text.Length());
    return result + (hr == S_OK ? L"|rule" : hr == S_FALSE ? L"|fallback" : L"|failed");
}

// The handles that GetIcons answers for `types`, then its result.
std::vector<LONG_PTR> Icons(IKyObjectMetaData* meta, std::vector<ULONG> types, HRESULT* hr) {
    std::vector<LONG_PTR> handles(types.size(), -1);
    *hr = meta->GetIcons(static_cast<unsigned>(types.size()), types.data(), handles.data());
    return handles;
}

GUID Guid(unsigned long data1, unsigned char last = 0) {
    return GUID{data1, 0x1234, 0x5678, {0x90, 0, 0, 0, 0, 0, 0, last}};
}

std::vector<GUID> Drain(IEnumGUID* e) {
    std::vector<GUID> out;
    GUID g;
    ULONG fetched = 0;
    while (e->Next(1, &g, &fetched) == S_OK) out.push_back(g);
    return out;
}

class MetaData : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_HR(S_OK, get.As(&set)); }
    ComPtr<IKyObjectMetaData> get = Create();
    ComPtr<IKySetObjectMetaData> set;
};

TEST_F(MetaData, TheFirstMatchingRuleDecidesAndTheOtherwiseTextIsTheFallback) {
    EXPECT_NE(get.Get(), Create().Get());  // a new object for every request
    EXPECT_EQ(L"<null>|fallback", Decode(get.Get(), 1));  // nothing added yet
    ASSERT_HR(S_OK, set->AddDecodeStateRule(KYDSR_ONE, 0x3, com::Bstr(L"A")));
    ASSERT_HR(S_OK, set->AddDecodeStateRule(KYDSR_EQUAL, 0x1, com::Bstr(L"B")));
    ASSERT_HR(S_OK, set->AddDecodeStateRule(KYDSR_OTHERWISE, 0, com::Bstr(L"C")));
    EXPECT_EQ(L"A|rule", Decode(get.Get(), 1));  // B matches too, but comes later
    EXPECT_EQ(L"C|fallback", Decode(get.Get(), 4));
    // A second fallback is refused and the first one stays.
    EXPECT_HR(E_UNEXPECTED, set->AddDecodeStateRule(KYDSR_OTHERWISE, 0, com::Bstr(L"D")));
    EXPECT_EQ(L"C|fallback", Decode(get.Get(), 4));
    EXPECT_HR(E_POINTER, get->DecodeState(1, nullptr));
}

TEST_F(MetaData, RuleKindsMatchByTheirOwnTestAndBadRulesAreRefused) {
    EXPECT_HR(E_INVALIDARG, set->AddDecodeStateRule(KYDSR_MASK, 0, com::Bstr(L"x")));
    EXPECT_HR(E_INVALIDARG, set->AddDecodeStateRule(KYDSR_ONE, 0, com::Bstr(L"x")));
    for (int kind : {0, 3, 5, 6, 7, 9, -1})  // the mask is checked first only for the two kinds above
        for (ULONG mask : {0ul, 1ul})
            EXPECT_HR(E_UNEXPECTED, set->AddDecodeStateRule(static_cast<KYDECODESTATERULE>(kind), mask, nullptr));
    EXPECT_EQ(L"<null>|fallback", Decode(get.Get(), 1));  // nothing was stored

    ASSERT_HR(S_OK, set->AddDecodeStateRule(KYDSR_MASK, 0x6, com::Bstr(L"all of 6")));
    ASSERT_HR(S_OK, set->AddDecodeStateRule(KYDSR_EQUAL, 0, com::Bstr(L"zero")));
    ASSERT_HR(S_OK, set->AddDecodeStateRule(KYDSR_ONE, 0x100, nullptr));
    ASSERT_HR(S_OK, set->AddDecodeStateRule(KYDSR_EQUAL, 9, com::Bstr(L"a\0b", 3)));
    EXPECT_EQ(L"all of 6|rule", Decode(get.Get(), 0x7));
    EXPECT_EQ(L"<null>|fallback", Decode(get.Get(), 0x5));  // 0x4 of the mask is missing
    EXPECT_EQ(L"zero|rule", Decode(get.Get(), 0));
    EXPECT_EQ(L"<null>|rule", Decode(get.Get(), 0x101));  // a rule added without text
    EXPECT_EQ(std::wstring(L"a\0b|rule", 8), Decode(get.Get(), 9));
}

TEST_F(MetaData, IconTypesAreValidatedAndListsReportPartialResults) {
    EXPECT_HR(S_OK, set->AddIcon(0x101, 11));
    EXPECT_HR(E_FAIL, set->AddIcon(0x101, 12));  // the first handle stays
    for (ULONG bad : {0x103ul, 0x301ul, 0x001ul, 0x100ul, 0x120ul})
        EXPECT_HR(E_INVALIDARG, set->AddIcon(bad, 13)) << bad;
    EXPECT_HR(E_INVALIDARG, set->AddIcon(0x102, 0));
    EXPECT_HR(S_OK, set->AddIcon(0x10101, 14));  // other bits make a type of its own
    ULONG types[3] = {0x210, 0x103, 0x202};
    LONG_PTR handles[3] = {15, 16, 17};
    EXPECT_HR(S_FALSE, set->AddIcons(2, types, handles));  // 0x210 stays
    EXPECT_HR(E_FAIL, set->AddIcons(1, types + 1, handles + 1));
    EXPECT_HR(S_OK, set->AddIcons(1, types + 2, handles + 2));
    EXPECT_HR(E_INVALIDARG, set->AddIcons(0, types, handles));

    HRESULT hr;
    EXPECT_EQ(std::vector<LONG_PTR>({11, 14, 15, 17}), Icons(get.Get(), {0x101, 0x10101, 0x210, 0x202}, &hr));
    EXPECT_HR(S_OK, hr);
    EXPECT_EQ(std::vector<LONG_PTR>({11, 0}), Icons(get.Get(), {0x101, 0x103}, &hr));
    EXPECT_HR(S_FALSE, hr);
    EXPECT_EQ(std::vector<LONG_PTR>({0}), Icons(get.Get(), {0x104}, &hr));
    EXPECT_HR(E_FAIL, hr);
    LONG_PTR icon = -1;
    EXPECT_HR(E_FAIL, get->get_Icon(0x103, &icon));  // looked up, not validated
    EXPECT_EQ(0, icon);
    EXPECT_HR(E_POINTER, get->GetIcons(1, nullptr, handles));

    // The arrays cross apartments whole, as a view in a single-threaded apartment reads them.
    IStream* marshaled = nullptr;
    ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IKyObjectMetaData, get.Get(), &marshaled));
    RunInApartment(COINIT_APARTMENTTHREADED, [&] {
        ComPtr<IKyObjectMetaData> proxy;
        ASSERT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(marshaled, IID_IKyObjectMetaData, &proxy));
        EXPECT_EQ(std::vector<LONG_PTR>({17, 0, 11}), Icons(proxy.Get(), {0x202, 0x103, 0x101}, &hr));
        EXPECT_HR(S_FALSE, hr);
    });
}

TEST_F(MetaData, SortingPreferenceHonoursOnlyVariantTrueAsAscending) {
    auto preference = [&](VARIANT_BOOL ascending) {
        ULONG value = 0;
        EXPECT_HR(S_OK, get->get_SortingPreference(ascending, &value));
        return value;
    };
    EXPECT_EQ(0xFFFFFFFFu, preference(VARIANT_TRUE));
    EXPECT_HR(S_OK, set->put_SortingPreference(7, 9));  // both directions at once
    EXPECT_EQ(7u, preference(VARIANT_TRUE));
    EXPECT_EQ(9u, preference(VARIANT_FALSE));
    EXPECT_EQ(9u, preference(1));
}

TEST_F(MetaData, AnUnsupportedInterfaceIsAnElementNotFound) {
    EXPECT_HR(kElementNotFound, get->IsInterfaceSupported(Guid(1)));
    IID list[3] = {Guid(1), GUID_NULL, Guid(2)};
    EXPECT_HR(S_FALSE, set->AddSupportedInterfaces(3, list));
    EXPECT_HR(E_FAIL, set->AddSupportedInterfaces(1, list + 1));
    IID again[2] = {Guid(2), Guid(1)};  // already there: kept once, and still a success
    EXPECT_HR(S_OK, set->AddSupportedInterfaces(2, again));
    EXPECT_HR(S_OK, get->IsInterfaceSupported(Guid(2)));
    EXPECT_HR(kElementNotFound, get->IsInterfaceSupported(Guid(3)));

    // The code is the library's own and carries its text.
    wchar_t* text = nullptr;
    ASSERT_NE(0u, ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ALLOCATE_BUFFER |
                                       FORMAT_MESSAGE_IGNORE_INSERTS,
                                   LoadedDll(), kElementNotFound, 1033, reinterpret_cast<wchar_t*>(&text), 0, nullptr));
    EXPECT_EQ(L"Element was not found.\r\n", std::wstring(text));
    ::LocalFree(text);
}

TEST_F(MetaData, InterfacesAreEnumeratedInByteOrderByALiveView) {
    // Data1 is stored little-endian: 0x0100 has the smaller first byte.
    const GUID low = Guid(0x0100), high = Guid(0x0001), middle = Guid(0x0100, 1), last = Guid(0x0002);
    ASSERT_HR(S_OK, set->AddSupportedInterface(high));
    ASSERT_HR(S_OK, set->AddSupportedInterface(low));
    ComPtr<IEnumGUID> e;
    ASSERT_HR(S_OK, get->get_SupportedInterfaces(&e));
    GUID got;
    ASSERT_HR(S_OK, e->Next(1, &got, nullptr));
    EXPECT_EQ(low, got);

    // Added behind the cursor: seen. Added before it: not seen until Reset.
    ASSERT_HR(S_OK, set->AddSupportedInterface(last));
    ASSERT_HR(S_OK, set->AddSupportedInterface(Guid(0x0000)));
    ASSERT_HR(S_OK, set->AddSupportedInterface(middle));
    EXPECT_EQ(std::vector<GUID>({middle, high, last}), Drain(e.Get()));

    // The enumerator keeps its metadata object alive.
    get.Reset();
    set.Reset();
    EXPECT_HR(S_OK, e->Reset());
    GUID all[6];
    ULONG fetched = 0;
    EXPECT_HR(S_FALSE, e->Next(6, all, &fetched));
    EXPECT_EQ(5u, fetched);
    EXPECT_HR(E_POINTER, e->Next(2, all, nullptr));
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
