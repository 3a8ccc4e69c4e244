#include "opml/model.h"

#include <cwchar>

#include "com/guard.h"
#include "com/property.h"
#include "opml/text.h"

namespace OPML {

namespace {

// The attributes behind the outline's properties.
constexpr wchar_t kText[] = L"text";
constexpr wchar_t kType[] = L"type";
constexpr wchar_t kIsComment[] = L"isComment";
constexpr wchar_t kIsBreakpoint[] = L"isBreakpoint";

bool SameText(const std::wstring& stored, const wchar_t* text, UINT length) {
    return stored.size() == length && (length == 0 || wmemcmp(stored.data(), text, length) == 0);
}

// Copies outside the lock, then swaps in under it.
HRESULT Store(com::CriticalSection& lock, std::wstring& target, const wchar_t* text, UINT length) {
    return com::Guard([&] {
        std::wstring copy(text ? text : L"", text ? length : 0);
        com::Lock held(lock);
        target.swap(copy);
        return S_OK;
    });
}

}  // namespace

// --- CCoAttribute -------------------------------------------------------------

STDMETHODIMP CCoAttribute::get_Name(BSTR* pbstrName) {
    if (!pbstrName) return E_POINTER;
    com::Lock lock(m_lock);
    return CopyText(m_name, pbstrName);
}

STDMETHODIMP CCoAttribute::put_Name(BSTR bstrName) { return SetName(bstrName); }

STDMETHODIMP CCoAttribute::get_Value(BSTR* pbstrValue) {
    if (!pbstrValue) return E_POINTER;
    com::Lock lock(m_lock);
    return CopyText(m_value, pbstrValue);
}

STDMETHODIMP CCoAttribute::put_Value(BSTR bstrValue) { return SetValue(bstrValue, ::SysStringLen(bstrValue)); }

bool CCoAttribute::NameIs(const wchar_t* name, UINT length) {
    com::Lock lock(m_lock);
    return SameText(m_name, name, length);
}

HRESULT CCoAttribute::SetName(const wchar_t* name) {
    return SetName(name, name ? static_cast<UINT>(wcslen(name)) : 0);
}

HRESULT CCoAttribute::SetName(const wchar_t* name, UINT length) { return Store(m_lock, m_name, name, length); }

HRESULT CCoAttribute::SetValue(const wchar_t* value, UINT length) { return Store(m_lock, m_value, value, length); }

// --- CCoAttributes ------------------------------------------------------------

HRESULT CCoAttributes::Load(const TextPair* pairs, size_t count) {
    if (count == 0) return S_OK;
    size_t chars = 4 * count;
    for (size_t i = 0; i < count; ++i) chars += size_t{pairs[i].nameLength} + pairs[i].valueLength;
    std::unique_ptr<wchar_t[]> block(new (std::nothrow) wchar_t[chars]);
    if (!block) return E_OUTOFMEMORY;
    wchar_t* lengths = block.get();
    wchar_t* text = lengths + 4 * count;
    for (size_t i = 0; i < count; ++i, lengths += 4) {
        const TextPair& pair = pairs[i];
        detail::PutPackedLength(lengths, pair.nameLength);
        detail::PutPackedLength(lengths + 2, pair.valueLength);
        if (pair.nameLength) wmemcpy(text, pair.name, pair.nameLength);
        text += pair.nameLength;
        if (pair.valueLength) wmemcpy(text, pair.value, pair.valueLength);
        text += pair.valueLength;
    }
    com::Lock lock(m_lock);
    HRESULT hr = MakeObjects();  // a block already there comes first
    if (FAILED(hr)) return hr;
    m_block = std::move(block);
    m_blockCount = count;
    return S_OK;
}

HRESULT CCoAttributes::MakeObjects() {
    if (!m_block) return S_OK;
    return com::Guard([&] {
        std::vector<ComPtr<CCoAttribute>> made;
        made.reserve(m_blockCount);
        HRESULT hr = S_OK;
        ForEachInBlock([&](const wchar_t* name, size_t nameLength, const wchar_t* value, size_t valueLength) {
            ComPtr<CCoAttribute> attribute;
            if (SUCCEEDED(hr)) hr = CCoAttribute::Make(attribute);
            if (SUCCEEDED(hr)) hr = attribute->SetName(name, static_cast<UINT>(nameLength));
            if (SUCCEEDED(hr)) hr = attribute->SetValue(value, static_cast<UINT>(valueLength));
            if (SUCCEEDED(hr)) made.push_back(std::move(attribute));
        });
        if (FAILED(hr)) return hr;
        m_items.reserve(m_items.size() + made.size());
        for (auto& attribute : made) m_items.push_back(std::move(attribute));
        m_block.reset();
        m_blockCount = 0;
        return S_OK;
    });
}

STDMETHODIMP CCoAttributes::get__NewEnum(IUnknown** ppEnum) {
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    HRESULT hr = Objects();
    return FAILED(hr) ? hr : Base::get__NewEnum(ppEnum);
}

STDMETHODIMP CCoAttributes::get_Item(VARIANT* pvID, IOPMLAttribute** ppItem) {
    if (!ppItem) return E_POINTER;
    *ppItem = nullptr;
    HRESULT hr = Objects();
    return FAILED(hr) ? hr : Base::get_Item(pvID, ppItem);
}

STDMETHODIMP CCoAttributes::get_Count(LONG* plCount) {
    if (!plCount) return E_POINTER;
    com::Lock lock(m_lock);
    *plCount = static_cast<LONG>(m_items.size() + m_blockCount);
    return S_OK;
}

STDMETHODIMP CCoAttributes::AddNew(IOPMLAttribute** ppItem) {
    if (!ppItem) return E_POINTER;
    *ppItem = nullptr;
    HRESULT hr = Objects();
    return FAILED(hr) ? hr : Base::AddNew(ppItem);
}

STDMETHODIMP CCoAttributes::Remove(VARIANT* pvID) {
    HRESULT hr = Objects();
    return FAILED(hr) ? hr : Base::Remove(pvID);
}

STDMETHODIMP CCoAttributes::Clear() {
    std::unique_ptr<wchar_t[]> block;
    {
        com::Lock lock(m_lock);
        block.swap(m_block);
        m_blockCount = 0;
    }
    return Base::Clear();
}

bool CCoAttributes::ValueIs(const wchar_t* name, const wchar_t* value, UINT length) {
    const size_t nameLength = wcslen(name);
    bool found = false, same = false;
    ForEachPair([&](const wchar_t* itsName, size_t itsNameLength, const wchar_t* itsValue, size_t itsLength) {
        if (found || itsNameLength != nameLength || wmemcmp(itsName, name, nameLength) != 0) return;
        found = true;
        same = itsLength == length && (length == 0 || wmemcmp(itsValue, value, length) == 0);
    });
    return same;
}

ComPtr<CCoAttribute> CCoAttributes::Find(const wchar_t* name) {
    UINT length = static_cast<UINT>(wcslen(name));
    com::Lock lock(m_lock);
    if (FAILED(MakeObjects())) return nullptr;
    for (const auto& attribute : m_items) {
        if (attribute->NameIs(name, length)) return attribute;
    }
    return nullptr;
}

HRESULT CCoAttributes::FindOrAdd(const wchar_t* name, ComPtr<CCoAttribute>& attribute) {
    com::Lock lock(m_lock);
    HRESULT hr = MakeObjects();
    if (FAILED(hr)) return hr;
    attribute = Find(name);
    if (attribute) return S_OK;
    hr = Append(attribute);
    if (SUCCEEDED(hr)) hr = attribute->SetName(name);
    return hr;
}

ComPtr<CCoAttribute> CCoAttributes::At(size_t index) {
    com::Lock lock(m_lock);
    if (FAILED(MakeObjects())) return nullptr;
    return index < m_items.size() ? m_items[index] : nullptr;
}

// --- COutlines ----------------------------------------------------------------

bool COutlines::Matches(CCoOutline* outline, BSTR name) { return outline->TextIs(name, ::SysStringLen(name)); }

// --- CCoOutline ---------------------------------------------------------------

HRESULT CCoOutline::FinalConstruct() { return CCoAttributes::Make(m_attributes); }

CCoOutline::~CCoOutline() {
    if (COutlines* children = m_subItems.load()) children->Release();
}

COutlines* CCoOutline::Children() {
    COutlines* children = m_subItems.load(std::memory_order_acquire);
    if (children) return children;
    ComPtr<COutlines> made;
    if (FAILED(COutlines::Make(made))) return nullptr;
    if (m_subItems.compare_exchange_strong(children, made.Get(), std::memory_order_acq_rel)) return made.Detach();
    return children;  // another thread made them first; ours go
}

STDMETHODIMP CCoOutline::get_Text(BSTR* pbstrText) { return GetText(kText, pbstrText); }
STDMETHODIMP CCoOutline::put_Text(BSTR bstrText) { return PutText(kText, bstrText); }
STDMETHODIMP CCoOutline::get_type(BSTR* pbstrType) { return GetText(kType, pbstrType); }
STDMETHODIMP CCoOutline::put_type(BSTR bstrType) { return PutText(kType, bstrType); }
STDMETHODIMP CCoOutline::get_IsComment(VARIANT_BOOL* pvbIsComment) { return GetFlag(kIsComment, pvbIsComment); }
STDMETHODIMP CCoOutline::put_IsComment(VARIANT_BOOL vbIsComment) { return PutFlag(kIsComment, vbIsComment); }
STDMETHODIMP CCoOutline::get_IsBreakPoint(VARIANT_BOOL* pvbIsBreakPoint) {
    return GetFlag(kIsBreakpoint, pvbIsBreakPoint);
}
STDMETHODIMP CCoOutline::put_IsBreakPoint(VARIANT_BOOL vbIsBreakPoint) {
    return PutFlag(kIsBreakpoint, vbIsBreakPoint);
}

STDMETHODIMP CCoOutline::get_Attributes(IOPMLAttributes** ppAttributes) {
    return HandOut(m_attributes.Get(), ppAttributes);
}

STDMETHODIMP CCoOutline::get_SubItems(IOPMLOutlines** ppSubItems) {
    if (!ppSubItems) return E_POINTER;
    COutlines* children = Children();
    if (!children) return E_OUTOFMEMORY;
    return HandOut(children, ppSubItems);
}

bool CCoOutline::TextIs(const wchar_t* text, UINT length) { return m_attributes->ValueIs(kText, text, length); }

// A read of a missing attribute adds it with an empty value, so that the
// outline then carries (and writes) every property that was looked at.
HRESULT CCoOutline::GetText(const wchar_t* name, BSTR* value) {
    if (!value) return E_POINTER;
    *value = nullptr;
    ComPtr<CCoAttribute> attribute;
    HRESULT hr = m_attributes->FindOrAdd(name, attribute);
    if (FAILED(hr)) return hr;
    return attribute->get_Value(value);
}

HRESULT CCoOutline::PutText(const wchar_t* name, BSTR value) {
    ComPtr<CCoAttribute> attribute;
    HRESULT hr = m_attributes->FindOrAdd(name, attribute);
    if (FAILED(hr)) return hr;
    return attribute->put_Value(value);
}

HRESULT CCoOutline::GetFlag(const wchar_t* name, VARIANT_BOOL* value) {
    if (!value) return E_POINTER;
    *value = VARIANT_FALSE;
    com::Variant flag;
    V_VT(&flag) = VT_BSTR;
    V_BSTR(&flag) = nullptr;
    HRESULT hr = GetText(name, &V_BSTR(&flag));
    if (SUCCEEDED(hr)) hr = ConvertText(&flag, VT_BOOL);
    if (FAILED(hr)) return hr;
    *value = V_BOOL(&flag);
    return S_OK;
}

HRESULT CCoOutline::PutFlag(const wchar_t* name, VARIANT_BOOL value) {
    com::Variant flag;
    V_VT(&flag) = VT_BOOL;
    V_BOOL(&flag) = value;
    HRESULT hr = ConvertText(&flag, VT_BSTR);
    if (FAILED(hr)) return hr;
    return PutText(name, V_BSTR(&flag));
}

HRESULT CCoOutline::ReadNamed(LPCOLESTR name, VARTYPE type, VARIANT* value) {
    ComPtr<CCoAttribute> attribute = m_attributes->Find(name);
    if (!attribute) return E_INVALIDARG;
    com::Variant text;
    V_VT(&text) = VT_BSTR;
    V_BSTR(&text) = nullptr;
    HRESULT hr = attribute->get_Value(&V_BSTR(&text));
    if (SUCCEEDED(hr) && type != VT_EMPTY && type != VT_VARIANT && type != VT_BSTR) hr = ConvertText(&text, type);
    if (FAILED(hr)) return hr;
    text.Detach(value);
    return S_OK;
}

HRESULT CCoOutline::WriteNamed(LPCOLESTR name, const VARIANT* value) {
    com::Variant text;
    HRESULT hr = text.CopyFrom(value);
    if (SUCCEEDED(hr)) hr = ConvertText(&text, VT_BSTR);
    if (FAILED(hr)) return hr;
    ComPtr<CCoAttribute> attribute;
    hr = m_attributes->FindOrAdd(name, attribute);
    if (FAILED(hr)) return hr;
    return attribute->SetValue(V_BSTR(&text), ::SysStringLen(V_BSTR(&text)));
}

STDMETHODIMP CCoOutline::Read(LPCOLESTR pszPropName, VARIANT* pVar, IErrorLog*) {
    if (!pszPropName || !pVar) return E_POINTER;
    // The caller states the type it wants in vt; the rest is output only.
    return ReadNamed(pszPropName, V_VT(pVar), pVar);
}

STDMETHODIMP CCoOutline::Write(LPCOLESTR pszPropName, VARIANT* pVar) {
    if (!pszPropName || !pVar) return E_POINTER;
    return WriteNamed(pszPropName, pVar);
}

STDMETHODIMP CCoOutline::Read(ULONG cProperties, PROPBAG2* pPropBag, IErrorLog*, VARIANT* pvarValue,
                              HRESULT* phrError) {
    if (cProperties && (!pPropBag || !pvarValue)) return E_POINTER;
    HRESULT result = S_OK;
    for (ULONG i = 0; i < cProperties; ++i) {
        ::VariantInit(&pvarValue[i]);
        HRESULT hr = pPropBag[i].pstrName ? ReadNamed(pPropBag[i].pstrName, pPropBag[i].vt, &pvarValue[i])
                                          : E_INVALIDARG;
        if (phrError) phrError[i] = hr;
        if (FAILED(hr)) result = E_FAIL;
    }
    return result;
}

STDMETHODIMP CCoOutline::Write(ULONG cProperties, PROPBAG2* pPropBag, VARIANT* pvarValue) {
    if (cProperties && (!pPropBag || !pvarValue)) return E_POINTER;
    for (ULONG i = 0; i < cProperties; ++i) {
        HRESULT hr = pPropBag[i].pstrName ? WriteNamed(pPropBag[i].pstrName, &pvarValue[i]) : E_INVALIDARG;
        if (FAILED(hr)) return hr;
    }
    return S_OK;
}

STDMETHODIMP CCoOutline::CountProperties(ULONG* pcProperties) {
    if (!pcProperties) return E_POINTER;
    LONG count = 0;
    HRESULT hr = m_attributes->get_Count(&count);
    *pcProperties = static_cast<ULONG>(count);
    return hr;
}

// Describes attributes iProperty onwards (0-based, as property bags count)
// as text data; dwHint is the attribute's position.
STDMETHODIMP CCoOutline::GetPropertyInfo(ULONG iProperty, ULONG cProperties, PROPBAG2* pPropBag,
                                         ULONG* pcProperties) {
    if (!pPropBag || !pcProperties) return E_POINTER;
    *pcProperties = 0;
    ULONG count = 0;
    CountProperties(&count);
    if (iProperty >= count) return E_INVALIDARG;
    ULONG filled = 0;
    for (; filled < cProperties; ++filled) {
        ComPtr<CCoAttribute> attribute = m_attributes->At(iProperty + filled);
        if (!attribute) break;  // removed meanwhile
        com::Bstr name;
        HRESULT hr = attribute->get_Name(name.Out());
        size_t bytes = (name.Length() + 1) * sizeof(wchar_t);
        auto* copy = SUCCEEDED(hr) ? static_cast<LPOLESTR>(::CoTaskMemAlloc(bytes)) : nullptr;
        if (!copy) {
            for (ULONG i = 0; i < filled; ++i) {
                ::CoTaskMemFree(pPropBag[i].pstrName);
                pPropBag[i].pstrName = nullptr;
            }
            return FAILED(hr) ? hr : E_OUTOFMEMORY;
        }
        memcpy(copy, name.IsNull() ? L"" : name.Get(), bytes);
        PROPBAG2& info = pPropBag[filled];
        info.dwType = PROPBAG2_TYPE_DATA;
        info.vt = VT_BSTR;
        info.cfType = 0;
        info.dwHint = iProperty + filled;
        info.pstrName = copy;
        info.clsid = CLSID_NULL;
    }
    *pcProperties = filled;
    return S_OK;
}

// Attributes hold text only: there are no objects to load.
STDMETHODIMP CCoOutline::LoadObject(LPCOLESTR, DWORD, IUnknown*, IErrorLog*) { return E_NOTIMPL; }

// --- CExpansionState ------------------------------------------------------------

STDMETHODIMP CExpansionState::get__NewEnum(IUnknown** ppEnum) {
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    return com::Guard([&] {
        std::vector<VARIANT> items;
        com::Lock lock(m_lock);
        items.reserve(m_values.size());
        for (LONG value : m_values) {
            VARIANT item;
            V_VT(&item) = VT_I4;
            V_I4(&item) = value;
            items.push_back(item);
        }
        lock.Unlock();
        return MakeVariantEnumerator(std::move(items), ppEnum);
    });
}

STDMETHODIMP CExpansionState::get_Item(LONG lindex, LONG* plValue) {
    if (!plValue) return E_POINTER;
    *plValue = 0;
    com::Lock lock(m_lock);
    if (lindex < 1 || static_cast<size_t>(lindex) > m_values.size()) return E_INVALIDARG;
    *plValue = m_values[lindex - 1];
    return S_OK;
}

STDMETHODIMP CExpansionState::get_Count(LONG* plCount) {
    if (!plCount) return E_POINTER;
    com::Lock lock(m_lock);
    *plCount = static_cast<LONG>(m_values.size());
    return S_OK;
}

STDMETHODIMP CExpansionState::Add(INT nValue) {
    return com::Guard([&] {
        com::Lock lock(m_lock);
        m_values.push_back(nValue);
        return S_OK;
    });
}

STDMETHODIMP CExpansionState::Remove(LONG lindex) {
    com::Lock lock(m_lock);
    if (lindex < 1 || static_cast<size_t>(lindex) > m_values.size()) return E_INVALIDARG;
    m_values.erase(m_values.begin() + (lindex - 1));
    return S_OK;
}

STDMETHODIMP CExpansionState::Clear() {
    com::Lock lock(m_lock);
    m_values.clear();
    return S_OK;
}

// --- CHeader ------------------------------------------------------------------

HRESULT CHeader::FinalConstruct() { return CExpansionState::Make(m_expansionState); }

HRESULT CHeader::GetString(const com::Bstr& field, BSTR* value) {
    if (!value) return E_POINTER;
    com::Lock lock(m_lock);
    return CopyText(field, value);
}

HRESULT CHeader::PutString(com::Bstr& field, BSTR value) {
    com::Bstr copy;
    HRESULT hr = StoreText(copy, value, ::SysStringLen(value));
    if (FAILED(hr)) return hr;
    com::Lock lock(m_lock);
    field = std::move(copy);
    return S_OK;
}

STDMETHODIMP CHeader::get_Title(BSTR* pbstrTitle) { return GetString(m_title, pbstrTitle); }
STDMETHODIMP CHeader::put_Title(BSTR bstrTitle) { return PutString(m_title, bstrTitle); }
STDMETHODIMP CHeader::get_DateCreated(DATE* pdtCreated) { return com::GetLocked(m_lock, m_created, pdtCreated); }
STDMETHODIMP CHeader::put_DateCreated(DATE dtCreated) { return com::PutLocked(m_lock, m_created, dtCreated); }
STDMETHODIMP CHeader::get_DateModified(DATE* pdtModified) { return com::GetLocked(m_lock, m_modified, pdtModified); }
STDMETHODIMP CHeader::put_DateModified(DATE dtModified) { return com::PutLocked(m_lock, m_modified, dtModified); }
STDMETHODIMP CHeader::get_OwnerName(BSTR* pbstrOwnerName) { return GetString(m_ownerName, pbstrOwnerName); }
STDMETHODIMP CHeader::put_OwnerName(BSTR bstrOwnerName) { return PutString(m_ownerName, bstrOwnerName); }
STDMETHODIMP CHeader::get_OwnerEmail(BSTR* pbstrOwnerEmail) { return GetString(m_ownerEmail, pbstrOwnerEmail); }
STDMETHODIMP CHeader::put_OwnerEmail(BSTR bstrOwnerEmail) { return PutString(m_ownerEmail, bstrOwnerEmail); }

STDMETHODIMP CHeader::get_ExpansionState(IOPMLExpansionState** ppExpansionState) {
    return HandOut(m_expansionState.Get(), ppExpansionState);
}

STDMETHODIMP CHeader::get_VertScrollState(ULONG* pdwVertScrollState) {
    return com::GetLocked(m_lock, m_vertScrollState, pdwVertScrollState);
}
STDMETHODIMP CHeader::put_VertScrollState(ULONG dwVertScrollState) {
    return com::PutLocked(m_lock, m_vertScrollState, dwVertScrollState);
}
STDMETHODIMP CHeader::get_WindowTop(LONG* plWindowTop) { return com::GetLocked(m_lock, m_windowTop, plWindowTop); }
STDMETHODIMP CHeader::put_WindowTop(LONG lWindowTop) { return com::PutLocked(m_lock, m_windowTop, lWindowTop); }
STDMETHODIMP CHeader::get_WindowLeft(LONG* plWindowLeft) { return com::GetLocked(m_lock, m_windowLeft, plWindowLeft); }
STDMETHODIMP CHeader::put_WindowLeft(LONG lWindowLeft) { return com::PutLocked(m_lock, m_windowLeft, lWindowLeft); }
STDMETHODIMP CHeader::get_WindowBottom(LONG* plWindowBottom) { return com::GetLocked(m_lock, m_windowBottom, plWindowBottom); }
STDMETHODIMP CHeader::put_WindowBottom(LONG lWindowBottom) { return com::PutLocked(m_lock, m_windowBottom, lWindowBottom); }
STDMETHODIMP CHeader::get_WindowRight(LONG* plWindowRight) { return com::GetLocked(m_lock, m_windowRight, plWindowRight); }
STDMETHODIMP CHeader::put_WindowRight(LONG lWindowRight) { return com::PutLocked(m_lock, m_windowRight, lWindowRight); }

}  // namespace OPML
