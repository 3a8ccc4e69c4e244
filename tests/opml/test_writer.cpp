// The writer's output byte for byte: layout, leave-out rules, escaping and
// how a failing stream ends a save. Dates are covered by test_roundtrip.cpp.
#include <algorithm>

#include "opmltest.h"
#include "writeonlystream.h"

namespace ky::test::opml {
namespace {

const std::string kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n";
const std::string kEmptyBody = "\t<body>\r\n\t</body>\r\n</opml>\r\n";

std::string Image(const std::string& headLines, const std::string& body = kEmptyBody) {
    return kDeclaration + "<opml version=\"1.0\">\r\n\t<head>\r\n" + headLines + "\t</head>\r\n" + body;
}

TEST(Writer, EmptyDocumentIsWrittenExactly) {
    EXPECT_EQ(kDeclaration + "<opml version=\"1.0\">\r\n\t<head>\r\n\t</head>\r\n\t<body>\r\n\t</body>\r\n</opml>\r\n",
              Saved(NewDocument().Get()));
}

TEST(Writer, HeaderElementsComeInOrderAndUnsetOnesAreLeftOut) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLHeader> header = HeaderOf(document.Get());
    // Set in reverse order: the output order is fixed. One window edge set
    // writes all four. Numbers are signed.
    EXPECT_HR(S_OK, header->put_WindowRight(5));
    EXPECT_HR(S_OK, header->put_VertScrollState(0x80000000));
    EXPECT_HR(S_OK, header->put_OwnerEmail(com::Bstr(L"ann@example.org")));
    EXPECT_HR(S_OK, header->put_Title(com::Bstr(L"Plans")));
    ComPtr<IOPMLExpansionState> expansion = Get(header.Get(), &IOPMLHeader::get_ExpansionState);
    for (INT line : {1, 22, -3}) EXPECT_HR(S_OK, expansion->Add(line));
    EXPECT_EQ(Image("\t\t<title>Plans</title>\r\n"
                    "\t\t<ownerEmail>ann@example.org</ownerEmail>\r\n"
                    "\t\t<expansionState>1,22,-3</expansionState>\r\n"
                    "\t\t<vertScrollState>-2147483648</vertScrollState>\r\n"
                    "\t\t<windowTop>0</windowTop>\r\n"
                    "\t\t<windowLeft>0</windowLeft>\r\n"
                    "\t\t<windowBottom>0</windowBottom>\r\n"
                    "\t\t<windowRight>5</windowRight>\r\n"),
              Saved(document.Get()));
    // Emptied again (0xFFFFFFFF is the unset scroll state), all are left out.
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
// control characters cannot be written in XML 1.0 and are dropped.
TEST(Writer, TextAndAttributesAreEscapedDifferently) {
    ComPtr<IOPMLDocument> document = NewDocument();
    const wchar_t* special = L"a&b<c>d\"e'f\u00E9\u4E2D\U0001F600\t|\n|\r\n|\x01\x1F|";
    EXPECT_HR(S_OK, HeaderOf(document.Get())->put_Title(com::Bstr(special)));
    AddAttribute(AddOutline(BodyOf(document.Get()).Get(), special).Get(), L"n\u00E9", L"\x02");
    EXPECT_EQ(
        Image("\t\t<title>a&amp;b&lt;c&gt;d\"e'f\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\t|\n|&#13;\n||</title>\r\n",
              "\t<body>\r\n\t\t<outline text=\"a&amp;b&lt;c&gt;d&quot;e&apos;f\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80"
              "&#9;|&#10;|&#13;&#10;||\" n\xC3\xA9=\"\"/>\r\n\t</body>\r\n</opml>\r\n"),
        Saved(document.Get()));
}

// Outlines without sub-items close on their line; others nest one TAB per
// level (deeper than one write of the indentation takes).
TEST(Writer, OutlinesCloseOnTheirLineOrNestAtTheirDepth) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutlines> level = BodyOf(document.Get());
    const int depth = 40;
    for (int i = 0; i < depth; ++i) level = SubItemsOf(AddOutline(level.Get(), L"n").Get());
    AddAttribute(OutlineAt(BodyOf(document.Get()).Get(), 1).Get(), L"x", L"1");
    ComPtr<IOPMLOutline> bare;
    ASSERT_HR(S_OK, BodyOf(document.Get())->AddNew(&bare));
    std::string expected = "\t<body>\r\n\t\t<outline text=\"n\" x=\"1\">\r\n";
    for (int i = 1; i < depth - 1; ++i) expected += std::string(i + 2, '\t') + "<outline text=\"n\">\r\n";
    expected += std::string(depth + 1, '\t') + "<outline text=\"n\"/>\r\n";
    for (int i = depth - 2; i >= 0; --i) expected += std::string(i + 2, '\t') + "</outline>\r\n";
    EXPECT_EQ(Image("", expected + "\t\t<outline/>\r\n\t</body>\r\n</opml>\r\n"), Saved(document.Get()));
}

// A stream that takes `capacity` bytes, then writes short or (with `fail`) fails.
struct LimitedStream : WriteOnlyStream {
    LimitedStream(size_t capacity, bool fail) : capacity(capacity), fail(fail) {}
    STDMETHODIMP Write(const void* data, ULONG count, ULONG* written) override {
        writesAfterRefusal += refused;
        refused = count > capacity - bytes.size();
        if (refused && fail) return STG_E_MEDIUMFULL;
        ULONG taken = static_cast<ULONG>(std::min<size_t>(count, capacity - bytes.size()));
        bytes.append(static_cast<const char*>(data), taken);
        if (written) *written = taken;
        return S_OK;
    }
    size_t capacity;
    bool fail, refused = false;
    int writesAfterRefusal = 0;
    std::string bytes;
};

// Save takes only a stream given as VT_UNKNOWN. A short or failing write, or
// a date that has no text form, ends the save at once with what was
// written so far kept.
TEST(Writer, SaveFailuresEndTheSaveAndKeepWhatWasWritten) {
    ComPtr<IOPMLDocument> document = NewDocument();
    EXPECT_HR(E_POINTER, document->Save(nullptr));
    ComPtr<IStream> stream;
    ASSERT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &stream));
    EXPECT_HR(E_INVALIDARG, document->Save(Arg(VT_DISPATCH, stream.Get())));  // a stream, but not as VT_UNKNOWN
    EXPECT_HR(E_INVALIDARG, document->Save(Arg(VT_UNKNOWN, document.Get())));
    EXPECT_HR(E_INVALIDARG, document->Save(Arg(VT_UNKNOWN, nullptr)));
    EXPECT_HR(E_INVALIDARG, document->Save(Arg(L"C:\\out.opml")));

    AddOutline(BodyOf(document.Get()).Get(), L"one");
    const std::string full = Saved(document.Get());
    for (bool fail : {false, true}) {
        for (size_t capacity : {size_t{0}, size_t{10}, kDeclaration.size(), full.size() - 1}) {
            LimitedStream limited(capacity, fail);
            EXPECT_HR(E_FAIL, document->Save(Arg(&limited))) << capacity;
            EXPECT_EQ(full.substr(0, fail ? limited.bytes.size() : capacity), limited.bytes);
            EXPECT_EQ(0, limited.writesAfterRefusal);
        }
    }

    EXPECT_HR(S_OK, HeaderOf(document.Get())->put_DateModified(-109206.0));  // 1600-12-31: before any system time
    const std::string bytes = Saved(document.Get(), E_FAIL);
    EXPECT_EQ(0u, bytes.find(kDeclaration));
    EXPECT_EQ(std::string::npos, bytes.find("dateModified"));
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
