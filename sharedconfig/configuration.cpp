#include "sharedconfig/configuration.h"

#include "sharedconfig/outrigged.h"

namespace ky {

namespace {

template <class Medium, class Interface>
HRESULT Acquire(BSTR filePath, BSTR elementName, Interface** result) {
    if (::SysStringLen(filePath) == 0 || ::SysStringLen(elementName) == 0 || !result) return E_INVALIDARG;
    com::ComPtr<Medium> medium;
    HRESULT hr = Medium::Make(medium);
    if (FAILED(hr)) return hr;
    hr = medium->OpenMedium(filePath, elementName);
    if (SUCCEEDED(hr)) hr = medium->Load();
    // A failed acquisition drops the object here, and its write-back runs
    // like any other.
    if (FAILED(hr)) return hr;
    *result = medium.Detach();
    return hr;
}

}  // namespace

STDMETHODIMP CComStgOutriggedConfiguration::AcquireStorage(BSTR bstrStgFilePath, BSTR bstrStorageName,
                                                           IStorage** pstg) {
    return Acquire<COutriggedStorage>(bstrStgFilePath, bstrStorageName, pstg);
}

STDMETHODIMP CComStgOutriggedConfiguration::AcquireStream(BSTR bstrStgFilePath, BSTR bstrStreamName, IStream** pstm) {
    return Acquire<COutriggedStream>(bstrStgFilePath, bstrStreamName, pstm);
}

STDMETHODIMP CComStgOutriggedConfiguration::InterfaceSupportsErrorInfo(REFIID riid) {
    return IsEqualIID(riid, IID_IComStgOutriggedConfiguration) ? S_OK : S_FALSE;
}

}  // namespace ky
