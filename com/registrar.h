// The system's registry-script registrar (the standard "Registrar" class of
// the platform's ATL library), which runs registry scripts kept as REGISTRY
// resources of a module.
#pragma once

#include <windows.h>
#include <objbase.h>

#include <string>
#include <utility>
#include <vector>

namespace com {

// {44EC053A-400F-11D0-9DCD-00A0C90391D3}
extern const CLSID CLSID_Registrar;
// {44EC053B-400F-11D0-9DCD-00A0C90391D3}
extern const IID IID_IRegistrar;

struct IRegistrar : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE AddReplacement(LPCOLESTR key, LPCOLESTR item) = 0;
    virtual HRESULT STDMETHODCALLTYPE ClearReplacements() = 0;
    virtual HRESULT STDMETHODCALLTYPE ResourceRegisterSz(LPCOLESTR resFileName, LPCOLESTR id, LPCOLESTR type) = 0;
    virtual HRESULT STDMETHODCALLTYPE ResourceUnregisterSz(LPCOLESTR resFileName, LPCOLESTR id, LPCOLESTR type) = 0;
    virtual HRESULT STDMETHODCALLTYPE FileRegister(LPCOLESTR fileName) = 0;
    virtual HRESULT STDMETHODCALLTYPE FileUnregister(LPCOLESTR fileName) = 0;
    virtual HRESULT STDMETHODCALLTYPE StringRegister(LPCOLESTR data) = 0;
    virtual HRESULT STDMETHODCALLTYPE StringUnregister(LPCOLESTR data) = 0;
    virtual HRESULT STDMETHODCALLTYPE ResourceRegister(LPCOLESTR resFileName, UINT id, LPCOLESTR type) = 0;
    virtual HRESULT STDMETHODCALLTYPE ResourceUnregister(LPCOLESTR resFileName, UINT id, LPCOLESTR type) = 0;
};

using Replacements = std::vector<std::pair<std::wstring, std::wstring>>;

// Runs the REGISTRY resource `id` of the module file `modulePath` in
// registration (`reg` true) or removal mode, with `%KEY%` replacements.
HRESULT RunRegistryScript(const std::wstring& modulePath, UINT id, bool reg, const Replacements& replacements);

}  // namespace com
