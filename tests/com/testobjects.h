// Test-only classes built on the toolkit. They live in the test program, not
// in the DLL, and use system interfaces so that no type library is needed.
#pragma once

#include <windows.h>
#include <ocidl.h>

#include <atomic>
#include <functional>
#include <vector>

#include "com/classfactory.h"
#include "com/connectionpoint.h"
#include "com/object.h"

namespace ky::test {

// A plain object: IPersist through IPersistStream. Its construction fails
// while `s_failures` is above zero.
class Widget : public com::Object<Widget, IPersistStream, com::Also<IPersist, IPersistStream>> {
public:
    static constexpr bool kAggregatable = true;
    static std::atomic<int> s_live, s_constructed, s_failures;
    Widget() { ++s_live; }
    ~Widget() override { --s_live; }
    HRESULT FinalConstruct() {
        ++s_constructed;
        return s_failures > 0 && s_failures-- ? E_ACCESSDENIED : S_OK;
    }
    STDMETHODIMP GetClassID(CLSID*) override { return E_NOTIMPL; }
    STDMETHODIMP IsDirty() override { return S_FALSE; }
    STDMETHODIMP Load(IStream*) override { return E_NOTIMPL; }
    STDMETHODIMP Save(IStream*, BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP GetSizeMax(ULARGE_INTEGER*) override { return E_NOTIMPL; }
};

// An event source with one connection point for IPropertyNotifySink.
class Source : public com::Object<Source, com::With<com::ConnectionPointContainer>> {
public:
    Source() : m_point(this, m_lock, IID_IPropertyNotifySink) { AddConnectionPoint(m_point); }
    HRESULT FireChanged(DISPID id) {
        return m_point.Fire<IPropertyNotifySink>([&](IPropertyNotifySink* sink) { return sink->OnChanged(id); });
    }

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
