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

// Appends UTF-16 text as UTF-8; unpaired surrogates become U+FFFD, as the
// system's conversion makes them.
void AppendUtf8(std::string& out, const wchar_t* text, size_t length) {
    if (length == 0) return;
    // Up to three bytes per UTF-16 unit must fit the conversion's int.
    if (length > INT_MAX / 3) ThrowIfFailed(E_UNEXPECTED);
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), nullptr, 0, nullptr, nullptr);
    if (size <= 0) ThrowIfFailed(E_UNEXPECTED);
    const size_t at = out.size();
    out.resize(at + static_cast<size_t>(size));
    ::WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), &out[at], size, nullptr, nullptr);
}

// Appends UTF-16 text as UTF-8 escaped for XML: &, < and > always; " and '
// only as attribute text, so quotes stay as they are in element text. TAB,
// LF and CR are written as character references where a reader would
// otherwise change them: CR everywhere (readers turn CR LF into LF), TAB and
// LF in attributes (readers turn them into blanks). The other control
// characters cannot appear in XML 1.0 at all, not even as references, and
// are left out. ASCII is copied as it goes; each run of other characters is
// converted in one call, so surrogate pairs stay together.
void AppendEscaped(std::string& out, const wchar_t* text, size_t length, bool attribute) {
    // ASCII goes through a small buffer, appended a block at a time.
    char buffer[256];
    size_t used = 0;
    const wchar_t* end = text + length;
    for (const wchar_t* p = text; p < end;) {
        if (used > sizeof buffer - 8) {
            out.append(buffer, used);
            used = 0;
        }
        if (*p >= 0x80) {
            out.append(buffer, used);
            used = 0;
            const wchar_t* run = p;
            while (p < end && *p >= 0x80) ++p;
            AppendUtf8(out, run, static_cast<size_t>(p - run));
            continue;
        }
        const char c = static_cast<char>(*p++);
        const char* replacement = nullptr;
        switch (c) {
            case '&': replacement = "&amp;"; break;
            case '<': replacement = "&lt;"; break;
            case '>': replacement = "&gt;"; break;
            case '"': replacement = attribute ? "&quot;" : nullptr; break;
            case '\'': replacement = attribute ? "&apos;" : nullptr; break;
            case '\t': replacement = attribute ? "&#9;" : nullptr; break;
            case '\n': replacement = attribute ? "&#10;" : nullptr; break;
            case '\r': replacement = "&#13;"; break;
            default: replacement = static_cast<unsigned char>(c) < 0x20 ? "" : nullptr; break;
        }
        if (!replacement) {
            buffer[used++] = c;
        } else {
            while (*replacement) buffer[used++] = *replacement++;
        }
    }
    out.append(buffer, used);
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

// The outline's attributes, one write each: all are formatted under the
// model's locks first and sent after they are left, so that the caller's
// stream is never called with a lock of the model held.
void WriteAttributes(CXmlTextWriter& out, CCoOutline* outline) {
    out.ClearFormatted();
    outline->AttributeList()->ForEach([&](CCoAttribute* attribute) {
        attribute->Read([&](const std::wstring& name, const std::wstring& value) {
            out.FormatAttribute(name.data(), name.size(), value.data(), value.size());
        });
    });
    ThrowIfFailed(out.SendFormatted());
}

// The outlines of `outlines`, depth first, from the writer's depth on. A
// stack of the collections being written stands in for one call per level,
// so that a tree of any depth the model holds can be written. Each level
// is written as it stood when the writer reached it.
void WriteOutlines(CXmlTextWriter& out, COutlines* outlines) {
    struct Level {
        std::vector<com::ComPtr<CCoOutline>> outlines;
        size_t next;
    };
    const unsigned base = out.Depth();
    std::vector<Level> levels;
    levels.push_back({outlines->Snapshot(), 0});
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.outlines.size()) {
            // The outline that owns this level is closed one level up.
            levels.pop_back();
            if (levels.empty()) break;
            out.SetDepth(base + static_cast<unsigned>(levels.size()) - 1);
            ThrowIfFailed(out.Line("</outline>"));
            continue;
        }
        com::ComPtr<CCoOutline> outline = level.outlines[level.next++];
        out.SetDepth(base + static_cast<unsigned>(levels.size()) - 1);
        ThrowIfFailed(out.Indent());
        ThrowIfFailed(out.Raw("<outline"));
        WriteAttributes(out, outline.Get());
        COutlines* children = outline->ExistingChildren();
        std::vector<com::ComPtr<CCoOutline>> below;
        if (children) below = children->Snapshot();
        ThrowIfFailed(out.Raw(below.empty() ? "/>" : ">", true));
        if (!below.empty()) levels.push_back({std::move(below), 0});
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
    m_out.assign(1, '<').append(name).append(1, '>').append(utf8);
    m_out.append("</").append(name).append(1, '>').append(m_lineEnd);
    return Send(m_out.data(), m_out.size());
}

HRESULT CXmlTextWriter::TextElement(const char* name, const wchar_t* text, UINT length) {
    return com::Guard([&] {
        m_escaped.clear();
        AppendEscaped(m_escaped, text, length, false);
        return TextElement(name, m_escaped);
    });
}

void CXmlTextWriter::ClearFormatted() {
    m_formatted.clear();
    m_ends.clear();
}

void CXmlTextWriter::FormatAttribute(const wchar_t* name, size_t nameLength, const wchar_t* value,
                                     size_t valueLength) {
    m_formatted.append(1, ' ');
    AppendUtf8(m_formatted, name, nameLength);
    m_formatted.append("=\"");
    AppendEscaped(m_formatted, value, valueLength, true);
    m_formatted.append(1, '"');
    m_ends.push_back(m_formatted.size());
}

HRESULT CXmlTextWriter::SendFormatted() {
    size_t start = 0;
    for (size_t end : m_ends) {
        HRESULT hr = Send(m_formatted.data() + start, end - start);
        if (FAILED(hr)) return hr;
        start = end;
    }
    return S_OK;
}

HRESULT SaveDocument(IOPMLHeader* header, COutlines* body, IStream* target) {
    return com::Guard([&] {
        CXmlTextWriter out(target, "\r\n", true);
        ThrowIfFailed(out.Declaration());
        ThrowIfFailed(out.Line("<opml version=\"1.0\">"));
        WriteHeader(out, header);
        out.SetDepth(1);
        ThrowIfFailed(out.Line("<body>"));
        out.SetDepth(2);
        WriteOutlines(out, body);
        out.SetDepth(1);
        ThrowIfFailed(out.Line("</body>"));
        out.SetDepth(0);
        ThrowIfFailed(out.Line("</opml>"));
        return S_OK;
    });
}

}  // namespace OPML
