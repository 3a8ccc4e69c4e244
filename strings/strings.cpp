#include "strings/strings.h"

#include <algorithm>

#include "com/guard.h"
#include "com/property.h"
#include "server/resultcodes.h"
#include "strings/records.h"

namespace ky {

namespace {

// Lookups by text always compare case-sensitively, whatever CompareFlags
// says; only Add and Sort use the configured flags.
constexpr ULONG kLookupFlags = 0;

bool IsMissing(const VARIANT& value) {
    return V_VT(&value) == VT_EMPTY || (V_VT(&value) == VT_ERROR && V_ERROR(&value) == DISP_E_PARAMNOTFOUND);
}

}  // namespace

// --- IStrings ----------------------------------------------------------------

STDMETHODIMP CCoKyStrings::get_Count(long* pnCount) {
    if (!pnCount) return E_POINTER;
    com::Lock lock(m_lock);
    *pnCount = static_cast<long>(m_items.size());
    return S_OK;
}

STDMETHODIMP CCoKyStrings::get_Item(VARIANT index, BSTR* pbstr) {
    if (!pbstr) return E_POINTER;
    *pbstr = nullptr;
    com::Lock lock(m_lock);
    size_t position;
    if (!Find(index, &position)) return E_KY_ELEMENTNOTFOUND;
    return m_items[position].CopyTo(pbstr);
}

STDMETHODIMP CCoKyStrings::get__NewEnum(IUnknown** ppEnum) {
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    com::ComPtr<CKyStringsEnum> enumerator;
    HRESULT hr = CKyStringsEnum::Make(enumerator, this, size_t{0});
    if (FAILED(hr)) return hr;
    return enumerator->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(ppEnum));
}

STDMETHODIMP CCoKyStrings::get_UniqueStrings(VARIANT_BOOL* pvbUnique) {
    return com::GetLocked(m_lock, m_unique, pvbUnique);
}

// Only exactly VARIANT_TRUE switches it on.
STDMETHODIMP CCoKyStrings::put_UniqueStrings(VARIANT_BOOL vbUnique) {
    return com::PutLocked(m_lock, m_unique, vbUnique == VARIANT_TRUE);
}

STDMETHODIMP CCoKyStrings::get_CompareFlags(ULONG* pdwFlags) { return com::GetLocked(m_lock, m_compareFlags, pdwFlags); }

STDMETHODIMP CCoKyStrings::put_CompareFlags(ULONG dwFlags) { return com::PutLocked(m_lock, m_compareFlags, dwFlags); }

STDMETHODIMP CCoKyStrings::Add(BSTR bstr) {
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        if (m_unique && HoldsEqual(bstr)) return S_FALSE;
        // SysAllocString: the element ends at the first embedded U+0000.
        com::Bstr copy(bstr);
        if (bstr && copy.IsNull()) return E_OUTOFMEMORY;
        m_items.push_back(std::move(copy));
        m_index.Insert(m_items.back().Get());
        m_dirty = true;
        return S_OK;
    });
}

STDMETHODIMP CCoKyStrings::Remove(VARIANT val) {
    com::Lock lock(m_lock);
    size_t position;
    if (!Find(val, &position)) return E_KY_ELEMENTNOTFOUND;
    m_index.Erase(m_items[position].Get());
    m_items.erase(m_items.begin() + static_cast<ptrdiff_t>(position));
    m_dirty = true;
    return S_OK;
}

STDMETHODIMP CCoKyStrings::Sort(VARIANT_BOOL vbAscending, long lFirstPos, long lLastPos) {
    // A last position of 0 stands for the end of the list.
    if (lFirstPos < 0 || (lFirstPos >= lLastPos && lLastPos != 0)) return E_INVALIDARG;
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        const size_t count = m_items.size();
        const size_t first = static_cast<size_t>(lFirstPos);
        if (first > count) return E_INVALIDARG;
        const size_t end =
            (lLastPos == 0 || static_cast<size_t>(lLastPos) > count) ? count : static_cast<size_t>(lLastPos);
        if (first == end) return S_FALSE;
        // Anything but VARIANT_TRUE itself sorts descending.
        const HRESULT precedes = vbAscending == VARIANT_TRUE ? VARCMP_LT : VARCMP_GT;
        const ULONG flags = m_compareFlags;
        // The sort moves bare handles; the owners take them back afterwards.
        std::vector<BSTR> handles;
        handles.reserve(end - first);
        for (size_t i = first; i < end; ++i) handles.push_back(m_items[i].Detach());
        std::stable_sort(handles.begin(), handles.end(),
                         [&](BSTR a, BSTR b) { return ::VarBstrCmp(a, b, LOCALE_USER_DEFAULT, flags) == precedes; });
        for (size_t i = first; i < end; ++i) m_items[i].Attach(handles[i - first]);
        return S_OK;
    });
}

// --- IDispatch ----------------------------------------------------------------

// --- IPersistStream ----------------------------------------------------------

STDMETHODIMP CCoKyStrings::Load(IStream* pStm) {
    if (!pStm) return E_POINTER;
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        m_index.Drop();
        m_items.clear();
        ULONG count = 0;
        HRESULT hr = records::ReadUInt32(pStm, &count);
        if (FAILED(hr)) return hr;
        // No reservation from the count: a corrupt one must not cost memory.
        for (ULONG i = 0; i < count; ++i) {
            com::Bstr text;
            hr = records::ReadString(pStm, text.Out());
            if (FAILED(hr)) return hr;  // what was read so far stays
            m_items.push_back(std::move(text));
        }
        m_dirty = false;
        return S_OK;
    });
}

STDMETHODIMP CCoKyStrings::Save(IStream* pStm, BOOL fClearDirty) {
    if (!pStm) return E_POINTER;
    com::Lock lock(m_lock);
    HRESULT hr = records::WriteUInt32(pStm, static_cast<ULONG>(m_items.size()));
    for (size_t i = 0; SUCCEEDED(hr) && i < m_items.size(); ++i) hr = records::WriteString(pStm, m_items[i].Get());
    return SaveDone(hr, fClearDirty);
}

STDMETHODIMP CCoKyStrings::GetSizeMax(ULARGE_INTEGER* pcbSize) {
    if (!pcbSize) return E_POINTER;
    com::Lock lock(m_lock);
    // Generous: a null element counts 6 although it is saved in 4.
    ULONG size = 4;
    for (const com::Bstr& item : m_items) size += item.ByteLength() + 6;
    pcbSize->QuadPart = size;
    return S_OK;
}

// --- For the enumerators -------------------------------------------------------

size_t CCoKyStrings::Size() {
    com::Lock lock(m_lock);
    return m_items.size();
}

// --- Private -------------------------------------------------------------------

bool CCoKyStrings::Find(const VARIANT& key, size_t* position) {
    if (IsMissing(key)) return false;
    if (V_VT(&key) == VT_BSTR) {
        // Matched as text even when it reads as a number.
        for (size_t i = 0; i < m_items.size(); ++i) {
            if (::VarBstrCmp(m_items[i].Get(), V_BSTR(&key), LOCALE_USER_DEFAULT, kLookupFlags) == VARCMP_EQ) {
                *position = i;
                return true;
            }
        }
        return false;
    }
    com::Variant number;
    if (FAILED(::VariantChangeType(&number, const_cast<VARIANT*>(&key), 0, VT_I4))) return false;
    if (V_I4(&number) < 0 || static_cast<size_t>(V_I4(&number)) >= m_items.size()) return false;
    *position = static_cast<size_t>(V_I4(&number));
    return true;
}

bool CCoKyStrings::HoldsEqual(BSTR text) {
    if (EqualityIndex::Covers(m_compareFlags)) {
        if (!m_index.ReadyFor(m_compareFlags)) m_index.Build(m_items, m_compareFlags);
        EqualityIndex::Answer answer = m_index.Contains(text);
        if (answer != EqualityIndex::Answer::Unknown) return answer == EqualityIndex::Answer::Yes;
    }
    for (const com::Bstr& item : m_items) {
        if (::VarBstrCmp(text, item.Get(), LOCALE_USER_DEFAULT, m_compareFlags) == VARCMP_EQ) return true;
    }
    return false;
}

// --- Enumerator ----------------------------------------------------------------

CKyStringsEnum::CKyStringsEnum(CCoKyStrings* strings, size_t position)
    : m_owner(strings ? strings->ControllingUnknown() : nullptr), m_strings(strings), m_position(position) {}

HRESULT CKyStringsEnum::SkipItems(ULONG celt) {
    com::Lock lock(m_lock);
    if (!m_strings) return E_UNEXPECTED;
    size_t size = m_strings->Size();
    size_t available = size > m_position ? size - m_position : 0;
    if (celt > available) {
        m_position = std::max(m_position, size);
        return S_FALSE;
    }
    m_position += celt;
    return S_OK;
}

HRESULT CKyStringsEnum::Rewind() {
    com::Lock lock(m_lock);
    if (!m_strings) return E_UNEXPECTED;
    m_position = 0;
    return S_OK;
}

}  // namespace ky
