// Object metadata as a provider fills it and a view reads it: state
// decoding, icons, sorting preference and supported interfaces.
#include <wrl/client.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

constexpr HRESULT kElementNotFound = static_cast<HRESULT>(0x80041021ul);

// A BSTR argument that lives until the end of the full expression.
class Text {
public:
    explicit Text(const wchar_t* text) : m_text(::SysAllocString(text)) {}
    ~Text() { ::SysFreeString(m_text); }
    operator BSTR() const { return m_text; }

private:
    BSTR m_text;
};

struct MetaData {
    ComPtr<IKyObjectMetaData> get;
    ComPtr<IKySetObjectMetaData> set;
};

MetaData Create() {
    MetaData m;
    EXPECT_HR(S_OK, ::CoCreateInstance(CLSID_KyObjectMetaData, nullptr, CLSCTX_INPROC_SERVER, IID_IKyObjectMetaData,
                                       &m.get));
    if (m.get) {
        EXPECT_HR(S_OK, m.get.As(&m.set));
    }
    return m;
}

std::wstring Decode(IKyObjectMetaData* meta, ULONG state, HRESULT* hr) {
    BSTR text = reinterpret_cast<BSTR>(1);
    *hr = meta->DecodeState(state, &text);
    std::wstring result = text ? std::wstring(text, ::SysStringLen(text)) : L"<null>";
    ::SysFreeString(text);
    return result;
}

GUID Guid(unsigned long data1, unsigned char last = 0) {
    GUID g = {data1, 0x1234, 0x5678, {0x90, 0xAB, 0xCD, 0xEF, 0, 0, 0, last}};
    return g;
}

std::vector<GUID> Drain(IEnumGUID* e) {
    std::vector<GUID> out;
    GUID g;
    ULONG fetched = 0;  // a proxy needs the count pointer even for one item
    while (e->Next(1, &g, &fetched) == S_OK) out.push_back(g);
    return out;
}

TEST(MetaData, EveryRequestGetsANewObjectAndAggregationIsRefused) {
    MetaData a = Create(), b = Create();
    ComPtr<IUnknown> ua, ub;
    a.get.As(&ua);
    b.get.As(&ub);
    EXPECT_NE(ua.Get(), ub.Get());
    IUnknown* inner = reinterpret_cast<IUnknown*>(1);
    EXPECT_HR(CLASS_E_NOAGGREGATION, ::CoCreateInstance(CLSID_KyObjectMetaData, ua.Get(), CLSCTX_INPROC_SERVER,
                                                         IID_IUnknown, reinterpret_cast<void**>(&inner)));
    EXPECT_EQ(nullptr, inner);
}

TEST(MetaData, TheFirstMatchingRuleDecidesAndTheOtherwiseTextIsTheFallback) {
    MetaData m = Create();
    HRESULT hr;
    // Nothing added yet: a null text, decoded by the (absent) fallback.
    EXPECT_EQ(L"<null>", Decode(m.get.Get(), 1, &hr));
    EXPECT_HR(S_FALSE, hr);

    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_ONE, 0x3, Text(L"A")));
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_EQUAL, 0x1, Text(L"B")));
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_OTHERWISE, 0, Text(L"C")));
    EXPECT_EQ(L"A", Decode(m.get.Get(), 1, &hr));  // B would match too, but comes later
    EXPECT_HR(S_OK, hr);
    EXPECT_EQ(L"C", Decode(m.get.Get(), 4, &hr));
    EXPECT_HR(S_FALSE, hr);

    // A second fallback is refused and the first one stays.
    EXPECT_HR(E_UNEXPECTED, m.set->AddDecodeStateRule(KYDSR_OTHERWISE, 0, Text(L"D")));
    EXPECT_EQ(L"C", Decode(m.get.Get(), 4, &hr));
    EXPECT_HR(E_POINTER, m.get->DecodeState(1, nullptr));
}

TEST(MetaData, RuleKindsMatchByTheirOwnTest) {
    MetaData m = Create();
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_MASK, 0x6, Text(L"all of 6")));
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_EQUAL, 0, Text(L"zero")));
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_ONE, 0x100, nullptr));
    HRESULT hr;
    EXPECT_EQ(L"all of 6", Decode(m.get.Get(), 0x7, &hr));
    EXPECT_HR(S_OK, hr);
    EXPECT_EQ(L"<null>", Decode(m.get.Get(), 0x5, &hr));  // 0x4 of the mask missing; no fallback either
    EXPECT_HR(S_FALSE, hr);
    EXPECT_EQ(L"zero", Decode(m.get.Get(), 0, &hr));  // an EQUAL rule may have mask 0
    EXPECT_HR(S_OK, hr);
    EXPECT_EQ(L"<null>", Decode(m.get.Get(), 0x101, &hr));  // a rule added without text
    EXPECT_HR(S_OK, hr);
}

TEST(MetaData, RuleTextsKeepEmbeddedZeros) {
    MetaData m = Create();
    BSTR text = ::SysAllocStringLen(L"a\0b", 3);
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_EQUAL, 9, text));
    ::SysFreeString(text);  // the object keeps its own copy
    HRESULT hr;
    EXPECT_EQ(std::wstring(L"a\0b", 3), Decode(m.get.Get(), 9, &hr));
}

TEST(MetaData, BadRulesAreRefusedInTheirOrder) {
    MetaData m = Create();
    EXPECT_HR(E_INVALIDARG, m.set->AddDecodeStateRule(KYDSR_MASK, 0, Text(L"x")));
    EXPECT_HR(E_INVALIDARG, m.set->AddDecodeStateRule(KYDSR_ONE, 0, Text(L"x")));
    for (int kind : {0, 3, 5, 6, 7, 9, -1})
        EXPECT_HR(E_UNEXPECTED, m.set->AddDecodeStateRule(static_cast<KYDECODESTATERULE>(kind), 1, Text(L"x")))
            << kind;
    // The mask check comes first only for the two kinds that need a mask.
    EXPECT_HR(E_UNEXPECTED, m.set->AddDecodeStateRule(static_cast<KYDECODESTATERULE>(3), 0, Text(L"x")));
    HRESULT hr;
    EXPECT_EQ(L"<null>", Decode(m.get.Get(), 1, &hr));  // nothing was stored
    EXPECT_HR(S_FALSE, hr);
}

TEST(MetaData, IconTypesAreValidatedAndTheFirstHandleStays) {
    MetaData m = Create();
    EXPECT_HR(S_OK, m.set->AddIcon(0x101, 11));
    EXPECT_HR(E_FAIL, m.set->AddIcon(0x101, 12));
    for (ULONG bad : {0x103ul, 0x301ul, 0x001ul, 0x100ul, 0x120ul})
        EXPECT_HR(E_INVALIDARG, m.set->AddIcon(bad, 13)) << bad;
    EXPECT_HR(E_INVALIDARG, m.set->AddIcon(0x102, 0));
    // Bits outside the examined ones make a type of its own.
    EXPECT_HR(S_OK, m.set->AddIcon(0x10101, 14));
    EXPECT_HR(S_OK, m.set->AddIcon(0x210, 15));

    LONG_PTR icon = -1;
    EXPECT_HR(S_OK, m.get->get_Icon(0x101, &icon));
    EXPECT_EQ(11, icon);
    EXPECT_HR(S_OK, m.get->get_Icon(0x10101, &icon));
    EXPECT_EQ(14, icon);
    icon = -1;
    EXPECT_HR(E_FAIL, m.get->get_Icon(0x103, &icon));  // looked up, not validated
    EXPECT_EQ(0, icon);
    EXPECT_HR(E_POINTER, m.get->get_Icon(0x101, nullptr));
}

TEST(MetaData, IconListsReportPartialSuccess) {
    MetaData m = Create();
    ULONG types[3] = {0x101, 0x103, 0x202};
    LONG_PTR handles[3] = {21, 22, 23};
    EXPECT_HR(S_FALSE, m.set->AddIcons(2, types, handles));  // 0x103 is refused, 0x101 stays
    EXPECT_HR(E_FAIL, m.set->AddIcons(1, types + 1, handles + 1));
    EXPECT_HR(S_OK, m.set->AddIcons(1, types + 2, handles + 2));
    EXPECT_HR(E_POINTER, m.set->AddIcons(1, nullptr, handles));
    EXPECT_HR(E_POINTER, m.set->AddIcons(1, types, nullptr));
    EXPECT_HR(E_INVALIDARG, m.set->AddIcons(0, types, handles));

    LONG_PTR got[3] = {-1, -1, -1};
    EXPECT_HR(S_FALSE, m.get->GetIcons(3, types, got));
    EXPECT_EQ(21, got[0]);
    EXPECT_EQ(0, got[1]);
    EXPECT_EQ(23, got[2]);
    ULONG found[2] = {0x202, 0x101};
    EXPECT_HR(S_OK, m.get->GetIcons(2, found, got));
    EXPECT_EQ(23, got[0]);
    EXPECT_EQ(21, got[1]);
    got[0] = -1;
    EXPECT_HR(E_FAIL, m.get->GetIcons(1, types + 1, got));
    EXPECT_EQ(0, got[0]);
    EXPECT_HR(E_POINTER, m.get->GetIcons(1, nullptr, got));
    EXPECT_HR(E_INVALIDARG, m.get->GetIcons(0, types, got));
}

TEST(MetaData, SortingPreferenceHonoursOnlyVariantTrueAsAscending) {
    MetaData m = Create();
    ULONG pref = 0;
    EXPECT_HR(S_OK, m.get->get_SortingPreference(VARIANT_TRUE, &pref));
    EXPECT_EQ(0xFFFFFFFFu, pref);
    EXPECT_HR(S_OK, m.set->put_SortingPreference(7, 9));  // both directions at once
    EXPECT_HR(S_OK, m.get->get_SortingPreference(VARIANT_TRUE, &pref));
    EXPECT_EQ(7u, pref);
    EXPECT_HR(S_OK, m.get->get_SortingPreference(VARIANT_FALSE, &pref));
    EXPECT_EQ(9u, pref);
    EXPECT_HR(S_OK, m.get->get_SortingPreference(1, &pref));
    EXPECT_EQ(9u, pref);
    EXPECT_HR(E_POINTER, m.get->get_SortingPreference(VARIANT_TRUE, nullptr));
}

TEST(MetaData, AnUnsupportedInterfaceIsAnElementNotFound) {
    MetaData m = Create();
    const GUID known = Guid(1);
    EXPECT_HR(kElementNotFound, m.get->IsInterfaceSupported(known));
    EXPECT_HR(S_OK, m.set->AddSupportedInterface(known));
    EXPECT_HR(S_OK, m.set->AddSupportedInterface(known));  // kept once
    EXPECT_HR(S_OK, m.get->IsInterfaceSupported(known));
    EXPECT_HR(kElementNotFound, m.get->IsInterfaceSupported(Guid(2)));
    EXPECT_HR(E_INVALIDARG, m.set->AddSupportedInterface(GUID_NULL));

    // The code is the library's own and carries its text.
    wchar_t* text = nullptr;
    DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ALLOCATE_BUFFER |
                                        FORMAT_MESSAGE_IGNORE_INSERTS,
                                    LoadedDll(), kElementNotFound, 1033, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    ASSERT_NE(0u, length);
    EXPECT_EQ(L"Element was not found.\r\n", std::wstring(text));
    ::LocalFree(text);
}

TEST(MetaData, InterfaceListsReportPartialSuccess) {
    MetaData m = Create();
    IID list[3] = {Guid(1), GUID_NULL, Guid(2)};
    EXPECT_HR(S_FALSE, m.set->AddSupportedInterfaces(3, list));
    EXPECT_HR(E_FAIL, m.set->AddSupportedInterfaces(1, list + 1));
    IID more[2] = {Guid(3), Guid(2)};  // one already present still counts as added
    EXPECT_HR(S_OK, m.set->AddSupportedInterfaces(2, more));
    EXPECT_HR(E_POINTER, m.set->AddSupportedInterfaces(1, nullptr));
    EXPECT_HR(E_INVALIDARG, m.set->AddSupportedInterfaces(0, list));
    EXPECT_HR(S_OK, m.get->IsInterfaceSupported(Guid(2)));
}

TEST(MetaData, InterfacesAreEnumeratedInByteOrderByALiveView) {
    MetaData m = Create();
    // Data1 is stored little-endian: 0x0100 has the smaller first byte.
    const GUID low = Guid(0x0100), high = Guid(0x0001), middle = Guid(0x0100, 1), last = Guid(0x0002);
    ASSERT_HR(S_OK, m.set->AddSupportedInterface(high));
    ASSERT_HR(S_OK, m.set->AddSupportedInterface(low));

    ComPtr<IEnumGUID> e;
    ASSERT_HR(S_OK, m.get->get_SupportedInterfaces(&e));
    GUID got;
    ASSERT_HR(S_OK, e->Next(1, &got, nullptr));
    EXPECT_TRUE(IsEqualGUID(low, got));

    // Added behind the cursor: seen. Added before it: not seen until Reset.
    ASSERT_HR(S_OK, m.set->AddSupportedInterface(last));
    ASSERT_HR(S_OK, m.set->AddSupportedInterface(Guid(0x0000)));
    ComPtr<IEnumGUID> clone;
    ASSERT_HR(S_OK, e->Clone(&clone));
    ASSERT_HR(S_OK, m.set->AddSupportedInterface(middle));
    std::vector<GUID> rest = Drain(e.Get());
    ASSERT_EQ(3u, rest.size());
    EXPECT_TRUE(IsEqualGUID(middle, rest[0]));
    EXPECT_TRUE(IsEqualGUID(high, rest[1]));
    EXPECT_TRUE(IsEqualGUID(last, rest[2]));
    EXPECT_EQ(3u, Drain(clone.Get()).size());  // the clone walks on from the same place

    EXPECT_HR(S_OK, e->Reset());
    EXPECT_HR(S_OK, e->Skip(4));
    EXPECT_HR(S_FALSE, e->Skip(2));
    EXPECT_HR(S_OK, e->Reset());
    GUID all[6];
    ULONG fetched = 0;
    EXPECT_HR(S_FALSE, e->Next(6, all, &fetched));
    EXPECT_EQ(5u, fetched);
    EXPECT_HR(E_POINTER, e->Next(2, all, nullptr));
    EXPECT_HR(E_POINTER, m.get->get_SupportedInterfaces(nullptr));

    // The enumerator keeps its metadata object alive.
    m = MetaData();
    EXPECT_HR(S_OK, e->Reset());
    EXPECT_EQ(5u, Drain(e.Get()).size());
}

TEST(MetaData, ViewsReadWhileTheProviderStillAdds) {
    MetaData m = Create();
    constexpr int kRules = 2000;
    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
    auto reader = [&] {
        ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        while (!done) {
            BSTR text = nullptr;
            HRESULT hr = m.get->DecodeState(5, &text);
            // Either no rule for 5 yet, or the one rule that matches it.
            if (!(hr == S_FALSE && !text) && !(hr == S_OK && text && std::wstring(text) == L"five")) ++failures;
            ::SysFreeString(text);
            hr = m.get->IsInterfaceSupported(Guid(kRules / 2));
            if (hr != S_OK && hr != kElementNotFound) ++failures;
        }
        ::CoUninitialize();
    };
    std::thread r1(reader), r2(reader);
    for (int i = 0; i < kRules; ++i) {
        m.set->AddDecodeStateRule(KYDSR_EQUAL, i == kRules / 2 ? 5 : 1000 + i, Text(i == kRules / 2 ? L"five" : L"x"));
        m.set->AddSupportedInterface(Guid(i + 1));
    }
    done = true;
    r1.join();
    r2.join();
    EXPECT_EQ(0, failures.load());
    ComPtr<IEnumGUID> e;
    ASSERT_HR(S_OK, m.get->get_SupportedInterfaces(&e));
    EXPECT_EQ(static_cast<size_t>(kRules), Drain(e.Get()).size());
}

TEST(MetaData, WorksThroughAProxyFromASingleThreadedApartment) {
    MetaData m = Create();
    ULONG types[2] = {0x104, 0x208};
    LONG_PTR handles[2] = {31, 32};
    ASSERT_HR(S_OK, m.set->AddIcons(2, types, handles));
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_ONE, 0x10, Text(L"flagged")));
    ASSERT_HR(S_OK, m.set->AddSupportedInterface(IID_IStream));
    IStream* marshaled = nullptr;
    ASSERT_HR(S_OK, ::CoMarshalInterThreadInterfaceInStream(IID_IKyObjectMetaData, m.get.Get(), &marshaled));
    RunInApartment(COINIT_APARTMENTTHREADED, [&] {
        ComPtr<IKyObjectMetaData> proxy;
        ASSERT_HR(S_OK, ::CoGetInterfaceAndReleaseStream(marshaled, IID_IKyObjectMetaData, &proxy));
        ULONG asked[3] = {0x208, 0x101, 0x104};
        LONG_PTR got[3] = {-1, -1, -1};
        EXPECT_HR(S_FALSE, proxy->GetIcons(3, asked, got));
        EXPECT_EQ(32, got[0]);
        EXPECT_EQ(0, got[1]);
        EXPECT_EQ(31, got[2]);
        HRESULT hr;
        EXPECT_EQ(L"flagged", Decode(proxy.Get(), 0x31, &hr));
        EXPECT_HR(S_OK, hr);
        EXPECT_HR(S_OK, proxy->IsInterfaceSupported(IID_IStream));
        EXPECT_HR(kElementNotFound, proxy->IsInterfaceSupported(IID_IStorage));
        ComPtr<IEnumGUID> e;
        ASSERT_HR(S_OK, proxy->get_SupportedInterfaces(&e));
        std::vector<GUID> all = Drain(e.Get());
        ASSERT_EQ(1u, all.size());
        EXPECT_TRUE(IsEqualGUID(IID_IStream, all[0]));
    });
}

}  // namespace
}  // namespace ky::test

KY_TEST_MAIN(COINIT_MULTITHREADED)
