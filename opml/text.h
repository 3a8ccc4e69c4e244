// Text handling shared by the OPML classes.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>

#include "com/raii.h"

namespace OPML {

// Hands a stored string to a caller: always a newly allocated BSTR, an empty
// one for a value never set, so that C++ callers need no null check.
inline HRESULT CopyText(const com::Bstr& source, BSTR* target) {
    *target = source.IsNull() ? ::SysAllocStringLen(nullptr, 0) : ::SysAllocStringLen(source, source.Length());
    return *target ? S_OK : E_OUTOFMEMORY;
}

inline HRESULT CopyText(const std::wstring& source, BSTR* target) {
    *target = ::SysAllocStringLen(source.data(), static_cast<UINT>(source.size()));
    return *target ? S_OK : E_OUTOFMEMORY;
}

// Stores a copy of `length` characters of `text` (which may be null when
// `length` is 0).
inline HRESULT StoreText(com::Bstr& target, const wchar_t* text, UINT length) {
    BSTR copy = ::SysAllocStringLen(text, length);
    if (!copy) return E_OUTOFMEMORY;
    target.Attach(copy);
    return S_OK;
}

// The automation runtime's standard conversion, with no flags and the
// neutral locale, in place. Booleans become "-1" and "0".
inline HRESULT ConvertText(VARIANT* value, VARTYPE type) {
    return ::VariantChangeTypeEx(value, value, LOCALE_NEUTRAL, 0, type);
}

}  // namespace OPML
