// Save, load and save again. Header dates are local time in the model and
// universal time in the text: the suite runs this program in two zones that
// are not UTC (TZ is set for the Wine process): New York, with daylight
// saving time, and Kolkata, half an hour off the hour.
#include <algorithm>

#include "opmltest.h"

namespace ky::test::opml {
namespace {

TEST(RoundTrip, AGeneratedDocumentComesBackToTheSameBytesFromAStreamOrAString) {
    ComPtr<IOPMLDocument> original = NewDocument();
    BuildRichDocument(original.Get(), 100, 20);
    const std::string first = Saved(original.Get());
    for (bool fromText : {false, true}) {
        ComPtr<IOPMLDocument> copy = NewDocument();
        ASSERT_HR(S_OK, fromText ? LoadText(copy.Get(), Widen(first)) : LoadBytes(copy.Get(), first));
        const std::string second = Saved(copy.Get());
        EXPECT_TRUE(first == second) << "first difference at byte "
                                     << std::mismatch(first.begin(), first.end(), second.begin()).first - first.begin();
    }
}

// Parts of a second are dropped, not rounded.
TEST(Dates, LocalDatesAreWrittenInUniversalTimeAndReadBack) {
    const struct { WORD month, day, hour, minute; double second; const char* newYork; const char* kolkata; } cases[] = {
        {7, 1, 12, 34, 56, "Mon, 01 Jul 2024 16:34:56 GMT", "Mon, 01 Jul 2024 07:04:56 GMT"},
        {1, 15, 8, 0, 0, "Mon, 15 Jan 2024 13:00:00 GMT", "Mon, 15 Jan 2024 02:30:00 GMT"},
        {3, 1, 0, 10, 0, "Fri, 01 Mar 2024 05:10:00 GMT", "Thu, 29 Feb 2024 18:40:00 GMT"},
        {12, 1, 12, 0, 0.9, "Sun, 01 Dec 2024 17:00:00 GMT", "Sun, 01 Dec 2024 06:30:00 GMT"},
    };
    char zone[64] = {};
    ::GetEnvironmentVariableA("TZ", zone, sizeof zone);
    const bool newYork = std::string(zone) == "America/New_York";
    if (!newYork && std::string(zone) != "Asia/Kolkata") GTEST_SKIP() << "TZ is neither New York nor Kolkata";
    for (const auto& c : cases) {
        SYSTEMTIME parts{2024, c.month, 0, c.day, c.hour, c.minute, 0, 0};
        DATE local = 0;
        ASSERT_TRUE(::SystemTimeToVariantTime(&parts, &local));
        local += c.second / 86400.0;
        const std::string text = newYork ? c.newYork : c.kolkata;
        ComPtr<IOPMLDocument> original = NewDocument(), copy = NewDocument();
        EXPECT_HR(S_OK, HeaderOf(original.Get())->put_DateCreated(local));
        const std::string saved = Saved(original.Get());
        EXPECT_NE(std::string::npos, saved.find("<dateCreated>" + text + "</dateCreated>")) << saved;
        ASSERT_HR(S_OK, LoadBytes(copy.Get(), saved));  // read back to the second
        DATE created = 0;
        EXPECT_HR(S_OK, HeaderOf(copy.Get())->get_DateCreated(&created));
        EXPECT_NEAR(static_cast<long long>(local * 86400.0 + 1e-3), created * 86400.0, 1e-3) << text;
        EXPECT_EQ(saved, Saved(copy.Get()));
    }
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
