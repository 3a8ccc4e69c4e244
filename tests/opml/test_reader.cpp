// The reader through IOPMLDocument::Load: where each structural violation
// stops it, what loading adds to a document, the input forms, and documents
// that carry a DTD. Runs with TZ=UTC so that header dates read as written.
#include <fstream>

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

HRESULT LoadArray(IOPMLDocument* document, const std::string& bytes) {
    com::Variant input;
    V_VT(&input) = VT_ARRAY | VT_UI1;
    V_ARRAY(&input) = ::SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size()));
    memcpy(V_ARRAY(&input)->pvData, bytes.data(), bytes.size());
    return document->Load(&input);
}

// Each form Load takes: a BSTR, UTF-8 and UTF-16 bytes in a stream, UTF-8
// bytes in an array, and a stream read from where it stands.
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
    {"byte array", [](IOPMLDocument* d, const std::wstring& t) { return LoadArray(d, Narrow(t)); }},
    {"stream past a prefix",
     [](IOPMLDocument* d, const std::wstring& t) { return LoadBytes(d, "skip" + Narrow(t), 4); }},
};

// A DTD could pull in files or expand entities without end: a document that
// carries one loads nothing, in every input form, and no outside file is
// read. The same document without one (a mention in a comment is none)
// loads in every form.
TEST(Reader, DocumentsWithADtdLoadNothingInAnyInputForm) {
    const std::wstring secret = TempPath() + L"opml_reader_secret.txt";
    std::ofstream(Narrow(secret)) << "SECRET-CONTENT";
    std::wstring url = L"file:///" + secret;
    for (auto& c : url) c = c == L'\\' ? L'/' : c;
    const std::string empty = Saved(NewDocument().Get());
    // A title and an outline come before the entities are used, so that a
    // reader that merely stumbles on them would still have read something.
    const std::wstring dtd = L"<!DOCTYPE opml [<!ENTITY secret SYSTEM \"" + url + L"\"><!ENTITY inner \"INNER\">]>";
    const std::wstring start =
        L"<opml version=\"1.0\"><head><title>\u4E2D\U0001F600</title></head><body>"
        L"<outline text=\"\u05D0\"/>";
    for (const auto& form : kInputForms) {
        for (const wchar_t* before : {L"", L"\r\n<!-- a comment -->\n<?pi data?> ", L"<!--<opml>-->"}) {
            ComPtr<IOPMLDocument> document = NewDocument();
            EXPECT_HR(S_OK,
                      form.load(document.Get(), L"<?xml version=\"1.0\"?>" + std::wstring(before) + dtd + start +
                                                    L"<outline text=\"&secret;\" note=\"&inner;\"/></body></opml>"));
            EXPECT_EQ(empty, Saved(document.Get())) << form.name;
        }
        ComPtr<IOPMLDocument> document = NewDocument();
        EXPECT_HR(S_OK, form.load(document.Get(),
                                  L"<?xml version=\"1.0\"?><!-- <!DOCTYPE opml> -->" + start + L"</body></opml>"));
        EXPECT_EQ(L"\u4E2D\U0001F600|||1", Summary(document.Get())) << form.name;
        EXPECT_EQ(L"text=\"\u05D0\"\n", TreeText(BodyOf(document.Get()).Get())) << form.name;
    }
    ::DeleteFileW(secret.c_str());
    EXPECT_HR(E_POINTER, NewDocument()->Load(nullptr));
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
