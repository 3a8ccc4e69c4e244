// The system clipboard, raw and OLE, through one COM interface. Each method
// wraps one system call made on the calling thread; the object has no state.
#pragma once

#include <windows.h>
#include <objidl.h>

#include "com/object.h"
#include "kyutils.h"

namespace ky {

class CCoKyOLE : public com::Object<CCoKyOLE, IKyOLE> {
public:
    // The raw clipboard reports failure as E_FAIL; the OLE clipboard's
    // results pass through unchanged.
    STDMETHODIMP OpenClipboard(ULONG_PTR hWndNewOwner) override;
    STDMETHODIMP GetClipboardData(unsigned int uiFormat, ULONG_PTR* pHandle) override;
    STDMETHODIMP CloseClipboard() override;
    STDMETHODIMP IsCurrentClipboard(IDataObject* pDataObj) override;
    STDMETHODIMP FlushClipboard() override;
    STDMETHODIMP GetClipboard(IDataObject** ppDataObj) override;
    STDMETHODIMP SetClipboard(IDataObject* pDataObj) override;
};

}  // namespace ky
