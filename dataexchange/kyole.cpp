#include "dataexchange/kyole.h"

#include <ole2.h>

namespace ky {

STDMETHODIMP CCoKyOLE::OpenClipboard(ULONG_PTR hWndNewOwner) {
    return ::OpenClipboard(reinterpret_cast<HWND>(hWndNewOwner)) ? S_OK : E_FAIL;
}

STDMETHODIMP CCoKyOLE::GetClipboardData(unsigned int uiFormat, ULONG_PTR* pHandle) {
    if (!pHandle) return E_POINTER;
    *pHandle = 0;
    // The handle stays the clipboard's: valid until CloseClipboard.
    *pHandle = reinterpret_cast<ULONG_PTR>(::GetClipboardData(uiFormat));
    return *pHandle ? S_OK : E_FAIL;
}

STDMETHODIMP CCoKyOLE::CloseClipboard() { return ::CloseClipboard() ? S_OK : E_FAIL; }

STDMETHODIMP CCoKyOLE::IsCurrentClipboard(IDataObject* pDataObj) { return ::OleIsCurrentClipboard(pDataObj); }

STDMETHODIMP CCoKyOLE::FlushClipboard() { return ::OleFlushClipboard(); }

STDMETHODIMP CCoKyOLE::GetClipboard(IDataObject** ppDataObj) {
    if (!ppDataObj) return E_POINTER;
    *ppDataObj = nullptr;
    return ::OleGetClipboard(ppDataObj);
}

STDMETHODIMP CCoKyOLE::SetClipboard(IDataObject* pDataObj) { return ::OleSetClipboard(pDataObj); }

}  // namespace ky
