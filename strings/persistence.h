// What the persisted classes of this folder share: their class identifier
// and dirty flag behind IPersistStream, and the lock that guards their state.
// A class lists com::With<PersistStreamImpl<CLSID_X>> (and IPersist through
// it) and implements Load, Save and GetSizeMax.
#pragma once

#include <windows.h>
#include <objidl.h>

#include "com/raii.h"

namespace ky {

template <const CLSID& kClassId>
class PersistStreamImpl : public IPersistStream {
public:
    using Interface = IPersistStream;

    STDMETHODIMP GetClassID(CLSID* pClassID) override {
        if (!pClassID) return E_POINTER;
        *pClassID = kClassId;
        return S_OK;
    }

    STDMETHODIMP IsDirty() override {
        com::Lock lock(m_lock);
        return m_dirty ? S_OK : S_FALSE;
    }

protected:
    // The end of Save: the flag is cleared when asked and all was written.
    HRESULT SaveDone(HRESULT hr, BOOL clearDirty) {
        if (FAILED(hr)) return hr;
        if (clearDirty) m_dirty = false;
        return S_OK;
    }

    // Guards the whole state of the object, not only the flag.
    com::CriticalSection m_lock;
    bool m_dirty = false;
};

}  // namespace ky
