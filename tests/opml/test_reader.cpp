// The reader through IOPMLDocument::Load: what a well-formed document gives,
// where each structural violation stops it, the input forms, and documents
// that carry a DTD. Runs with TZ=UTC so that header dates read as written.
#include <fstream>

#include "opmltest.h"

namespace ky::test::opml {
namespace {

std::wstring Document(const std::wstring& head, const std::wstring& body = L"") {
    return L"<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<opml version=\"1.0\">\r\n\t<head>" + head +
           L"</head>\r\n\t<body>" + body + L"</body>\r\n</opml>\r\n";
}

std::wstring TitleOf(IOPMLDocument* document) {
    ComPtr<IOPMLHeader> header = HeaderOf(document);
    return Text([&](BSTR* p) { return header->get_Title(p); });
}

std::wstring OwnerNameOf(IOPMLDocument* document) {
    ComPtr<IOPMLHeader> header = HeaderOf(document);
    return Text([&](BSTR* p) { return header->get_OwnerName(p); });
}

std::vector<LONG> ExpansionOf(IOPMLDocument* document) {
    ComPtr<IOPMLExpansionState> expansion;
    EXPECT_HR(S_OK, HeaderOf(document)->get_ExpansionState(&expansion));
    LONG count = 0;
    EXPECT_HR(S_OK, expansion->get_Count(&count));
    std::vector<LONG> values;
    for (LONG i = 1; i <= count; ++i) {
        LONG value = 0;
        EXPECT_HR(S_OK, expansion->get_Item(i, &value));
        values.push_back(value);
    }
    return values;
}

TEST(Reader, ReadsEveryPartOfAWellFormedDocument) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ASSERT_HR(S_OK, LoadText(document.Get(),
                             Document(L"<title> A &amp; B </title><dateCreated>Mon, 01 Jul 2024 16:00:05 GMT"
                                      L"</dateCreated><dateModified>Tue, 02 Jul 2024 00:00:00 GMT</dateModified>"
                                      L"<ownerName>Ann</ownerName><ownerEmail>ann@example.org</ownerEmail>"
                                      L"<expansionState>1,3,-4</expansionState><vertScrollState>-2</vertScrollState>"
                                      L"<windowTop>1</windowTop><windowLeft>-2</windowLeft>"
                                      L"<windowBottom>3</windowBottom><windowRight>4</windowRight>",
                                      L"<outline text=\"a\" type=\"link\" url=\"x&lt;y\"><outline text=\"a1\"/>"
                                      L"</outline><outline/>")));
    EXPECT_EQ(L" A & B ", TitleOf(document.Get()));  // as it stands, blanks included
    EXPECT_EQ(L"Ann", OwnerNameOf(document.Get()));
    ComPtr<IOPMLHeader> header = HeaderOf(document.Get());
    EXPECT_EQ(L"ann@example.org", Text([&](BSTR* p) { return header->get_OwnerEmail(p); }));
    DATE created = 0, modified = 0;
    EXPECT_HR(S_OK, header->get_DateCreated(&created));
    EXPECT_HR(S_OK, header->get_DateModified(&modified));
    EXPECT_NEAR(45474.0 + (16 * 3600 + 5) / 86400.0, created, 1e-9);
    EXPECT_NEAR(45475.0, modified, 1e-9);
    EXPECT_EQ((std::vector<LONG>{1, 3, -4}), ExpansionOf(document.Get()));
    ULONG scroll = 0;
    EXPECT_HR(S_OK, header->get_VertScrollState(&scroll));
    EXPECT_EQ(0xFFFFFFFEu, scroll);
    LONG top = 0, left = 0, bottom = 0, right = 0;
    header->get_WindowTop(&top);
    header->get_WindowLeft(&left);
    header->get_WindowBottom(&bottom);
    header->get_WindowRight(&right);
    EXPECT_EQ((std::vector<LONG>{1, -2, 3, 4}), (std::vector<LONG>{top, left, bottom, right}));
    EXPECT_EQ(L"text=\"a\" type=\"link\" url=\"x<y\"\n  text=\"a1\"\n\n", TreeText(BodyOf(document.Get()).Get()));
    int major = 0, minor = -1;
    EXPECT_HR(S_OK, document->get_VersionMajor(&major));
    EXPECT_HR(S_OK, document->get_VersionMinor(&minor));
    EXPECT_EQ(1, major);
    EXPECT_EQ(0, minor);
}

TEST(Reader, AttributesKeepTheirDocumentOrder) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ASSERT_HR(S_OK,
              LoadText(document.Get(), Document(L"", L"<outline z=\"1\" type=\"t\" a=\"2\" text=\"x\" m=\"\"/>")));
    ComPtr<IOPMLOutline> outline = OutlineAt(BodyOf(document.Get()).Get(), 1);
    EXPECT_EQ(L"z=\"1\" type=\"t\" a=\"2\" text=\"x\" m=\"\"", AttributesText(outline.Get()));
    // The properties read the attributes where they stand; nothing is added.
    EXPECT_EQ(L"x", Text([&](BSTR* p) { return outline->get_Text(p); }));
    EXPECT_EQ(L"t", Text([&](BSTR* p) { return outline->get_type(p); }));
    EXPECT_EQ(L"z=\"1\" type=\"t\" a=\"2\" text=\"x\" m=\"\"", AttributesText(outline.Get()));
}

// Each document breaks the structure at one place; what comes before that
// place is kept, nothing after it, and Load still succeeds.
TEST(Reader, AStructuralViolationStopsTheReadAndKeepsWhatCameBefore) {
    const struct {
        const char* what;
        std::wstring text;
        std::wstring title;
        std::wstring owner;
        LONG outlines;
    } cases[] = {
        {"version 2.0", L"<opml version=\"2.0\"><head><title>t</title></head><body><outline/></body></opml>", L"", L"",
         0},
        {"no version", L"<opml><head><title>t</title></head><body/></opml>", L"", L"", 0},
        {"version with blanks", L"<opml version=\" 1.0\"><head><title>t</title></head><body/></opml>", L"", L"", 0},
        {"another root", L"<outline version=\"1.0\"><head><title>t</title></head></outline>", L"", L"", 0},
        {"body before head", L"<opml version=\"1.0\"><body><outline/></body><head/></opml>", L"", L"", 0},
        {"title after ownerName", Document(L"<ownerName>o</ownerName><title>t</title>", L"<outline/>"), L"", L"o",
         0},
        {"title twice", Document(L"<title>t</title><title>u</title><ownerName>o</ownerName>"), L"t", L"", 0},
        {"unknown header element", Document(L"<title>t</title><docs>d</docs><ownerName>o</ownerName>"), L"t", L"", 0},
        {"element inside a header element", Document(L"<title>t<b>x</b></title>"), L"", L"", 0},
        {"header element in the body", Document(L"<title>t</title>", L"<outline/><title>u</title><outline/>"), L"t",
         L"", 1},
        {"unknown element in the body", Document(L"", L"<outline/><item/><outline/>"), L"", L"", 1},
        {"nested unknown element", Document(L"", L"<outline><outline/><p/></outline><outline/>"), L"", L"", 1},
        {"second head", L"<opml version=\"1.0\"><head/><head/><body><outline/></body></opml>", L"", L"", 0},
        {"second body", L"<opml version=\"1.0\"><head/><body><outline/></body><body><outline/></body></opml>", L"",
         L"", 1},
        {"not well-formed", Document(L"<title>t</title>", L"<outline/><outline></body>"), L"t", L"", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ComPtr<IOPMLDocument> document = NewDocument();
        EXPECT_HR(S_OK, LoadText(document.Get(), c.text));
        EXPECT_EQ(c.title, TitleOf(document.Get()));
        EXPECT_EQ(c.owner, OwnerNameOf(document.Get()));
        EXPECT_EQ(c.outlines, CountOf(BodyOf(document.Get()).Get()));
    }
}

TEST(Reader, ARepeatedExpansionStateStopsAtTheSecond) {
    ComPtr<IOPMLDocument> document = NewDocument();
    EXPECT_HR(S_OK, LoadText(document.Get(), Document(L"<expansionState>1,2</expansionState>"
                                                      L"<expansionState>3</expansionState>",
                                                      L"<outline/>")));
    EXPECT_EQ((std::vector<LONG>{1, 2}), ExpansionOf(document.Get()));
    EXPECT_EQ(0, CountOf(BodyOf(document.Get()).Get()));
}

TEST(Reader, LoadingTwiceAppendsOutlinesAndExpansionStateAndOverwritesFields) {
    ComPtr<IOPMLDocument> document = NewDocument();
    EXPECT_HR(S_OK, LoadText(document.Get(), Document(L"<title>first</title><expansionState>1,2</expansionState>",
                                                      L"<outline text=\"a\"><outline text=\"b\"/></outline>")));
    EXPECT_HR(S_OK, LoadText(document.Get(), Document(L"<expansionState>3</expansionState>",
                                                      L"<outline text=\"a\"><outline text=\"b\"/></outline>")));
    EXPECT_EQ(L"first", TitleOf(document.Get()));  // not in the second text: kept
    EXPECT_EQ((std::vector<LONG>{1, 2, 3}), ExpansionOf(document.Get()));
    EXPECT_EQ(L"text=\"a\"\n  text=\"b\"\ntext=\"a\"\n  text=\"b\"\n", TreeText(BodyOf(document.Get()).Get()));
    EXPECT_HR(S_OK, LoadText(document.Get(), Document(L"<title>second</title>")));
    EXPECT_EQ(L"second", TitleOf(document.Get()));
}

TEST(Reader, NumbersAndListsAreReadLeniently) {
    ComPtr<IOPMLDocument> document = NewDocument();
    // Empty pieces add nothing, text that is no number counts as 0, reading
    // stops at the first character that is no digit, and values wrap to 32 bits.
    EXPECT_HR(S_OK, LoadText(document.Get(), Document(L"<expansionState> 1,,x, 2 ,7z,</expansionState>"
                                                      L"<vertScrollState>4294967294</vertScrollState>"
                                                      L"<windowTop> 12px</windowTop><windowLeft>abc</windowLeft>"
                                                      L"<windowBottom>+3</windowBottom>")));
    EXPECT_EQ((std::vector<LONG>{1, 0, 2, 7}), ExpansionOf(document.Get()));
    ComPtr<IOPMLHeader> header = HeaderOf(document.Get());
    ULONG scroll = 0;
    LONG top = 0, left = -1, bottom = 0;
    header->get_VertScrollState(&scroll);
    header->get_WindowTop(&top);
    header->get_WindowLeft(&left);
    header->get_WindowBottom(&bottom);
    EXPECT_EQ(0xFFFFFFFEu, scroll);
    EXPECT_EQ(12, top);
    EXPECT_EQ(0, left);
    EXPECT_EQ(3, bottom);
}

TEST(Reader, AnEmptyExpansionStateStopsTheRead) {
    ComPtr<IOPMLDocument> document = NewDocument();
    EXPECT_HR(S_OK, LoadText(document.Get(), Document(L"<expansionState></expansionState><ownerName>o</ownerName>")));
    EXPECT_TRUE(ExpansionOf(document.Get()).empty());
    EXPECT_EQ(L"", OwnerNameOf(document.Get()));
}

TEST(Reader, DatesInTheUsualRfc822FormsAreRead) {
    const struct {
        const wchar_t* text;
        double expected;  // DATE in universal time (the test runs with TZ=UTC)
    } accepted[] = {
        {L"Mon, 01 Jul 2024 16:00:05 GMT", 45474.0 + (16 * 3600 + 5) / 86400.0},
        {L"  mon,1 jul 2024 16:00:05 gmt ", 45474.0 + (16 * 3600 + 5) / 86400.0},
        {L"01 Jul 2024 16:00 UT", 45474.0 + 16 / 24.0},
        {L"Mon, 01 Jul 24 16:00:00 Z", 45474.0 + 16 / 24.0},
        {L"01 Jul 99 16:00:00 UTC", 36342.0 + 16 / 24.0},
        {L"Mon, 01 Jul 2024 18:30:00 +0230", 45474.0 + 16 / 24.0},
        {L"Mon, 01 Jul 2024 12:00:00 EDT", 45474.0 + 16 / 24.0},
        {L"Mon, 01 Jul 2024 08:00:00 PST", 45474.0 + 16 / 24.0},
        {L"Sun, 30 Jun 2024 23:00:00 -1700", 45474.0 + 16 / 24.0},
        {L"29 Feb 2024 00:00:00 GMT", 45351.0},
    };
    for (const auto& c : accepted) {
        SCOPED_TRACE(Narrow(c.text));
        ComPtr<IOPMLDocument> document = NewDocument();
        const std::wstring head = std::wstring(L"<dateCreated>") + c.text + L"</dateCreated>";
        EXPECT_HR(S_OK, LoadText(document.Get(), Document(head)));
        DATE created = 0;
        EXPECT_HR(S_OK, HeaderOf(document.Get())->get_DateCreated(&created));
        EXPECT_NEAR(c.expected, created, 1e-9);
    }
    // Text that is no date stops the read: nothing after it is stored.
    const wchar_t* refused[] = {L"", L"yesterday", L"Mon, 01 Jul 2024", L"Mon 01 Jul 2024 16:00:00 GMT",
                                L"Xyz, 01 Jul 2024 16:00:00 GMT", L"30 Feb 2024 16:00:00 GMT",
                                L"01 Jul 2024 24:00:00 GMT", L"01 Jul 2024 16:00:00", L"01 Jul 2024 16:00:00 GMT x",
                                L"01 Jul 2024 16:00:00 +2400", L"01 Jul 2024 16:00:00 +02"};
    for (const wchar_t* text : refused) {
        SCOPED_TRACE(Narrow(text));
        ComPtr<IOPMLDocument> document = NewDocument();
        EXPECT_HR(S_OK, LoadText(document.Get(), Document(std::wstring(L"<title>t</title><dateCreated>") + text +
                                                          L"</dateCreated><ownerName>o</ownerName>")));
        DATE created = -1;
        EXPECT_HR(S_OK, HeaderOf(document.Get())->get_DateCreated(&created));
        EXPECT_EQ(0.0, created);
        EXPECT_EQ(L"t", TitleOf(document.Get()));
        EXPECT_EQ(L"", OwnerNameOf(document.Get()));
    }
}

// Each form Load takes, with the same text: a BSTR, UTF-8 and UTF-16 bytes
// in a stream, and UTF-8 bytes in an array.
const struct {
    const char* name;
    HRESULT (*load)(IOPMLDocument*, const std::wstring&);
} kInputForms[] = {
    {"BSTR", [](IOPMLDocument* d, const std::wstring& t) { return LoadText(d, t); }},
    {"UTF-8 stream", [](IOPMLDocument* d, const std::wstring& t) { return LoadBytes(d, Narrow(t)); }},
    {"UTF-16 stream", [](IOPMLDocument* d, const std::wstring& t) { return LoadBytes(d, Utf16Bytes(t)); }},
    {"byte array", [](IOPMLDocument* d, const std::wstring& t) { return LoadArray(d, Narrow(t)); }},
};

TEST(Reader, TakesTextStreamsAndByteArrays) {
    const std::wstring text = L"<?xml version=\"1.0\"?><opml version=\"1.0\"><head><title>\u4E2D\U0001F600</title>"
                              L"</head><body><outline text=\"\u05D0\"/></body></opml>";
    for (const auto& form : kInputForms) {
        SCOPED_TRACE(form.name);
        ComPtr<IOPMLDocument> document = NewDocument();
        EXPECT_HR(S_OK, form.load(document.Get(), text));
        EXPECT_EQ(L"\u4E2D\U0001F600", TitleOf(document.Get()));
        EXPECT_EQ(L"text=\"\u05D0\"\n", TreeText(BodyOf(document.Get()).Get()));
    }
    // A stream is read from where it stands.
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IStream> stream;
    ASSERT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &stream));
    const std::string bytes = "not part of the document" + Narrow(text);
    ULONG written = 0;
    stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written);
    LARGE_INTEGER position;
    position.QuadPart = static_cast<LONGLONG>(bytes.size() - Narrow(text).size());
    stream->Seek(position, STREAM_SEEK_SET, nullptr);
    VARIANT input;
    V_VT(&input) = VT_UNKNOWN;
    V_UNKNOWN(&input) = stream.Get();
    EXPECT_HR(S_OK, document->Load(&input));
    EXPECT_EQ(L"\u4E2D\U0001F600", TitleOf(document.Get()));
    EXPECT_HR(E_POINTER, document->Load(nullptr));
}

// A DTD could pull in files or expand entities without end: a document that
// carries one loads nothing, in every input form, and no outside file is read.
class DocumentType : public ::testing::Test {
protected:
    void SetUp() override {
        wchar_t folder[MAX_PATH];
        ::GetTempPathW(MAX_PATH, folder);
        m_secret = std::wstring(folder) + L"opml_reader_secret.txt";
        std::ofstream(Narrow(m_secret)) << "SECRET-CONTENT";
        m_url = L"file:///" + m_secret;
        for (auto& c : m_url) c = c == L'\\' ? L'/' : c;
    }
    void TearDown() override { ::DeleteFileW(m_secret.c_str()); }

    // A title and an outline before the entities are used, so that a reader
    // that merely stumbles on them would still have read something.
    std::wstring WithDtd(const std::wstring& before) const {
        return L"<?xml version=\"1.0\"?>" + before + L"<!DOCTYPE opml [<!ENTITY secret SYSTEM \"" + m_url +
               L"\"><!ENTITY inner \"INNER\">]><opml version=\"1.0\"><head><title>T</title></head><body>"
               L"<outline text=\"before\"/><outline text=\"&secret;\" note=\"&inner;\"/></body></opml>";
    }

    std::wstring m_secret;
    std::wstring m_url;
};

TEST_F(DocumentType, DocumentsWithADtdLoadNothingInAnyForm) {
    for (const std::wstring& before : {std::wstring(), std::wstring(L"\r\n<!-- a comment -->\n<?pi data?> "),
                                       std::wstring(L"<!--<opml>-->")}) {
        for (const auto& form : kInputForms) {
            SCOPED_TRACE(form.name);
            ComPtr<IOPMLDocument> document = NewDocument();
            EXPECT_HR(S_OK, form.load(document.Get(), WithDtd(before)));
            EXPECT_EQ(L"", TitleOf(document.Get()));
            EXPECT_EQ(0, CountOf(BodyOf(document.Get()).Get()));
            const std::string saved = Saved(document.Get());
            EXPECT_EQ(std::string::npos, saved.find("SECRET"));
            EXPECT_EQ(std::string::npos, saved.find("INNER"));
        }
    }
}

TEST_F(DocumentType, AMentionInACommentIsNoDtd) {
    ComPtr<IOPMLDocument> document = NewDocument();
    EXPECT_HR(S_OK, LoadText(document.Get(), L"<!-- <!DOCTYPE opml> --><opml version=\"1.0\"><head><title>t"
                                             L"</title></head><body><outline/></body></opml>"));
    EXPECT_EQ(L"t", TitleOf(document.Get()));
    EXPECT_EQ(1, CountOf(BodyOf(document.Get()).Get()));
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
