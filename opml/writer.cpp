#include "opml/writer.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <vector>

#include "com/guard.h"
#include "com/raii.h"
#include "opml/rfc822.h"

namespace OPML {

namespace {

using com::ThrowIfFailed;

constexpr char kTabs[] = "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
constexpr unsigned kMaxTabsPerWrite = sizeof kTabs - 1;

// The most bytes one UTF-16 unit takes once escaped ("&quot;").
constexpr size_t kMaxEscapedBytes = 6;

// UTF-16 text as UTF-8 at `out`, at most three bytes a unit; returns the
// end. Unpaired surrogates become U+FFFD, as the system's conversion makes
// them.
char* EncodeUtf8(char* out, const wchar_t* text, const wchar_t* end) {
    while (text < end) {
        unsigned c = *text++;
        if (c < 0x80) {
            *out++ = static_cast<char>(c);
            continue;
        }
        if (c < 0x800) {
            *out++ = static_cast<char>(0xC0 | (c >> 6));
            *out++ = static_cast<char>(0x80 | (c & 0x3F));
            continue;
        }
        if (c >= 0xD800 && c <= 0xDFFF) {
            if (c <= 0xDBFF && text < end && *text >= 0xDC00 && *text <= 0xDFFF) {
                const unsigned point = 0x10000 + ((c - 0xD800) << 10) + (*text++ - 0xDC00);
                *out++ = static_cast<char>(0xF0 | (point >> 18));
                *out++ = static_cast<char>(0x80 | ((point >> 12) & 0x3F));
                *out++ = static_cast<char>(0x80 | ((point >> 6) & 0x3F));
                *out++ = static_cast<char>(0x80 | (point & 0x3F));
                continue;
            }
            c = 0xFFFD;
        }
        *out++ = static_cast<char>(0xE0 | (c >> 12));
        *out++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (c & 0x3F));
    }
    return out;
}

// Which ASCII characters go out as they are: bit c of kPlain[attribute].
struct PlainSet {
    std::uint64_t low, high;  // characters 0-63 and 64-127
    bool Has(wchar_t c) const { return ((c < 64 ? low >> c : high >> (c - 64)) & 1) != 0; }
};
constexpr std::uint64_t kControls = 0xFFFFFFFFull;  // 0-31
constexpr std::uint64_t Bit(int c) { return 1ull << (c % 64); }
constexpr PlainSet kPlain[2] = {
    // Element text: TAB, LF and printable ASCII but & < >.
    {(~kControls & ~Bit('&') & ~Bit('<') & ~Bit('>')) | Bit('\t') | Bit('\n'), ~0ull},
    // Attribute text: printable ASCII but & < > " '.
    {~kControls & ~Bit('&') & ~Bit('<') & ~Bit('>') & ~Bit('"') & ~Bit('\''), ~0ull},
};

// UTF-16 text as UTF-8 escaped for XML at `out`, at most kMaxEscapedBytes a
// unit; returns the end. &, < and > always; " and ' only as attribute text,
// so quotes stay as they are in element text. TAB, LF and CR are written as
// character references where a reader would otherwise change them: CR
// everywhere (readers turn CR LF into LF), TAB and LF in attributes (readers
// turn them into blanks). The other control characters cannot appear in XML
// 1.0 at all, not even as references, and are left out.
char* EncodeEscaped(char* out, const wchar_t* text, const wchar_t* end, bool attribute) {
    const PlainSet& plain = kPlain[attribute];
    while (text < end) {
        const wchar_t c = *text;
        if (c >= 0x80) {
            // A whole run at once, so that surrogate pairs stay together.
            const wchar_t* run = text;
            while (text < end && *text >= 0x80) ++text;
            out = EncodeUtf8(out, run, text);
            continue;
        }
        ++text;
        if (plain.Has(c)) {
            *out++ = static_cast<char>(c);
            continue;
        }
        const char* replacement = "";  // other control characters
        switch (c) {
            case L'&': replacement = "&amp;"; break;
            case L'<': replacement = "&lt;"; break;
            case L'>': replacement = "&gt;"; break;
            case L'"': replacement = "&quot;"; break;
            case L'\'': replacement = "&apos;"; break;
            case L'\t': replacement = "&#9;"; break;
            case L'\n': replacement = "&#10;"; break;
            case L'\r': replacement = "&#13;"; break;
        }
        while (*replacement) *out++ = *replacement++;
    }
    return out;
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
    outline->AttributeList()->ForEachPair(
        [&](const wchar_t* name, size_t nameLength, const wchar_t* value, size_t valueLength) {
            out.FormatAttribute(name, nameLength, value, valueLength);
        });
    ThrowIfFailed(out.SendFormatted());
}

// The reader makes a document's objects in document order, the order in
// which they are written, and most of a large save is spent waiting for
// them to come from memory: asking for the memory a little past the outline
// being written brings in the next outlines' objects early. (A prefetch
// never faults, wherever the address lies.)
void PrefetchAhead(const CCoOutline* outline) {
    constexpr size_t kAhead = 2048, kWindow = 2048, kLine = 64;
    const char* const at = reinterpret_cast<const char*>(outline) + kAhead;
    for (size_t offset = 0; offset < kWindow; offset += kLine) __builtin_prefetch(at + offset);
}

// The outlines of `outlines`, depth first, from the writer's depth on. A
// stack of the collections being written stands in for one call per level,
// so that a tree of any depth the model holds can be written. Each level
// is written as it stood when the writer reached it.
void WriteOutlines(CXmlTextWriter& out, COutlines* outlines) {
    struct Level {
        std::vector<com::ComPtr<CCoOutline>> outlines;
        size_t next = 0;
    };
    // Levels below `depth` are in use; those above keep their room for the
    // next time the tree goes that deep.
    const unsigned base = out.Depth();
    std::vector<Level> levels(1);
    size_t depth = 1;
    outlines->Snapshot(levels[0].outlines);
    while (depth > 0) {
        Level& level = levels[depth - 1];
        if (level.next == level.outlines.size()) {
            // The outline that owns this level is closed one level up.
            level.outlines.clear();
            if (--depth == 0) break;
            out.SetDepth(base + static_cast<unsigned>(depth) - 1);
            ThrowIfFailed(out.Line("</outline>"));
            continue;
        }
        CCoOutline* outline = level.outlines[level.next++].Get();
        PrefetchAhead(outline);
        out.SetDepth(base + static_cast<unsigned>(depth) - 1);
        ThrowIfFailed(out.Indent());
        ThrowIfFailed(out.Raw("<outline"));
        WriteAttributes(out, outline);
        if (depth == levels.size()) levels.emplace_back();
        Level& below = levels[depth];
        below.next = 0;
        if (COutlines* children = outline->ExistingChildren()) children->Snapshot(below.outlines);
        ThrowIfFailed(out.Raw(below.outlines.empty() ? "/>" : ">", true));
        if (!below.outlines.empty()) ++depth;
    }
    out.SetDepth(base);
}

}  // namespace

CXmlTextWriter::CXmlTextWriter(IStream* target, const char* lineEnd, bool indent)
    : m_target(target), m_lineEnd(lineEnd), m_indent(indent) {}

char* CXmlTextWriter::Pending::Grow(size_t used, size_t count) {
    if (count > SIZE_MAX - used) ThrowIfFailed(E_OUTOFMEMORY);
    m_bytes.resize(std::max(used + count, 2 * m_bytes.size()));
    return m_bytes.data() + used;
}

size_t CXmlTextWriter::Put(size_t used, const char* bytes, size_t count) {
    if (count) std::memcpy(m_pending.Room(used, count), bytes, count);
    return used + count;
}

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
    if (!lineEnd) return Send(bytes, std::strlen(bytes));
    return com::Guard([&] { return SendPending(PutLineEnd(Put(0, bytes, std::strlen(bytes)))); });
}

size_t CXmlTextWriter::PutText(size_t used, const wchar_t* text, size_t length, Form form) {
    // A piece at a time, so that the room asked for stays close to what the
    // text takes, however long it is.
    constexpr size_t kPiece = 4096;
    while (length > 0) {
        size_t count = std::min(length, kPiece);
        if (count < length && IS_HIGH_SURROGATE(text[count - 1])) ++count;  // pairs stay together
        char* const start = m_pending.Room(used, count * kMaxEscapedBytes);
        char* const end = form == Form::Plain ? EncodeUtf8(start, text, text + count)
                                              : EncodeEscaped(start, text, text + count, form == Form::Attribute);
        used += static_cast<size_t>(end - start);
        text += count;
        length -= count;
    }
    return used;
}

HRESULT CXmlTextWriter::TextElement(const char* name, const char* utf8, const wchar_t* text, size_t length) {
    HRESULT hr = Indent();
    if (FAILED(hr)) return hr;
    return com::Guard([&] {
        const size_t nameLength = std::strlen(name);
        size_t used = Put(Put(Put(0, "<", 1), name, nameLength), ">", 1);
        used = utf8 ? Put(used, utf8, std::strlen(utf8)) : PutText(used, text, length, Form::Text);
        used = Put(Put(Put(used, "</", 2), name, nameLength), ">", 1);
        return SendPending(PutLineEnd(used));
    });
}

void CXmlTextWriter::ClearFormatted() {
    m_formatted = 0;
    m_ends.clear();
}

void CXmlTextWriter::FormatAttribute(const wchar_t* name, size_t nameLength, const wchar_t* value,
                                     size_t valueLength) {
    size_t used = PutText(Put(m_formatted, " ", 1), name, nameLength, Form::Plain);
    used = PutText(Put(used, "=\"", 2), value, valueLength, Form::Attribute);
    m_ends.push_back(Put(used, "\"", 1));
    m_formatted = m_ends.back();
}

HRESULT CXmlTextWriter::SendFormatted() {
    size_t start = 0;
    for (size_t end : m_ends) {
        HRESULT hr = Send(m_pending.Data() + start, end - start);
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
