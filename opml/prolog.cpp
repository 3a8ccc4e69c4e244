#include "opml/prolog.h"

#include <algorithm>
#include <string>
#include <vector>

#include "com/object.h"

namespace OPML {

namespace {

enum class Verdict { NeedMore, DocumentType, None };

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

// Scans the start of XML text: an XML declaration, processing instructions,
// comments and white space may precede a document type declaration. Anything
// else (an element, or text that is not XML) ends the prolog. `complete`
// says whether more text may follow.
Verdict ScanProlog(const std::wstring& text, bool complete) {
    size_t p = (!text.empty() && text[0] == 0xFEFF) ? 1 : 0;
    const Verdict short_ = complete ? Verdict::None : Verdict::NeedMore;
    // 1 when `literal` stands at p, 0 when not, -1 when the text ends first.
    auto startsWith = [&](const char* literal) {
        for (size_t i = 0; literal[i]; ++i) {
            if (p + i >= text.size()) return complete ? 0 : -1;
            if (text[p + i] != static_cast<wchar_t>(literal[i])) return 0;
        }
        return 1;
    };
    auto skipPast = [&](const wchar_t* terminator) {
        size_t end = text.find(terminator, p);
        if (end == std::wstring::npos) return false;
        p = end + wcslen(terminator);
        return true;
    };
    for (;;) {
        while (p < text.size() && IsBlank(text[p])) ++p;
        if (p == text.size()) return short_;
        int match = startsWith("<?");
        if (match == 1) {
            p += 2;
            if (!skipPast(L"?>")) return short_;
            continue;
        }
        if (match < 0) return Verdict::NeedMore;
        match = startsWith("<!--");
        if (match == 1) {
            p += 4;
            if (!skipPast(L"-->")) return short_;
            continue;
        }
        if (match < 0) return Verdict::NeedMore;
        match = startsWith("<!DOCTYPE");
        if (match < 0) return Verdict::NeedMore;
        return match == 1 ? Verdict::DocumentType : Verdict::None;
    }
}

// The code units of byte input: UTF-16 in either byte order (by its byte
// order mark or by a leading "<"), else one unit per byte, which serves
// every encoding that writes markup characters as single ASCII bytes.
std::wstring Decode(const BYTE* bytes, size_t count) {
    std::wstring units;
    bool utf16 = count >= 2 && ((bytes[0] == 0xFF && bytes[1] == 0xFE) || (bytes[0] == 0xFE && bytes[1] == 0xFF) ||
                                (bytes[0] == '<' && bytes[1] == 0) || (bytes[0] == 0 && bytes[1] == '<'));
    if (!utf16) {
        units.assign(bytes, bytes + count);
        if (units.compare(0, 3, L"\xEF\xBB\xBF") == 0) units.erase(0, 3);
        return units;
    }
    bool bigEndian = bytes[0] == 0xFE || bytes[0] == 0;
    units.reserve(count / 2);
    for (size_t i = 0; i + 1 < count; i += 2) {
        units += static_cast<wchar_t>(bigEndian ? (bytes[i] << 8 | bytes[i + 1]) : (bytes[i + 1] << 8 | bytes[i]));
    }
    return units;
}

// Reads the start of a stream and puts the stream back where it was. A
// stream that cannot be put back counts as carrying a declaration, since
// the parse would no longer see it whole; one that cannot tell its position
// is left to the parse unread.
bool StreamCarriesDocumentType(IStream* stream) {
    ULARGE_INTEGER start{};
    LARGE_INTEGER offset{};
    if (FAILED(stream->Seek(offset, STREAM_SEEK_CUR, &start))) return false;
    std::vector<BYTE> bytes;
    Verdict verdict = Verdict::NeedMore;
    bool end = false;
    for (ULONG chunk = 4096; verdict == Verdict::NeedMore && !end; chunk = std::min<ULONG>(chunk * 2, 1 << 20)) {
        size_t used = bytes.size();
        bytes.resize(used + chunk);
        ULONG read = 0;
        HRESULT hr = stream->Read(bytes.data() + used, chunk, &read);
        bytes.resize(used + (SUCCEEDED(hr) ? read : 0));
        end = FAILED(hr) || read == 0;
        verdict = ScanProlog(Decode(bytes.data(), bytes.size()), end);
    }
    offset.QuadPart = static_cast<LONGLONG>(start.QuadPart);
    if (FAILED(stream->Seek(offset, STREAM_SEEK_SET, nullptr))) return true;
    return verdict == Verdict::DocumentType;
}

bool ArrayCarriesDocumentType(SAFEARRAY* array) {
    if (!array || ::SafeArrayGetDim(array) != 1 || ::SafeArrayGetElemsize(array) != 1) return false;
    LONG lower = 0, upper = -1;
    ::SafeArrayGetLBound(array, 1, &lower);
    ::SafeArrayGetUBound(array, 1, &upper);
    void* data = nullptr;
    if (upper < lower || FAILED(::SafeArrayAccessData(array, &data))) return false;
    bool found = ScanProlog(Decode(static_cast<const BYTE*>(data), static_cast<size_t>(upper - lower) + 1), true) ==
                 Verdict::DocumentType;
    ::SafeArrayUnaccessData(array);
    return found;
}

bool TextCarriesDocumentType(BSTR text) {
    return ScanProlog(std::wstring(text, ::SysStringLen(text)), true) == Verdict::DocumentType;
}

bool ObjectCarriesDocumentType(IUnknown* object) {
    com::ComPtr<IStream> stream;
    if (!object || FAILED(object->QueryInterface(IID_PPV_ARGS(&stream)))) return false;
    return StreamCarriesDocumentType(stream.Get());
}

}  // namespace

bool CarriesDocumentType(const VARIANT& input) {
    switch (V_VT(&input)) {
        case VT_BSTR: return TextCarriesDocumentType(V_BSTR(&input));
        case VT_BSTR | VT_BYREF: return V_BSTRREF(&input) && TextCarriesDocumentType(*V_BSTRREF(&input));
        case VT_ARRAY | VT_UI1: return ArrayCarriesDocumentType(V_ARRAY(&input));
        case VT_ARRAY | VT_UI1 | VT_BYREF: return V_ARRAYREF(&input) && ArrayCarriesDocumentType(*V_ARRAYREF(&input));
        case VT_UNKNOWN:
        case VT_DISPATCH: return ObjectCarriesDocumentType(V_UNKNOWN(&input));
        case VT_UNKNOWN | VT_BYREF:
        case VT_DISPATCH | VT_BYREF:
            return V_UNKNOWNREF(&input) && ObjectCarriesDocumentType(*V_UNKNOWNREF(&input));
        case VT_VARIANT | VT_BYREF: return V_VARIANTREF(&input) && CarriesDocumentType(*V_VARIANTREF(&input));
        default: return false;
    }
}

}  // namespace OPML
