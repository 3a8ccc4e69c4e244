// Helpers of the OPML test programs: documents made through COM, saved to
// and loaded from memory, outline trees described as text to compare, and
// a generated document for round trips and other parsers.
#pragma once

#include <windows.h>
#include <wrl/client.h>

#include <string>
#include <vector>

#include "com/raii.h"
#include "kytest.h"

namespace ky::test::opml {

using Microsoft::WRL::ComPtr;

// An object or a string that a property getter hands out.
template <class I, class T>
ComPtr<I> Get(T* object, HRESULT (STDMETHODCALLTYPE T::*get)(I**)) {
    ComPtr<I> result;
    EXPECT_HR(S_OK, (object->*get)(&result));
    return result;
}
template <class T, class Getter>
std::wstring Str(const ComPtr<T>& object, Getter get) {
    com::Bstr value;
    EXPECT_HR(S_OK, (object.Get()->*get)(value.Out()));
    return std::wstring(value.Get() ? value.Get() : L"", value.Length());
}

inline ComPtr<IOPMLDocument> NewDocument() {
    ComPtr<IOPMLDocument> document;
    EXPECT_HR(S_OK, ::CoCreateInstance(CLSID_OPMLDocument, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&document)));
    return document;
}
inline ComPtr<IOPMLHeader> HeaderOf(IOPMLDocument* d) { return Get(d, &IOPMLDocument::get_Header); }
inline ComPtr<IOPMLOutlines> BodyOf(IOPMLDocument* d) { return Get(d, &IOPMLDocument::get_Body); }
inline ComPtr<IOPMLOutlines> SubItemsOf(IOPMLOutline* o) { return Get(o, &IOPMLOutline::get_SubItems); }
inline ComPtr<IOPMLAttributes> AttributesOf(IOPMLOutline* o) { return Get(o, &IOPMLOutline::get_Attributes); }

// A VARIANT argument: a position, a name or text, an object.
struct Arg : com::Variant {
    Arg() = default;
    explicit Arg(int position) { V_VT(this) = VT_I4, V_I4(this) = position; }
    explicit Arg(const std::wstring& text) {
        V_VT(this) = VT_BSTR;
        V_BSTR(this) = ::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    }
    explicit Arg(IUnknown* object, VARTYPE type = VT_UNKNOWN) {
        V_VT(this) = type, V_UNKNOWN(this) = object;
        if (object) object->AddRef();
    }
    operator VARIANT*() { return this; }
};

// The bytes Save writes into a memory stream, where it must answer `expected`.
inline std::string Saved(IOPMLDocument* document, HRESULT expected = S_OK) {
    ComPtr<IStream> stream;
    EXPECT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &stream));
    EXPECT_HR(expected, document->Save(Arg(stream.Get())));
    ULARGE_INTEGER size{};
    stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_CUR, &size);
    std::string bytes(static_cast<size_t>(size.QuadPart), '\0');
    stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr);
    if (!bytes.empty()) stream->Read(&bytes[0], static_cast<ULONG>(bytes.size()), nullptr);
    return bytes;
}
// Load from bytes in a memory stream that stands at `position`.
inline HRESULT LoadBytes(IOPMLDocument* document, const std::string& bytes, LONGLONG position = 0) {
    ComPtr<IStream> stream;
    EXPECT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &stream));
    stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr);
    stream->Seek(LARGE_INTEGER{{static_cast<DWORD>(position), 0}}, STREAM_SEEK_SET, nullptr);
    return document->Load(Arg(stream.Get()));
}
inline HRESULT LoadText(IOPMLDocument* document, const std::wstring& text) { return document->Load(Arg(text)); }

inline ComPtr<IOPMLOutline> AddOutline(IOPMLOutlines* outlines, const wchar_t* text = nullptr) {
    ComPtr<IOPMLOutline> outline;
    EXPECT_HR(S_OK, outlines->AddNew(&outline));
    if (outline && text) {
        EXPECT_HR(S_OK, outline->put_Text(com::Bstr(text)));
    }
    return outline;
}
inline void AddAttribute(IOPMLOutline* outline, const std::wstring& name, const std::wstring& value) {
    ComPtr<IOPMLAttribute> attribute;
    ASSERT_HR(S_OK, AttributesOf(outline)->AddNew(&attribute));
    EXPECT_HR(S_OK, attribute->put_Name(com::Bstr(name.c_str())));
    EXPECT_HR(S_OK, attribute->put_Value(com::Bstr(value.c_str())));
}
inline LONG CountOf(IOPMLOutlines* outlines) {
    LONG count = -1;
    EXPECT_HR(S_OK, outlines->get_Count(&count));
    return count;
}

// The attributes of an outline in collection order as name="value" text;
// the outline tree below a collection, one outline per line, indented by
// depth; the expansion state as "1,2,3".
inline std::wstring AttributesText(IOPMLOutline* outline) {
    ComPtr<IOPMLAttributes> attributes = AttributesOf(outline);
    LONG count = 0;
    EXPECT_HR(S_OK, attributes->get_Count(&count));
    std::wstring text;
    for (LONG i = 1; i <= count; ++i) {
        ComPtr<IOPMLAttribute> a;
        EXPECT_HR(S_OK, attributes->get_Item(Arg(i), &a));
        text += (i > 1 ? L" " : L"") + Str(a, &IOPMLAttribute::get_Name) + L"=\"" + Str(a, &IOPMLAttribute::get_Value) + L"\"";
    }
    return text;
}
inline std::wstring TreeText(IOPMLOutlines* outlines, int depth = 0) {
    std::wstring text;
    for (LONG i = 1, count = CountOf(outlines); i <= count; ++i) {
        ComPtr<IOPMLOutline> outline;
        EXPECT_HR(S_OK, outlines->get_Item(Arg(i), &outline));
        text += std::wstring(depth * 2, L' ') + AttributesText(outline.Get()) + L"\n";
        text += TreeText(SubItemsOf(outline.Get()).Get(), depth + 1);
    }
    return text;
}
inline std::wstring ExpansionText(IOPMLDocument* document) {
    ComPtr<IOPMLExpansionState> expansion = Get(HeaderOf(document).Get(), &IOPMLHeader::get_ExpansionState);
    LONG count = 0, value = 0;
    EXPECT_HR(S_OK, expansion->get_Count(&count));
    std::wstring text;
    for (LONG i = 1; i <= count; ++i)
        text += (i > 1 ? L"," : L"") + std::to_wstring(SUCCEEDED(expansion->get_Item(i, &value)) ? value : -999);
    return text;
}

// A generated document: a header with every field, and `outlines` outlines
// spread over `depth` levels, with many attributes, text in several scripts
// (CJK, emoji, right-to-left) and every character that XML escapes.
inline void BuildRichDocument(IOPMLDocument* document, int outlines, int depth) {
    static const wchar_t* const texts[] = {
        L"plain text", L"\u4E2D\u6587 \u65E5\u672C\u8A9E \uD55C\uAD6D\uC5B4", L"emoji \U0001F600\U0001F44D\U0001F3FD",
        L"\u05E2\u05D1\u05E8\u05D9\u05EA \u0627\u0644\u0639\u0631\u0628\u064A\u0629",
        L"& < > \" ' ]]> &amp; <![CDATA[x]]> <!-- c -->", L"tab\tline\nfeed\r\ncarriage return\r", L"",
        L"  leading and trailing  ", L"\u200F\u202Emarks\u202C\u00A0nbsp \u00DF\u20AC",
    };
    ComPtr<IOPMLHeader> header = HeaderOf(document);
    EXPECT_HR(S_OK, header->put_Title(com::Bstr(L"R\u00E9sum\u00E9 & <notes> \"q\" 'a' \u4E2D\U0001F600")));
    EXPECT_HR(S_OK, header->put_OwnerName(com::Bstr(L"\u05D3\u05E0\u05D4 O'Brien")));
    EXPECT_HR(S_OK, header->put_OwnerEmail(com::Bstr(L"dana@example.org")));
    // 2024-07-01 12:34:56 and 2001-02-03 04:05:06, local time.
    EXPECT_HR(S_OK, header->put_DateCreated(45474.0 + (12 * 3600 + 34 * 60 + 56) / 86400.0));
    EXPECT_HR(S_OK, header->put_DateModified(36925.0 + (4 * 3600 + 5 * 60 + 6) / 86400.0));
    ComPtr<IOPMLExpansionState> expansion = Get(header.Get(), &IOPMLHeader::get_ExpansionState);
    for (INT line : {1, 3, 5, -7, 2147483647}) EXPECT_HR(S_OK, expansion->Add(line));
    EXPECT_HR(S_OK, header->put_VertScrollState(0x80000001));
    EXPECT_HR(S_OK, header->put_WindowLeft(-20));
    unsigned random = 20240701u;  // a fixed sequence: every run builds the same document
    auto next = [&](size_t bound) { return ((random = random * 1103515245u + 12345u) >> 8) % bound; };
    // Every outline made so far with its depth; the first `depth` form one chain.
    std::vector<std::pair<ComPtr<IOPMLOutlines>, int>> parents{{BodyOf(document), 0}};
    for (int i = 0; i < outlines; ++i) {
        auto parent = i < depth ? parents.back() : parents[next(parents.size())];
        ComPtr<IOPMLOutline> outline = AddOutline(parent.first.Get(), texts[i % std::size(texts)]);
        AddAttribute(outline.Get(), L"type", i % 2 ? L"link" : L"note");
        for (unsigned a = 0, extra = next(12); a < extra; ++a)
            AddAttribute(outline.Get(), L"a" + std::to_wstring(a) + L"_" + std::to_wstring(i), texts[next(std::size(texts))]);
        if (parent.second + 1 < depth) parents.emplace_back(SubItemsOf(outline.Get()), parent.second + 1);
    }
}

}  // namespace ky::test::opml
