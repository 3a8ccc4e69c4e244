#include "metadata/objectmetadata.h"

#include <algorithm>
#include <cstring>

#include "com/guard.h"
#include "contract/resultcodes.h"

namespace ky {

namespace {

// An icon type names one of five kinds in its low five bits and one of two
// variants in bits 8-9; the other bits are the views' own business.
bool IsValidIconType(ULONG type) {
    const ULONG kind = type & 0x1F;
    const ULONG variant = type & 0x300;
    const bool oneKind = kind == 0x1 || kind == 0x2 || kind == 0x4 || kind == 0x8 || kind == 0x10;
    return oneKind && (variant == 0x100 || variant == 0x200);
}

// The result of a list operation from how many of its items succeeded.
HRESULT PartialResult(unsigned int succeeded, unsigned int total) {
    if (succeeded == 0) return E_FAIL;
    return succeeded == total ? S_OK : S_FALSE;
}

// A live view of a metadata object's interfaces: it remembers the last GUID
// it handed out, so interfaces added later behind that point are still met.
class CInterfaceEnumerator : public com::Object<CInterfaceEnumerator, IEnumGUID> {
public:
    CInterfaceEnumerator(CCoKyObjectMetaData* owner, bool started, const GUID& last)
        : m_owner(owner), m_started(started), m_last(last) {}

    STDMETHODIMP Next(ULONG celt, GUID* rgelt, ULONG* pceltFetched) override {
        if (!rgelt) return E_POINTER;
        if (celt != 1 && !pceltFetched) return E_POINTER;
        if (pceltFetched) *pceltFetched = 0;
        ULONG count = Walk(celt, rgelt);
        if (pceltFetched) *pceltFetched = count;
        return count == celt ? S_OK : S_FALSE;
    }

    STDMETHODIMP Skip(ULONG celt) override { return Walk(celt, nullptr) == celt ? S_OK : S_FALSE; }

    STDMETHODIMP Reset() override {
        com::Lock lock(m_lock);
        m_started = false;
        return S_OK;
    }

    STDMETHODIMP Clone(IEnumGUID** ppenum) override {
        if (!ppenum) return E_POINTER;
        *ppenum = nullptr;
        com::Lock lock(m_lock);
        com::ComPtr<CInterfaceEnumerator> clone;
        HRESULT hr = Make(clone, m_owner.Get(), m_started, m_last);
        if (FAILED(hr)) return hr;
        *ppenum = clone.Detach();
        return S_OK;
    }

private:
    // Moves past up to `count` GUIDs, copying them to `out` when given.
    ULONG Walk(ULONG count, GUID* out) {
        auto list = m_owner->Interfaces();
        com::Lock lock(m_lock);
        ULONG done = 0;
        if (!list) return 0;
        auto it = m_started ? std::upper_bound(list->begin(), list->end(), m_last, &CCoKyObjectMetaData::Less)
                            : list->begin();
        for (; done < count && it != list->end(); ++it, ++done) {
            if (out) out[done] = *it;
            m_last = *it;
            m_started = true;
        }
        return done;
    }

    com::ComPtr<CCoKyObjectMetaData> m_owner;
    com::CriticalSection m_lock;
    bool m_started;
    GUID m_last;
};

}  // namespace

bool CCoKyObjectMetaData::Less(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) < 0; }

bool CCoKyObjectMetaData::Rule::Matches(ULONG state) const {
    switch (kind) {
        case KYDSR_EQUAL:
            return state == mask;
        case KYDSR_MASK:
            return (state & mask) == mask;
        case KYDSR_ONE:
            return (state & mask) != 0;
        default:
            return false;
    }
}

CCoKyObjectMetaData::~CCoKyObjectMetaData() {
    Rule* rule = m_rules.load();
    while (rule) {
        Rule* next = rule->next.load();
        delete rule;
        rule = next;
    }
    ::SysFreeString(m_otherwise.load());
}

std::shared_ptr<const CCoKyObjectMetaData::InterfaceList> CCoKyObjectMetaData::Interfaces() const {
    return std::atomic_load(&m_interfaces);
}

STDMETHODIMP CCoKyObjectMetaData::get_SupportedInterfaces(IEnumGUID** ppEnumIID) {
    if (!ppEnumIID) return E_POINTER;
    *ppEnumIID = nullptr;
    com::ComPtr<CInterfaceEnumerator> e;
    HRESULT hr = CInterfaceEnumerator::Make(e, this, false, GUID_NULL);
    if (FAILED(hr)) return hr;
    *ppEnumIID = e.Detach();
    return S_OK;
}

STDMETHODIMP CCoKyObjectMetaData::get_Icon(ULONG dwType, LONG_PTR* phIcon) {
    if (!phIcon) return E_POINTER;
    *phIcon = 0;
    com::Lock lock(m_lock);
    auto it = m_icons.find(dwType);
    if (it == m_icons.end()) return E_FAIL;
    *phIcon = it->second;
    return S_OK;
}

STDMETHODIMP CCoKyObjectMetaData::get_SortingPreference(VARIANT_BOOL vbAscending, ULONG* pdwPreference) {
    if (!pdwPreference) return E_POINTER;
    com::Lock lock(m_lock);
    *pdwPreference = vbAscending == VARIANT_TRUE ? m_ascending : m_descending;
    return S_OK;
}

STDMETHODIMP CCoKyObjectMetaData::GetIcons(unsigned int cIcons, ULONG* pdwTypes, LONG_PTR* phIcons) {
    if (!pdwTypes || !phIcons) return E_POINTER;
    if (cIcons == 0) return E_INVALIDARG;
    std::fill(phIcons, phIcons + cIcons, LONG_PTR{0});
    unsigned int found = 0;
    for (unsigned int i = 0; i < cIcons; ++i)
        if (get_Icon(pdwTypes[i], &phIcons[i]) == S_OK) ++found;
    return PartialResult(found, cIcons);
}

STDMETHODIMP CCoKyObjectMetaData::DecodeState(ULONG dwState, BSTR* pbstrState) {
    if (!pbstrState) return E_POINTER;
    *pbstrState = nullptr;
    // Only the first matching rule counts; texts are never combined.
    for (const Rule* rule = m_rules.load(std::memory_order_acquire); rule;
         rule = rule->next.load(std::memory_order_acquire)) {
        if (rule->Matches(dwState)) return rule->text.CopyTo(pbstrState);
    }
    HRESULT hr = com::Bstr::CopyOf(m_otherwise.load(std::memory_order_acquire), pbstrState);
    return FAILED(hr) ? hr : S_FALSE;
}

STDMETHODIMP CCoKyObjectMetaData::IsInterfaceSupported(REFIID riid) {
    auto list = Interfaces();
    if (list && std::binary_search(list->begin(), list->end(), riid, &Less)) return S_OK;
    return E_KY_ELEMENTNOTFOUND;
}

STDMETHODIMP CCoKyObjectMetaData::put_SortingPreference(ULONG dwAscending, ULONG dwDescending) {
    com::Lock lock(m_lock);
    m_ascending = dwAscending;
    m_descending = dwDescending;
    return S_OK;
}

STDMETHODIMP CCoKyObjectMetaData::AddIcon(ULONG dwType, LONG_PTR hIcon) {
    if (hIcon == 0 || !IsValidIconType(dwType)) return E_INVALIDARG;
    return com::Guard([&] {
        com::Lock lock(m_lock);
        // The first handle for a type stays.
        return m_icons.emplace(dwType, hIcon).second ? S_OK : E_FAIL;
    });
}

STDMETHODIMP CCoKyObjectMetaData::AddIcons(unsigned int cIcons, ULONG* pdwTypes, LONG_PTR* phIcons) {
    if (!pdwTypes || !phIcons) return E_POINTER;
    if (cIcons == 0) return E_INVALIDARG;
    unsigned int added = 0;
    for (unsigned int i = 0; i < cIcons; ++i)
        if (SUCCEEDED(AddIcon(pdwTypes[i], phIcons[i]))) ++added;
    return PartialResult(added, cIcons);
}

STDMETHODIMP CCoKyObjectMetaData::AddSupportedInterface(REFIID riid) {
    if (IsEqualGUID(riid, GUID_NULL)) return E_INVALIDARG;
    return com::Guard([&] {
        com::Lock lock(m_lock);
        auto current = Interfaces();
        auto list = current ? std::make_shared<InterfaceList>(*current) : std::make_shared<InterfaceList>();
        auto at = std::lower_bound(list->begin(), list->end(), riid, &Less);
        if (at != list->end() && IsEqualGUID(*at, riid)) return S_OK;
        list->insert(at, riid);
        std::atomic_store(&m_interfaces, std::shared_ptr<const InterfaceList>(std::move(list)));
        return S_OK;
    });
}

STDMETHODIMP CCoKyObjectMetaData::AddSupportedInterfaces(unsigned int cInterfaces, IID* pIIDs) {
    if (!pIIDs) return E_POINTER;
    if (cInterfaces == 0) return E_INVALIDARG;
    unsigned int added = 0;
    for (unsigned int i = 0; i < cInterfaces; ++i)
        if (SUCCEEDED(AddSupportedInterface(pIIDs[i]))) ++added;
    return PartialResult(added, cInterfaces);
}

STDMETHODIMP CCoKyObjectMetaData::AddDecodeStateRule(KYDECODESTATERULE eRule, ULONG dwMask, BSTR bstrState) {
    const LONG kind = static_cast<LONG>(eRule);
    if ((kind == KYDSR_MASK || kind == KYDSR_ONE) && dwMask == 0) return E_INVALIDARG;
    if (kind < KYDSR_EQUAL || kind > KYDSR_OTHERWISE) return E_UNEXPECTED;

    if (kind == KYDSR_OTHERWISE) {
        BSTR copy = nullptr;
        HRESULT hr = com::Bstr::CopyOf(bstrState, &copy);
        if (FAILED(hr)) return hr;
        BSTR expected = nullptr;
        if (!m_otherwise.compare_exchange_strong(expected, copy, std::memory_order_acq_rel)) {
            ::SysFreeString(copy);
            return E_UNEXPECTED;
        }
        return S_OK;
    }
    if (kind != KYDSR_EQUAL && kind != KYDSR_MASK && kind != KYDSR_ONE) return E_UNEXPECTED;

    auto* rule = new (std::nothrow) Rule{eRule, dwMask, com::Bstr(), {nullptr}};
    if (!rule) return E_OUTOFMEMORY;
    HRESULT hr = rule->text.Assign(bstrState);
    if (FAILED(hr)) {
        delete rule;
        return hr;
    }
    // Append at the end; a link that another thread filled first is followed.
    std::atomic<Rule*>* link = &m_rules;
    for (;;) {
        Rule* next = nullptr;
        if (link->compare_exchange_strong(next, rule, std::memory_order_acq_rel)) break;
        link = &next->next;
    }
    return S_OK;
}

}  // namespace ky
