// The writer's output byte for byte: layout, leave-out rules, escaping and
// how a failing stream ends a save. Dates are covered by test_dates.cpp.
#include <limits>

#include "opmltest.h"
#include "writeonlystream.h"

namespace ky::test::opml {
namespace {

const std::string kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n";
const std::string kEmptyBody = "\t<body>\r\n\t</body>\r\n</opml>\r\n";

std::string WithHead(const std::string& headLines, const std::string& body = kEmptyBody) {
    return kDeclaration + "<opml version=\"1.0\">\r\n\t<head>\r\n" + headLines + "\t</head>\r\n" + body;
}

void Put(IOPMLHeader* header, HRESULT (STDMETHODCALLTYPE IOPMLHeader::*put)(BSTR), const wchar_t* text) {
    BSTR value = ::SysAllocString(text);
    EXPECT_HR(S_OK, (header->*put)(value));
    ::SysFreeString(value);
}

TEST(Writer, EmptyDocumentIsWrittenExactly) {
    ComPtr<IOPMLDocument> document = NewDocument();
    EXPECT_EQ(kDeclaration +
                  "<opml version=\"1.0\">\r\n\t<head>\r\n\t</head>\r\n\t<body>\r\n\t</body>\r\n</opml>\r\n",
              Saved(document.Get()));
}

TEST(Writer, HeaderElementsComeInOrderAndEmptyOnesAreLeftOut) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLHeader> header = HeaderOf(document.Get());
    // Set in reverse order: the output order is fixed.
    EXPECT_HR(S_OK, header->put_WindowRight(4));
    EXPECT_HR(S_OK, header->put_VertScrollState(7));
    Put(header.Get(), &IOPMLHeader::put_OwnerEmail, L"ann@example.org");
    Put(header.Get(), &IOPMLHeader::put_Title, L"Plans");
    ComPtr<IOPMLExpansionState> expansion;
    ASSERT_HR(S_OK, header->get_ExpansionState(&expansion));
    for (INT line : {1, 22, -3}) EXPECT_HR(S_OK, expansion->Add(line));
    EXPECT_EQ(WithHead("\t\t<title>Plans</title>\r\n"
                       "\t\t<ownerEmail>ann@example.org</ownerEmail>\r\n"
                       "\t\t<expansionState>1,22,-3</expansionState>\r\n"
                       "\t\t<vertScrollState>7</vertScrollState>\r\n"
                       "\t\t<windowTop>0</windowTop>\r\n"
                       "\t\t<windowLeft>0</windowLeft>\r\n"
                       "\t\t<windowBottom>0</windowBottom>\r\n"
                       "\t\t<windowRight>4</windowRight>\r\n"),
              Saved(document.Get()));

    // Emptied again, the string fields disappear; the owner name never appeared.
    Put(header.Get(), &IOPMLHeader::put_Title, L"");
    EXPECT_HR(S_OK, header->put_OwnerEmail(nullptr));
    EXPECT_HR(S_OK, expansion->Clear());
    EXPECT_HR(S_OK, header->put_VertScrollState(0xFFFFFFFF));
    EXPECT_HR(S_OK, header->put_WindowRight(0));
    EXPECT_EQ(WithHead(""), Saved(document.Get()));
}

TEST(Writer, WindowEdgesAreWrittenAllFourOrNone) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLHeader> header = HeaderOf(document.Get());
    EXPECT_HR(S_OK, header->put_WindowRight(5));
    EXPECT_EQ(WithHead("\t\t<windowTop>0</windowTop>\r\n"
                       "\t\t<windowLeft>0</windowLeft>\r\n"
                       "\t\t<windowBottom>0</windowBottom>\r\n"
                       "\t\t<windowRight>5</windowRight>\r\n"),
              Saved(document.Get()));
    EXPECT_HR(S_OK, header->put_WindowTop(-1));
    EXPECT_HR(S_OK, header->put_WindowLeft(2147483647));
    EXPECT_HR(S_OK, header->put_WindowBottom(-2147483647 - 1));
    EXPECT_EQ(WithHead("\t\t<windowTop>-1</windowTop>\r\n"
                       "\t\t<windowLeft>2147483647</windowLeft>\r\n"
                       "\t\t<windowBottom>-2147483648</windowBottom>\r\n"
                       "\t\t<windowRight>5</windowRight>\r\n"),
              Saved(document.Get()));
}

TEST(Writer, VertScrollStateIsWrittenSignedAndAllOnesMeansNotSet) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLHeader> header = HeaderOf(document.Get());
    const struct {
        ULONG value;
        const char* written;
    } cases[] = {{0, "0"}, {0x7FFFFFFF, "2147483647"}, {0x80000000, "-2147483648"}, {0xFFFFFFFE, "-2"}};
    for (const auto& c : cases) {
        EXPECT_HR(S_OK, header->put_VertScrollState(c.value));
        EXPECT_EQ(WithHead(std::string("\t\t<vertScrollState>") + c.written + "</vertScrollState>\r\n"),
                  Saved(document.Get()));
    }
    EXPECT_HR(S_OK, header->put_VertScrollState(0xFFFFFFFF));
    EXPECT_EQ(WithHead(""), Saved(document.Get()));
}

TEST(Writer, QuotesAreEscapedInAttributesOnly) {
    ComPtr<IOPMLDocument> document = NewDocument();
    const wchar_t* special = L"a&b<c>d\"e'f";
    Put(HeaderOf(document.Get()).Get(), &IOPMLHeader::put_Title, special);
    AddOutline(BodyOf(document.Get()).Get(), special);
    EXPECT_EQ(WithHead("\t\t<title>a&amp;b&lt;c&gt;d\"e'f</title>\r\n",
                       "\t<body>\r\n\t\t<outline text=\"a&amp;b&lt;c&gt;d&quot;e&apos;f\"/>\r\n\t</body>\r\n"
                       "</opml>\r\n"),
              Saved(document.Get()));
}

TEST(Writer, TextIsUtf8AndControlCharactersStayReadable) {
    ComPtr<IOPMLDocument> document = NewDocument();
    // TAB and LF stay in text; CR becomes a reference there (readers would
    // drop it from CR LF); in attributes all three become references (readers
    // would turn them into blanks). Other control characters are not XML.
    Put(HeaderOf(document.Get()).Get(), &IOPMLHeader::put_Title, L"\u00E9\u4E2D\U0001F600\t|\n|\r\n|\x01\x1F|");
    ComPtr<IOPMLOutline> outline;
    ASSERT_HR(S_OK, BodyOf(document.Get())->AddNew(&outline));
    AddAttribute(outline.Get(), L"n\u00E9", L"\t|\n|\r|\x02");
    EXPECT_EQ(WithHead("\t\t<title>\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\t|\n|&#13;\n||</title>\r\n",
                       "\t<body>\r\n\t\t<outline n\xC3\xA9=\"&#9;|&#10;|&#13;|\"/>\r\n\t</body>\r\n</opml>\r\n"),
              Saved(document.Get()));
}

TEST(Writer, OutlinesCloseOnTheirLineOrNestAtTheirDepth) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutlines> body = BodyOf(document.Get());
    ComPtr<IOPMLOutline> parent = AddOutline(body.Get(), L"parent");
    AddAttribute(parent.Get(), L"x", L"1");
    AddOutline(SubItemsOf(parent.Get()).Get(), L"child");
    ComPtr<IOPMLOutline> bare;
    ASSERT_HR(S_OK, body->AddNew(&bare));  // no attributes at all
    EXPECT_EQ(WithHead("", "\t<body>\r\n"
                           "\t\t<outline text=\"parent\" x=\"1\">\r\n"
                           "\t\t\t<outline text=\"child\"/>\r\n"
                           "\t\t</outline>\r\n"
                           "\t\t<outline/>\r\n"
                           "\t</body>\r\n</opml>\r\n"),
              Saved(document.Get()));
}

TEST(Writer, DeepNestingIsIndentedOneTabPerLevel) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLOutlines> level = BodyOf(document.Get());
    const int depth = 40;  // more TABs than one write of the indentation takes
    for (int i = 0; i < depth; ++i) level = SubItemsOf(AddOutline(level.Get(), L"n").Get());
    std::string expected = "\t<body>\r\n";
    for (int i = 0; i < depth - 1; ++i) expected += std::string(i + 2, '\t') + "<outline text=\"n\">\r\n";
    expected += std::string(depth + 1, '\t') + "<outline text=\"n\"/>\r\n";
    for (int i = depth - 2; i >= 0; --i) expected += std::string(i + 2, '\t') + "</outline>\r\n";
    expected += "\t</body>\r\n</opml>\r\n";
    EXPECT_EQ(WithHead("", expected), Saved(document.Get()));
}

// A stream that takes `capacity` bytes and then writes short or fails.
class LimitedStream : public WriteOnlyStream {
public:
    LimitedStream(size_t capacity, bool fail) : m_capacity(capacity), m_fail(fail) {}
    STDMETHODIMP Write(const void* data, ULONG count, ULONG* written) override {
        if (m_refused) ++writesAfterRefusal;
        size_t room = m_capacity - bytes.size();
        m_refused = count > room;
        if (m_refused && m_fail) return STG_E_MEDIUMFULL;
        ULONG taken = m_refused ? static_cast<ULONG>(room) : count;
        bytes.append(static_cast<const char*>(data), taken);
        if (written) *written = taken;
        return S_OK;
    }

    std::string bytes;
    int writesAfterRefusal = 0;

private:
    size_t m_capacity;
    bool m_fail;
    bool m_refused = false;
};

TEST(Writer, AShortOrFailingWriteEndsTheSaveAndKeepsWhatWasWritten) {
    ComPtr<IOPMLDocument> document = NewDocument();
    AddOutline(BodyOf(document.Get()).Get(), L"one");
    const std::string full = Saved(document.Get());
    for (bool fail : {false, true}) {
        for (size_t capacity : {size_t{0}, size_t{10}, kDeclaration.size(), full.size() - 1}) {
            LimitedStream stream(capacity, fail);
            VARIANT target;
            V_VT(&target) = VT_UNKNOWN;
            V_UNKNOWN(&target) = &stream;
            EXPECT_HR(E_FAIL, document->Save(&target)) << capacity;
            EXPECT_EQ(full.substr(0, fail ? stream.bytes.size() : capacity), stream.bytes);
            EXPECT_EQ(0, stream.writesAfterRefusal);
        }
    }
    LimitedStream roomy(full.size(), false);
    VARIANT target;
    V_VT(&target) = VT_UNKNOWN;
    V_UNKNOWN(&target) = &roomy;
    EXPECT_HR(S_OK, document->Save(&target));
    EXPECT_EQ(full, roomy.bytes);
}

TEST(Writer, OnlyAStreamGivenAsUnknownIsAccepted) {
    ComPtr<IOPMLDocument> document = NewDocument();
    EXPECT_HR(E_POINTER, document->Save(nullptr));

    ComPtr<IStream> stream;
    ASSERT_HR(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, &stream));
    VARIANT target;
    V_VT(&target) = VT_DISPATCH;  // the same stream, but not as VT_UNKNOWN
    V_DISPATCH(&target) = reinterpret_cast<IDispatch*>(stream.Get());
    EXPECT_HR(E_INVALIDARG, document->Save(&target));
    V_VT(&target) = VT_UNKNOWN;
    V_UNKNOWN(&target) = nullptr;
    EXPECT_HR(E_INVALIDARG, document->Save(&target));
    V_UNKNOWN(&target) = document.Get();  // an object that is no stream
    EXPECT_HR(E_INVALIDARG, document->Save(&target));
    VARIANT path;
    V_VT(&path) = VT_BSTR;
    V_BSTR(&path) = ::SysAllocString(L"C:\\out.opml");
    EXPECT_HR(E_INVALIDARG, document->Save(&path));
    ::VariantClear(&path);
    STATSTG stat{};
    stream->Stat(&stat, STATFLAG_NONAME);
    EXPECT_EQ(0u, stat.cbSize.QuadPart);
}

TEST(Writer, ADateWithoutRfc822FormFailsTheSave) {
    ComPtr<IOPMLDocument> document = NewDocument();
    ComPtr<IOPMLHeader> header = HeaderOf(document.Get());
    std::string bytes;
    EXPECT_HR(S_OK, header->put_DateModified(-109206.0));  // 1600-12-31: before any system time
    EXPECT_HR(E_FAIL, SaveTo(document.Get(), &bytes));
    EXPECT_EQ(0u, bytes.find(kDeclaration));  // what came before stays written
    EXPECT_EQ(std::string::npos, bytes.find("dateModified"));
    EXPECT_HR(S_OK, header->put_DateModified(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_HR(E_FAIL, SaveTo(document.Get(), &bytes));
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
