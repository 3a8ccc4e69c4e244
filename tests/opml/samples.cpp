// Writes OPML documents for independent parsers to read: each <name>.opml
// with a <name>.json that describes what the document holds, into the
// folder named by OPML_SAMPLES_DIR. interop.sh then checks them.
#include <fstream>

#include "opmltest.h"

namespace ky::test::opml {
namespace {

// A JSON string: UTF-8 with quotes, backslashes and control characters escaped.
std::string Json(const std::wstring& text) {
    std::string out = "\"";
    for (char c : Narrow(text)) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) >= 0x20) {
            out += c;
            continue;
        }
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
        out += escaped;
    }
    return out + "\"";
}

std::string OutlinesJson(IOPMLOutlines* outlines) {
    std::string json;
    for (LONG i = 1; i <= CountOf(outlines); ++i) {
        ComPtr<IOPMLOutline> outline = OutlineAt(outlines, i);
        std::string pairs;
        for (const auto& [name, value] : AttributePairs(outline.Get())) {
            pairs += (pairs.empty() ? "[" : ",[") + Json(name) + "," + Json(value) + "]";
        }
        json += (i > 1 ? ",{\"attributes\":[" : "{\"attributes\":[") + pairs +
                "],\"children\":" + OutlinesJson(SubItemsOf(outline.Get()).Get()) + "}";
    }
    return "[" + json + "]";
}

// What the document holds, in the terms an OPML reader reports it: the
// header's text fields that are written, and the outline tree. (Numbers and
// dates are checked byte for byte by the writer and round-trip tests.)
std::string DocumentJson(IOPMLDocument* document) {
    ComPtr<IOPMLHeader> header = HeaderOf(document);
    std::string head;
    for (auto field :
         {std::make_pair("title", &IOPMLHeader::get_Title), std::make_pair("ownerName", &IOPMLHeader::get_OwnerName),
          std::make_pair("ownerEmail", &IOPMLHeader::get_OwnerEmail)}) {
        const std::wstring value = Str(header, field.second);
        if (!value.empty()) head += (head.empty() ? "\"" : ",\"") + std::string(field.first) + "\":" + Json(value);
    }
    return "{\"head\":{" + head + "},\"outlines\":" + OutlinesJson(BodyOf(document).Get()) + "}\n";
}

void WriteSample(const std::string& folder, const char* name, IOPMLDocument* document) {
    std::ofstream(folder + "\\" + name + ".opml", std::ios::binary) << Saved(document);
    std::ofstream(folder + "\\" + name + ".json", std::ios::binary) << DocumentJson(document);
}

TEST(Samples, WriteDocumentsForOtherParsers) {
    char folder[MAX_PATH] = {};
    ASSERT_NE(0u, ::GetEnvironmentVariableA("OPML_SAMPLES_DIR", folder, sizeof folder)) << "OPML_SAMPLES_DIR";
    WriteSample(folder, "empty", NewDocument().Get());
    ComPtr<IOPMLDocument> rich = NewDocument();
    BuildRichDocument(rich.Get(), 300, 40);
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
