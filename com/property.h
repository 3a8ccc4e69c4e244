// Property accessors of objects that guard their fields with one lock.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include "raii.h"

namespace com {

// Copies a field to a caller's out-parameter under the lock; E_POINTER for a
// null out-parameter.
template <class Field, class Out>
HRESULT GetLocked(CriticalSection& lock, const Field& field, Out* out) {
    if (!out) return E_POINTER;
    Lock held(lock);
    *out = static_cast<Out>(field);
    return S_OK;
}

// A flag goes out as an automation boolean (VARIANT_TRUE is -1, not 1).
inline HRESULT GetLocked(CriticalSection& lock, const bool& field, VARIANT_BOOL* out) {
    if (!out) return E_POINTER;
    Lock held(lock);
    *out = field ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

// A string goes out as the caller's own copy.
inline HRESULT GetLocked(CriticalSection& lock, const Bstr& field, BSTR* out) {
    if (!out) return E_POINTER;
    Lock held(lock);
    return field.CopyTo(out);
}

template <class Field, class Value>
HRESULT PutLocked(CriticalSection& lock, Field& field, const Value& value) {
    Lock held(lock);
    field = value;
    return S_OK;
}

}  // namespace com
