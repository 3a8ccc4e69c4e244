// Enumerators over a snapshot: the items are copied once when the enumerator
// is made, clones share that copy and keep their own position, and later
// changes to the source are not seen.
//
//   using EnumGuids = com::SnapshotEnumerator<IEnumGUID, GUID>;
//   ComPtr<EnumGuids> e;
//   EnumGuids::Make(e, std::move(items), owner);
//
// Copy traits say how an item is handed to a caller (`Copy`, which may
// fail) and how a handed-out item is taken back when a later copy of the same
// call fails (`Clear`). Store traits say how the snapshot keeps an item.
#pragma once

#include <windows.h>
#include <oaidl.h>
#include <objidl.h>
#include <ocidl.h>

#include <memory>
#include <vector>

#include "object.h"
#include "raii.h"

namespace com {

// Plain data (GUIDs, CONNECTDATA without references, ...).
template <class T>
struct CopyTraits {
    static HRESULT Copy(T* target, const T& source) {
        *target = source;
        return S_OK;
    }
    static void Clear(T*) {}
    static void Release(T&) {}
};

// Interface pointers: the snapshot holds a reference on each item and every
// item handed out carries its own.
template <class I>
struct CopyTraits<I*> {
    static HRESULT Copy(I** target, I* const& source) {
        *target = source;
        if (source) source->AddRef();
        return S_OK;
    }
    static void Clear(I** target) {
        if (*target) (*target)->Release();
        *target = nullptr;
    }
    static void Release(I*& item) {
        if (item) item->Release();
        item = nullptr;
    }
};

template <>
struct CopyTraits<VARIANT> {
    static HRESULT Copy(VARIANT* target, const VARIANT& source) {
        ::VariantInit(target);
        return ::VariantCopy(target, const_cast<VARIANT*>(&source));
    }
    static void Clear(VARIANT* target) { ::VariantClear(target); }
    static void Release(VARIANT& item) { ::VariantClear(&item); }
};

template <>
struct CopyTraits<BSTR> {
    static HRESULT Copy(BSTR* target, const BSTR& source) { return Bstr::CopyOf(source, target); }
    static void Clear(BSTR* target) {
        ::SysFreeString(*target);
        *target = nullptr;
    }
    static void Release(BSTR& item) {
        ::SysFreeString(item);
        item = nullptr;
    }
};

template <>
struct CopyTraits<CONNECTDATA> {
    static HRESULT Copy(CONNECTDATA* target, const CONNECTDATA& source) {
        *target = source;
        if (target->pUnk) target->pUnk->AddRef();
        return S_OK;
    }
    static void Clear(CONNECTDATA* target) {
        if (target->pUnk) target->pUnk->Release();
        target->pUnk = nullptr;
    }
    static void Release(CONNECTDATA& item) { Clear(&item); }
};

template <>
struct CopyTraits<FORMATETC> {
    static HRESULT Copy(FORMATETC* target, const FORMATETC& source) {
        *target = source;
        if (source.ptd) {
            target->ptd = static_cast<DVTARGETDEVICE*>(::CoTaskMemAlloc(source.ptd->tdSize));
            if (!target->ptd) return E_OUTOFMEMORY;
            memcpy(target->ptd, source.ptd, source.ptd->tdSize);
        }
        return S_OK;
    }
    static void Clear(FORMATETC* target) {
        ::CoTaskMemFree(target->ptd);
        target->ptd = nullptr;
    }
    static void Release(FORMATETC& item) { Clear(&item); }
};

// The items of one snapshot; released with the last enumerator using it.
template <class T, class Traits = CopyTraits<T>>
class Snapshot {
public:
    explicit Snapshot(std::vector<T> items) : m_items(std::move(items)) {}
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;
    ~Snapshot() {
        if (Module::Get().ProcessTerminating()) return;
        for (T& item : m_items) Traits::Release(item);
    }
    const std::vector<T>& Items() const { return m_items; }

private:
    std::vector<T> m_items;
};

// Options of an enumerator's Next.
enum class ZeroCount {
    Allowed,  // Next(0, ...) answers S_OK with nothing fetched
    Refused,  // Next(0, ...) answers E_INVALIDARG
};

template <class IEnum, class T, class Traits = CopyTraits<T>, ZeroCount kZero = ZeroCount::Allowed>
class SnapshotEnumerator : public Object<SnapshotEnumerator<IEnum, T, Traits, kZero>, IEnum> {
    using Base = Object<SnapshotEnumerator<IEnum, T, Traits, kZero>, IEnum>;

public:
    using SnapshotType = Snapshot<T, Traits>;

    SnapshotEnumerator(std::shared_ptr<const SnapshotType> snapshot, IUnknown* owner, size_t position)
        : m_snapshot(std::move(snapshot)), m_owner(owner), m_position(position) {}

    // Makes an enumerator that owns `items` (the snapshot takes them over,
    // references included). `owner`, when given, is kept alive as long as
    // the enumerator and its clones.
    static HRESULT Make(ComPtr<SnapshotEnumerator>& result, std::vector<T> items, IUnknown* owner = nullptr) {
        std::shared_ptr<const SnapshotType> snapshot;
        try {
            snapshot = std::make_shared<const SnapshotType>(std::move(items));
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
        return Base::Make(result, std::move(snapshot), owner, size_t{0});
    }

    // Makes an enumerator and answers riid on it.
    static HRESULT Create(std::vector<T> items, IUnknown* owner, REFIID riid, void** ppv) {
        ComPtr<SnapshotEnumerator> e;
        HRESULT hr = Make(e, std::move(items), owner);
        if (FAILED(hr)) return hr;
        return e->QueryInterface(riid, ppv);
    }

    STDMETHODIMP Next(ULONG celt, T* rgelt, ULONG* fetched) override {
        if (kZero == ZeroCount::Refused && celt == 0) return E_INVALIDARG;
        if (!rgelt) return E_POINTER;
        if (celt != 1 && !fetched) return E_POINTER;
        if (fetched) *fetched = 0;
        com::Lock lock(m_lock);
        const auto& items = m_snapshot->Items();
        ULONG count = 0;
        while (count < celt && m_position < items.size()) {
            HRESULT hr = Traits::Copy(&rgelt[count], items[m_position]);
            if (FAILED(hr)) {
                for (ULONG i = 0; i < count; ++i) Traits::Clear(&rgelt[i]);
                return hr;
            }
            ++count;
            ++m_position;
        }
        if (fetched) *fetched = count;
        return count == celt ? S_OK : S_FALSE;
    }

    STDMETHODIMP Skip(ULONG celt) override {
        com::Lock lock(m_lock);
        size_t size = m_snapshot->Items().size();
        size_t available = size - m_position;
        if (celt > available) {
            m_position = size;
            return S_FALSE;
        }
        m_position += celt;
        return S_OK;
    }

    STDMETHODIMP Reset() override {
        com::Lock lock(m_lock);
        m_position = 0;
        return S_OK;
    }

    STDMETHODIMP Clone(IEnum** ppEnum) override {
        if (!ppEnum) return E_POINTER;
        *ppEnum = nullptr;
        size_t position;
        {
            com::Lock lock(m_lock);
            position = m_position;
        }
        ComPtr<SnapshotEnumerator> clone;
        HRESULT hr = Base::Make(clone, m_snapshot, m_owner.Get(), position);
        if (FAILED(hr)) return hr;
        *ppEnum = clone.Detach();
        return S_OK;
    }

private:
    std::shared_ptr<const SnapshotType> m_snapshot;
    ComPtr<IUnknown> m_owner;
    CriticalSection m_lock;
    size_t m_position;
};

}  // namespace com
