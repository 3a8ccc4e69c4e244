// Class objects. A server caches one class object per class; the cached
// object does not keep the module loaded by itself (see Object::MakeCached),
// but every reference that a client holds, and every LockServer(TRUE), does.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <atomic>

#include "object.h"
#include "raii.h"

namespace com {

// LockServer for both kinds of class object.
class ClassFactoryBase : public IClassFactory {
public:
    using Interface = IClassFactory;

    STDMETHODIMP LockServer(BOOL lock) override {
        if (lock)
            Module::Get().Lock();
        else
            Module::Get().Unlock();
        return S_OK;
    }
};

// Makes a new T for every CreateInstance. An outer unknown is accepted when
// T is aggregatable (riid must then be IID_IUnknown), refused otherwise.
template <class T>
class ClassFactory : public Object<ClassFactory<T>, With<ClassFactoryBase>> {
public:
    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        *ppv = nullptr;
        if (outer && !T::kAggregatable) return CLASS_E_NOAGGREGATION;
        return T::CreateInstance(outer, riid, ppv);
    }
};

// Holds the one instance of T for the process. The instance is made by the
// first successful request, under the class object's lock with a check
// before and after taking it; a failed creation is remembered and answered
// to every later request.
template <class T>
class SingletonFactory : public Object<SingletonFactory<T>, With<ClassFactoryBase>> {
public:
    ~SingletonFactory() override {
        if (m_instance && !Module::Get().ProcessTerminating()) m_instance->Release();
    }

    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        *ppv = nullptr;
        if (outer) return CLASS_E_NOAGGREGATION;
        if (!m_done.load(std::memory_order_acquire)) {
            com::Lock lock(m_lock);
            if (!m_done.load(std::memory_order_relaxed)) {
                m_result = Create();
                m_done.store(true, std::memory_order_release);
            }
        }
        if (FAILED(m_result)) return m_result;
        return m_instance->QueryInterface(riid, ppv);
    }

private:
    HRESULT Create() {
        ComPtr<T> object;
        HRESULT hr = T::Make(object);
        if (FAILED(hr)) return hr;
        IUnknown* identity = nullptr;
        hr = object->Identity()->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity));
        if (FAILED(hr) || !identity) return FAILED(hr) ? hr : E_NOINTERFACE;
        object->MakeCached();
        m_instance = identity;
        return S_OK;
    }

    CriticalSection m_lock;
    std::atomic<bool> m_done{false};
    HRESULT m_result = S_OK;
    IUnknown* m_instance = nullptr;
};

}  // namespace com
