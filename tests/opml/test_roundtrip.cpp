// Save, load and save again. Header dates are local time in the model and
// universal time in the text: the suite runs this program in two zones that
// are not UTC (TZ is set for the Wine process): New York, with daylight
// saving time, and Kolkata, half an hour off the hour.
#include <algorithm>

#include "opmltest.h"

namespace ky::test::opml {
namespace {

TEST(RoundTrip, AGeneratedDocumentComesBackToTheSameBytes) {
    ComPtr<IOPMLDocument> original = NewDocument();
    // 200 levels: the platform's parser refuses documents nested more than
    // about 256 elements deep.
    BuildRichDocument(original.Get(), 600, 200);
    const std::string first = Saved(original.Get());
    const std::wstring tree = TreeText(BodyOf(original.Get()).Get());
    // Read back from bytes in a stream and from the text in a string.
    for (bool fromText : {false, true}) {
        ComPtr<IOPMLDocument> copy = NewDocument();
        ASSERT_HR(S_OK, fromText ? LoadText(copy.Get(), Widen(first)) : LoadBytes(copy.Get(), first));
        EXPECT_TRUE(tree == TreeText(BodyOf(copy.Get()).Get()));
        const std::string second = Saved(copy.Get());
        EXPECT_TRUE(first == second) << "first difference at byte "
                                     << std::mismatch(first.begin(), first.end(), second.begin()).first - first.begin();
    }
}

DATE Local(WORD year, WORD month, WORD day, WORD hour, WORD minute, double second) {
    SYSTEMTIME parts{year, month, 0, day, hour, minute, 0, 0};
    DATE date = 0;
    EXPECT_TRUE(::SystemTimeToVariantTime(&parts, &date));
    return date + second / 86400.0;
}

TEST(Dates, LocalDatesAreWrittenInUniversalTimeAndReadBack) {
    const struct {
        DATE local;
        const char* newYork;
        const char* kolkata;
    } cases[] = {
        {Local(2024, 7, 1, 12, 34, 56), "Mon, 01 Jul 2024 16:34:56 GMT", "Mon, 01 Jul 2024 07:04:56 GMT"},
        {Local(2024, 1, 15, 8, 0, 0), "Mon, 15 Jan 2024 13:00:00 GMT", "Mon, 15 Jan 2024 02:30:00 GMT"},
        {Local(2024, 3, 1, 0, 10, 0), "Fri, 01 Mar 2024 05:10:00 GMT", "Thu, 29 Feb 2024 18:40:00 GMT"},
        // Parts of a second are dropped, not rounded.
        {Local(2024, 7, 1, 12, 0, 0.9), "Mon, 01 Jul 2024 16:00:00 GMT", "Mon, 01 Jul 2024 06:30:00 GMT"},
    };
    char zone[64] = {};
    ::GetEnvironmentVariableA("TZ", zone, sizeof zone);
    const bool newYork = std::string(zone) == "America/New_York";
    if (!newYork && std::string(zone) != "Asia/Kolkata") GTEST_SKIP() << "TZ is neither New York nor Kolkata";
    for (const auto& c : cases) {
        const std::string text = newYork ? c.newYork : c.kolkata;
        ComPtr<IOPMLDocument> original = NewDocument();
        EXPECT_HR(S_OK, HeaderOf(original.Get())->put_DateCreated(c.local));
        const std::string saved = Saved(original.Get());
        EXPECT_NE(std::string::npos, saved.find("<dateCreated>" + text + "</dateCreated>")) << saved;

        ComPtr<IOPMLDocument> copy = NewDocument();  // read back to the second
        ASSERT_HR(S_OK, LoadBytes(copy.Get(), saved));
        DATE created = 0;
        EXPECT_HR(S_OK, HeaderOf(copy.Get())->get_DateCreated(&created));
        EXPECT_NEAR(static_cast<long long>(c.local * 86400.0 + 1e-3), created * 86400.0, 1e-3) << text;
        EXPECT_EQ(saved, Saved(copy.Get()));
    }
}

}  // namespace
}  // namespace ky::test::opml

KY_TEST_MAIN(COINIT_MULTITHREADED)
