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

// "text|rule" for a state decoded by a rule, "text|fallback" for one decoded
// by the otherwise text; a null text reads "<null>".
std::wstring Decode(IKyObjectMetaData* meta, ULONG state) {
    BSTR text = reinterpret_cast<BSTR>(1);
    HRESULT hr = meta->DecodeState(state, &text);
    std::wstring result = text ? std::wstring(text, ::SysStringLen(text)) : L"<null>";
    ::SysFreeString(text);
    return result + (hr == S_OK ? L"|rule" : hr == S_FALSE ? L"|fallback" : L"|failed");
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
    EXPECT_NE(a.get.Get(), b.get.Get());
    IUnknown* inner = reinterpret_cast<IUnknown*>(1);
    EXPECT_HR(CLASS_E_NOAGGREGATION, ::CoCreateInstance(CLSID_KyObjectMetaData, a.get.Get(), CLSCTX_INPROC_SERVER,
                                                         IID_IUnknown, reinterpret_cast<void**>(&inner)));
    EXPECT_EQ(nullptr, inner);
}

TEST(MetaData, TheFirstMatchingRuleDecidesAndTheOtherwiseTextIsTheFallback) {
    MetaData m = Create();
    EXPECT_EQ(L"<null>|fallback", Decode(m.get.Get(), 1));  // nothing added yet
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_ONE, 0x3, Text(L"A")));
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_EQUAL, 0x1, Text(L"B")));
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_OTHERWISE, 0, Text(L"C")));
    EXPECT_EQ(L"A|rule", Decode(m.get.Get(), 1));  // B matches too, but comes later
    EXPECT_EQ(L"C|fallback", Decode(m.get.Get(), 4));
    // A second fallback is refused and the first one stays.
    EXPECT_HR(E_UNEXPECTED, m.set->AddDecodeStateRule(KYDSR_OTHERWISE, 0, Text(L"D")));
    EXPECT_EQ(L"C|fallback", Decode(m.get.Get(), 4));
    EXPECT_HR(E_POINTER, m.get->DecodeState(1, nullptr));
}

TEST(MetaData, RuleKindsMatchByTheirOwnTest) {
    MetaData m = Create();
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_MASK, 0x6, Text(L"all of 6")));
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_EQUAL, 0, Text(L"zero")));  // mask 0 is fine here
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_ONE, 0x100, nullptr));
    BSTR zeros = ::SysAllocStringLen(L"a\0b", 3);
    ASSERT_HR(S_OK, m.set->AddDecodeStateRule(KYDSR_EQUAL, 9, zeros));
    ::SysFreeString(zeros);  // the object keeps a copy of its own
    EXPECT_EQ(L"all of 6|rule", Decode(m.get.Get(), 0x7));
    EXPECT_EQ(L"<null>|fallback", Decode(m.get.Get(), 0x5));  // 0x4 of the mask is missing
    EXPECT_EQ(L"zero|rule", Decode(m.get.Get(), 0));
    EXPECT_EQ(L"<null>|rule", Decode(m.get.Get(), 0x101));  // a rule added without text
    EXPECT_EQ(std::wstring(L"a\0b|rule", 8), Decode(m.get.Get(), 9));
}

TEST(MetaData, BadRulesAreRefusedInTheirOrder) {
    MetaData m = Create();
    EXPECT_HR(E_INVALIDARG, m.set->AddDecodeStateRule(KYDSR_MASK, 0, Text(L"x")));
    EXPECT_HR(E_INVALIDARG, m.set->AddDecodeStateRule(KYDSR_ONE, 0, Text(L"x")));
    // The mask is checked first only for the two kinds that need one.
    for (int kind : {0, 3, 5, 6, 7, 9, -1})
        for (ULONG mask : {0ul, 1ul})
            EXPECT_HR(E_UNEXPECTED, m.set->AddDecodeStateRule(static_cast<KYDECODESTATERULE>(kind), mask, Text(L"x")))
                << kind;
    EXPECT_EQ(L"<null>|fallback", Decode(m.get.Get(), 1));  // nothing was stored
}

// The handles that GetIcons answers for `types`, then its result.
std::vector<LONG_PTR> Icons(IKyObjectMetaData* meta, std::vector<ULONG> types, HRESULT* hr) {
    std::vector<LONG_PTR> handles(types.size(), -1);
    *hr = meta->GetIcons(static_cast<unsigned>(types.size()), types.data(), handles.data());
    return handles;
}

TEST(MetaData, IconTypesAreValidatedAndTheFirstHandleStays) {
    MetaData m = Create();
    EXPECT_HR(S_OK, m.set->AddIcon(0x101, 11));
    EXPECT_HR(E_FAIL, m.set->AddIcon(0x101, 12));
    for (ULONG bad : {0x103ul, 0x301ul, 0x001ul, 0x100ul, 0x120ul})
        EXPECT_HR(E_INVALIDARG, m.set->AddIcon(bad, 13)) << bad;
    EXPECT_HR(E_INVALIDARG, m.set->AddIcon(0x102, 0));
    EXPECT_HR(S_OK, m.set->AddIcon(0x10101, 14));  // other bits make a type of its own
    ULONG types[3] = {0x210, 0x103, 0x202};
    LONG_PTR handles[3] = {15, 16, 17};
    EXPECT_HR(S_FALSE, m.set->AddIcons(2, types, handles));  // 0x103 is refused, 0x210 stays
    EXPECT_HR(E_FAIL, m.set->AddIcons(1, types + 1, handles + 1));
    EXPECT_HR(S_OK, m.set->AddIcons(1, types + 2, handles + 2));
    EXPECT_HR(E_POINTER, m.set->AddIcons(1, nullptr, handles));
    EXPECT_HR(E_POINTER, m.set->AddIcons(1, types, nullptr));
    EXPECT_HR(E_INVALIDARG, m.set->AddIcons(0, types, handles));

    HRESULT hr;
    EXPECT_EQ(std::vector<LONG_PTR>({11, 14, 15, 17}), Icons(m.get.Get(), {0x101, 0x10101, 0x210, 0x202}, &hr));
    EXPECT_HR(S_OK, hr);
    EXPECT_EQ(std::vector<LONG_PTR>({11, 0}), Icons(m.get.Get(), {0x101, 0x103}, &hr));
    EXPECT_HR(S_FALSE, hr);
    EXPECT_EQ(std::vector<LONG_PTR>({0}), Icons(m.get.Get(), {0x104}, &hr));
    EXPECT_HR(E_FAIL, hr);
    LONG_PTR icon = -1;
    EXPECT_HR(E_FAIL, m.get->get_Icon(0x103, &icon));  // looked up, not validated
    EXPECT_EQ(0, icon);
    EXPECT_HR(E_POINTER, m.get->get_Icon(0x101, nullptr));
    EXPECT_HR(E_POINTER, m.get->GetIcons(1, nullptr, handles));
    EXPECT_HR(E_INVALIDARG, m.get->GetIcons(0, types, handles));
}

TEST(MetaData, SortingPreferenceHonoursOnlyVariantTrueAsAscending) {
    MetaData m = Create();
    auto preference = [&](VARIANT_BOOL ascending) {
        ULONG value = 0;
        EXPECT_HR(S_OK, m.get->get_SortingPreference(ascending, &value));
        return value;
    };
    EXPECT_EQ(0xFFFFFFFFu, preference(VARIANT_TRUE));
    EXPECT_HR(S_OK, m.set->put_SortingPreference(7, 9));  // both directions at once
    EXPECT_EQ(7u, preference(VARIANT_TRUE));
    EXPECT_EQ(9u, preference(VARIANT_FALSE));
    EXPECT_EQ(9u, preference(1));
    EXPECT_HR(E_POINTER, m.get->get_SortingPreference(VARIANT_TRUE, nullptr));
}

TEST(MetaData, AnUnsupportedInterfaceIsAnElementNotFound) {
    MetaData m = Create();
    EXPECT_HR(kElementNotFound, m.get->IsInterfaceSupported(Guid(1)));
    IID list[3] = {Guid(1), GUID_NULL, Guid(2)};
    EXPECT_HR(S_FALSE, m.set->AddSupportedInterfaces(3, list));
    EXPECT_HR(E_FAIL, m.set->AddSupportedInterfaces(1, list + 1));
    IID again[2] = {Guid(2), Guid(1)};  // already there: kept once, and still a success
    EXPECT_HR(S_OK, m.set->AddSupportedInterfaces(2, again));
    EXPECT_HR(E_POINTER, m.set->AddSupportedInterfaces(1, nullptr));
    EXPECT_HR(E_INVALIDARG, m.set->AddSupportedInterfaces(0, list));
    EXPECT_HR(E_INVALIDARG, m.set->AddSupportedInterface(GUID_NULL));
    EXPECT_HR(S_OK, m.get->IsInterfaceSupported(Guid(2)));
    EXPECT_HR(kElementNotFound, m.get->IsInterfaceSupported(Guid(3)));

    // The code is the library's own and carries its text.
    wchar_t* text = nullptr;
    ASSERT_NE(0u, ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ALLOCATE_BUFFER |
                                       FORMAT_MESSAGE_IGNORE_INSERTS,
                                   LoadedDll(), kElementNotFound, 1033, reinterpret_cast<wchar_t*>(&text), 0, nullptr));
    EXPECT_EQ(L"Element was not found.\r\n", std::wstring(text));
    ::LocalFree(text);
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
        HRESULT hr;
        EXPECT_EQ(std::vector<LONG_PTR>({32, 0, 31}), Icons(proxy.Get(), {0x208, 0x101, 0x104}, &hr));
        EXPECT_HR(S_FALSE, hr);
        EXPECT_EQ(L"flagged|rule", Decode(proxy.Get(), 0x31));
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
