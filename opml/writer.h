// The OPML writer: an XML text writer that sends UTF-8 straight into a
// caller's stream, and the routine that writes a document through the
// model.
#pragma once

#include <windows.h>
#include <objidl.h>

#include <string>
#include <vector>

#include "com/object.h"
#include "kyutils.h"
#include "opml/model.h"

namespace OPML {

class CXmlTextWriter {
public:
    // `lineEnd` empty: no line ends at all; `indent` false: no indentation.
    CXmlTextWriter(IStream* target, const char* lineEnd, bool indent);

    void SetDepth(unsigned depth) { m_depth = depth; }
    unsigned Depth() const { return m_depth; }

    // <?xml version="1.0" encoding="utf-8"?> and a line end.
    HRESULT Declaration();
    // Depth TABs, at most 32 per write.
    HRESULT Indent();
    // Indent, `tag` as it stands, line end.
    HRESULT Line(const char* tag);
    // Indent, <name>, the text escaped as element text, </name>, line end.
    HRESULT TextElement(const char* name, const wchar_t* text, UINT length) {
        return TextElement(name, nullptr, text, length);
    }
    // The same with UTF-8 that needs no escaping (numbers, dates).
    HRESULT TextElement(const char* name, const std::string& utf8) {
        return TextElement(name, utf8.c_str(), nullptr, 0);
    }
    // Attributes are formatted first, each as a blank, the name as it
    // stands, =", the value escaped as attribute text and ", and sent
    // afterwards, one write each: formatting can happen under a lock that
    // sending must not hold. FormatAttribute throws on failure.
    void ClearFormatted();
    void FormatAttribute(const wchar_t* name, size_t nameLength, const wchar_t* value, size_t valueLength);
    HRESULT SendFormatted();
    // `bytes` as they stand, optionally followed by the line end.
    HRESULT Raw(const char* bytes, bool lineEnd = false);

private:
    // Bytes put together before they are sent: `Room` makes space for
    // `count` more after the first `used` and returns where they go (it
    // throws when there is no memory for them).
    class Pending {
    public:
        char* Room(size_t used, size_t count) {
            // Grown, never shrunk: most writes fit in what earlier ones needed.
            return used <= m_bytes.size() && count <= m_bytes.size() - used ? m_bytes.data() + used
                                                                              : Grow(used, count);
        }
        const char* Data() const { return m_bytes.data(); }

    private:
        char* Grow(size_t used, size_t count);

        std::vector<char> m_bytes;
    };

    // How text goes into the pending bytes: UTF-8 as it stands, or escaped
    // as element or as attribute text.
    enum class Form { Plain, Text, Attribute };

    HRESULT TextElement(const char* name, const char* utf8, const wchar_t* text, size_t length);
    HRESULT Send(const char* bytes, size_t count);
    // Sends the first `used` pending bytes, in one write.
    HRESULT SendPending(size_t used) { return Send(m_pending.Data(), used); }
    // Bytes, the line end, or text in a form, into the pending bytes after
    // the first `used`; each gives the new count.
    size_t Put(size_t used, const char* bytes, size_t count);
    size_t PutLineEnd(size_t used) { return Put(used, m_lineEnd.data(), m_lineEnd.size()); }
    size_t PutText(size_t used, const wchar_t* text, size_t length, Form form);

    com::ComPtr<IStream> m_target;
    std::string m_lineEnd;
    bool m_indent;
    unsigned m_depth = 0;
    // Reused from one operation to the next; every operation still writes
    // all of its bytes before it returns.
    Pending m_pending;
    size_t m_formatted = 0;
    std::vector<size_t> m_ends;
};

// Writes the document of that header and body as OPML 1.0. E_FAIL when a
// write fails or falls short (the bytes already written stay in the stream).
HRESULT SaveDocument(IOPMLHeader* header, COutlines* body, IStream* target);

}  // namespace OPML
