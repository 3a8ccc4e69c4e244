#include "opml/document.h"

#include "com/guard.h"
#include "opml/parser.h"
#include "opml/writer.h"

namespace OPML {

HRESULT CCoDocument::FinalConstruct() {
    HRESULT hr = CHeader::Make(m_header);
    if (SUCCEEDED(hr)) hr = COutlines::Make(m_body);
    return hr;
}

// Always OPML 1.0, whatever was loaded: the reader accepts nothing else.
STDMETHODIMP CCoDocument::get_VersionMajor(INT* pnVersionMajor) {
    if (!pnVersionMajor) return E_POINTER;
    *pnVersionMajor = 1;
    return S_OK;
}

STDMETHODIMP CCoDocument::get_VersionMinor(INT* pnVersionMinor) {
    if (!pnVersionMinor) return E_POINTER;
    *pnVersionMinor = 0;
    return S_OK;
}

STDMETHODIMP CCoDocument::get_Header(IOPMLHeader** ppHeader) { return HandOut(m_header.Get(), ppHeader); }

STDMETHODIMP CCoDocument::get_Body(IOPMLOutlines** ppBody) { return HandOut(m_body.Get(), ppBody); }

STDMETHODIMP CCoDocument::Load(VARIANT* pvData) {
    if (!pvData) return E_POINTER;
    return com::Guard([&] { return LoadDocument(m_header.Get(), m_body.Get(), *pvData); });
}

STDMETHODIMP CCoDocument::Save(VARIANT* pvData) {
    if (!pvData) return E_POINTER;
    // Only a stream given as VT_UNKNOWN: not a VT_DISPATCH, not a file path.
    com::ComPtr<IStream> stream;
    if (V_VT(pvData) != VT_UNKNOWN || !V_UNKNOWN(pvData) ||
        FAILED(V_UNKNOWN(pvData)->QueryInterface(IID_PPV_ARGS(&stream)))) {
        return E_INVALIDARG;
    }
    return SaveDocument(m_header.Get(), m_body.Get(), stream.Get());
}

}  // namespace OPML
