// Test-only classes built on the toolkit. They live in the test program, not
// in the DLL, and use system interfaces so that no type library is needed.
#pragma once

#include <windows.h>
#include <ocidl.h>

#include <atomic>
#include <vector>

#include "com/classfactory.h"
#include "com/connectionpoint.h"
#include "com/object.h"

namespace ky::test {

// A plain object: IPersistStream (and IPersist through it).
class Widget : public com::Object<Widget, IPersistStream, com::Also<IPersist, IPersistStream>> {
public:
    static constexpr bool kAggregatable = true;
    static std::atomic<int> s_live;
    Widget() { ++s_live; }
    ~Widget() override { --s_live; }

    STDMETHODIMP GetClassID(CLSID* clsid) override {
        if (!clsid) return E_POINTER;
        *clsid = CLSID_NULL;
        return S_OK;
    }
    STDMETHODIMP IsDirty() override { return S_FALSE; }
    STDMETHODIMP Load(IStream*) override { return E_NOTIMPL; }
    STDMETHODIMP Save(IStream*, BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP GetSizeMax(ULARGE_INTEGER*) override { return E_NOTIMPL; }
};

// A free-threaded object that refuses aggregation.
class Agile : public com::Object<Agile, IPersist, com::FreeThreaded> {
public:
    STDMETHODIMP GetClassID(CLSID* clsid) override {
        if (!clsid) return E_POINTER;
        *clsid = CLSID_NULL;
        return S_OK;
    }
};

// An object whose construction fails the first `s_failures` times.
class Fragile : public com::Object<Fragile, IPersist> {
public:
    static std::atomic<int> s_constructed;
    static std::atomic<int> s_failures;
    HRESULT FinalConstruct() {
        ++s_constructed;
        if (s_failures > 0) {
            --s_failures;
            return E_ACCESSDENIED;
        }
        return S_OK;
    }
    STDMETHODIMP GetClassID(CLSID* clsid) override {
        if (!clsid) return E_POINTER;
        *clsid = CLSID_NULL;
        return S_OK;
    }
};

// An event source with one connection point for IPropertyNotifySink.
class Source : public com::Object<Source, com::With<com::ConnectionPointContainer>> {
public:
    Source() : m_point(this, m_lock, IID_IPropertyNotifySink) { AddConnectionPoint(m_point); }
    HRESULT FireChanged(DISPID id) {
        return m_point.Fire<IPropertyNotifySink>([&](IPropertyNotifySink* sink) { return sink->OnChanged(id); });
    }
    com::ConnectionPoint& Point() { return m_point; }

private:
    com::CriticalSection m_lock;
    com::ConnectionPoint m_point;
};

// A listener that records what it hears and answers a chosen result.
class Listener : public com::Object<Listener, IPropertyNotifySink> {
public:
    STDMETHODIMP OnChanged(DISPID id) override {
        heard.push_back(id);
        if (onChanged) onChanged();
        return result;
    }
    STDMETHODIMP OnRequestEdit(DISPID) override { return S_OK; }

    std::vector<DISPID> heard;
    HRESULT result = S_OK;
    std::function<void()> onChanged;
};

}  // namespace ky::test
