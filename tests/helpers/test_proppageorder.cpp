// Property page ordering against the registry: settings beside each page's
// class key, comparison by group then order, and sorting. Every page is a
// fresh class identifier whose key the test removes.
#include <wrl/client.h>

#include <string>
#include <vector>

#include "com/raii.h"
#include "kytest.h"

using Microsoft::WRL::ComPtr;

namespace ky::test {
namespace {

std::wstring KeyOf(const CLSID& page) {
    return L"CLSID\\" + GuidText(page);
}

void Store(const CLSID& page, const wchar_t* name, DWORD type, const void* data, DWORD size) {
    ::RegSetKeyValueW(HKEY_CLASSES_ROOT, KeyOf(page).c_str(), name, type, data, size);
}

void StoreText(const CLSID& page, const wchar_t* name, const std::wstring& text) {
    Store(page, name, REG_SZ, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

class PropPageOrder : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_HR(S_OK, ::CoCreateInstance(CLSID_KyHelpers, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&m_order)));
    }
    void TearDown() override {
        for (const auto& page : m_pages) ::RegDeleteKeyW(HKEY_CLASSES_ROOT, KeyOf(page).c_str());
    }

    // A new page with the given settings (null: none).
    CLSID Page(const wchar_t* group = nullptr, const wchar_t* order = nullptr) {
        CLSID page;
        ::CoCreateGuid(&page);
        m_pages.push_back(page);
        EXPECT_HR(S_OK, group ? Set(page, KYPPD_GROUP, group) : S_OK);
        EXPECT_HR(S_OK, order ? Set(page, KYPPD_ORDER, order) : S_OK);
        return page;
    }
    HRESULT Set(const CLSID& page, KYPROPPAGEDATA data, const wchar_t* text) {
        return m_order->SetPropPageData(page, data, com::Bstr(text));
    }
    // "<null>" for a null string.
    std::wstring Get(const CLSID& page, KYPROPPAGEDATA data, HRESULT expected = S_OK) {
        BSTR text = reinterpret_cast<BSTR>(static_cast<ULONG_PTR>(1));
        EXPECT_HR(expected, m_order->GetPropPageData(page, data, &text));
        std::wstring result = text ? text : L"<null>";
        ::SysFreeString(text);
        return result;
    }
    int Compare(const CLSID& one, const CLSID& two) {
        int result = 99;
        EXPECT_HR(S_OK, m_order->IsPrecedingByOrder(one, two, &result));
        return result;
    }

    ComPtr<IKyPropPageOrder> m_order;
    std::vector<CLSID> m_pages;
};

TEST_F(PropPageOrder, SettingsAreTextValuesBesideTheClassRegistration) {
    const CLSID page = Page(L"2", L"0010");
    const auto kDefaultValue = static_cast<KYPROPPAGEDATA>(7);
    EXPECT_HR(S_OK, Set(page, kDefaultValue, L"Some Page"));
    std::wstring order, group, name;
    EXPECT_TRUE(ReadRegString(HKEY_CLASSES_ROOT, KeyOf(page), L"KyPropPageOrder", &order) && order == L"0010");
    EXPECT_TRUE(ReadRegString(HKEY_CLASSES_ROOT, KeyOf(page), L"KyPropPageGroup", &group) && group == L"2");
    EXPECT_TRUE(ReadRegString(HKEY_CLASSES_ROOT, KeyOf(page), nullptr, &name) && name == L"Some Page");
    EXPECT_EQ(L"Some Page", Get(page, kDefaultValue));

    // Only groups 1 to 3, and no empty texts, are written.
    for (const wchar_t* bad : {L"4", L"0", L"x", L"2a", L"", static_cast<const wchar_t*>(nullptr)})
        EXPECT_HR(E_INVALIDARG, Set(page, KYPPD_GROUP, bad)) << Narrow(bad ? bad : L"<null>");
    EXPECT_HR(E_INVALIDARG, Set(page, KYPPD_ORDER, L""));
    EXPECT_EQ(L"2", Get(page, KYPPD_GROUP));
    EXPECT_EQ(L"0010", Get(page, KYPPD_ORDER));
}

TEST_F(PropPageOrder, ReadingCreatesAMissingKeyAndAnswersStoredValuesByTheRules) {
    const CLSID page = Page();
    ASSERT_FALSE(RegKeyExists(HKEY_CLASSES_ROOT, KeyOf(page)));
    EXPECT_EQ(L"<null>", Get(page, KYPPD_ORDER, E_FAIL));
    EXPECT_TRUE(RegKeyExists(HKEY_CLASSES_ROOT, KeyOf(page)));
    // A group out of range is no group: a null string, with success.
    StoreText(page, L"KyPropPageGroup", L"7");
    EXPECT_EQ(L"<null>", Get(page, KYPPD_GROUP, S_OK));
    // Not a string.
    DWORD number = 5;
    Store(page, L"KyPropPageOrder", REG_DWORD, &number, sizeof number);
    EXPECT_EQ(L"<null>", Get(page, KYPPD_ORDER, E_UNEXPECTED));
    // Longer than the 260-byte buffer: 129 characters and the terminator fit.
    StoreText(page, L"KyPropPageOrder", std::wstring(129, L'o'));
    EXPECT_EQ(std::wstring(129, L'o'), Get(page, KYPPD_ORDER));
    StoreText(page, L"KyPropPageOrder", std::wstring(130, L'o'));
    EXPECT_EQ(L"<null>", Get(page, KYPPD_ORDER, E_FAIL));
    EXPECT_HR(E_POINTER, m_order->GetPropPageData(page, KYPPD_ORDER, nullptr));
}

TEST_F(PropPageOrder, GroupsDecideFirstThenOrdersAsTextIgnoringCase) {
    const CLSID none1 = Page(), none2 = Page(), grouped = Page(L"3");
    EXPECT_EQ(0, Compare(none1, none2));
    EXPECT_EQ(-1, Compare(grouped, none1));
    EXPECT_EQ(1, Compare(none1, grouped));
    const CLSID first = Page(L"1", L"zzz"), second = Page(L"2", L"aaa");
    EXPECT_EQ(-1, Compare(first, second));
    EXPECT_EQ(1, Compare(second, first));
    // Orders are text: "10" comes before "9".
    const CLSID ten = Page(L"2", L"10"), nine = Page(L"2", L"9");
    EXPECT_EQ(-1, Compare(ten, nine));
    EXPECT_EQ(1, Compare(nine, ten));
    EXPECT_EQ(0, Compare(Page(L"2", L"a"), Page(L"2", L"A")));
    // In one group, a page with an order precedes one without.
    EXPECT_EQ(-1, Compare(nine, Page(L"2")));
    // A stored group out of range counts as none.
    const CLSID seven = Page(nullptr, L"a");
    StoreText(seven, L"KyPropPageGroup", L"7");
    EXPECT_EQ(1, Compare(seven, grouped));
    EXPECT_EQ(-1, Compare(seven, none1));
    EXPECT_HR(E_POINTER, m_order->IsPrecedingByOrder(first, second, nullptr));
}

TEST_F(PropPageOrder, SortOrdersByTheComparisonAndKeepsSmallArraysStable) {
    const CLSID none = Page(), g3 = Page(L"3", L"1"), g1b = Page(L"1", L"b"), g1a = Page(L"1", L"A"),
                g1a2 = Page(L"1", L"a"), g2 = Page(L"2"), g1 = Page(L"1");
    std::vector<CLSID> pages = {none, g3, g1b, g1a, g2, g1a2, g1};
    ASSERT_HR(S_OK, m_order->Sort(static_cast<UINT>(pages.size()), pages.data()));
    // "A" and "a" rank equal and keep their input order.
    EXPECT_TRUE(pages == std::vector<CLSID>({g1a, g1a2, g1b, g1, g2, g3, none}));
    EXPECT_HR(S_OK, m_order->Sort(1, pages.data()));
    EXPECT_TRUE(pages[0] == g1a);
    EXPECT_HR(E_INVALIDARG, m_order->Sort(0, pages.data()));
    EXPECT_HR(E_POINTER, m_order->Sort(1, nullptr));
}

}  // namespace
}  // namespace ky::test
