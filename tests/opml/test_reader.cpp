// The reader through IOPMLDocument::Load: where each structural violation
// stops it, what loading adds to a document, and what entities, endless and
// null input do in every input form. Runs with TZ=UTC so that header dates
// read as written.
#include <fstream>

#include "writeonlystream.h"

#include "opmltest.h"

namespace ky::test::opml {
namespace {

std::wstring Document(const std::wstring& head, const std::wstring& body = L"") {
    return L"<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<opml version=\"1.0\">\r\n\t<head>" + head +
           L"</head>\r\n\t<body>" + body + L"</body>\r\n</opml>\r\n";
}

// Title, owner name, expansion state and outline count, as "t|o|1,2|3".
std::wstring Summary(IOPMLDocument* document) {
    ComPtr<IOPMLHeader> header = HeaderOf(document);
    return Str(header, &IOPMLHeader::get_Title) + L"|" + Str(header, &IOPMLHeader::get_OwnerName) + L"|" +
           ExpansionText(document) + L"|" + std::to_wstring(CountOf(BodyOf(document).Get()));
}

// Each document breaks the structure at one place; what comes before that
// place is kept, nothing after it, and Load still succeeds.
TEST(Reader, AStructuralViolationStopsTheReadAndKeepsWhatCameBefore) {
    const struct {
        const char* what;
        std::wstring text;
        const wchar_t* kept;
    } cases[] = {
        {"version 2.0", L"<opml version=\"2.0\"><head><title>t</title></head><body><outline/></body></opml>", L"|||0"},
        {"no version", L"<opml><head><title>t</title></head><body/></opml>", L"|||0"},
        {"version with blanks", L"<opml version=\" 1.0\"><head><title>t</title></head><body/></opml>", L"|||0"},
        {"another root", L"<outline version=\"1.0\"><head><title>t</title></head></outline>", L"|||0"},
        {"body before head", L"<opml version=\"1.0\"><body><outline/></body><head/></opml>", L"|||0"},
        {"title after ownerName", Document(L"<ownerName>o</ownerName><title>t</title>", L"<outline/>"), L"|o||0"},
        {"title twice", Document(L"<title>t</title><title>u</title><ownerName>o</ownerName>"), L"t|||0"},
        {"expansionState twice",
         Document(L"<expansionState>1,2</expansionState><expansionState>3</expansionState>", L"<outline/>"),
         L"||1,2|0"},
        {"empty expansionState", Document(L"<expansionState></expansionState><ownerName>o</ownerName>"), L"|||0"},
        {"unknown header element", Document(L"<title>t</title><docs>d</docs><ownerName>o</ownerName>"), L"t|||0"},
        {"element inside a header element", Document(L"<title>t<b>x</b></title>"), L"|||0"},
        {"header element in the body", Document(L"<title>t</title>", L"<outline/><title>u</title><outline/>"),
         L"t|||1"},
        {"unknown element in the body", Document(L"", L"<outline><outline/><p/></outline><outline/>"), L"|||1"},
        {"second body", L"<opml version=\"1.0\"><head/><body><outline/></body><body><outline/></body></opml>", L"|||1"},
        {"not well-formed", Document(L"<title>t</title>", L"<outline/><outline></body>"), L"t|||2"},
    };
    for (const auto& c : cases) {
        ComPtr<IOPMLDocument> document = NewDocument();
        EXPECT_HR(S_OK, LoadText(document.Get(), c.text)) << c.what;
        EXPECT_EQ(c.kept, Summary(document.Get())) << c.what;
    }
}

// Loading appends outlines and expansion-state values and overwrites the
// header fields that the text holds. Attributes keep their document order.
TEST(Reader, LoadingTwiceDoublesOutlinesAndExpansionStateAndKeepsAttributeOrder) {
    ComPtr<IOPMLDocument> document = NewDocument();
    const std::wstring text = Document(L"<title> A &amp; B </title><expansionState>1,2</expansionState>",
                                       L"<outline z=\"1\" type=\"t\" a=\"2\" text=\"x\" m=\"\"><outline/></outline>");
    EXPECT_HR(S_OK, LoadText(document.Get(), text));
    EXPECT_HR(S_OK, LoadText(document.Get(), text));
    EXPECT_EQ(L" A & B ||1,2,1,2|2", Summary(document.Get()));  // the title as it stands, blanks included
    ComPtr<IOPMLOutline> outline = OutlineAt(BodyOf(document.Get()).Get(), 2);
    EXPECT_EQ(L"x", Str(outline, &IOPMLOutline::get_Text));
    EXPECT_EQ(L"t", Str(outline, &IOPMLOutline::get_type));
    // The properties read the attributes where they stand; nothing is added.
    const std::wstring attributes = L"z=\"1\" type=\"t\" a=\"2\" text=\"x\" m=\"\"";
    EXPECT_EQ(attributes + L"\n  \n" + attributes + L"\n  \n", TreeText(BodyOf(document.Get()).Get()));
    EXPECT_HR(S_OK, LoadText(document.Get(), Document(L"<ownerName>o</ownerName>")));
    EXPECT_EQ(L" A & B |o|1,2,1,2|2", Summary(document.Get()));
    int major = 0, minor = -1;
    EXPECT_HR(S_OK, document->get_VersionMajor(&major));
    EXPECT_HR(S_OK, document->get_VersionMinor(&minor));
    EXPECT_EQ(std::make_pair(1, 0), std::make_pair(major, minor));
}

// Empty pieces add nothing, text that is no number counts as 0, reading stops
// at the first character that is no digit, and values wrap to 32 bits.
TEST(Reader, NumbersAndListsAreReadLeniently) {
    ComPtr<IOPMLDocument> document = NewDocument();
    EXPECT_HR(S_OK, LoadText(document.Get(), Document(L"<expansionState> 1,,x, 2 ,7z,</expansionState>"
                                                      L"<vertScrollState>4294967294</vertScrollState>"
                                                      L"<windowTop> 12px</windowTop><windowLeft>abc</windowLeft>"
                                                      L"<windowBottom>+3</windowBottom>")));
    EXPECT_EQ(L"1,0,2,7", ExpansionText(document.Get()));
    const std::string saved = Saved(document.Get());
    EXPECT_NE(std::string::npos, saved.find("<vertScrollState>-2</vertScrollState>\r\n\t\t<windowTop>12</windowTop>"
                                            "\r\n\t\t<windowLeft>0</windowLeft>\r\n\t\t<windowBottom>3</windowBottom>"))
        << saved;
}

// Dates in the usual RFC 822 forms are read; text that is no date stops the
// read, and nothing after it is stored.
TEST(Reader, DatesInTheUsualRfc822FormsAreRead) {
    auto check = [](const wchar_t* text, double expected) {  // in universal time (TZ=UTC); 0: refused
        ComPtr<IOPMLDocument> document = NewDocument();
        EXPECT_HR(S_OK, LoadText(document.Get(), Document(std::wstring(L"<title>t</title><dateCreated>") + text +
                                                          L"</dateCreated><ownerName>o</ownerName>")));
        DATE created = -1;
        EXPECT_HR(S_OK, HeaderOf(document.Get())->get_DateCreated(&created));
        EXPECT_NEAR(expected, created, 1e-9) << Narrow(text);
        EXPECT_EQ(expected ? L"t|o||0" : L"t|||0", Summary(document.Get())) << Narrow(text);
    };
    const double kJuly1At16 = 45474.0 + 16 / 24.0;
    check(L"Mon, 01 Jul 2024 16:00:05 GMT", kJuly1At16 + 5 / 86400.0);
    check(L"  mon,1 jul 2024 16:00:05 gmt ", kJuly1At16 + 5 / 86400.0);
    check(L"01 Jul 99 16:00:00 UTC", 36342.0 + 16 / 24.0);
    for (const wchar_t* text :
         {L"01 Jul 2024 16:00 UT", L"Mon, 01 Jul 24 16:00:00 Z", L"Mon, 01 Jul 2024 18:30:00 +0230",
          L"Mon, 01 Jul 2024 12:00:00 EDT", L"Sun, 30 Jun 2024 23:00:00 -1700"}) {
        check(text, kJuly1At16);
    }
    for (const wchar_t* text : {L"", L"yesterday", L"Mon, 01 Jul 2024", L"Mon 01 Jul 2024 16:00:00 GMT",
                                L"30 Feb 2024 16:00:00 GMT", L"01 Jul 2024 24:00:00 GMT", L"01 Jul 2024 16:00:00",
                                L"01 Jul 2024 16:00:00 GMT x", L"01 Jul 2024 16:00:00 +2400"}) {
        check(text, 0);
    }
}

// XML bytes in a SAFEARRAY with `dimensions` dimensions.
HRESULT LoadArray(IOPMLDocument* document, const std::string& bytes, UINT dimensions = 1) {
    SAFEARRAYBOUND bounds[2] = {{static_cast<ULONG>(bytes.size()), 0}, {1, 0}};
    com::Variant input;
    V_VT(&input) = VT_ARRAY | VT_UI1;
    V_ARRAY(&input) = ::SafeArrayCreate(VT_UI1, dimensions, bounds);
    memcpy(V_ARRAY(&input)->pvData, bytes.data(), bytes.size());
    return document->Load(&input);
}

// A source of the text, then (when endless) of the filler for ever, that
// counts what it hands out. It answers ISequentialStream only, or also
// IStream, which lets its reader seek as far as it has read.
class SequentialSource : public WriteOnlyStream {
public:
    SequentialSource(std::string text, std::string filler = "", bool stream = false)
        : m_text(std::move(text)), m_filler(std::move(filler)), m_stream(stream) {}
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        const bool known = IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_ISequentialStream) ||
                           (m_stream && IsEqualIID(riid, IID_IStream));
        *ppv = known ? static_cast<IStream*>(this) : nullptr;
        return known ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* position) override {
        if (origin == STREAM_SEEK_SET) handedOut = static_cast<size_t>(move.QuadPart);
        if (origin == STREAM_SEEK_CUR) handedOut += static_cast<size_t>(move.QuadPart);
        if (position) position->QuadPart = handedOut;
        return origin == STREAM_SEEK_END ? E_NOTIMPL : S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP Read(void* buffer, ULONG size, ULONG* read) override {
        ULONG count = 0;
        for (; count < size && (handedOut < m_text.size() || !m_filler.empty()); ++count, ++handedOut)
            static_cast<char*>(buffer)[count] = handedOut < m_text.size() ? m_text[handedOut]
                                                                          : m_filler[handedOut % m_filler.size()];
        if (read) *read = count;
        return S_OK;
    }
    STDMETHODIMP Write(const void*, ULONG, ULONG*) override { return E_NOTIMPL; }
    size_t handedOut = 0;

private:
    std::string m_text, m_filler;
    bool m_stream;
};

// Each form Load takes, passed on to the reader as it is.
const struct {
    const char* name;
    HRESULT (*load)(IOPMLDocument*, const std::wstring&);
} kInputForms[] = {
    {"BSTR", [](IOPMLDocument* d, const std::wstring& t) { return LoadText(d, t); }},
    {"UTF-8 stream", [](IOPMLDocument* d, const std::wstring& t) { return LoadBytes(d, Narrow(t)); }},
    {"UTF-16 stream",
     [](IOPMLDocument* d, const std::wstring& t) {
         const std::wstring marked = L"\uFEFF" + t;
         return LoadBytes(d, std::string(reinterpret_cast<const char*>(marked.data()), marked.size() * 2));
     }},
    {"stream past a prefix",
     [](IOPMLDocument* d, const std::wstring& t) { return LoadBytes(d, "skip" + Narrow(t), 4); }},
    {"sequential stream",
     [](IOPMLDocument* d, const std::wstring& t) {
         SequentialSource source(Narrow(t));
         return d->Load(Arg(static_cast<IUnknown*>(static_cast<IStream*>(&source))));
     }},
    {"byte array", [](IOPMLDocument* d, const std::wstring& t) { return LoadArray(d, Narrow(t)); }},
    {"2-D byte array", [](IOPMLDocument* d, const std::wstring& t) { return LoadArray(d, Narrow(t), 2); }},
    {"DOM document",
     [](IOPMLDocument* d, const std::wstring& t) {
         const CLSID domDocument40 = {0x88d969c0, 0xf192, 0x11d4, {0xa6, 0x5f, 0x00, 0x40, 0x96, 0x32, 0x51, 0xe5}};
         const IID iidDomDocument = {0x2933bf81, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};
         ComPtr<IXMLDOMDocument> dom;
         VARIANT_BOOL loaded = VARIANT_FALSE;
         if (FAILED(::CoCreateInstance(domDocument40, nullptr, CLSCTX_INPROC_SERVER, iidDomDocument,
                                       reinterpret_cast<void**>(dom.GetAddressOf()))))
             return E_FAIL;
         dom->loadXML(com::Bstr(t.c_str()), &loaded);
         return d->Load(Arg(static_cast<IUnknown*>(dom.Get())));
     }},
};

// A document type declaration is valid input, and through every form the
// reader takes its entities do nothing harmful: an entity naming a file never
// brings the file's text in, and entities that would expand without end
// (a billion laughs) neither expand nor take time. The document loads as far
// as the reader takes it, and never with more than the document itself holds.
TEST(Reader, EntitiesNeverBringInOutsideTextNorExpandWithoutEnd) {
    const std::wstring secret = TempPath() + L"opml_reader_secret.txt";
    std::ofstream(Narrow(secret)) << "SECRET-CONTENT";
    std::wstring url = L"file:///" + secret;
    for (auto& c : url) c = c == L'\\' ? L'/' : c;
    std::wstring laughs = L"<!ENTITY l0 \"lol\">";
    for (int i = 1; i <= 9; ++i) {
        std::wstring ten;
        for (int j = 0; j < 10; ++j) ten += L"&l" + std::to_wstring(i - 1) + L";";
        laughs += L"<!ENTITY l" + std::to_wstring(i) + L" \"" + ten + L"\">";
    }
    const std::wstring head = L"<?xml version=\"1.0\"?>";
    const std::wstring start = L"<opml version=\"1.0\"><head><title>\u4E2D\U0001F600</title></head><body>"
                               L"<outline text=\"\u05D0\"/>";
    const std::wstring documents[] = {
        head + L"<!DOCTYPE opml [<!ENTITY secret SYSTEM \"" + url + L"\">]>" + start +
            L"<outline text=\"&secret;\"/><outline note=\"x\">&secret;</outline></body></opml>",
        head + L"<!DOCTYPE opml SYSTEM \"" + url + L"\">" + start + L"</body></opml>",
        head + L"<!DOCTYPE opml [<!ENTITY % p SYSTEM \"" + url + L"\"> %p;]>" + start + L"</body></opml>",
        head + L"<!DOCTYPE opml [" + laughs + L"]>" + start + L"<outline text=\"&l9;\">&l9;</outline></body></opml>",
    };
    for (const auto& form : kInputForms) {
        for (const std::wstring& text : documents) {
            ComPtr<IOPMLDocument> document = NewDocument();
            const DWORD before = ::GetTickCount();
            EXPECT_HR(S_OK, form.load(document.Get(), text)) << form.name;
            EXPECT_GT(5000u, ::GetTickCount() - before) << form.name;
            const std::string saved = Saved(document.Get());
            EXPECT_EQ(std::string::npos, saved.find("SECRET")) << form.name;
            EXPECT_GT(1000u, saved.size()) << form.name;
        }
        // The document with a declaration that declares nothing is the
        // reader's to judge: Wine's reads past it (it ignores prohibit-dtd,
        // where MSXML would refuse it), so it loads as it does without one.
        for (const wchar_t* declaration : {L"", L"<!DOCTYPE opml>"}) {
            ComPtr<IOPMLDocument> document = NewDocument();
            EXPECT_HR(S_OK, form.load(document.Get(), head + declaration + start + L"</body></opml>")) << form.name;
            EXPECT_EQ(L"\u4E2D\U0001F600|||1", Summary(document.Get())) << form.name;
        }
    }
    ::DeleteFileW(secret.c_str());
}

// A null BSTR, by value or by reference, is the empty string: nothing loads.
// An endless input ends with the reader's own failure, and what came before
// it stays. No argument at all is E_POINTER.
TEST(Reader, NullTextIsEmptyAndEndlessInputEnds) {
    BSTR null = nullptr;
    com::Variant byValue, byReference, variantReference;
    V_VT(&byValue) = VT_BSTR;
    V_BSTR(&byValue) = nullptr;
    V_VT(&byReference) = VT_BSTR | VT_BYREF;
    V_BSTRREF(&byReference) = &null;
    V_VT(&variantReference) = VT_VARIANT | VT_BYREF;
    V_VARIANTREF(&variantReference) = &byValue;
    for (VARIANT* input : {static_cast<VARIANT*>(&byValue), static_cast<VARIANT*>(&byReference),
                           static_cast<VARIANT*>(&variantReference)}) {
        ComPtr<IOPMLDocument> document = NewDocument();
        EXPECT_HR(S_OK, document->Load(input));
        EXPECT_EQ(L"|||0", Summary(document.Get()));
    }
    SequentialSource endless("<opml version=\"1.0\"><head><title>t</title><!--", "endless comment ", true);
    ComPtr<IOPMLDocument> document = NewDocument();
    EXPECT_HR(S_OK, document->Load(Arg(static_cast<IUnknown*>(static_cast<IStream*>(&endless)))));
    EXPECT_GT(size_t(1) << 30, endless.handedOut);
    EXPECT_EQ(L"t|||0", Summary(document.Get()));
    EXPECT_HR(E_POINTER, document->Load(nullptr));
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
