// IDispatch for a dual interface, driven by the module's type library: names,
// dispatch identifiers and argument conversion all come from the type
// information, so a class only implements the interface's vtable methods.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <wrl/client.h>

#include "module.h"

namespace com {

template <class I>
class DispatchImpl : public I {
public:
    STDMETHODIMP GetTypeInfoCount(UINT* count) override {
        if (!count) return E_POINTER;
        *count = 1;
        return S_OK;
    }

    STDMETHODIMP GetTypeInfo(UINT index, LCID, ITypeInfo** typeInfo) override {
        if (!typeInfo) return E_POINTER;
        *typeInfo = nullptr;
        if (index != 0) return DISP_E_BADINDEX;
        return Module::Get().GetTypeInfo(__uuidof(I), typeInfo);
    }

    STDMETHODIMP GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID, DISPID* ids) override {
        if (!IsEqualIID(riid, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
        Microsoft::WRL::ComPtr<ITypeInfo> typeInfo;
        HRESULT hr = Module::Get().GetTypeInfo(__uuidof(I), &typeInfo);
        if (FAILED(hr)) return hr;
        return ::DispGetIDsOfNames(typeInfo.Get(), names, count, ids);
    }

    STDMETHODIMP Invoke(DISPID id, REFIID riid, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                        EXCEPINFO* excepInfo, UINT* argErr) override {
        if (!IsEqualIID(riid, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
        Microsoft::WRL::ComPtr<ITypeInfo> typeInfo;
        HRESULT hr = Module::Get().GetTypeInfo(__uuidof(I), &typeInfo);
        if (FAILED(hr)) return hr;
        // Script hosts call property getters as methods (JScript's Enumerator
        // asks for _NewEnum that way, and a statement such as `list.Item(1);`
        // does too); the type information answers those only for property gets.
        if ((flags & DISPATCH_METHOD) && !(flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)))
            flags |= DISPATCH_PROPERTYGET;
        return typeInfo->Invoke(static_cast<I*>(this), id, flags, params, result, excepInfo, argErr);
    }
};

}  // namespace com
