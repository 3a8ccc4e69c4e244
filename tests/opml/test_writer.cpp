// The writer's output byte for byte: layout, leave-out rules, escaping and
// how a failing stream ends a save. Dates are covered by test_roundtrip.cpp.
#include "opmltest.h"
#include "writeonlystream.h"

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
// control characters cannot be written in XML 1.0 and are dropped. Outlines
// without sub-items close on their line; others nest one TAB per level.
TEST(Writer, TextAndAttributesAreEscapedDifferentlyAndOutlinesNest) {
    ComPtr<IOPMLDocument> document = NewDocument();
    const wchar_t* special = L"a&b<c>d\"e'f\u00E9\u4E2D\U0001F600\t|\n|\r\n|\x01\x1F|";
    EXPECT_HR(S_OK, HeaderOf(document.Get())->put_Title(com::Bstr(special)));
    ComPtr<IOPMLOutline> top = AddOutline(BodyOf(document.Get()).Get(), special);
    AddAttribute(top.Get(), L"n\u00E9", L"\x02");
    AddOutline(SubItemsOf(AddOutline(SubItemsOf(top.Get()).Get(), L"1").Get()).Get(), L"2");
    ComPtr<IOPMLOutline> bare;
    ASSERT_HR(S_OK, BodyOf(document.Get())->AddNew(&bare));
    EXPECT_EQ(Image("\t\t<title>a&amp;b&lt;c&gt;d\"e'f\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\t|\n|&#13;\n||</title>\r\n",
                    "\t<body>\r\n\t\t<outline text=\"a&amp;b&lt;c&gt;d&quot;e&apos;f\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80"
                    "&#9;|&#10;|&#13;&#10;||\" n\xC3\xA9=\"\">\r\n\t\t\t<outline text=\"1\">\r\n"
                    "\t\t\t\t<outline text=\"2\"/>\r\n\t\t\t</outline>\r\n\t\t</outline>\r\n"
                    "\t\t<outline/>\r\n\t</body>\r\n</opml>\r\n"),
              Saved(document.Get()));
}

// A stream that takes `capacity` bytes, then fails.
struct LimitedStream : WriteOnlyStream {
    explicit LimitedStream(size_t capacity) : capacity(capacity) {}
    STDMETHODIMP Write(const void* data, ULONG count, ULONG* written) override {
        writesAfterRefusal += refused;
        if ((refused = count > capacity - bytes.size())) return STG_E_MEDIUMFULL;
        bytes.append(static_cast<const char*>(data), count);
        if (written) *written = count;
        return S_OK;
    }
    size_t capacity;
    bool refused = false;
    int writesAfterRefusal = 0;
    std::string bytes;
};

// Save takes only a stream given as VT_UNKNOWN. A failing write, or
// a date that has no text form, ends the save at once with what was
// written so far kept.
TEST(Writer, SaveFailuresEndTheSaveAndKeepWhatWasWritten) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IStream> stream;
    ASSERT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &stream));
    Arg targets[] = {Arg(stream.Get(), VT_DISPATCH), Arg(document.Get()), Arg(static_cast<IUnknown*>(nullptr)), Arg(L"C:\\o")};
    for (Arg& target : targets) EXPECT_HR(E_INVALIDARG, document->Save(target));
    EXPECT_HR(E_POINTER, document->Save(nullptr));
    AddOutline(BodyOf(document.Get()).Get(), L"one");
    const std::string full = Saved(document.Get());
    for (size_t capacity : {size_t{0}, kDeclaration.size(), full.size() - 1}) {
        LimitedStream limited(capacity);
        EXPECT_HR(E_FAIL, document->Save(Arg(&limited))) << capacity;
        EXPECT_EQ(full.substr(0, limited.bytes.size()), limited.bytes);
        EXPECT_EQ(0, limited.writesAfterRefusal);
    }
    EXPECT_HR(S_OK, HeaderOf(document.Get())->put_DateModified(-109206.0));  // 1600-12-31: before any system time
    const std::string bytes = Saved(document.Get(), E_FAIL);
    EXPECT_EQ(0u, bytes.find(kDeclaration));
    EXPECT_EQ(std::string::npos, bytes.find("dateModified"));
}

}  // namespace
}  // namespace ky::test::opml
