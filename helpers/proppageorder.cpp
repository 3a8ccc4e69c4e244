#include "helpers/proppageorder.h"

#include <cwchar>
#include <vector>

#include "com/guard.h"
#include "com/raii.h"
#include "helpers/introsort.h"

namespace ky {

namespace {

const wchar_t* ValueName(KYPROPPAGEDATA data) {
    switch (data) {
        case KYPPD_ORDER:
            return L"KyPropPageOrder";
        case KYPPD_GROUP:
            return L"KyPropPageGroup";
        default:
            return nullptr;  // the key's default value
    }
}

// "CLSID\{...}" under HKEY_CLASSES_ROOT.
bool ClassKeyName(const CLSID& clsid, wchar_t (&name)[64]) {
    wchar_t text[40];
    if (::StringFromGUID2(clsid, text, 40) == 0) return false;
    std::wcscpy(name, L"CLSID\\");
    std::wcscat(name, text);
    return true;
}

// A page's sort key; null texts are absent settings.
struct PageKey {
    BSTR group;
    BSTR order;
    UINT index;
};

// Absent settings go last; present ones compare as text, ignoring case.
int CompareSetting(BSTR a, BSTR b) {
    if (!a || !b) return a ? -1 : (b ? 1 : 0);
    switch (::VarBstrCmp(a, b, LOCALE_USER_DEFAULT, NORM_IGNORECASE)) {
        case VARCMP_LT:
            return -1;
        case VARCMP_EQ:
            return 0;
        case VARCMP_GT:
            return 1;
        default:
            throw com::Error{E_UNEXPECTED};
    }
}

int ComparePages(const PageKey& one, const PageKey& two) {
    int result = CompareSetting(one.group, two.group);
    return result ? result : CompareSetting(one.order, two.order);
}

}  // namespace

void CCoKyPropPageOrderer::ReadKey(const CLSID& page, com::Bstr* group, com::Bstr* order) {
    // A failed read leaves the setting absent.
    if (FAILED(GetPropPageData(page, KYPPD_ORDER, order->Out()))) order->Reset();
    if (FAILED(GetPropPageData(page, KYPPD_GROUP, group->Out()))) group->Reset();
}

STDMETHODIMP CCoKyPropPageOrderer::IsPrecedingByOrder(CLSID clsidPropPageOne, CLSID clsidPropPageTwo, int* pnResult) {
    if (!pnResult) return E_POINTER;
    return com::Guard([&]() -> HRESULT {
        com::Bstr group[2], order[2];
        const CLSID* pages[2] = {&clsidPropPageOne, &clsidPropPageTwo};
        for (int i = 0; i < 2; ++i) ReadKey(*pages[i], &group[i], &order[i]);
        *pnResult = ComparePages({group[0], order[0], 0}, {group[1], order[1], 1});
        return S_OK;
    });
}

STDMETHODIMP CCoKyPropPageOrderer::Sort(unsigned int cPropPages, CLSID* pclsidPropPages) {
    if (!pclsidPropPages) return E_POINTER;
    if (cPropPages == 0) return E_INVALIDARG;
    return com::Guard([&]() -> HRESULT {
        const std::vector<CLSID> pages(pclsidPropPages, pclsidPropPages + cPropPages);
        std::vector<com::Bstr> groups(cPropPages), orders(cPropPages);
        std::vector<PageKey> keys(cPropPages);
        for (UINT i = 0; i < cPropPages; ++i) {
            ReadKey(pages[i], &groups[i], &orders[i]);
            keys[i] = {groups[i], orders[i], i};
        }
        // A failing comparison leaves by exception, before the caller's array is touched.
        IntroSort(keys.begin(), keys.end(), [](const PageKey& a, const PageKey& b) { return ComparePages(a, b) < 0; });
        for (UINT i = 0; i < cPropPages; ++i) pclsidPropPages[i] = pages[keys[i].index];
        return S_OK;
    });
}

STDMETHODIMP CCoKyPropPageOrderer::GetPropPageData(CLSID clsidPropPage, KYPROPPAGEDATA eData, BSTR* pbstrData) {
    if (!pbstrData) return E_POINTER;
    *pbstrData = nullptr;
    wchar_t keyName[64];
    if (!ClassKeyName(clsidPropPage, keyName)) return E_UNEXPECTED;
    // A read creates a missing key: the page's registration is where its
    // settings belong, whoever comes first.
    com::RegKey key;
    if (key.Create(HKEY_CLASSES_ROOT, keyName, KEY_QUERY_VALUE) != ERROR_SUCCESS) return E_UNEXPECTED;
    wchar_t text[131] = {};
    DWORD size = 260;
    DWORD type = REG_NONE;
    if (::RegQueryValueExW(key.Get(), ValueName(eData), nullptr, &type, reinterpret_cast<BYTE*>(text), &size) !=
        ERROR_SUCCESS)
        return E_FAIL;
    text[size / sizeof(wchar_t)] = L'\0';
    if (eData == KYPPD_GROUP) {
        long group = std::wcstol(text, nullptr, 10);
        if (group < 1 || group > 3) return S_OK;  // no valid group: a null string
    }
    if (type != REG_SZ) return E_UNEXPECTED;
    BSTR result = ::SysAllocString(text);
    if (!result) return E_OUTOFMEMORY;
    *pbstrData = result;
    return S_OK;
}

STDMETHODIMP CCoKyPropPageOrderer::SetPropPageData(CLSID clsidPropPage, KYPROPPAGEDATA eData, BSTR bstrData) {
    UINT length = ::SysStringLen(bstrData);
    if (length == 0) return E_INVALIDARG;
    if (eData == KYPPD_GROUP) {
        wchar_t* end = nullptr;
        long group = std::wcstol(bstrData, &end, 10);
        if (end == bstrData || *end || group < 1 || group > 3) return E_INVALIDARG;
    }
    wchar_t keyName[64];
    if (!ClassKeyName(clsidPropPage, keyName)) return E_UNEXPECTED;
    com::RegKey key;
    if (key.Create(HKEY_CLASSES_ROOT, keyName, KEY_SET_VALUE) != ERROR_SUCCESS) return E_UNEXPECTED;
    if (::RegSetValueExW(key.Get(), ValueName(eData), 0, REG_SZ, reinterpret_cast<const BYTE*>(bstrData),
                         (length + 1) * sizeof(wchar_t)) != ERROR_SUCCESS)
        return E_FAIL;
    return S_OK;
}

}  // namespace ky
