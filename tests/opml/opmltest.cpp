#include "opmltest.h"

#include <vector>

namespace ky::test::opml {

namespace {

// An object that a property getter hands out.
template <class I, class Owner>
ComPtr<I> Got(Owner* owner, HRESULT (STDMETHODCALLTYPE Owner::*get)(I**)) {
    ComPtr<I> object;
    EXPECT_HR(S_OK, (owner->*get)(&object));
    return object;
}

}  // namespace

ComPtr<IOPMLDocument> NewDocument() {
    ComPtr<IOPMLDocument> document;
    EXPECT_HR(S_OK, ::CoCreateInstance(CLSID_OPMLDocument, nullptr, CLSCTX_INPROC_SERVER, IID_IOPMLDocument,
                                       &document));
    return document;
}

ComPtr<IOPMLHeader> HeaderOf(IOPMLDocument* document) { return Got<IOPMLHeader>(document, &IOPMLDocument::get_Header); }

ComPtr<IOPMLOutlines> BodyOf(IOPMLDocument* document) { return Got<IOPMLOutlines>(document, &IOPMLDocument::get_Body); }

HRESULT SaveTo(IOPMLDocument* document, std::string* bytes) {
    ComPtr<IStream> stream;
    HRESULT hr = ::CreateStreamOnHGlobal(nullptr, TRUE, &stream);
    if (FAILED(hr)) return hr;
    VARIANT target;
    V_VT(&target) = VT_UNKNOWN;
    V_UNKNOWN(&target) = stream.Get();
    hr = document->Save(&target);
    STATSTG stat{};
    stream->Stat(&stat, STATFLAG_NONAME);
    bytes->assign(static_cast<size_t>(stat.cbSize.QuadPart), '\0');
    LARGE_INTEGER start{};
    stream->Seek(start, STREAM_SEEK_SET, nullptr);
    ULONG read = 0;
    if (!bytes->empty()) stream->Read(&(*bytes)[0], static_cast<ULONG>(bytes->size()), &read);
    return hr;
}

std::string Saved(IOPMLDocument* document) {
    std::string bytes;
    EXPECT_HR(S_OK, SaveTo(document, &bytes));
    return bytes;
}

HRESULT LoadText(IOPMLDocument* document, const std::wstring& text) {
    VARIANT input;
    V_VT(&input) = VT_BSTR;
    V_BSTR(&input) = ::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    HRESULT hr = document->Load(&input);
    ::VariantClear(&input);
    return hr;
}

HRESULT LoadBytes(IOPMLDocument* document, const std::string& bytes) {
    ComPtr<IStream> stream;
    HRESULT hr = ::CreateStreamOnHGlobal(nullptr, TRUE, &stream);
    if (FAILED(hr)) return hr;
    ULONG written = 0;
    stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written);
    LARGE_INTEGER start{};
    stream->Seek(start, STREAM_SEEK_SET, nullptr);
    VARIANT input;
    V_VT(&input) = VT_UNKNOWN;
    V_UNKNOWN(&input) = stream.Get();
    return document->Load(&input);
}

HRESULT LoadArray(IOPMLDocument* document, const std::string& bytes) {
    VARIANT input;
    V_VT(&input) = VT_ARRAY | VT_UI1;
    V_ARRAY(&input) = ::SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size()));
    void* data = nullptr;
    HRESULT hr = ::SafeArrayAccessData(V_ARRAY(&input), &data);
    if (SUCCEEDED(hr)) {
        memcpy(data, bytes.data(), bytes.size());
        ::SafeArrayUnaccessData(V_ARRAY(&input));
        hr = document->Load(&input);
    }
    ::VariantClear(&input);
    return hr;
}

std::string Utf16Bytes(const std::wstring& text) {
    std::wstring marked = L"\uFEFF" + text;
    return std::string(reinterpret_cast<const char*>(marked.data()), marked.size() * sizeof(wchar_t));
}

VARIANT Position(LONG position) {
    VARIANT key;
    V_VT(&key) = VT_I4;
    V_I4(&key) = position;
    return key;
}

VARIANT Name(const wchar_t* name) {
    VARIANT key;
    V_VT(&key) = VT_BSTR;
    V_BSTR(&key) = ::SysAllocString(name);
    return key;
}

ComPtr<IOPMLOutline> AddOutline(IOPMLOutlines* outlines, const wchar_t* text) {
    ComPtr<IOPMLOutline> outline;
    EXPECT_HR(S_OK, outlines->AddNew(&outline));
    if (outline && text) {
        BSTR value = ::SysAllocString(text);
        EXPECT_HR(S_OK, outline->put_Text(value));
        ::SysFreeString(value);
    }
    return outline;
}

ComPtr<IOPMLOutline> OutlineAt(IOPMLOutlines* outlines, LONG position) {
    VARIANT key = Position(position);
    ComPtr<IOPMLOutline> outline;
    EXPECT_HR(S_OK, outlines->get_Item(&key, &outline));
    return outline;
}

LONG CountOf(IOPMLOutlines* outlines) {
    LONG count = -1;
    EXPECT_HR(S_OK, outlines->get_Count(&count));
    return count;
}

ComPtr<IOPMLOutlines> SubItemsOf(IOPMLOutline* outline) {
    return Got<IOPMLOutlines>(outline, &IOPMLOutline::get_SubItems);
}

ComPtr<IOPMLAttributes> AttributesOf(IOPMLOutline* outline) {
    return Got<IOPMLAttributes>(outline, &IOPMLOutline::get_Attributes);
}

void AddAttribute(IOPMLOutline* outline, const std::wstring& name, const std::wstring& value) {
    ComPtr<IOPMLAttribute> attribute;
    ASSERT_HR(S_OK, AttributesOf(outline)->AddNew(&attribute));
    BSTR text = ::SysAllocStringLen(name.data(), static_cast<UINT>(name.size()));
    EXPECT_HR(S_OK, attribute->put_Name(text));
    ::SysFreeString(text);
    text = ::SysAllocStringLen(value.data(), static_cast<UINT>(value.size()));
    EXPECT_HR(S_OK, attribute->put_Value(text));
    ::SysFreeString(text);
}

std::wstring AttributesText(IOPMLOutline* outline) {
    ComPtr<IOPMLAttributes> attributes = AttributesOf(outline);
    LONG count = 0;
    EXPECT_HR(S_OK, attributes->get_Count(&count));
    std::wstring text;
    for (LONG i = 1; i <= count; ++i) {
        VARIANT key = Position(i);
        ComPtr<IOPMLAttribute> attribute;
        EXPECT_HR(S_OK, attributes->get_Item(&key, &attribute));
        if (!attribute) break;
        if (i > 1) text += L' ';
        text += Text([&](BSTR* p) { return attribute->get_Name(p); });
        text += L"=\"" + Text([&](BSTR* p) { return attribute->get_Value(p); }) + L"\"";
    }
    return text;
}

std::wstring TreeText(IOPMLOutlines* outlines, int depth) {
    std::wstring text;
    LONG count = CountOf(outlines);
    for (LONG i = 1; i <= count; ++i) {
        ComPtr<IOPMLOutline> outline = OutlineAt(outlines, i);
        if (!outline) break;
        text += std::wstring(static_cast<size_t>(depth) * 2, L' ') + AttributesText(outline.Get()) + L"\n";
        text += TreeText(SubItemsOf(outline.Get()).Get(), depth + 1);
    }
    return text;
}

namespace {

// Texts that exercise the writer's conversion and escaping.
const wchar_t* const kTexts[] = {
    L"plain text",
    L"\u4E2D\u6587 \u65E5\u672C\u8A9E \uD55C\uAD6D\uC5B4",                      // CJK
    L"emoji \U0001F600\U0001F389\U0001F44D\U0001F3FD",                         // beyond the BMP
    L"\u05E2\u05D1\u05E8\u05D9\u05EA \u0627\u0644\u0639\u0631\u0628\u064A\u0629",  // right to left
    L"& < > \" ' ]]> &amp; <![CDATA[x]]> <!-- c -->",
    L"tab\tline\nfeed\r\ncarriage return\r",
    L"",
    L"  leading and trailing  ",
    L"\u00DCn\u00EFc\u00F8d\u00E9 \u00DF\u00E6 \u00A9\u00AE \u20AC",
    L"\u200F\u202Emarks\u202C\u00A0nbsp",
};
constexpr unsigned kTextCount = sizeof kTexts / sizeof kTexts[0];

// A small deterministic generator, so that every run builds the same document.
class Generator {
public:
    unsigned Next(unsigned bound) {
        m_state = m_state * 1103515245u + 12345u;
        return (m_state >> 8) % bound;
    }

private:
    unsigned m_state = 20240701u;
};

void PutText(IOPMLHeader* header, HRESULT (STDMETHODCALLTYPE IOPMLHeader::*put)(BSTR), const wchar_t* text) {
    BSTR value = ::SysAllocString(text);
    EXPECT_HR(S_OK, (header->*put)(value));
    ::SysFreeString(value);
}

}  // namespace

void BuildRichDocument(IOPMLDocument* document, int outlines, int depth) {
    ComPtr<IOPMLHeader> header = HeaderOf(document);
    PutText(header.Get(), &IOPMLHeader::put_Title, L"R\u00E9sum\u00E9 & <notes> \"quoted\" 'single' \u4E2D\U0001F600");
    PutText(header.Get(), &IOPMLHeader::put_OwnerName, L"\u05D3\u05E0\u05D4 O'Brien");
    PutText(header.Get(), &IOPMLHeader::put_OwnerEmail, L"dana@example.org");
    // 2024-07-01 12:34:56 and 2001-02-03 04:05:06, local time.
    EXPECT_HR(S_OK, header->put_DateCreated(45474.0 + (12 * 3600 + 34 * 60 + 56) / 86400.0));
    EXPECT_HR(S_OK, header->put_DateModified(36925.0 + (4 * 3600 + 5 * 60 + 6) / 86400.0));
    ComPtr<IOPMLExpansionState> expansion;
    EXPECT_HR(S_OK, header->get_ExpansionState(&expansion));
    for (INT line : {1, 3, 5, -7, 2147483647}) EXPECT_HR(S_OK, expansion->Add(line));
    EXPECT_HR(S_OK, header->put_VertScrollState(0x80000001));
    EXPECT_HR(S_OK, header->put_WindowTop(10));
    EXPECT_HR(S_OK, header->put_WindowLeft(-20));
    EXPECT_HR(S_OK, header->put_WindowBottom(300));
    EXPECT_HR(S_OK, header->put_WindowRight(400));

    Generator random;
    // Every outline made so far with its depth, so that later ones can nest.
    std::vector<std::pair<ComPtr<IOPMLOutlines>, int>> parents{{BodyOf(document), 0}};
    for (int i = 0; i < outlines; ++i) {
        // The first `depth` outlines form one chain, the rest go anywhere.
        auto parent = i < depth ? parents.back() : parents[random.Next(static_cast<unsigned>(parents.size()))];
        ComPtr<IOPMLOutline> outline = AddOutline(parent.first.Get(), kTexts[i % kTextCount]);
        AddAttribute(outline.Get(), L"type", i % 2 ? L"link" : L"note");
        unsigned extra = random.Next(12);
        for (unsigned a = 0; a < extra; ++a) {
            AddAttribute(outline.Get(), L"a" + std::to_wstring(a) + L"_" + std::to_wstring(i),
                         kTexts[random.Next(kTextCount)]);
        }
        if (parent.second + 1 < depth) parents.emplace_back(SubItemsOf(outline.Get()), parent.second + 1);
    }
}

}  // namespace ky::test::opml
