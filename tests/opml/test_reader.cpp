// The reader through IOPMLDocument::Load: where each structural violation
// stops it, what loading adds to a document, lenient numbers, dates, and
// what entities and null input do in every input form. Runs with
// TZ=UTC so that header dates read as written.
#include <fstream>

#include "opmltest.h"

namespace ky::test::opml {
namespace {

std::wstring Document(const std::wstring& head, const std::wstring& body = L"") {
    return L"<?xml version=\"1.0\"?>\r\n<opml version=\"1.0\">\r\n\t<head>" + head + L"</head>\r\n\t<body>" + body +
           L"</body>\r\n</opml>\r\n";
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
    const std::pair<std::wstring, const wchar_t*> cases[] = {
        {L"<opml version=\"2.0\"><head><title>t</title></head><body><outline/></body></opml>", L"|||0"},
        {L"<outline version=\"1.0\"><head><title>t</title></head></outline>", L"|||0"},
        {Document(L"<ownerName>o</ownerName><title>t</title>", L"<outline/>"), L"|o||0"},
        {Document(L"<expansionState>1,2</expansionState><expansionState>3</expansionState>"), L"||1,2|0"},
        {Document(L"<title>t</title><docs>d</docs><ownerName>o</ownerName>"), L"t|||0"},
        {Document(L"<title>t<b>x</b></title>"), L"|||0"},
        {Document(L"<title>t</title>", L"<outline/><title>u</title><outline/>"), L"t|||1"},
        {Document(L"", L"<outline><outline/><p/></outline><outline/>"), L"|||1"},
        {Document(L"<title>t</title>", L"<outline/><outline></body>"), L"t|||2"},  // not well-formed
    };
    for (const auto& [text, kept] : cases) {
        ComPtr<IOPMLDocument> document = NewDocument();
        EXPECT_HR(S_OK, LoadText(document.Get(), text)) << Narrow(text);
        EXPECT_EQ(kept, Summary(document.Get())) << Narrow(text);
    }
}

// Loading appends outlines and expansion-state values and overwrites the
// header fields that the text holds. Attributes keep their document order
// and their values whole. Numbers are read leniently: empty pieces add
// nothing, text that is no number counts as 0, reading stops at the first
// character that is no digit, and values wrap to 32 bits.
TEST(Reader, LoadingAddsToTheDocumentAndReadsNumbersLeniently) {
    ComPtr<IOPMLDocument> document = NewDocument();
    const std::wstring text = Document(L"<title> A &amp; B </title><expansionState>1,2</expansionState>",
                                       L"<outline z=\"1\" type=\"t\" a=\"22\" text=\"x\" m=\"\"><outline/></outline>");
    EXPECT_HR(S_OK, LoadText(document.Get(), text));
    EXPECT_HR(S_OK, LoadText(document.Get(), text));
    EXPECT_EQ(L" A & B ||1,2,1,2|2", Summary(document.Get()));
    const std::wstring attributes = L"z=\"1\" type=\"t\" a=\"22\" text=\"x\" m=\"\"";
    EXPECT_EQ(attributes + L"\n  \n" + attributes + L"\n  \n", TreeText(BodyOf(document.Get()).Get()));
    EXPECT_HR(S_OK, LoadText(document.Get(), Document(L"<ownerName>o</ownerName><expansionState> 1,,x, 2 ,7z,"
                                                      L"</expansionState><vertScrollState>4294967294</vertScrollState>"
                                                      L"<windowTop> 12px</windowTop><windowLeft>abc</windowLeft>")));
    EXPECT_EQ(L" A & B |o|1,2,1,2,1,0,2,7|2", Summary(document.Get()));
    EXPECT_NE(std::string::npos, Saved(document.Get()).find("<vertScrollState>-2</vertScrollState>\r\n\t\t<windowTop>12"
                                                            "</windowTop>\r\n\t\t<windowLeft>0</windowLeft>"));
}

// Dates in the usual RFC 822 forms are read; text that is no date stops the
// read, and nothing after it is stored.
TEST(Reader, DatesInTheUsualRfc822FormsAreRead) {
    const double kJuly1At16 = 45474.0 + 16 / 24.0;
    const std::pair<const wchar_t*, double> cases[] = {  // in universal time (TZ=UTC); 0: refused
        {L"  mon,1 jul 2024 16:00:05 gmt ", kJuly1At16 + 5 / 86400.0}, {L"01 Jul 99 16:00:00 UTC", 36342.0 + 16 / 24.0},
        {L"01 Jul 2024 16:00 UT", kJuly1At16}, {L"Mon, 01 Jul 24 16:00:00 Z", kJuly1At16},
        {L"Mon, 01 Jul 2024 18:30:00 +0230", kJuly1At16}, {L"Mon, 01 Jul 2024 12:00:00 EDT", kJuly1At16},
        {L"Sun, 30 Jun 2024 23:00:00 -1700", kJuly1At16}, {L"", 0}, {L"Mon, 01 Jul 2024", 0},
        {L"Mon 01 Jul 2024 16:00:00 GMT", 0}, {L"30 Feb 2024 16:00:00 GMT", 0}, {L"01 Jul 2024 24:00:00 GMT", 0},
        {L"01 Jul 2024 16:00:00 GMT x", 0}, {L"01 Jul 2024 16:00:00 +2400", 0},
    };
    for (const auto& [text, expected] : cases) {
        ComPtr<IOPMLDocument> document = NewDocument();
        EXPECT_HR(S_OK, LoadText(document.Get(), Document(std::wstring(L"<title>t</title><dateCreated>") + text +
                                                          L"</dateCreated><ownerName>o</ownerName>")));
        DATE created = -1;
        EXPECT_HR(S_OK, HeaderOf(document.Get())->get_DateCreated(&created));
        EXPECT_NEAR(expected, created, 1e-9) << Narrow(text);
        EXPECT_EQ(expected ? L"t|o||0" : L"t|||0", Summary(document.Get())) << Narrow(text);
    }
}

// XML in each form Load takes, passed on to the reader as it is.
HRESULT LoadAs(int form, IOPMLDocument* d, const std::wstring& text) {
    const std::string bytes = Narrow(text);
    SAFEARRAYBOUND bound{static_cast<ULONG>(bytes.size()), 0};
    com::Variant array;
    const CLSID domDocument40 = {0x88d969c0, 0xf192, 0x11d4, {0xa6, 0x5f, 0x00, 0x40, 0x96, 0x32, 0x51, 0xe5}};
    const IID iidDomDocument = {0x2933bf81, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};
    ComPtr<IXMLDOMDocument> dom;
    VARIANT_BOOL loaded = VARIANT_FALSE;
    switch (form) {
        case 0: return LoadText(d, text);
        case 1: return LoadBytes(d, "skip" + bytes, 4);
        case 2:
            V_VT(&array) = VT_ARRAY | VT_UI1;
            V_ARRAY(&array) = ::SafeArrayCreate(VT_UI1, 1, &bound);
            memcpy(V_ARRAY(&array)->pvData, bytes.data(), bytes.size());
            return d->Load(&array);
        default:
            if (FAILED(::CoCreateInstance(domDocument40, nullptr, CLSCTX_INPROC_SERVER, iidDomDocument, &dom))) return E_FAIL;
            dom->loadXML(com::Bstr(text.c_str()), &loaded);
            return d->Load(Arg(dom.Get()));
    }
}

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
        laughs += L"<!ENTITY l" + std::to_wstring(i) + L" \"";
        for (int j = 0; j < 10; ++j) laughs += L"&l" + std::to_wstring(i - 1) + L";";
        laughs += L"\">";
    }
    const std::wstring head = L"<?xml version=\"1.0\"?>";
    const std::wstring start = L"<opml version=\"1.0\"><head><title>\u4E2D\U0001F600</title></head><body><outline text=\"\u05D0\"/>";
    const std::wstring documents[] = {
        head + L"<!DOCTYPE opml [<!ENTITY secret SYSTEM \"" + url + L"\">]>" + start +
            L"<outline text=\"&secret;\"/><outline note=\"x\">&secret;</outline></body></opml>",
        head + L"<!DOCTYPE opml SYSTEM \"" + url + L"\">" + start + L"</body></opml>",
        head + L"<!DOCTYPE opml [<!ENTITY % p SYSTEM \"" + url + L"\"> %p;]>" + start + L"</body></opml>",
        head + L"<!DOCTYPE opml [" + laughs + L"]>" + start + L"<outline text=\"&l9;\">&l9;</outline></body></opml>",
    };
    for (int form = 0; form < 4; ++form) {
        for (const std::wstring& text : documents) {
            ComPtr<IOPMLDocument> document = NewDocument();
            const DWORD before = ::GetTickCount();
            EXPECT_HR(S_OK, LoadAs(form, document.Get(), text)) << form;
            EXPECT_GT(5000u, ::GetTickCount() - before) << form;
            const std::string saved = Saved(document.Get());
            EXPECT_EQ(std::string::npos, saved.find("SECRET")) << form;
            EXPECT_GT(1000u, saved.size()) << form;
        }
        // A declaration that declares nothing is the reader's to judge: Wine's
        // reads past it (MSXML would refuse it), so it loads as without one.
        for (const wchar_t* declaration : {L"", L"<!DOCTYPE opml>"}) {
            ComPtr<IOPMLDocument> document = NewDocument();
            EXPECT_HR(S_OK, LoadAs(form, document.Get(), head + declaration + start + L"</body></opml>")) << form;
            EXPECT_EQ(L"\u4E2D\U0001F600|||1", Summary(document.Get())) << form;
        }
    }
    ::DeleteFileW(secret.c_str());
}

// A null BSTR is the empty string: nothing loads. No argument is E_POINTER.
TEST(Reader, NullTextIsEmpty) {
    ComPtr<IOPMLDocument> document = NewDocument();
    com::Variant null;
    V_VT(&null) = VT_BSTR, V_BSTR(&null) = nullptr;
    EXPECT_HR(S_OK, document->Load(&null));
    EXPECT_EQ(L"|||0", Summary(document.Get()));
    EXPECT_HR(E_POINTER, document->Load(nullptr));
}

}  // namespace
}  // namespace ky::test::opml
