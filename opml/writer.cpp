#include "opml/writer.h"

#include <algorithm>
#include <climits>
#include <vector>

#include "com/guard.h"
#include "com/raii.h"
#include "opml/rfc822.h"

namespace OPML {

namespace {

using com::ThrowIfFailed;

constexpr char kTabs[] = "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
constexpr unsigned kMaxTabsPerWrite = sizeof kTabs - 1;

// Appends UTF-8 text escaped for XML: &, < and > always; " and ' only as
// attribute text, so quotes stay as they are in element text. TAB, LF and
// CR are written as character references where a reader would otherwise
// change them: CR everywhere (readers turn CR LF into LF), TAB and LF in
// attributes (readers turn them into blanks). The other control characters
// cannot appear in XML 1.0 at all, not even as references, and are left out.
void AppendEscaped(std::string& out, const char* text, size_t length, bool attribute) {
    const char* run = text;
    const char* end = text + length;
    for (const char* p = text; p < end; ++p) {
        const char* replacement;
        switch (static_cast<unsigned char>(*p)) {
            case '&': replacement = "&amp;"; break;
            case '<': replacement = "&lt;"; break;
            case '>': replacement = "&gt;"; break;
            case '"': replacement = attribute ? "&quot;" : nullptr; break;
            case '\'': replacement = attribute ? "&apos;" : nullptr; break;
            case '\t': replacement = attribute ? "&#9;" : nullptr; break;
            case '\n': replacement = attribute ? "&#10;" : nullptr; break;
            case '\r': replacement = "&#13;"; break;
            default: replacement = static_cast<unsigned char>(*p) < 0x20 ? "" : nullptr; break;
        }
        if (!replacement) continue;
        out.append(run, static_cast<size_t>(p - run));
        out.append(replacement);
        run = p + 1;
    }
    out.append(run, static_cast<size_t>(end - run));
}

VARIANT Position(LONG position) {
    VARIANT key;
    V_VT(&key) = VT_I4;
    V_I4(&key) = position;
    return key;
}

void WriteString(CXmlTextWriter& out, const char* name, IOPMLHeader* header,
                 HRESULT (STDMETHODCALLTYPE IOPMLHeader::*get)(BSTR*)) {
    com::Bstr text;
    ThrowIfFailed((header->*get)(text.Out()));
    if (!text.IsEmpty()) ThrowIfFailed(out.TextElement(name, text, text.Length()));
}

void WriteDate(CXmlTextWriter& out, const char* name, IOPMLHeader* header,
               HRESULT (STDMETHODCALLTYPE IOPMLHeader::*get)(DATE*)) {
    DATE date = 0.0;
    ThrowIfFailed((header->*get)(&date));
    if (date == 0.0) return;
    std::string text;
    ThrowIfFailed(FormatRfc822Date(date, &text));
    ThrowIfFailed(out.TextElement(name, text));
}

void WriteHeader(CXmlTextWriter& out, IOPMLHeader* header) {
    out.SetDepth(1);
    ThrowIfFailed(out.Line("<head>"));
    out.SetDepth(2);
    WriteString(out, "title", header, &IOPMLHeader::get_Title);
    WriteDate(out, "dateCreated", header, &IOPMLHeader::get_DateCreated);
    WriteDate(out, "dateModified", header, &IOPMLHeader::get_DateModified);
    WriteString(out, "ownerName", header, &IOPMLHeader::get_OwnerName);
    WriteString(out, "ownerEmail", header, &IOPMLHeader::get_OwnerEmail);

    com::ComPtr<IOPMLExpansionState> expansion;
    ThrowIfFailed(header->get_ExpansionState(&expansion));
    LONG count = 0;
    ThrowIfFailed(expansion->get_Count(&count));
    if (count > 0) {
        std::string list;
        for (LONG i = 1; i <= count; ++i) {
            LONG value = 0;
            ThrowIfFailed(expansion->get_Item(i, &value));
            if (i > 1) list += ',';
            list += std::to_string(value);
        }
        ThrowIfFailed(out.TextElement("expansionState", list));
    }

    ULONG scroll = 0;
    ThrowIfFailed(header->get_VertScrollState(&scroll));
    // Written as a signed number: 0x80000000 and above come out negative.
    if (scroll != 0xFFFFFFFF) {
        ThrowIfFailed(out.TextElement("vertScrollState", std::to_string(static_cast<LONG>(scroll))));
    }

    LONG edges[4] = {};
    ThrowIfFailed(header->get_WindowTop(&edges[0]));
    ThrowIfFailed(header->get_WindowLeft(&edges[1]));
    ThrowIfFailed(header->get_WindowBottom(&edges[2]));
    ThrowIfFailed(header->get_WindowRight(&edges[3]));
    if (edges[0] || edges[1] || edges[2] || edges[3]) {
        const char* const names[] = {"windowTop", "windowLeft", "windowBottom", "windowRight"};
        for (int i = 0; i < 4; ++i) ThrowIfFailed(out.TextElement(names[i], std::to_string(edges[i])));
    }
    out.SetDepth(1);
    ThrowIfFailed(out.Line("</head>"));
}

void WriteAttributes(CXmlTextWriter& out, IOPMLOutline* outline) {
    com::ComPtr<IOPMLAttributes> attributes;
    ThrowIfFailed(outline->get_Attributes(&attributes));
    LONG count = 0;
    ThrowIfFailed(attributes->get_Count(&count));
    for (LONG i = 1; i <= count; ++i) {
        VARIANT key = Position(i);
        com::ComPtr<IOPMLAttribute> attribute;
        ThrowIfFailed(attributes->get_Item(&key, &attribute));
        com::Bstr name, value;
        ThrowIfFailed(attribute->get_Name(name.Out()));
        ThrowIfFailed(attribute->get_Value(value.Out()));
        ThrowIfFailed(out.Attribute(name, name.Length(), value, value.Length()));
    }
}

// The outlines below `outlines`, depth first, from the writer's depth on.
// A stack of the collections being written stands in for one call per
// level, so that a tree of any depth the model holds can be written.
void WriteOutlines(CXmlTextWriter& out, IOPMLOutlines* outlines) {
    struct Level {
        com::ComPtr<IOPMLOutlines> outlines;
        LONG next, count;
    };
    const unsigned base = out.Depth();
    LONG count = 0;
    ThrowIfFailed(outlines->get_Count(&count));
    std::vector<Level> levels{{outlines, 1, count}};
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next > level.count) {
            // The outline that owns this level is closed one level up.
            levels.pop_back();
            if (levels.empty()) break;
            out.SetDepth(base + static_cast<unsigned>(levels.size()) - 1);
            ThrowIfFailed(out.Line("</outline>"));
            continue;
        }
        VARIANT key = Position(level.next++);
        com::ComPtr<IOPMLOutline> outline;
        ThrowIfFailed(level.outlines->get_Item(&key, &outline));
        out.SetDepth(base + static_cast<unsigned>(levels.size()) - 1);
        ThrowIfFailed(out.Indent());
        ThrowIfFailed(out.Raw("<outline"));
        WriteAttributes(out, outline.Get());
        com::ComPtr<IOPMLOutlines> subItems;
        ThrowIfFailed(outline->get_SubItems(&subItems));
        ThrowIfFailed(subItems->get_Count(&count));
        ThrowIfFailed(out.Raw(count ? ">" : "/>", true));
        if (count) levels.push_back({subItems, 1, count});
    }
    out.SetDepth(base);
}

}  // namespace

CXmlTextWriter::CXmlTextWriter(IStream* target, const char* lineEnd, bool indent)
    : m_target(target), m_lineEnd(lineEnd), m_indent(indent) {}

HRESULT CXmlTextWriter::Send(const char* bytes, size_t count) {
    if (count == 0) return S_OK;
    if (count > ULONG_MAX) return E_UNEXPECTED;
    ULONG written = 0;
    HRESULT hr = m_target->Write(bytes, static_cast<ULONG>(count), &written);
    return FAILED(hr) || written != count ? E_FAIL : S_OK;
}

HRESULT CXmlTextWriter::ToUtf8(const wchar_t* text, UINT length, std::string* utf8) {
    utf8->clear();
    if (length == 0) return S_OK;
    // Up to three bytes per UTF-16 unit must fit the conversion's int.
    if (length > INT_MAX / 3) return E_UNEXPECTED;
    int size = ::WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), nullptr, 0, nullptr, nullptr);
    if (size <= 0) return E_UNEXPECTED;
    utf8->resize(static_cast<size_t>(size));
    ::WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), &(*utf8)[0], size, nullptr, nullptr);
    return S_OK;
}

HRESULT CXmlTextWriter::Declaration() { return Raw("<?xml version=\"1.0\" encoding=\"utf-8\"?>", true); }

HRESULT CXmlTextWriter::Indent() {
    if (!m_indent) return S_OK;
    for (unsigned left = m_depth; left > 0;) {
        unsigned count = std::min(left, kMaxTabsPerWrite);
        HRESULT hr = Send(kTabs, count);
        if (FAILED(hr)) return hr;
        left -= count;
    }
    return S_OK;
}

HRESULT CXmlTextWriter::Line(const char* tag) {
    HRESULT hr = Indent();
    return SUCCEEDED(hr) ? Raw(tag, true) : hr;
}

HRESULT CXmlTextWriter::Raw(const char* bytes, bool lineEnd) {
    m_out.assign(bytes);
    if (lineEnd) m_out += m_lineEnd;
    return Send(m_out.data(), m_out.size());
}

HRESULT CXmlTextWriter::TextElement(const char* name, const std::string& utf8) {
    HRESULT hr = Indent();
    if (FAILED(hr)) return hr;
    m_out.assign(1, '<').append(name).append(1, '>');
    AppendEscaped(m_out, utf8.data(), utf8.size(), false);
    m_out.append("</").append(name).append(1, '>').append(m_lineEnd);
    return Send(m_out.data(), m_out.size());
}

HRESULT CXmlTextWriter::TextElement(const char* name, const wchar_t* text, UINT length) {
    HRESULT hr = ToUtf8(text, length, &m_utf8);
    return SUCCEEDED(hr) ? TextElement(name, m_utf8) : hr;
}

HRESULT CXmlTextWriter::Attribute(const wchar_t* name, UINT nameLength, const wchar_t* value, UINT valueLength) {
    HRESULT hr = ToUtf8(name, nameLength, &m_utf8);
    if (FAILED(hr)) return hr;
    m_out.assign(1, ' ').append(m_utf8).append("=\"");
    hr = ToUtf8(value, valueLength, &m_utf8);
    if (FAILED(hr)) return hr;
    AppendEscaped(m_out, m_utf8.data(), m_utf8.size(), true);
    m_out.append(1, '"');
    return Send(m_out.data(), m_out.size());
}

HRESULT SaveDocument(IOPMLDocument* document, IStream* target) {
    return com::Guard([&] {
        CXmlTextWriter out(target, "\r\n", true);
        ThrowIfFailed(out.Declaration());
        ThrowIfFailed(out.Line("<opml version=\"1.0\">"));
        com::ComPtr<IOPMLHeader> header;
        ThrowIfFailed(document->get_Header(&header));
        WriteHeader(out, header.Get());

        com::ComPtr<IOPMLOutlines> body;
        ThrowIfFailed(document->get_Body(&body));
        out.SetDepth(1);
        ThrowIfFailed(out.Line("<body>"));
        out.SetDepth(2);
        WriteOutlines(out, body.Get());
        out.SetDepth(1);
        ThrowIfFailed(out.Line("</body>"));
        out.SetDepth(0);
        ThrowIfFailed(out.Line("</opml>"));
        return S_OK;
    });
}

}  // namespace OPML
