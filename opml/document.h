// The OPML document ("Norvane.OPMLDocument"): version, header and body of an
// OPML 1.0 outline, loaded from and saved as OPML text.
#pragma once

#include <windows.h>

#include "com/object.h"
#include "kyutils.h"
#include "opml/model.h"

namespace OPML {

class CCoDocument : public com::Object<CCoDocument, com::Dual<IOPMLDocument>> {
public:
    static constexpr bool kAggregatable = true;

    HRESULT FinalConstruct();

    STDMETHODIMP get_VersionMajor(INT* pnVersionMajor) override;
    STDMETHODIMP get_VersionMinor(INT* pnVersionMinor) override;
    STDMETHODIMP get_Header(IOPMLHeader** ppHeader) override;
    STDMETHODIMP get_Body(IOPMLOutlines** ppBody) override;
    // Adds what the text holds: header fields are overwritten, outlines and
    // expansion-state values appended.
    STDMETHODIMP Load(VARIANT* pvData) override;
    // Writes into the IStream that the VARIANT holds as VT_UNKNOWN.
    STDMETHODIMP Save(VARIANT* pvData) override;

private:
    // Made with the document, never replaced: no lock needed.
    ComPtr<CHeader> m_header;
    ComPtr<COutlines> m_body;
};

}  // namespace OPML
