// The IDispatch plumbing of an _IKyTasksEvents listener, shared by the tests
// and the benchmark: the derived class only implements Invoke.
#pragma once

#include <windows.h>
#include <oaidl.h>

#include "com/object.h"
#include "kyutils.h"

namespace ky::test {

template <class Derived>
class EventSinkBase : public com::Object<Derived, IDispatch> {
public:
    // Connection points ask for the event interface, which is IDispatch.
    HRESULT QueryOther(REFIID riid, void** ppv) {
        if (!IsEqualIID(riid, DIID__IKyTasksEvents)) return E_NOINTERFACE;
        *ppv = static_cast<IDispatch*>(this);
        return this->AddRef(), S_OK;
    }
    STDMETHODIMP GetTypeInfoCount(UINT* count) override { return count ? (*count = 0, S_OK) : E_POINTER; }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
};

}  // namespace ky::test
