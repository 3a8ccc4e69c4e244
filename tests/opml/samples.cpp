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
        ComPtr<IOPMLAttributes> attributes = AttributesOf(outline.Get());
        LONG count = 0;
        attributes->get_Count(&count);
        std::string pairs;
        for (LONG a = 1; a <= count; ++a) {
            ComPtr<IOPMLAttribute> attribute;
            EXPECT_HR(S_OK, attributes->get_Item(Key(a), &attribute));
            pairs += (a > 1 ? ",[" : "[") + Json(Str(attribute, &IOPMLAttribute::get_Name)) + "," +
                     Json(Str(attribute, &IOPMLAttribute::get_Value)) + "]";
        }
        json += (i > 1 ? "," : "") + std::string("{\"attributes\":[") + pairs +
                "],\"children\":" + OutlinesJson(SubItemsOf(outline.Get()).Get()) + "}";
    }
    return "[" + json + "]";
}

// Milliseconds since 1970 of a local DATE, as JavaScript counts time.
std::string EpochJson(DATE local) {
    SYSTEMTIME parts, universal;
    ::VariantTimeToSystemTime(local, &parts);
    ::TzSpecificLocalTimeToSystemTime(nullptr, &parts, &universal);
    ULARGE_INTEGER ticks;
    ::SystemTimeToFileTime(&universal, reinterpret_cast<FILETIME*>(&ticks));
    return std::to_string((static_cast<long long>(ticks.QuadPart) - 116444736000000000LL) / 10000);
}

// What the document holds, in the terms an OPML reader reports it: header
// fields that are written, numbers as numbers, dates as instants.
std::string DocumentJson(IOPMLDocument* document) {
    ComPtr<IOPMLHeader> h = HeaderOf(document);
    std::string head;
    auto field = [&](const char* name, const std::string& value, bool written = true) {
        if (written) head += (head.empty() ? "\"" : ",\"") + std::string(name) + "\":" + value;
    };
    DATE created = 0, modified = 0;
    ULONG scroll = 0;
    LONG edges[4] = {};
    h->get_DateCreated(&created);
    h->get_DateModified(&modified);
    h->get_VertScrollState(&scroll);
    h->get_WindowTop(&edges[0]);
    h->get_WindowLeft(&edges[1]);
    h->get_WindowBottom(&edges[2]);
    h->get_WindowRight(&edges[3]);
    const std::wstring title = Str(h, &IOPMLHeader::get_Title), owner = Str(h, &IOPMLHeader::get_OwnerName),
                       email = Str(h, &IOPMLHeader::get_OwnerEmail), expansion = ExpansionText(document);
    field("title", Json(title), !title.empty());
    field("dateCreated", EpochJson(created), created != 0.0);
    field("dateModified", EpochJson(modified), modified != 0.0);
    field("ownerName", Json(owner), !owner.empty());
    field("ownerEmail", Json(email), !email.empty());
    field("expansionState", "[" + Narrow(expansion) + "]", !expansion.empty());
    field("vertScrollState", std::to_string(static_cast<LONG>(scroll)), scroll != 0xFFFFFFFF);
    const char* names[] = {"windowTop", "windowLeft", "windowBottom", "windowRight"};
    for (int i = 0; i < 4; ++i) field(names[i], std::to_string(edges[i]), edges[0] || edges[1] || edges[2] || edges[3]);
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
    EXPECT_HR(S_OK, HeaderOf(specials.Get())->put_WindowRight(5));
    WriteSample(folder, "specials", specials.Get());
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
