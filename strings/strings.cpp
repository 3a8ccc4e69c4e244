#include "strings/strings.h"

#include <algorithm>
#include <cstring>

#include "com/guard.h"
#include "com/property.h"
#include "contract/resultcodes.h"
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
    *pnCount = static_cast<long>(m_items.Size());
    return S_OK;
}

STDMETHODIMP CCoKyStrings::get_Item(VARIANT index, BSTR* pbstr) {
    if (!pbstr) return E_POINTER;
    *pbstr = nullptr;
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        size_t slot;
        if (!Find(index, &slot)) return E_KY_ELEMENTNOTFOUND;
        return m_items.Item(slot).CopyTo(pbstr);
    });
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
        if (m_unique && FirstEqual(bstr, m_compareFlags, m_uniqueIndex) != StringSlots::kNone) return S_FALSE;
        // SysAllocString: the element ends at the first embedded U+0000.
        com::Bstr copy(bstr);
        if (bstr && copy.IsNull()) return E_OUTOFMEMORY;
        const size_t slot = m_items.Append(std::move(copy));
        for (EqualityIndex* index : {&m_uniqueIndex, &m_lookupIndex}) index->Insert(slot, m_items.At(slot));
        m_dirty = true;
        return S_OK;
    });
}

STDMETHODIMP CCoKyStrings::Remove(VARIANT val) {
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        size_t slot;
        if (!Find(val, &slot)) return E_KY_ELEMENTNOTFOUND;
        m_uniqueIndex.Erase(slot, m_items.At(slot));
        m_lookupIndex.EraseFound(slot, m_items.At(slot));  // as Find found it
        // Compacting numbers the slots anew: the indexes follow when next used.
        if (m_items.Remove(slot)) {
            m_uniqueIndex.Drop();
            m_lookupIndex.Drop();
        }
        m_dirty = true;
        return S_OK;
    });
}

STDMETHODIMP CCoKyStrings::Sort(VARIANT_BOOL vbAscending, long lFirstPos, long lLastPos) {
    // A last position of 0 stands for the end of the list.
    if (lFirstPos < 0 || (lFirstPos >= lLastPos && lLastPos != 0)) return E_INVALIDARG;
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        const size_t count = m_items.Size();
        const size_t first = static_cast<size_t>(lFirstPos);
        if (first > count) return E_INVALIDARG;
        const size_t end =
            (lLastPos == 0 || static_cast<size_t>(lLastPos) > count) ? count : static_cast<size_t>(lLastPos);
        if (first == end) return S_FALSE;
        // Positions and slots are one once the list is compact.
        m_items.Compact();
        m_uniqueIndex.Drop();
        m_lookupIndex.Drop();
        // The sort moves bare handles; the owners take them back afterwards.
        std::vector<BSTR> handles;
        handles.reserve(end - first);
        for (size_t i = first; i < end; ++i) handles.push_back(m_items.Item(i).Detach());
        // Anything but VARIANT_TRUE itself sorts descending.
        SortHandles(handles, m_compareFlags, vbAscending == VARIANT_TRUE);
        for (size_t i = first; i < end; ++i) m_items.Item(i).Attach(handles[i - first]);
        return S_OK;
    });
}

// Each comparison of VarBstrCmp works out again what the flags make of both
// strings. Where the flags are ones whose sort keys the tests hold against
// VarBstrCmp, each string's key is made once and keys are compared instead.
// Strings that start with U+0000, which VarBstrCmp settles apart, are still
// compared by VarBstrCmp, as is everything when a key cannot be made.
void CCoKyStrings::SortHandles(std::vector<BSTR>& handles, ULONG flags, bool ascending) {
    const HRESULT precedes = ascending ? VARCMP_LT : VARCMP_GT;
    auto compare = [&](BSTR a, BSTR b) { return ::VarBstrCmp(a, b, LOCALE_USER_DEFAULT, flags) == precedes; };
    std::vector<size_t> offsets{0};
    std::vector<BYTE> keys, key;
    bool keyed = EqualityIndex::Covers(flags);
    for (size_t i = 0; keyed && i < handles.size(); ++i) {
        keyed = MakeSortKey(handles[i], flags, &key);
        keys.insert(keys.end(), key.begin(), key.end());
        offsets.push_back(keys.size());
    }
    if (!keyed) {
        std::stable_sort(handles.begin(), handles.end(), compare);
        return;
    }
    std::vector<size_t> order(handles.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
        const BYTE* ka = keys.data() + offsets[a];
        const BYTE* kb = keys.data() + offsets[b];
        if (ka[0] == 1 || kb[0] == 1) return compare(handles[a], handles[b]);
        const size_t la = offsets[a + 1] - offsets[a], lb = offsets[b + 1] - offsets[b];
        int c = std::memcmp(ka, kb, std::min(la, lb));
        if (c == 0) c = la < lb ? -1 : la > lb ? 1 : 0;
        return ascending ? c < 0 : c > 0;
    });
    std::vector<BSTR> sorted(handles.size());
    for (size_t i = 0; i < order.size(); ++i) sorted[i] = handles[order[i]];
    handles.swap(sorted);
}

// --- IDispatch ----------------------------------------------------------------

// --- IPersistStream ----------------------------------------------------------

STDMETHODIMP CCoKyStrings::Load(IStream* pStm) {
    if (!pStm) return E_POINTER;
    return com::Guard([&]() -> HRESULT {
        com::Lock lock(m_lock);
        m_uniqueIndex.Drop();
        m_lookupIndex.Drop();
        m_items.Clear();
        ULONG count = 0;
        HRESULT hr = records::ReadUInt32(pStm, &count);
        if (FAILED(hr)) return hr;
        // No reservation from the count: a corrupt one must not cost memory.
        for (ULONG i = 0; i < count; ++i) {
            com::Bstr text;
            hr = records::ReadString(pStm, text.Out());
            if (FAILED(hr)) return hr;  // what was read so far stays
            m_items.Append(std::move(text));
        }
        m_dirty = false;
        return S_OK;
    });
}

STDMETHODIMP CCoKyStrings::Save(IStream* pStm, BOOL fClearDirty) {
    if (!pStm) return E_POINTER;
    com::Lock lock(m_lock);
    HRESULT hr = records::WriteUInt32(pStm, static_cast<ULONG>(m_items.Size()));
    for (size_t slot = m_items.NextLive(0); SUCCEEDED(hr) && slot != StringSlots::kNone;
         slot = m_items.NextLive(slot + 1))
        hr = records::WriteString(pStm, m_items.At(slot));
    return SaveDone(hr, fClearDirty);
}

STDMETHODIMP CCoKyStrings::GetSizeMax(ULARGE_INTEGER* pcbSize) {
    if (!pcbSize) return E_POINTER;
    com::Lock lock(m_lock);
    // Generous: a null element counts 6 although it is saved in 4.
    ULONG size = 4;
    for (size_t slot = m_items.NextLive(0); slot != StringSlots::kNone; slot = m_items.NextLive(slot + 1))
        size += ::SysStringByteLen(m_items.At(slot)) + 6;
    pcbSize->QuadPart = size;
    return S_OK;
}

// --- For the enumerators -------------------------------------------------------

size_t CCoKyStrings::Size() {
    com::Lock lock(m_lock);
    return m_items.Size();
}

// --- Private -------------------------------------------------------------------

bool CCoKyStrings::Find(const VARIANT& key, size_t* slot) {
    if (IsMissing(key)) return false;
    if (V_VT(&key) == VT_BSTR) {
        // Matched as text even when it reads as a number.
        *slot = FirstEqual(V_BSTR(&key), kLookupFlags, m_lookupIndex);
        return *slot != StringSlots::kNone;
    }
    com::Variant number;
    if (FAILED(::VariantChangeType(&number, const_cast<VARIANT*>(&key), 0, VT_I4))) return false;
    if (V_I4(&number) < 0 || static_cast<size_t>(V_I4(&number)) >= m_items.Size()) return false;
    *slot = m_items.SlotOf(static_cast<size_t>(V_I4(&number)));
    return true;
}

size_t CCoKyStrings::FirstEqual(BSTR text, ULONG flags, EqualityIndex& index) {
    // Small collections are scanned: an index would not pay for itself.
    constexpr size_t kIndexedFrom = 32;
    if (m_items.Size() >= kIndexedFrom && EqualityIndex::Covers(flags)) {
        if (!index.ReadyFor(flags)) index.Build(m_items, flags);
        size_t slot;
        EqualityIndex::Answer answer = index.First(text, m_items, &slot);
        if (answer != EqualityIndex::Answer::Unknown) return slot;
    }
    for (size_t slot = m_items.NextLive(0); slot != StringSlots::kNone; slot = m_items.NextLive(slot + 1)) {
        if (::VarBstrCmp(text, m_items.At(slot), LOCALE_USER_DEFAULT, flags) == VARCMP_EQ) return slot;
    }
    return StringSlots::kNone;
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
