// The string collection: an ordered list of strings with optional
// uniqueness, lookup by position or by text, range sorting and a compact
// binary form, and the enumerator that walks it.
#pragma once

#include <windows.h>
#include <oaidl.h>
#include <objidl.h>

#include <vector>

#include "com/enumerator.h"
#include "com/object.h"
#include "com/raii.h"
#include "kyutils.h"
#include "strings/equalityindex.h"
#include "strings/persistence.h"
#include "strings/slots.h"

namespace ky {

using KyStringsPersistence = PersistStreamImpl<CLSID_KyStrings>;

class CCoKyStrings : public com::Object<CCoKyStrings, com::Dual<IStrings>, com::With<KyStringsPersistence>,
                                        com::Also<IPersist, KyStringsPersistence>, com::FreeThreaded> {
public:
    static constexpr bool kAggregatable = true;

    // IStrings
    STDMETHODIMP get_Count(long* pnCount) override;
    STDMETHODIMP get_Item(VARIANT index, BSTR* pbstr) override;
    STDMETHODIMP get__NewEnum(IUnknown** ppEnum) override;
    STDMETHODIMP get_UniqueStrings(VARIANT_BOOL* pvbUnique) override;
    STDMETHODIMP put_UniqueStrings(VARIANT_BOOL vbUnique) override;
    STDMETHODIMP get_CompareFlags(ULONG* pdwFlags) override;
    STDMETHODIMP put_CompareFlags(ULONG dwFlags) override;
    STDMETHODIMP Add(BSTR bstr) override;
    STDMETHODIMP Remove(VARIANT val) override;
    STDMETHODIMP Sort(VARIANT_BOOL vbAscending, long lFirstPos, long lLastPos) override;

    // IPersistStream
    STDMETHODIMP Load(IStream* pStm) override;
    STDMETHODIMP Save(IStream* pStm, BOOL fClearDirty) override;
    STDMETHODIMP GetSizeMax(ULARGE_INTEGER* pcbSize) override;

    // For the enumerators: calls `visit(element, i)` for up to `count`
    // elements from `position` on (i counting from 0), under the
    // collection's lock. Stops at the first failure of `visit` and returns it.
    template <class Visit>
    HRESULT VisitFrom(size_t position, ULONG count, Visit&& visit, ULONG* visited);
    size_t Size();

private:
    // The slot of the element that a VARIANT designates, by text or by position.
    bool Find(const VARIANT& key, size_t* slot);
    // The first slot in list order whose element VarBstrCmp under `flags`
    // calls equal to `text`, from `index` where it can answer, else by a scan.
    size_t FirstEqual(BSTR text, ULONG flags, EqualityIndex& index);
    // Orders `handles` (stably) as VarBstrCmp under `flags` does.
    static void SortHandles(std::vector<BSTR>& handles, ULONG flags, bool ascending);

    StringSlots m_items;
    bool m_unique = false;
    ULONG m_compareFlags = 0;
    EqualityIndex m_uniqueIndex;  // for Add: keyed by CompareFlags
    EqualityIndex m_lookupIndex;  // for lookups by text: keyed by flags 0
};

namespace detail {

// One face of the enumerator: the interface's methods, passed on to the
// enumerator with the conversion that the face hands elements out in.
template <class Derived, class IEnum, class Item, class Convert>
class StringsEnumFace : public IEnum {
public:
    using Interface = IEnum;
    STDMETHODIMP Next(ULONG celt, Item* items, ULONG* fetched) override {
        return static_cast<Derived*>(this)->template Fetch<Convert>(celt, items, fetched);
    }
    STDMETHODIMP Skip(ULONG celt) override { return static_cast<Derived*>(this)->SkipItems(celt); }
    STDMETHODIMP Reset() override { return static_cast<Derived*>(this)->Rewind(); }
    STDMETHODIMP Clone(IEnum** ppEnum) override { return static_cast<Derived*>(this)->template CloneAs<IEnum>(ppEnum); }
};

// How the faces other than IEnumBSTR (which uses com::CopyTraits<BSTR>)
// hand out a copy of an element, and take it back when a later copy of the
// same call fails.
struct ToVariant {
    static HRESULT Copy(VARIANT* target, const BSTR& source) {
        ::VariantInit(target);
        BSTR copy = nullptr;
        HRESULT hr = com::Bstr::CopyOf(source, &copy);
        if (FAILED(hr)) return hr;
        V_VT(target) = VT_BSTR;
        V_BSTR(target) = copy;
        return S_OK;
    }
    static void Clear(VARIANT* target) { ::VariantClear(target); }
};
struct ToTaskString {
    // A null element is the empty string, handed out as such.
    static HRESULT Copy(LPOLESTR* target, const BSTR& source) {
        UINT length = ::SysStringLen(source);
        *target = static_cast<LPOLESTR>(::CoTaskMemAlloc((length + 1) * sizeof(OLECHAR)));
        if (!*target) return E_OUTOFMEMORY;
        if (length) memcpy(*target, source, length * sizeof(OLECHAR));
        (*target)[length] = L'\0';
        return S_OK;
    }
    static void Clear(LPOLESTR* target) {
        ::CoTaskMemFree(*target);
        *target = nullptr;
    }
};

}  // namespace detail

// The enumerator of a string collection. It walks the live list through one
// cursor, which its three faces (IEnumBSTR, IEnumVARIANT, IEnumString)
// share, and keeps the collection alive. The cursor is a position: elements
// appended while it walks are reached, and removing elements changes what
// it reaches next without ever making it invalid.
class CKyStringsEnum
    : public com::Object<
          CKyStringsEnum, com::With<detail::StringsEnumFace<CKyStringsEnum, IEnumBSTR, BSTR, com::CopyTraits<BSTR>>>,
          com::With<detail::StringsEnumFace<CKyStringsEnum, IEnumVARIANT, VARIANT, detail::ToVariant>>,
          com::With<detail::StringsEnumFace<CKyStringsEnum, IEnumString, LPOLESTR, detail::ToTaskString>>> {
public:
    CKyStringsEnum(CCoKyStrings* strings, size_t position);

    template <class Convert, class Item>
    HRESULT Fetch(ULONG celt, Item* items, ULONG* fetched);
    HRESULT SkipItems(ULONG celt);
    HRESULT Rewind();
    template <class IEnum>
    HRESULT CloneAs(IEnum** ppEnum);

private:
    com::CriticalSection m_lock;
    com::ComPtr<IUnknown> m_owner;  // keeps the collection (or its aggregate) alive
    CCoKyStrings* m_strings;
    size_t m_position;
};

template <class Visit>
HRESULT CCoKyStrings::VisitFrom(size_t position, ULONG count, Visit&& visit, ULONG* visited) {
    *visited = 0;
    com::Lock lock(m_lock);
    if (position >= m_items.Size()) return S_OK;
    for (size_t slot = m_items.SlotOf(position); *visited < count && slot != StringSlots::kNone;
         slot = m_items.NextLive(slot + 1)) {
        HRESULT hr = visit(m_items.At(slot), *visited);
        if (FAILED(hr)) return hr;
        ++*visited;
    }
    return S_OK;
}

template <class Convert, class Item>
HRESULT CKyStringsEnum::Fetch(ULONG celt, Item* items, ULONG* fetched) {
    if (celt > 1 && !fetched) return E_POINTER;
    if (fetched) *fetched = 0;
    if (celt == 0) return S_OK;
    if (!items) return E_POINTER;
    com::Lock lock(m_lock);
    if (!m_strings) return E_UNEXPECTED;
    ULONG count = 0;
    HRESULT hr = m_strings->VisitFrom(
        m_position, celt, [items](BSTR item, ULONG i) { return Convert::Copy(&items[i], item); }, &count);
    if (FAILED(hr)) {
        for (ULONG i = 0; i < count; ++i) Convert::Clear(&items[i]);
        return hr;
    }
    m_position += count;
    if (fetched) *fetched = count;
    return count == celt ? S_OK : S_FALSE;
}

template <class IEnum>
HRESULT CKyStringsEnum::CloneAs(IEnum** ppEnum) {
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    size_t position;
    {
        com::Lock lock(m_lock);
        if (!m_strings) return E_UNEXPECTED;
        position = m_position;
    }
    com::ComPtr<CKyStringsEnum> clone;
    HRESULT hr = Make(clone, m_strings, position);
    if (FAILED(hr)) return hr;
    return clone->QueryInterface(__uuidof(IEnum), reinterpret_cast<void**>(ppEnum));
}

}  // namespace ky
