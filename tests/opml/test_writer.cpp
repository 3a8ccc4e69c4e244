// The writer's output byte for byte: layout, leave-out rules and escaping.
// Dates are covered by test_roundtrip.cpp.
#include "opmltest.h"

namespace ky::test::opml {
namespace {

const std::string kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n";
const std::string kEmptyBody = "\t<body>\r\n\t</body>\r\n</opml>\r\n";

std::string Image(const std::string& headLines, const std::string& body = kEmptyBody) {
    return kDeclaration + "<opml version=\"1.0\">\r\n\t<head>\r\n" + headLines + "\t</head>\r\n" + body;
}

// The header elements come in a fixed order, whatever order they were set
// in; unset ones are left out (0xFFFFFFFF is the unset scroll state), one
// window edge set writes all four. Numbers are signed.
TEST(Writer, HeaderElementsComeInOrderAndUnsetOnesAreLeftOut) {
    ComPtr<IOPMLDocument> document = NewDocument();
    EXPECT_EQ(Image(""), Saved(document.Get()));
    ComPtr<IOPMLHeader> header = HeaderOf(document.Get());
    EXPECT_HR(S_OK, header->put_WindowRight(5));
    EXPECT_HR(S_OK, header->put_VertScrollState(0x80000000));
    EXPECT_HR(S_OK, header->put_OwnerEmail(com::Bstr(L"ann@example.org")));
    EXPECT_HR(S_OK, header->put_Title(com::Bstr(L"Plans")));
    ComPtr<IOPMLExpansionState> expansion = Get(header.Get(), &IOPMLHeader::get_ExpansionState);
    for (INT line : {1, 22, -3}) EXPECT_HR(S_OK, expansion->Add(line));
    EXPECT_EQ(Image("\t\t<title>Plans</title>\r\n\t\t<ownerEmail>ann@example.org</ownerEmail>\r\n"
                    "\t\t<expansionState>1,22,-3</expansionState>\r\n\t\t<vertScrollState>-2147483648</vertScrollState>\r\n"
                    "\t\t<windowTop>0</windowTop>\r\n\t\t<windowLeft>0</windowLeft>\r\n"
                    "\t\t<windowBottom>0</windowBottom>\r\n\t\t<windowRight>5</windowRight>\r\n"),
              Saved(document.Get()));
    EXPECT_HR(S_OK, header->put_Title(com::Bstr(L"")));
    EXPECT_HR(S_OK, header->put_OwnerEmail(nullptr));
    EXPECT_HR(S_OK, expansion->Clear());
    EXPECT_HR(S_OK, header->put_VertScrollState(0xFFFFFFFF));
    EXPECT_HR(S_OK, header->put_WindowRight(0));
    EXPECT_EQ(Image(""), Saved(document.Get()));
}

// Quotes are escaped in attributes only. TAB and LF stay in text; CR becomes
// a reference there (readers would drop it from CR LF); in attributes all
// three become references (readers would turn them into blanks). Other
// control characters cannot be written in XML 1.0 and are dropped, and
// unpaired surrogates become U+FFFD. Outlines without sub-items close on
// their line; others nest one TAB per level.
TEST(Writer, TextAndAttributesAreEscapedDifferentlyAndOutlinesNest) {
    ComPtr<IOPMLDocument> document = NewDocument();
    const wchar_t* special = L"a&b<c>d\"e'f\u00E9\u4E2D\U0001F600\t|\n|\r\n|\x01\x1F|\xD800|\xDC00";
    EXPECT_HR(S_OK, HeaderOf(document.Get())->put_Title(com::Bstr(special)));
    ComPtr<IOPMLOutline> top = AddOutline(BodyOf(document.Get()).Get(), special);
    AddAttribute(top.Get(), L"n\u00E9", L"\x02");
    AddOutline(SubItemsOf(AddOutline(SubItemsOf(top.Get()).Get(), L"1").Get()).Get(), L"2");
    ComPtr<IOPMLOutline> bare;
    ASSERT_HR(S_OK, BodyOf(document.Get())->AddNew(&bare));
    EXPECT_EQ(Image("\t\t<title>a&amp;b&lt;c&gt;d\"e'f\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\t|\n|&#13;\n||"
                    "\xEF\xBF\xBD|\xEF\xBF\xBD</title>\r\n",
                    "\t<body>\r\n\t\t<outline text=\"a&amp;b&lt;c&gt;d&quot;e&apos;f\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80"
                    "&#9;|&#10;|&#13;&#10;||\xEF\xBF\xBD|\xEF\xBF\xBD\" n\xC3\xA9=\"\">\r\n\t\t\t<outline text=\"1\">\r\n"
                    "\t\t\t\t<outline text=\"2\"/>\r\n\t\t\t</outline>\r\n\t\t</outline>\r\n"
                    "\t\t<outline/>\r\n\t</body>\r\n</opml>\r\n"),
              Saved(document.Get()));
}

}  // namespace
}  // namespace ky::test::opml
