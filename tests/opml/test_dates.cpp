// Header dates are local time in the model and universal time in the text.
// The suite runs this program in two zones that are not UTC (TZ is set for
// the Wine process): New York, with daylight saving time, and Kolkata, half
// an hour off the hour.
#include "opmltest.h"

namespace ky::test::opml {
namespace {

DATE Local(int year, int month, int day, int hour, int minute, double second) {
    SYSTEMTIME parts{};
    parts.wYear = static_cast<WORD>(year);
    parts.wMonth = static_cast<WORD>(month);
    parts.wDay = static_cast<WORD>(day);
    parts.wHour = static_cast<WORD>(hour);
    parts.wMinute = static_cast<WORD>(minute);
    DATE date = 0;
    EXPECT_TRUE(::SystemTimeToVariantTime(&parts, &date));
    return date + second / 86400.0;
}

struct Case {
    DATE local;
    const char* newYork;
    const char* kolkata;
};

const Case kCases[] = {
    {Local(2024, 7, 1, 12, 34, 56), "Mon, 01 Jul 2024 16:34:56 GMT", "Mon, 01 Jul 2024 07:04:56 GMT"},
    {Local(2024, 1, 15, 8, 0, 0), "Mon, 15 Jan 2024 13:00:00 GMT", "Mon, 15 Jan 2024 02:30:00 GMT"},
    {Local(2024, 3, 1, 0, 10, 0), "Fri, 01 Mar 2024 05:10:00 GMT", "Thu, 29 Feb 2024 18:40:00 GMT"},
    // Parts of a second are dropped, not rounded.
    {Local(2024, 7, 1, 12, 0, 0.9), "Mon, 01 Jul 2024 16:00:00 GMT", "Mon, 01 Jul 2024 06:30:00 GMT"},
};

using ZoneText = const char* Case::*;

// The text of the zone this run is in, or null when TZ names neither.
ZoneText Zone() {
    char zone[64] = {};
    ::GetEnvironmentVariableA("TZ", zone, sizeof zone);
    if (std::string(zone) == "America/New_York") return &Case::newYork;
    if (std::string(zone) == "Asia/Kolkata") return &Case::kolkata;
    return nullptr;
}

std::string Element(const std::string& saved, const std::string& name) {
    size_t start = saved.find("<" + name + ">");
    if (start == std::string::npos) return "(none)";
    start += name.size() + 2;
    return saved.substr(start, saved.find("</" + name + ">") - start);
}

TEST(Dates, LocalDatesAreWrittenInUniversalTime) {
    ZoneText zone = Zone();
    if (!zone) GTEST_SKIP() << "TZ is neither America/New_York nor Asia/Kolkata";
    for (const Case& c : kCases) {
        ComPtr<IOPMLDocument> document = NewDocument();
        ComPtr<IOPMLHeader> header = HeaderOf(document.Get());
        EXPECT_HR(S_OK, header->put_DateCreated(c.local));
        EXPECT_HR(S_OK, header->put_DateModified(c.local));
        const std::string saved = Saved(document.Get());
        EXPECT_EQ(c.*zone, Element(saved, "dateCreated"));
        EXPECT_EQ(c.*zone, Element(saved, "dateModified"));
    }
}

TEST(Dates, UniversalTimesAreReadAsLocalDates) {
    ZoneText zone = Zone();
    if (!zone) GTEST_SKIP() << "TZ is neither America/New_York nor Asia/Kolkata";
    for (const Case& c : kCases) {
        ComPtr<IOPMLDocument> document = NewDocument();
        ASSERT_HR(S_OK, LoadText(document.Get(), L"<opml version=\"1.0\"><head><dateCreated>" + Widen(c.*zone) +
                                                     L"</dateCreated></head><body/></opml>"));
        DATE created = 0;
        EXPECT_HR(S_OK, HeaderOf(document.Get())->get_DateCreated(&created));
        EXPECT_NEAR(static_cast<long long>(c.local * 86400.0 + 1e-3), created * 86400.0, 1e-3) << c.*zone;
    }
}

TEST(Dates, DatesSurviveSaveAndLoad) {
    ComPtr<IOPMLDocument> original = NewDocument();
    ComPtr<IOPMLHeader> header = HeaderOf(original.Get());
    EXPECT_HR(S_OK, header->put_DateCreated(kCases[0].local));
    EXPECT_HR(S_OK, header->put_DateModified(kCases[2].local));
    const std::string first = Saved(original.Get());

    ComPtr<IOPMLDocument> copy = NewDocument();
    ASSERT_HR(S_OK, LoadBytes(copy.Get(), first));
    DATE created = 0, modified = 0;
    EXPECT_HR(S_OK, HeaderOf(copy.Get())->get_DateCreated(&created));
    EXPECT_HR(S_OK, HeaderOf(copy.Get())->get_DateModified(&modified));
    EXPECT_NEAR(kCases[0].local, created, 0.5 / 86400.0);
    EXPECT_NEAR(kCases[2].local, modified, 0.5 / 86400.0);
    EXPECT_EQ(first, Saved(copy.Get()));
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
