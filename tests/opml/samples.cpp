// Writes OPML documents for independent parsers to read: each <name>.opml
// with a <name>.txt that describes what the document holds, into the
// folder named by OPML_SAMPLES_DIR. interop.sh then checks them.
#include <fstream>

#include "opmltest.h"

namespace ky::test::opml {
namespace {

// What the document holds, as an OPML reader reports it: a line with the
// header's non-empty text fields, then the outline tree. Numbers and dates
// are checked byte for byte by the writer and round-trip tests.
void WriteSample(const std::string& folder, const char* name, IOPMLDocument* document) {
    ComPtr<IOPMLHeader> header = HeaderOf(document);
    std::wstring head;
    for (auto [field, get] : {std::make_pair(L"title", &IOPMLHeader::get_Title),
                              std::make_pair(L"ownerName", &IOPMLHeader::get_OwnerName),
                              std::make_pair(L"ownerEmail", &IOPMLHeader::get_OwnerEmail)}) {
        const std::wstring value = Str(header, get);
        if (!value.empty()) head += (head.empty() ? L"" : L" ") + std::wstring(field) + L"=\"" + value + L"\"";
    }
    std::ofstream(folder + "\\" + name + ".opml", std::ios::binary) << Saved(document);
    std::ofstream(folder + "\\" + name + ".txt", std::ios::binary) << Narrow(head + L"\n" + TreeText(BodyOf(document).Get()));
}

TEST(Samples, WriteDocumentsForOtherParsers) {
    char folder[MAX_PATH] = {};
    ASSERT_NE(0u, ::GetEnvironmentVariableA("OPML_SAMPLES_DIR", folder, sizeof folder)) << "OPML_SAMPLES_DIR";
    WriteSample(folder, "empty", NewDocument().Get());
    ComPtr<IOPMLDocument> rich = NewDocument();
    BuildRichDocument(rich.Get(), 60, 8);
    WriteSample(folder, "rich", rich.Get());
    // Carriage returns in element text, and every character XML escapes.
    ComPtr<IOPMLDocument> specials = NewDocument();
    EXPECT_HR(S_OK, HeaderOf(specials.Get())->put_Title(com::Bstr(L"line\r\nbreaks\rand & < > \" ' ]]>")));
    ComPtr<IOPMLOutline> outline = AddOutline(BodyOf(specials.Get()).Get(), L"& < > \" ' \t\n\r]]>");
    AddAttribute(outline.Get(), L"data-x.y_z", L"a name with punctuation");
    WriteSample(folder, "specials", specials.Get());
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
