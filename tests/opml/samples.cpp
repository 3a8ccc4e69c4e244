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
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string OutlinesJson(IOPMLOutlines* outlines) {
    std::string json = "[";
    for (LONG i = 1; i <= CountOf(outlines); ++i) {
        ComPtr<IOPMLOutline> outline = OutlineAt(outlines, i);
        ComPtr<IOPMLAttributes> attributes = AttributesOf(outline.Get());
        LONG count = 0;
        attributes->get_Count(&count);
        json += i > 1 ? ",{\"attributes\":[" : "{\"attributes\":[";
        for (LONG a = 1; a <= count; ++a) {
            VARIANT key = Position(a);
            ComPtr<IOPMLAttribute> attribute;
            EXPECT_HR(S_OK, attributes->get_Item(&key, &attribute));
            json += (a > 1 ? ",[" : "[") + Json(Text([&](BSTR* p) { return attribute->get_Name(p); })) + "," +
                    Json(Text([&](BSTR* p) { return attribute->get_Value(p); })) + "]";
        }
        json += "],\"children\":" + OutlinesJson(SubItemsOf(outline.Get()).Get()) + "}";
    }
    return json + "]";
}

// Milliseconds since 1970 of a local DATE, as JavaScript counts time.
std::string EpochJson(DATE local) {
    SYSTEMTIME parts, universal;
    ::VariantTimeToSystemTime(local, &parts);
    TIME_ZONE_INFORMATION zone;
    ::GetTimeZoneInformation(&zone);
    ::TzSpecificLocalTimeToSystemTime(&zone, &parts, &universal);
    FILETIME time;
    ::SystemTimeToFileTime(&universal, &time);
    ULARGE_INTEGER ticks;
    ticks.LowPart = time.dwLowDateTime;
    ticks.HighPart = time.dwHighDateTime;
    return std::to_string((static_cast<long long>(ticks.QuadPart) - 116444736000000000LL) / 10000);
}

// What the document holds, in the terms an OPML reader reports it: header
// fields that are written, numbers as numbers, dates as instants.
std::string DocumentJson(IOPMLDocument* document) {
    ComPtr<IOPMLHeader> header = HeaderOf(document);
    std::string head;
    auto field = [&](const char* name, const std::string& value) {
        head += (head.empty() ? "\"" : ",\"") + std::string(name) + "\":" + value;
    };
    auto text = [&](const char* name, HRESULT (STDMETHODCALLTYPE IOPMLHeader::*get)(BSTR*)) {
        std::wstring value = Text([&](BSTR* p) { return (header.Get()->*get)(p); });
        if (!value.empty()) field(name, Json(value));
    };
    auto date = [&](const char* name, HRESULT (STDMETHODCALLTYPE IOPMLHeader::*get)(DATE*)) {
        DATE value = 0;
        (header.Get()->*get)(&value);
        if (value != 0.0) field(name, EpochJson(value));
    };
    text("title", &IOPMLHeader::get_Title);
    date("dateCreated", &IOPMLHeader::get_DateCreated);
    date("dateModified", &IOPMLHeader::get_DateModified);
    text("ownerName", &IOPMLHeader::get_OwnerName);
    text("ownerEmail", &IOPMLHeader::get_OwnerEmail);
    ComPtr<IOPMLExpansionState> expansion;
    header->get_ExpansionState(&expansion);
    LONG count = 0;
    expansion->get_Count(&count);
    if (count > 0) {
        std::string list;
        for (LONG i = 1; i <= count; ++i) {
            LONG value = 0;
            expansion->get_Item(i, &value);
            list += (i > 1 ? "," : "") + std::to_string(value);
        }
        field("expansionState", "[" + list + "]");
    }
    ULONG scroll = 0;
    header->get_VertScrollState(&scroll);
    if (scroll != 0xFFFFFFFF) field("vertScrollState", std::to_string(static_cast<LONG>(scroll)));
    LONG edges[4] = {};
    header->get_WindowTop(&edges[0]);
    header->get_WindowLeft(&edges[1]);
    header->get_WindowBottom(&edges[2]);
    header->get_WindowRight(&edges[3]);
    if (edges[0] || edges[1] || edges[2] || edges[3]) {
        const char* names[] = {"windowTop", "windowLeft", "windowBottom", "windowRight"};
        for (int i = 0; i < 4; ++i) field(names[i], std::to_string(edges[i]));
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
    BSTR title = ::SysAllocString(L"line\r\nbreaks\rand & < > \" ' ]]>");
    EXPECT_HR(S_OK, HeaderOf(specials.Get())->put_Title(title));
    ::SysFreeString(title);
    ComPtr<IOPMLOutline> outline = AddOutline(BodyOf(specials.Get()).Get(), L"& < > \" ' \t\n\r]]>");
    AddAttribute(outline.Get(), L"data-x.y_z", L"a name with punctuation");
    EXPECT_HR(S_OK, HeaderOf(specials.Get())->put_WindowRight(5));
    WriteSample(folder, "specials", specials.Get());
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
