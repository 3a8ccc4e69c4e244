// The base of every COM object: reference counting, QueryInterface from a
// list of interfaces, aggregation and the module lock.
//
//   class CFoo : public com::Object<CFoo, IFoo, com::Dual<IBar>, com::Also<IPersist, IPersistStream>,
//                                   IPersistStream, com::FreeThreaded>
//
// List entries:
//   I                 the class implements I (derives from it) and answers its IID;
//   com::Dual<I>      as I, with IDispatch implemented through the type library;
//                     also answers IDispatch (the first Dual of the list does);
//   com::Also<A, B>   answers A's IID with the A that the class has through B;
//   com::With<Impl>   derives from Impl, a reusable implementation of
//                     Impl::Interface, and answers that interface;
//   com::FreeThreaded aggregates the free-threaded marshaler and answers IMarshal.
//
// IUnknown is always answered, with the object's identity. A class may also
// define `HRESULT QueryOther(REFIID, void**)` for answers the list cannot give
// (called with ppv already cleared, when no entry matched).
//
// Hooks a class may define: `static void ObjectMain(bool starting)` (called
// when the server's module starts and ends), `HRESULT FinalConstruct()` (after construction,
// with the object's controlling unknown usable; a failure fails the creation)
// and `void FinalRelease()` (when the last reference goes, before the
// destructor). `static constexpr bool kAggregatable = true` lets the class be
// created as an aggregate.
#pragma once

#include <windows.h>
#include <objbase.h>

#include <wrl/client.h>

#include <new>
#include <type_traits>
#include <utility>

#include "dispatch.h"
#include "module.h"

namespace com {

using Microsoft::WRL::ComPtr;

template <class I>
struct Dual;
template <class A, class Via>
struct Also {};
template <class Impl>
struct With;
struct FreeThreaded;
template <class Derived, class... Entries>
class Object;

namespace detail {

// Holds the aggregated free-threaded marshaler of an object.
class MarshalerHolder {
public:
    IUnknown* Marshaler() const { return m_marshaler.Get(); }

private:
    ComPtr<IUnknown> m_marshaler;
    template <class, class...>
    friend class ::com::Object;
};

// The base class that a list entry adds to the object.
template <class Entry, class Tag>
struct BaseOf {
    using type = Entry;
};
template <class I, class Tag>
struct BaseOf<Dual<I>, Tag> {
    using type = DispatchImpl<I>;
};
template <class A, class Via, class Tag>
struct BaseOf<Also<A, Via>, Tag> {
    struct type {};
};
template <class Impl, class Tag>
struct BaseOf<With<Impl>, Tag> {
    using type = Impl;
};
template <class Tag>
struct BaseOf<FreeThreaded, Tag> {
    using type = MarshalerHolder;
};

template <class Entry>
struct IsFreeThreaded : std::false_type {};
template <>
struct IsFreeThreaded<FreeThreaded> : std::true_type {};

}  // namespace detail

template <class Derived, class... Entries>
class Object : public detail::BaseOf<Entries, Derived>::type... {
public:
    static constexpr bool kAggregatable = false;

    // The delegating IUnknown seen through every interface of the list.
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) { return m_outer->QueryInterface(riid, ppv); }
    STDMETHODIMP_(ULONG) AddRef() { return m_outer->AddRef(); }
    STDMETHODIMP_(ULONG) Release() { return m_outer->Release(); }

    // Creates an object for a class factory. With an outer unknown the
    // object is created as an aggregate and riid must be IID_IUnknown.
    template <class... Args>
    static HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** ppv, Args&&... args) {
        if (!ppv) return E_POINTER;
        *ppv = nullptr;
        if (outer && (!Derived::kAggregatable || !IsEqualIID(riid, IID_IUnknown))) return CLASS_E_NOAGGREGATION;
        Derived* object = nullptr;
        HRESULT hr = Construct(outer, &object, std::forward<Args>(args)...);
        if (FAILED(hr)) return hr;
        hr = object->m_inner.QueryInterface(riid, ppv);
        if (FAILED(hr)) object->Destroy();
        return hr;
    }

    // Creates an object for use inside the library, where its class is known.
    template <class... Args>
    static HRESULT Make(ComPtr<Derived>& result, Args&&... args) {
        result.Reset();
        Derived* object = nullptr;
        HRESULT hr = Construct(nullptr, &object, std::forward<Args>(args)...);
        if (SUCCEEDED(hr)) result = object;
        return hr;
    }

    // The object's identity (the inner unknown when aggregated).
    IUnknown* Identity() { return &m_inner; }
    // The unknown that the object's interfaces delegate to.
    IUnknown* ControllingUnknown() const { return m_outer; }

    // A cached object (a singleton instance or a cached class object) counts
    // in the module lock count only while someone besides its keeper holds
    // it: the keeper's own reference does not keep the module loaded.
    void MakeCached() {
        if (!m_cached) {
            m_cached = true;
            if (m_ref <= 1) Module::Get().Unlock();
        }
    }

    // Default hooks.
    static void ObjectMain(bool /*starting*/) {}
    static const wchar_t* GetObjectDescription() { return nullptr; }
    static const void* GetCategoryMap() { return nullptr; }
    HRESULT FinalConstruct() { return S_OK; }
    void FinalRelease() {}
    HRESULT QueryOther(REFIID, void**) { return E_NOINTERFACE; }

protected:
    Object() : m_inner(this) { Module::Get().Lock(); }
    virtual ~Object() {
        if (!m_cached) Module::Get().Unlock();
    }
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    LONG RefCount() const { return m_ref; }

private:
    // The non-delegating unknown: the object's own identity and count.
    class InnerUnknown : public IUnknown {
    public:
        explicit InnerUnknown(Object* owner) : m_owner(owner) {}
        STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override { return m_owner->InnerQueryInterface(riid, ppv); }
        STDMETHODIMP_(ULONG) AddRef() override { return m_owner->InnerAddRef(); }
        STDMETHODIMP_(ULONG) Release() override { return m_owner->InnerRelease(); }

    private:
        Object* m_owner;
    };

    template <class... Args>
    static HRESULT Construct(IUnknown* outer, Derived** result, Args&&... args) {
        *result = nullptr;
        Derived* object = new (std::nothrow) Derived(std::forward<Args>(args)...);
        if (!object) return E_OUTOFMEMORY;
        Object* base = object;
        if (outer) base->m_outer = outer;
        // Guard the count so that the hooks may hand out and drop references.
        base->m_ref = 1;
        HRESULT hr = S_OK;
        if constexpr ((detail::IsFreeThreaded<Entries>::value || ...)) {
            auto* holder = static_cast<detail::MarshalerHolder*>(object);
            hr = ::CoCreateFreeThreadedMarshaler(base->m_outer, &holder->m_marshaler);
        }
        if (SUCCEEDED(hr)) hr = object->FinalConstruct();
        base->m_ref = 0;
        if (FAILED(hr)) {
            delete object;
            return hr;
        }
        *result = object;
        return S_OK;
    }

    void Destroy() {
        static_cast<Derived*>(this)->FinalRelease();
        delete static_cast<Derived*>(this);
    }

    ULONG InnerAddRef() {
        LONG count = ::InterlockedIncrement(&m_ref);
        if (m_cached && count == 2) Module::Get().Lock();
        return static_cast<ULONG>(count);
    }

    ULONG InnerRelease() {
        LONG count = ::InterlockedDecrement(&m_ref);
        if (count == 0) {
            // Stabilise the count while the hook runs, as it may pass the
            // object to code that adds and drops references.
            m_ref = 1;
            Destroy();
        } else if (m_cached && count == 1) {
            Module::Get().Unlock();
        }
        return static_cast<ULONG>(count);
    }

    HRESULT InnerQueryInterface(REFIID riid, void** ppv) {
        if (!ppv) return E_POINTER;
        *ppv = nullptr;
        if (IsEqualIID(riid, IID_IUnknown)) {
            *ppv = static_cast<IUnknown*>(&m_inner);
            m_inner.AddRef();
            return S_OK;
        }
        // In list order, so the first Dual of the list answers IDispatch.
        bool found = (Find<Entries>(riid, ppv) || ...);
        if (!found) {
            HRESULT hr = static_cast<Derived*>(this)->QueryOther(riid, ppv);
            if (FAILED(hr)) *ppv = nullptr;
            return hr;
        }
        if (*ppv == nullptr) return E_NOINTERFACE;  // a delegated answer that failed
        return S_OK;
    }

    // One entry of the list: writes *ppv (with a reference) and returns true
    // when the entry decides the request.
    template <class Entry>
    bool Find(REFIID riid, void** ppv) {
        Derived* self = static_cast<Derived*>(this);
        if constexpr (detail::IsFreeThreaded<Entry>::value) {
            if (!IsEqualIID(riid, IID_IMarshal)) return false;
            IUnknown* marshaler = static_cast<detail::MarshalerHolder*>(self)->Marshaler();
            if (marshaler) marshaler->QueryInterface(riid, ppv);
            return true;
        } else {
            return FindEntry(static_cast<Entry*>(nullptr), self, riid, ppv);
        }
    }

    template <class I>
    static bool Answer(I* p, void** ppv) {
        p->AddRef();
        *ppv = p;
        return true;
    }
    template <class I>
    static bool FindEntry(Dual<I>*, Derived* self, REFIID riid, void** ppv) {
        if (!IsEqualIID(riid, __uuidof(I)) && !IsEqualIID(riid, IID_IDispatch)) return false;
        return Answer(static_cast<I*>(static_cast<DispatchImpl<I>*>(self)), ppv);
    }
    template <class A, class Via>
    static bool FindEntry(Also<A, Via>*, Derived* self, REFIID riid, void** ppv) {
        if (!IsEqualIID(riid, __uuidof(A))) return false;
        return Answer(static_cast<A*>(static_cast<Via*>(self)), ppv);
    }
    template <class Impl>
    static bool FindEntry(With<Impl>*, Derived* self, REFIID riid, void** ppv) {
        using I = typename Impl::Interface;
        if (!IsEqualIID(riid, __uuidof(I))) return false;
        return Answer(static_cast<I*>(static_cast<Impl*>(self)), ppv);
    }
    template <class I>
    static bool FindEntry(I*, Derived* self, REFIID riid, void** ppv) {
        if (!IsEqualIID(riid, __uuidof(I))) return false;
        return Answer(static_cast<I*>(self), ppv);
    }

    volatile LONG m_ref = 0;
    bool m_cached = false;
    InnerUnknown m_inner;
    IUnknown* m_outer = &m_inner;
};

}  // namespace com
