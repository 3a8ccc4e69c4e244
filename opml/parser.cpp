#include "opml/parser.h"

#include <cwchar>
#include <iterator>

#include "com/guard.h"
#include "com/raii.h"
#include "opml/rfc822.h"
#include "opml/sax.h"

namespace OPML {

namespace {

// The header elements in the order they must come; each may come once. The
// element at index i has the state bit 0x20 << i.
const wchar_t* const kHeaderNames[] = {L"title",          L"dateCreated",     L"dateModified", L"ownerName",
                                          L"ownerEmail",     L"expansionState",  L"vertScrollState",
                                          L"windowTop",      L"windowLeft",      L"windowBottom", L"windowRight"};
constexpr size_t kHeaderElementCount = std::size(kHeaderNames);

enum HeaderIndex : size_t {
    kTitle, kDateCreated, kDateModified, kOwnerName, kOwnerEmail, kExpansionState,
    kVertScrollState, kWindowTop, kWindowLeft, kWindowBottom, kWindowRight
};

DWORD HeaderBit(size_t index) { return 0x20u << index; }
// The elements that may still follow the one at `index`.
DWORD Following(size_t index) { return CParser::kHeaderElements & ~((HeaderBit(index) << 1) - 1); }

bool Is(const wchar_t* name, int length, const wchar_t* expected) {
    return name && static_cast<size_t>(length) == wcslen(expected) && wmemcmp(name, expected, length) == 0;
}

// Decimal text to a 32-bit value: leading blanks and a sign are allowed,
// reading stops at the first other character, text without digits gives 0.
// Values wrap to 32 bits, so the signed and the unsigned forms of a number
// both arrive.
ULONG ToInteger(const wchar_t* text) { return static_cast<ULONG>(_wcstoi64(text, nullptr, 10)); }

// Splits at commas and adds each number; empty pieces (two commas in a row,
// a trailing comma) add nothing.
HRESULT AddExpansionState(IOPMLHeader* header, const std::wstring& text) {
    if (text.empty()) return E_UNEXPECTED;
    com::ComPtr<IOPMLExpansionState> expansion;
    HRESULT hr = header->get_ExpansionState(&expansion);
    for (size_t start = 0; SUCCEEDED(hr) && start <= text.size();) {
        size_t comma = text.find(L',', start);
        if (comma == std::wstring::npos) comma = text.size();
        std::wstring piece = text.substr(start, comma - start);
        if (piece.find_first_not_of(L" \t\r\n") != std::wstring::npos) {
            hr = expansion->Add(static_cast<INT>(ToInteger(piece.c_str())));
        }
        start = comma + 1;
    }
    return hr;
}

}  // namespace

// A null BSTR, by value or by reference, is the empty string: the reader
// itself would take it for a pointer to text.
bool IsNullText(const VARIANT& input) {
    switch (V_VT(&input)) {
        case VT_BSTR: return !V_BSTR(&input);
        case VT_BSTR | VT_BYREF: return !V_BSTRREF(&input) || !*V_BSTRREF(&input);
        case VT_VARIANT | VT_BYREF: return !V_VARIANTREF(&input) || IsNullText(*V_VARIANTREF(&input));
        default: return false;
    }
}

HRESULT LoadDocument(IOPMLHeader* header, COutlines* body, const VARIANT& input) {
    // Declared first so that it outlives the reader, which holds it while installed.
    CParser parser;
    com::ComPtr<ISAXXMLReader> reader;
    HRESULT hr = ::CoCreateInstance(sax::kReader40, nullptr, CLSCTX_INPROC_SERVER, sax::kIReader, &reader);
    if (FAILED(hr)) return hr;
    hr = parser.Prepare(header, body);
    if (FAILED(hr)) return hr;
    hr = reader->putContentHandler(&parser);
    if (SUCCEEDED(hr)) hr = reader->putErrorHandler(&parser);
    if (SUCCEEDED(hr)) {
        // The reader's own protections: no DTD, no entities from outside the
        // document, and no document beyond the largest size it can limit
        // (readers that lack a setting refuse it; see the README).
        reader->putFeature(L"prohibit-dtd", VARIANT_TRUE);
        reader->putFeature(L"http://xml.org/sax/features/external-general-entities", VARIANT_FALSE);
        reader->putFeature(L"http://xml.org/sax/features/external-parameter-entities", VARIANT_FALSE);
        VARIANT limit;
        V_VT(&limit) = VT_I4;
        V_I4(&limit) = kMaxXmlSizeKiloChars;
        reader->putProperty(L"max-xml-size", limit);
        com::Variant empty;
        V_VT(&empty) = VT_BSTR;
        V_BSTR(&empty) = ::SysAllocString(L"");
        // A rejected document is not an error of Load: it simply loads what came before.
        reader->parse(IsNullText(input) ? static_cast<const VARIANT&>(empty) : input);
    }
    reader->putContentHandler(nullptr);
    reader->putErrorHandler(nullptr);
    if (FAILED(hr)) return hr;
    return (parser.State() & CParser::kFailed) ? E_FAIL : S_OK;
}

HRESULT CParser::Prepare(IOPMLHeader* header, COutlines* body) {
    m_header = header;
    m_body = body;
    m_state = kReady;
    return S_OK;
}

void CParser::ReleaseDocument() {
    m_header.Reset();
    m_body.Reset();
    m_stack.clear();
}

STDMETHODIMP CParser::QueryInterface(REFIID riid, void** ppv) {
    if (!ppv) return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, sax::kIContentHandler)) {
        *ppv = static_cast<ISAXContentHandler*>(this);
    } else if (IsEqualIID(riid, sax::kIErrorHandler)) {
        *ppv = static_cast<ISAXErrorHandler*>(this);
    } else {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

STDMETHODIMP CParser::startDocument() {
    if (m_state != kReady) return E_UNEXPECTED;
    m_state = kStarted;
    return S_OK;
}

STDMETHODIMP CParser::endDocument() {
    if (!(m_state & kRootClosed)) return E_UNEXPECTED;
    ReleaseDocument();
    return S_OK;
}

STDMETHODIMP CParser::startElement(const wchar_t*, int, const wchar_t* pwchLocalName, int cchLocalName,
                                   const wchar_t*, int, ISAXAttributes* pAttributes) {
    if (m_state & kInBody) {
        if (!Is(pwchLocalName, cchLocalName, L"outline")) return E_UNEXPECTED;
        return StartOutline(pAttributes);
    }
    if (m_state & kStarted) {
        const wchar_t* version = nullptr;
        int length = 0;
        if (!Is(pwchLocalName, cchLocalName, L"opml") || !pAttributes ||
            FAILED(pAttributes->getValueFromName(L"", 0, L"version", 7, &version, &length)) ||
            !Is(version, length, L"1.0")) {
            return E_FAIL;
        }
        m_state = kInRoot;
        return S_OK;
    }
    if (m_state & kInRoot) {
        if (!Is(pwchLocalName, cchLocalName, L"head")) return E_UNEXPECTED;
        m_state = kHeaderElements;
        return S_OK;
    }
    for (size_t i = 0; i < kHeaderElementCount; ++i) {
        if ((m_state & HeaderBit(i)) && Is(pwchLocalName, cchLocalName, kHeaderNames[i])) {
            m_text.clear();
            m_state = kInHeaderElement;
            return S_OK;
        }
    }
    if ((m_state & kBodyAllowed) && Is(pwchLocalName, cchLocalName, L"body") && m_body) {
        return com::Guard([&] {
            m_stack.emplace_back();  // the body itself
            m_state = kInBody;
            return S_OK;
        });
    }
    return E_UNEXPECTED;
}

HRESULT CParser::StartOutline(ISAXAttributes* attributes) {
    if (m_stack.empty()) return E_UNEXPECTED;
    return com::Guard([&] {
        COutlines* list = m_stack.back() ? m_stack.back()->Children() : m_body.Get();
        if (!list) return E_OUTOFMEMORY;
        com::ComPtr<CCoOutline> outline;
        com::ThrowIfFailed(list->Append(outline));
        int count = 0;
        if (attributes) com::ThrowIfFailed(attributes->getLength(&count));
        m_pairs.clear();
        for (int i = 0; i < count; ++i) {
            TextPair pair = {};
            int nameLength = 0, valueLength = 0;
            com::ThrowIfFailed(attributes->getQName(i, &pair.name, &nameLength));
            com::ThrowIfFailed(attributes->getValue(i, &pair.value, &valueLength));
            pair.nameLength = static_cast<UINT>(nameLength);
            pair.valueLength = static_cast<UINT>(valueLength);
            m_pairs.push_back(pair);
        }
        com::ThrowIfFailed(outline->AttributeList()->Load(m_pairs.data(), m_pairs.size()));
        m_stack.push_back(std::move(outline));
        m_state = kInOutline;
        return S_OK;
    });
}

STDMETHODIMP CParser::endElement(const wchar_t*, int, const wchar_t* pwchLocalName, int cchLocalName,
                                 const wchar_t*, int) {
    if (Is(pwchLocalName, cchLocalName, L"outline")) {
        if (!m_stack.empty()) m_stack.pop_back();
        return S_OK;
    }
    if (Is(pwchLocalName, cchLocalName, L"body")) {
        m_state = 0;
        if (!m_stack.empty()) m_stack.pop_back();
        return S_OK;
    }
    if (Is(pwchLocalName, cchLocalName, L"head")) {
        m_state = kBodyAllowed;
        return S_OK;
    }
    if (Is(pwchLocalName, cchLocalName, L"opml")) {
        m_state = kRootClosed;
        return S_OK;
    }
    for (size_t i = 0; i < kHeaderElementCount; ++i) {
        if (Is(pwchLocalName, cchLocalName, kHeaderNames[i])) {
            HRESULT hr = m_header ? StoreHeaderElement(i) : E_UNEXPECTED;
            m_text.clear();
            if (FAILED(hr)) return hr;
            m_state = Following(i);
            return S_OK;
        }
    }
    return E_UNEXPECTED;
}

HRESULT CParser::StoreHeaderElement(size_t index) {
    switch (index) {
        case kTitle:
        case kOwnerName:
        case kOwnerEmail: {
            com::Bstr text(m_text.data(), static_cast<UINT>(m_text.size()));
            if (text.IsNull()) return E_OUTOFMEMORY;
            if (index == kTitle) return m_header->put_Title(text);
            return index == kOwnerName ? m_header->put_OwnerName(text) : m_header->put_OwnerEmail(text);
        }
        case kDateCreated:
        case kDateModified: {
            DATE date = 0.0;
            HRESULT hr = ParseRfc822Date(m_text.data(), m_text.size(), &date);
            if (FAILED(hr)) return hr;
            return index == kDateCreated ? m_header->put_DateCreated(date) : m_header->put_DateModified(date);
        }
        case kExpansionState: return com::Guard([&] { return AddExpansionState(m_header.Get(), m_text); });
        case kVertScrollState: return m_header->put_VertScrollState(ToInteger(m_text.c_str()));
        case kWindowTop: return m_header->put_WindowTop(static_cast<LONG>(ToInteger(m_text.c_str())));
        case kWindowLeft: return m_header->put_WindowLeft(static_cast<LONG>(ToInteger(m_text.c_str())));
        case kWindowBottom: return m_header->put_WindowBottom(static_cast<LONG>(ToInteger(m_text.c_str())));
        case kWindowRight: return m_header->put_WindowRight(static_cast<LONG>(ToInteger(m_text.c_str())));
        default: return E_UNEXPECTED;
    }
}

STDMETHODIMP CParser::characters(const wchar_t* pwchChars, int cchChars) {
    if (!(m_state & kInHeaderElement) || !pwchChars || cchChars <= 0) return S_OK;
    return com::Guard([&] {
        m_text.append(pwchChars, static_cast<size_t>(cchChars));
        return S_OK;
    });
}

STDMETHODIMP CParser::error(ISAXLocator*, const wchar_t*, HRESULT) {
    ReleaseDocument();
    return S_OK;
}

STDMETHODIMP CParser::fatalError(ISAXLocator*, const wchar_t*, HRESULT) {
    ReleaseDocument();
    return S_OK;
}

}  // namespace OPML
