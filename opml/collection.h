// The shape that the outline and attribute collections share: an ordered
// list of elements made by the collection itself, looked up by a VARIANT
// that holds a 1-based position, a name or one of the elements.
#pragma once

#include <windows.h>
#include <oaidl.h>

#include <new>
#include <utility>
#include <vector>

#include "com/enumerator.h"
#include "com/guard.h"
#include "com/object.h"
#include "com/raii.h"
#include "contract/resultcodes.h"

namespace OPML {

using VariantEnumerator = com::SnapshotEnumerator<IEnumVARIANT, VARIANT>;

// Hands `items` (whose references it takes over) to a caller as an
// IEnumVARIANT.
inline HRESULT MakeVariantEnumerator(std::vector<VARIANT> items, IUnknown** result) {
    return VariantEnumerator::Create(std::move(items), nullptr, IID_IUnknown, reinterpret_cast<void**>(result));
}

// A lookup key taken apart before the collection's lock is taken, so that
// no foreign object is called under it.
struct LookupKey {
    enum class Kind { Position, Name, Object } kind = Kind::Position;
    LONGLONG position = 0;
    com::Bstr name;
    com::ComPtr<IUnknown> identity;

    // E_INVALIDARG for a VARIANT type that is none of the three kinds. A
    // reference (as script hosts pass their variables) counts as its target.
    HRESULT Parse(const VARIANT* key) {
        com::Variant target;
        if (V_VT(key) & VT_BYREF) {
            if (FAILED(::VariantCopyInd(&target, const_cast<VARIANT*>(key)))) return E_INVALIDARG;
            key = &target;
        }
        switch (V_VT(key)) {
            case VT_I2: return SetPosition(V_I2(key));
            case VT_I4: return SetPosition(V_I4(key));
            case VT_UI2: return SetPosition(V_UI2(key));
            case VT_UI4: return SetPosition(V_UI4(key));
            case VT_INT: return SetPosition(V_INT(key));
            case VT_UINT: return SetPosition(V_UINT(key));
            case VT_BSTR:
                kind = Kind::Name;
                return name.Assign(V_BSTR(key));
            case VT_DISPATCH:
            case VT_UNKNOWN:
                kind = Kind::Object;
                if (V_UNKNOWN(key)) V_UNKNOWN(key)->QueryInterface(IID_IUnknown, &identity);
                return S_OK;
            default:
                return E_INVALIDARG;
        }
    }

private:
    HRESULT SetPosition(LONGLONG value) {
        kind = Kind::Position;
        position = value;
        return S_OK;
    }
};

// Derived provides `static bool Matches(Element*, BSTR name)` for lookups by
// name; Element is a com::Object made with Element::Make.
template <class Derived, class Interface, class Element, class ElementInterface>
class CCollection : public com::Object<Derived, com::Dual<Interface>> {
public:
    STDMETHODIMP get__NewEnum(IUnknown** ppEnum) override {
        if (!ppEnum) return E_POINTER;
        *ppEnum = nullptr;
        return com::Guard([&] {
            std::vector<VARIANT> items;
            com::Lock lock(m_lock);
            items.reserve(m_items.size());
            for (const auto& element : m_items) {
                VARIANT item;
                V_VT(&item) = VT_DISPATCH;
                V_DISPATCH(&item) = static_cast<ElementInterface*>(element.Get());
                V_DISPATCH(&item)->AddRef();
                items.push_back(item);
            }
            lock.Unlock();
            return MakeVariantEnumerator(std::move(items), ppEnum);
        });
    }

    STDMETHODIMP get_Item(VARIANT* pvID, ElementInterface** ppItem) override {
        if (!ppItem) return E_POINTER;
        *ppItem = nullptr;
        if (!pvID) return E_POINTER;
        LookupKey key;
        HRESULT hr = key.Parse(pvID);
        if (FAILED(hr)) return hr;
        com::Lock lock(m_lock);
        size_t index = 0;
        hr = Locate(key, &index);
        if (FAILED(hr)) return hr;
        *ppItem = m_items[index].Get();
        (*ppItem)->AddRef();
        return S_OK;
    }

    STDMETHODIMP get_Count(LONG* plCount) override {
        if (!plCount) return E_POINTER;
        com::Lock lock(m_lock);
        *plCount = static_cast<LONG>(m_items.size());
        return S_OK;
    }

    STDMETHODIMP AddNew(ElementInterface** ppItem) override {
        if (!ppItem) return E_POINTER;
        *ppItem = nullptr;
        com::ComPtr<Element> element;
        HRESULT hr = Append(element);
        if (SUCCEEDED(hr)) *ppItem = element.Detach();
        return hr;
    }

    STDMETHODIMP Remove(VARIANT* pvID) override {
        if (!pvID) return E_POINTER;
        LookupKey key;
        HRESULT hr = key.Parse(pvID);
        if (FAILED(hr)) return hr;
        std::vector<com::ComPtr<Element>> removed(1);
        {
            com::Lock lock(m_lock);
            size_t index = 0;
            hr = Locate(key, &index);
            if (FAILED(hr)) return hr;
            removed[0] = std::move(m_items[index]);
            m_items.erase(m_items.begin() + static_cast<ptrdiff_t>(index));
        }
        ReleaseAll(removed);  // outside the lock
        return S_OK;
    }

    STDMETHODIMP Clear() override {
        std::vector<com::ComPtr<Element>> removed;
        {
            com::Lock lock(m_lock);
            removed.swap(m_items);
        }
        ReleaseAll(removed);  // outside the lock
        return S_OK;
    }

    void FinalRelease() { ReleaseAll(m_items); }

    // Replaces `items` by the elements as they stand, each with a reference
    // of its own (the vector's room is reused).
    void Snapshot(std::vector<com::ComPtr<Element>>& items) {
        com::Lock lock(m_lock);
        items = m_items;
    }

    // Makes a new element and appends it.
    HRESULT Append(com::ComPtr<Element>& element) {
        HRESULT hr = Element::Make(element);
        if (FAILED(hr)) return hr;
        return com::Guard([&] {
            com::Lock lock(m_lock);
            m_items.push_back(element);
            return S_OK;
        });
    }

protected:
    // Releases the elements. An outline's sub-items are a collection, so
    // releasing a tree one level inside the other would take a stack frame
    // per level, and a deep enough tree would overflow the stack: elements
    // released on a thread that is already releasing some are queued for it
    // instead, and it releases them one after the other.
    static void ReleaseAll(std::vector<com::ComPtr<Element>>& items) {
        static thread_local std::vector<com::ComPtr<Element>>* t_queue = nullptr;
        if (t_queue) {
            try {
                for (auto& item : items) t_queue->push_back(std::move(item));
            } catch (const std::bad_alloc&) {
                // What could not be queued is released right here.
            }
            items.clear();
            return;
        }
        std::vector<com::ComPtr<Element>> queue;
        queue.swap(items);
        t_queue = &queue;
        while (!queue.empty()) {
            com::ComPtr<Element> next = std::move(queue.back());
            queue.pop_back();
            next.Reset();  // may queue more
        }
        t_queue = nullptr;
    }

    // The index of the element a key designates; called under the lock.
    HRESULT Locate(const LookupKey& key, size_t* index) {
        switch (key.kind) {
            case LookupKey::Kind::Position:
                if (key.position < 1 || key.position > static_cast<LONGLONG>(m_items.size())) return E_INVALIDARG;
                *index = static_cast<size_t>(key.position - 1);
                return S_OK;
            case LookupKey::Kind::Name:
                for (size_t i = 0; i < m_items.size(); ++i) {
                    if (Derived::Matches(m_items[i].Get(), key.name.Get())) {
                        *index = i;
                        return S_OK;
                    }
                }
                return E_KY_ELEMENTNOTFOUND;
            case LookupKey::Kind::Object:
                for (size_t i = 0; i < m_items.size(); ++i) {
                    if (key.identity && m_items[i]->Identity() == key.identity.Get()) {
                        *index = i;
                        return S_OK;
                    }
                }
                return E_KY_ELEMENTNOTFOUND;
        }
        return E_INVALIDARG;
    }

    com::CriticalSection m_lock;
    std::vector<com::ComPtr<Element>> m_items;
};

}  // namespace OPML
