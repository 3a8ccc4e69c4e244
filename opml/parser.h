// The OPML reader: a strict state machine on the platform's SAX reader that
// accepts exactly the element structure that the writer produces.
#pragma once

#include <windows.h>
#include <msxml2.h>

#include <string>
#include <vector>

#include "com/object.h"
#include "kyutils.h"
#include "opml/model.h"

namespace OPML {

// The largest document the reader is let read, in units of 1024 characters:
// the most its "max-xml-size" setting takes.
constexpr LONG kMaxXmlSizeKiloChars = 4194303;

// Fills `document` from OPML text in any form the SAX reader's parse takes
// (a BSTR of XML text, a stream, a byte array, ...), passed on as it is. A
// document that breaks the structure is kept as far as it was read and still
// gives S_OK; only a failure to set the reader up is returned.
HRESULT LoadDocument(IOPMLHeader* header, COutlines* body, const VARIANT& input);

// The content and error handler of one load. It lives on its caller's stack
// and is never handed out except to the SAX reader for the parse.
class CParser final : public ISAXContentHandler, public ISAXErrorHandler {
public:
    // The state word: single values and bits.
    enum : DWORD {
        kReady = 0x1,             // before the document starts
        kRootClosed = 0x2,        // the document may end
        kInHeaderElement = 0x4,   // character data is collected
        kStarted = 0x8,           // the root element is expected
        kInRoot = 0x10,           // the head is expected
        kHeaderElements = 0xFFE0, // one bit per header element still allowed
        kBodyAllowed = 0x10000,   // the head is closed
        kInBody = 0x20000,        // outlines are allowed
        kInOutline = 0x20002,
        kFailed = 0x80000000,     // tested after the parse; no handler sets it
    };

    CParser() = default;
    CParser(const CParser&) = delete;
    CParser& operator=(const CParser&) = delete;
    ~CParser() = default;

    // Takes the document's header and body, and makes the parser ready.
    HRESULT Prepare(IOPMLHeader* header, COutlines* body);
    DWORD State() const { return m_state; }

    // IUnknown: references are counted but never free the parser.
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(::InterlockedIncrement(&m_refs)); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(::InterlockedDecrement(&m_refs)); }

    // ISAXContentHandler
    STDMETHODIMP putDocumentLocator(ISAXLocator*) override { return S_OK; }
    STDMETHODIMP startDocument() override;
    STDMETHODIMP endDocument() override;
    STDMETHODIMP startPrefixMapping(const wchar_t*, int, const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP endPrefixMapping(const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP startElement(const wchar_t* pwchNamespaceUri, int cchNamespaceUri, const wchar_t* pwchLocalName,
                              int cchLocalName, const wchar_t* pwchQName, int cchQName,
                              ISAXAttributes* pAttributes) override;
    STDMETHODIMP endElement(const wchar_t* pwchNamespaceUri, int cchNamespaceUri, const wchar_t* pwchLocalName,
                            int cchLocalName, const wchar_t* pwchQName, int cchQName) override;
    STDMETHODIMP characters(const wchar_t* pwchChars, int cchChars) override;
    STDMETHODIMP ignorableWhitespace(const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP processingInstruction(const wchar_t*, int, const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP skippedEntity(const wchar_t*, int) override { return S_OK; }

    // ISAXErrorHandler: the parse is over; the document keeps what it has.
    STDMETHODIMP error(ISAXLocator*, const wchar_t*, HRESULT) override;
    STDMETHODIMP fatalError(ISAXLocator*, const wchar_t*, HRESULT) override;
    STDMETHODIMP ignorableWarning(ISAXLocator*, const wchar_t*, HRESULT) override { return S_OK; }

private:
    void ReleaseDocument();
    HRESULT StartOutline(ISAXAttributes* attributes);
    HRESULT StoreHeaderElement(size_t index);

    com::ComPtr<IOPMLHeader> m_header;
    com::ComPtr<COutlines> m_body;
    DWORD m_state = 0;
    std::wstring m_text;
    // The outline whose sub-items the next outline goes into is on top
    // (null for the body): its collection is made only when a child comes,
    // as most outlines are leaves. Outlines and attributes are made through
    // the model's own classes, which take the same locks as its interfaces,
    // without the copies that passing strings through the interfaces costs.
    std::vector<com::ComPtr<CCoOutline>> m_stack;
    // The attributes of the outline being read, pointing into the reader's text.
    std::vector<TextPair> m_pairs;
    volatile LONG m_refs = 0;
};

}  // namespace OPML
