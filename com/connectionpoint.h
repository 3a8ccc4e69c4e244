// A connection point that is part of its container object, and the
// container's IConnectionPointContainer.
//
// Listeners sit in a growable array of slots: the cookie of a listener is its
// slot index plus one, and unadvising empties the slot without compacting,
// so the other cookies stay valid and the next Advise reuses the first empty
// slot. The slots are guarded by the container's own lock; firing takes that
// lock only to read each slot, never while a listener runs.
#pragma once

#include <windows.h>
#include <ocidl.h>
#include <olectl.h>

#include <new>
#include <vector>

#include "enumerator.h"
#include "object.h"
#include "raii.h"

namespace com {

class ConnectionPoint : public IConnectionPoint {
public:
    // `container` is any interface of the containing object (its references
    // are the container's); `lock` is the container's object lock.
    ConnectionPoint(IConnectionPointContainer* container, CriticalSection& lock, const IID& iid)
        : m_container(container), m_lock(lock), m_iid(iid) {}
    ConnectionPoint(const ConnectionPoint&) = delete;
    ConnectionPoint& operator=(const ConnectionPoint&) = delete;
    ~ConnectionPoint() {
        if (Module::Get().ProcessTerminating()) return;
        for (IUnknown* sink : m_slots)
            if (sink) sink->Release();
    }

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IConnectionPoint)) {
            *ppv = static_cast<IConnectionPoint*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return m_container->AddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return m_container->Release(); }

    STDMETHODIMP GetConnectionInterface(IID* iid) override {
        if (!iid) return E_POINTER;
        *iid = m_iid;
        return S_OK;
    }

    STDMETHODIMP GetConnectionPointContainer(IConnectionPointContainer** container) override {
        if (!container) return E_POINTER;
        *container = m_container;
        m_container->AddRef();
        return S_OK;
    }

    STDMETHODIMP Advise(IUnknown* sink, DWORD* cookie) override {
        if (!cookie) return E_POINTER;
        *cookie = 0;
        if (!sink) return E_POINTER;
        IUnknown* events = nullptr;
        HRESULT hr = sink->QueryInterface(m_iid, reinterpret_cast<void**>(&events));
        if (hr == E_NOINTERFACE) return CONNECT_E_CANNOTCONNECT;
        if (FAILED(hr)) return hr;
        com::Lock lock(m_lock);
        for (size_t i = 0; i < m_slots.size(); ++i) {
            if (!m_slots[i]) {
                m_slots[i] = events;
                *cookie = static_cast<DWORD>(i + 1);
                return S_OK;
            }
        }
        try {
            m_slots.push_back(events);
        } catch (const std::bad_alloc&) {
            lock.Unlock();
            events->Release();
            return CONNECT_E_ADVISELIMIT;
        }
        *cookie = static_cast<DWORD>(m_slots.size());
        return S_OK;
    }

    STDMETHODIMP Unadvise(DWORD cookie) override {
        IUnknown* sink = nullptr;
        {
            com::Lock lock(m_lock);
            if (cookie == 0 || cookie > m_slots.size() || !m_slots[cookie - 1]) return CONNECT_E_NOCONNECTION;
            sink = m_slots[cookie - 1];
            m_slots[cookie - 1] = nullptr;
        }
        sink->Release();
        return S_OK;
    }

    STDMETHODIMP EnumConnections(IEnumConnections** ppEnum) override {
        if (!ppEnum) return E_POINTER;
        *ppEnum = nullptr;
        std::vector<CONNECTDATA> items;
        try {
            com::Lock lock(m_lock);
            for (size_t i = 0; i < m_slots.size(); ++i) {
                if (!m_slots[i]) continue;
                items.push_back(CONNECTDATA{m_slots[i], static_cast<DWORD>(i + 1)});
                m_slots[i]->AddRef();
            }
        } catch (const std::bad_alloc&) {
            for (auto& item : items) item.pUnk->Release();
            return E_OUTOFMEMORY;
        }
        return SnapshotEnumerator<IEnumConnections, CONNECTDATA>::Create(std::move(items), nullptr,
                                                                          IID_IEnumConnections,
                                                                          reinterpret_cast<void**>(ppEnum));
    }

    // Calls `call(sink)` for every listener, in slot order. The number of
    // slots is read once, so listeners advised during the firing are not
    // called by it. Returns what the last listener called returned, or S_OK
    // when there was none; a failing listener does not stop the firing.
    template <class Events, class Call>
    HRESULT Fire(Call&& call) {
        size_t count;
        {
            com::Lock lock(m_lock);
            count = m_slots.size();
        }
        HRESULT result = S_OK;
        for (size_t i = 0; i < count; ++i) {
            IUnknown* sink = nullptr;
            {
                com::Lock lock(m_lock);
                if (i < m_slots.size() && m_slots[i]) {
                    sink = m_slots[i];
                    sink->AddRef();
                }
            }
            if (!sink) continue;
            result = call(static_cast<Events*>(sink));
            sink->Release();
        }
        return result;
    }

    // Fires a dispatch event: `args` are in IDispatch order (last argument
    // first) and are passed as they are; the caller clears them.
    HRESULT FireDispatch(DISPID id, VARIANT* args, UINT count) {
        return Fire<IDispatch>([&](IDispatch* sink) {
            DISPPARAMS params{args, nullptr, count, 0};
            Variant result;
            return sink->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, &result, nullptr,
                                nullptr);
        });
    }

private:
    IConnectionPointContainer* m_container;
    CriticalSection& m_lock;
    IID m_iid;
    std::vector<IUnknown*> m_slots;
};

// IConnectionPointContainer over a fixed set of connection points that are
// members of the same object. Use as `com::With<com::ConnectionPointContainer>`
// and call AddConnectionPoint for each point in the constructor.
class ConnectionPointContainer : public IConnectionPointContainer {
public:
    using Interface = IConnectionPointContainer;

    STDMETHODIMP EnumConnectionPoints(IEnumConnectionPoints** ppEnum) override {
        if (!ppEnum) return E_POINTER;
        *ppEnum = nullptr;
        std::vector<IConnectionPoint*> items;
        try {
            items = m_points;
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
        for (IConnectionPoint* point : items) point->AddRef();
        return SnapshotEnumerator<IEnumConnectionPoints, IConnectionPoint*>::Create(
            std::move(items), nullptr, IID_IEnumConnectionPoints, reinterpret_cast<void**>(ppEnum));
    }

    STDMETHODIMP FindConnectionPoint(REFIID riid, IConnectionPoint** ppCP) override {
        if (!ppCP) return E_POINTER;
        *ppCP = nullptr;
        for (IConnectionPoint* point : m_points) {
            IID iid;
            if (SUCCEEDED(point->GetConnectionInterface(&iid)) && IsEqualIID(iid, riid)) {
                point->AddRef();
                *ppCP = point;
                return S_OK;
            }
        }
        return CONNECT_E_NOCONNECTION;
    }

protected:
    void AddConnectionPoint(ConnectionPoint& point) { m_points.push_back(&point); }

private:
    std::vector<IConnectionPoint*> m_points;
};

}  // namespace com
