#include "opmltest.h"

#include <vector>

namespace ky::test::opml {

ComPtr<IOPMLDocument> NewDocument() {
    ComPtr<IOPMLDocument> document;
    EXPECT_HR(S_OK, ::CoCreateInstance(CLSID_OPMLDocument, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&document)));
    return document;
}

std::string Saved(IOPMLDocument* document, HRESULT expected) {
    ComPtr<IStream> stream;
    EXPECT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &stream));
    EXPECT_HR(expected, document->Save(Arg(stream.Get())));
    STATSTG stat{};
    stream->Stat(&stat, STATFLAG_NONAME);
    std::string bytes(static_cast<size_t>(stat.cbSize.QuadPart), '\0');
    LARGE_INTEGER start{};
    stream->Seek(start, STREAM_SEEK_SET, nullptr);
    if (!bytes.empty()) stream->Read(&bytes[0], static_cast<ULONG>(bytes.size()), nullptr);
    return bytes;
}

HRESULT LoadBytes(IOPMLDocument* document, const std::string& bytes, LONGLONG position) {
    ComPtr<IStream> stream;
    EXPECT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &stream));
    stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr);
    LARGE_INTEGER start{};
    start.QuadPart = position;
    stream->Seek(start, STREAM_SEEK_SET, nullptr);
    return document->Load(Arg(stream.Get()));
}

ComPtr<IOPMLOutline> AddOutline(IOPMLOutlines* outlines, const wchar_t* text) {
    ComPtr<IOPMLOutline> outline;
    EXPECT_HR(S_OK, outlines->AddNew(&outline));
    if (outline && text) {
        EXPECT_HR(S_OK, outline->put_Text(com::Bstr(text)));
    }
    return outline;
}

ComPtr<IOPMLOutline> OutlineAt(IOPMLOutlines* outlines, LONG position) {
    ComPtr<IOPMLOutline> outline;
    EXPECT_HR(S_OK, outlines->get_Item(Arg(position), &outline));
    return outline;
}

LONG CountOf(IOPMLOutlines* outlines) {
    LONG count = -1;
    EXPECT_HR(S_OK, outlines->get_Count(&count));
    return count;
}

void AddAttribute(IOPMLOutline* outline, const std::wstring& name, const std::wstring& value) {
    ComPtr<IOPMLAttribute> attribute;
    ASSERT_HR(S_OK, AttributesOf(outline)->AddNew(&attribute));
    EXPECT_HR(S_OK, attribute->put_Name(com::Bstr(name.data(), static_cast<UINT>(name.size()))));
    EXPECT_HR(S_OK, attribute->put_Value(com::Bstr(value.data(), static_cast<UINT>(value.size()))));
}

std::wstring AttributesText(IOPMLOutline* outline) {
    ComPtr<IOPMLAttributes> attributes = AttributesOf(outline);
    LONG count = 0;
    EXPECT_HR(S_OK, attributes->get_Count(&count));
    std::wstring text;
    for (LONG i = 1; i <= count; ++i) {
        ComPtr<IOPMLAttribute> attribute;
        EXPECT_HR(S_OK, attributes->get_Item(Arg(i), &attribute));
        if (!attribute) break;
        text += (i > 1 ? L" " : L"") + Str(attribute, &IOPMLAttribute::get_Name) + L"=\"" +
                Str(attribute, &IOPMLAttribute::get_Value) + L"\"";
    }
    return text;
}

std::wstring TreeText(IOPMLOutlines* outlines, int depth) {
    std::wstring text;
    for (LONG i = 1, count = CountOf(outlines); i <= count; ++i) {
        ComPtr<IOPMLOutline> outline = OutlineAt(outlines, i);
        if (!outline) break;
        text += std::wstring(static_cast<size_t>(depth) * 2, L' ') + AttributesText(outline.Get()) + L"\n";
        text += TreeText(SubItemsOf(outline.Get()).Get(), depth + 1);
    }
    return text;
}

std::wstring ExpansionText(IOPMLDocument* document) {
    ComPtr<IOPMLExpansionState> expansion = Get(HeaderOf(document).Get(), &IOPMLHeader::get_ExpansionState);
    LONG count = 0;
    EXPECT_HR(S_OK, expansion->get_Count(&count));
    std::wstring text;
    for (LONG i = 1; i <= count; ++i) {
        LONG value = 0;
        EXPECT_HR(S_OK, expansion->get_Item(i, &value));
        text += (i > 1 ? L"," : L"") + std::to_wstring(value);
    }
    return text;
}

void BuildRichDocument(IOPMLDocument* document, int outlines, int depth) {
    static const wchar_t* const texts[] = {
        L"plain text",
        L"\u4E2D\u6587 \u65E5\u672C\u8A9E \uD55C\uAD6D\uC5B4",
        L"emoji \U0001F600\U0001F389\U0001F44D\U0001F3FD",
        L"\u05E2\u05D1\u05E8\u05D9\u05EA \u0627\u0644\u0639\u0631\u0628\u064A\u0629",
        L"& < > \" ' ]]> &amp; <![CDATA[x]]> <!-- c -->",
        L"tab\tline\nfeed\r\ncarriage return\r",
        L"",
        L"  leading and trailing  ",
        L"\u200F\u202Emarks\u202C\u00A0nbsp \u00DF\u20AC",
    };
    const unsigned textCount = sizeof texts / sizeof texts[0];
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
    EXPECT_HR(S_OK, header->put_WindowTop(10));
    EXPECT_HR(S_OK, header->put_WindowLeft(-20));
    EXPECT_HR(S_OK, header->put_WindowBottom(300));
    EXPECT_HR(S_OK, header->put_WindowRight(400));

    unsigned random = 20240701u;  // a fixed sequence: every run builds the same document
    auto next = [&](size_t bound) {
        random = random * 1103515245u + 12345u;
        return (random >> 8) % bound;
    };
    // Every outline made so far with its depth; the first `depth` form one chain.
    std::vector<std::pair<ComPtr<IOPMLOutlines>, int>> parents{{BodyOf(document), 0}};
    for (int i = 0; i < outlines; ++i) {
        auto parent = i < depth ? parents.back() : parents[next(parents.size())];
        ComPtr<IOPMLOutline> outline = AddOutline(parent.first.Get(), texts[i % textCount]);
        AddAttribute(outline.Get(), L"type", i % 2 ? L"link" : L"note");
        for (unsigned a = 0, extra = next(12); a < extra; ++a) {
            AddAttribute(outline.Get(), L"a" + std::to_wstring(a) + L"_" + std::to_wstring(i), texts[next(textCount)]);
        }
        if (parent.second + 1 < depth) parents.emplace_back(SubItemsOf(outline.Get()), parent.second + 1);
    }
}

}  // namespace ky::test::opml
