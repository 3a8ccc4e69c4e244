// The reader through IOPMLDocument::Load: where each structural violation
// stops it, the date forms it takes, and what entities and null input do in
// every input form.
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

// Every date form the reader takes, read in the zone the text names and kept
// as local time in this machine's zone (the suite runs this program in one
// off the whole hour and with daylight saving time). Text that is no date
// stops the read there.
TEST(Reader, DatesInEveryFormTakenAreReadInTheirZoneAndKeptAsLocalTime) {
    const struct { const wchar_t* text; WORD year, month, day, hour, minute, second; } cases[] = {
        {L"Mon, 01 Jul 2024 16:00:05 GMT", 2024, 7, 1, 16, 0, 5},  // the universal time named; year 0: refused
        {L"  mon,1 JUL 2024 16:00:05 gmt ", 2024, 7, 1, 16, 0, 5}, {L"01 Jul 99 6:00 UT", 1999, 7, 1, 6, 0, 0},
        {L"15 Jan 24 08:30:00 UTC", 2024, 1, 15, 8, 30, 0}, {L"15 Jan 124 08:30 Z", 2024, 1, 15, 8, 30, 0},
        {L"Mon, 15 Jan 2024 03:30:00 EST", 2024, 1, 15, 8, 30, 0}, {L"1 Jul 2024 12:00:05 EDT", 2024, 7, 1, 16, 0, 5},
        {L"Mon, 15 Jan 2024 02:30:00 CST", 2024, 1, 15, 8, 30, 0}, {L"1 Jul 2024 11:00:05 CDT", 2024, 7, 1, 16, 0, 5},
        {L"Mon, 15 Jan 2024 01:30:00 MST", 2024, 1, 15, 8, 30, 0}, {L"1 Jul 2024 10:00:05 MDT", 2024, 7, 1, 16, 0, 5},
        {L"Sun, 14 Jan 2024 23:30:00 PST", 2024, 1, 15, 7, 30, 0}, {L"1 Jul 2024 09:00:05 PDT", 2024, 7, 1, 16, 0, 5},
        {L"Mon, 01 Jul 2024 18:30:05 +0230", 2024, 7, 1, 16, 0, 5},
        {L"Mon, 01 Jan 2024 00:30:00 +0100", 2023, 12, 31, 23, 30, 0},
        {L"Sun, 30 Jun 2024 23:00:05 -1700", 2024, 7, 1, 16, 0, 5}, {L"1 Jul 2024 12:00 -0330", 2024, 7, 1, 15, 30, 0},
        {L""}, {L"Mon, 01 Jul 2024"}, {L"Mon 01 Jul 2024 16:00:00 GMT"}, {L"30 Feb 2024 16:00:00 GMT"},
        {L"01 Jul 2024 24:00:00 GMT"}, {L"01 Jul 2024 16:00:00 GMT x"}, {L"01 Jul 2024 16:00:00"},
        {L"01 Jul 2024 16:00:00 CET"}, {L"01 Jul 2024 16:00:00 +2400"}, {L"01 Jul 2024 16:00:00 +02"},
    };
    for (const auto& c : cases) {
        // The local time through the system's own zone conversion, as the reader is to make it.
        SYSTEMTIME universal{c.year, c.month, 0, c.day, c.hour, c.minute, c.second, 0}, local;
        DATE expected = 0, created = -1;
        if (c.year) {
            ASSERT_TRUE(::SystemTimeToTzSpecificLocalTime(nullptr, &universal, &local) &&
                        ::SystemTimeToVariantTime(&local, &expected));
        }
        ComPtr<IOPMLDocument> document = NewDocument();
        EXPECT_HR(S_OK, LoadText(document.Get(), Document(std::wstring(L"<title>t</title><dateCreated>") + c.text +
                                                          L"</dateCreated><ownerName>o</ownerName>")));
        EXPECT_HR(S_OK, HeaderOf(document.Get())->get_DateCreated(&created));
        EXPECT_EQ(expected, created) << Narrow(c.text);
        EXPECT_EQ(c.year ? L"t|o||0" : L"t|||0", Summary(document.Get())) << Narrow(c.text);
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

// A null BSTR, by value or by reference, is the empty string: nothing loads.
// No argument is E_POINTER.
TEST(Reader, NullTextIsEmpty) {
    ComPtr<IOPMLDocument> document = NewDocument();
    BSTR none = nullptr;
    VARIANT byValue, byReference;
    V_VT(&byValue) = VT_BSTR, V_BSTR(&byValue) = nullptr;
    V_VT(&byReference) = VT_BSTR | VT_BYREF, V_BSTRREF(&byReference) = &none;
    EXPECT_HR(S_OK, document->Load(&byValue));
    EXPECT_HR(S_OK, document->Load(&byReference));
    EXPECT_EQ(L"|||0", Summary(document.Get()));
    EXPECT_HR(E_POINTER, document->Load(nullptr));
}

}  // namespace
}  // namespace ky::test::opml
