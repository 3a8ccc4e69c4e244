#include "opml/rfc822.h"

#include <cmath>
#include <cstdio>
#include <cwctype>

namespace OPML {

namespace {

const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

constexpr LONGLONG kTicksPerMinute = 60LL * 10000000LL;

HRESULT CurrentTimeZone(TIME_ZONE_INFORMATION* zone) {
    return ::GetTimeZoneInformation(zone) == TIME_ZONE_ID_INVALID ? E_UNEXPECTED : S_OK;
}

// Breaks a DATE into calendar parts with whole seconds, dropping the rest of
// the second. The runtime's own conversion rounds to the nearest second,
// which would move a time of 12:00:00.9 to 12:00:01.
bool DateToParts(DATE date, SYSTEMTIME* parts) {
    // Years 100 to 9999, the range of the automation DATE (NaN fails too).
    if (!(date > -657435.0 && date < 2958466.0)) return false;
    double whole = std::trunc(date);
    // Before 1899-12-30 the fraction still counts forward from the day's start.
    LONGLONG milliseconds = std::llround(std::fabs(date - whole) * 86400000.0);
    LONGLONG seconds = milliseconds / 1000;
    LONGLONG day = static_cast<LONGLONG>(whole);
    if (seconds >= 86400) {
        seconds -= 86400;
        ++day;
    }
    // Days since 1899-12-30 to a civil date (days-from-civil, inverted).
    LONGLONG z = day - 25569 + 719468;
    LONGLONG era = (z >= 0 ? z : z - 146096) / 146097;
    LONGLONG dayOfEra = z - era * 146097;
    LONGLONG yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    LONGLONG dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    LONGLONG monthIndex = (5 * dayOfYear + 2) / 153;
    LONGLONG month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
    LONGLONG year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
    *parts = SYSTEMTIME{};
    parts->wYear = static_cast<WORD>(year);
    parts->wMonth = static_cast<WORD>(month);
    parts->wDay = static_cast<WORD>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
    parts->wHour = static_cast<WORD>(seconds / 3600);
    parts->wMinute = static_cast<WORD>(seconds / 60 % 60);
    parts->wSecond = static_cast<WORD>(seconds % 60);
    return true;
}

// Reads the parts of the date text, left to right.
class Scanner {
public:
    Scanner(const wchar_t* text, size_t length) : m_p(text), m_end(text + length) {}

    void SkipBlanks() {
        while (m_p < m_end && (*m_p == L' ' || *m_p == L'\t' || *m_p == L'\r' || *m_p == L'\n')) ++m_p;
    }
    bool AtEnd() {
        SkipBlanks();
        return m_p == m_end;
    }
    bool Peek(wchar_t c) {
        SkipBlanks();
        return m_p < m_end && *m_p == c;
    }
    bool Take(wchar_t c) {
        if (!Peek(c)) return false;
        ++m_p;
        return true;
    }
    bool PeekLetter() {
        SkipBlanks();
        return m_p < m_end && std::iswalpha(*m_p);
    }
    // A run of letters, upper-cased.
    std::string Word() {
        SkipBlanks();
        std::string word;
        while (m_p < m_end && std::iswalpha(*m_p) && word.size() < 8) word += static_cast<char>(std::towupper(*m_p++));
        return word;
    }
    // A run of digits; false unless it has from `minDigits` to `maxDigits`.
    bool Number(int minDigits, int maxDigits, int* value, int* digits = nullptr) {
        SkipBlanks();
        int count = 0;
        *value = 0;
        while (m_p < m_end && *m_p >= L'0' && *m_p <= L'9') {
            if (++count > maxDigits) return false;
            *value = *value * 10 + (*m_p++ - L'0');
        }
        if (digits) *digits = count;
        return count >= minDigits;
    }

private:
    const wchar_t* m_p;
    const wchar_t* m_end;
};

int IndexOf(const std::string& name, const char* const* names, int count) {
    for (int i = 0; i < count; ++i) {
        if (_stricmp(name.c_str(), names[i]) == 0) return i;
    }
    return -1;
}

// Minutes east of universal time for a named zone.
bool NamedZone(const std::string& name, int* offset) {
    static const struct {
        const char* name;
        int offset;
    } kZones[] = {{"GMT", 0},        {"UT", 0},         {"UTC", 0},        {"Z", 0},
                  {"EST", -5 * 60},  {"EDT", -4 * 60},  {"CST", -6 * 60},  {"CDT", -5 * 60},
                  {"MST", -7 * 60},  {"MDT", -6 * 60},  {"PST", -8 * 60},  {"PDT", -7 * 60}};
    for (const auto& zone : kZones) {
        if (name == zone.name) {
            *offset = zone.offset;
            return true;
        }
    }
    return false;
}

// The universal time that the text names, or false.
bool ParseUniversal(const wchar_t* text, size_t length, SYSTEMTIME* universal) {
    Scanner in(text, length);
    if (in.PeekLetter()) {
        if (IndexOf(in.Word(), kDays, 7) < 0 || !in.Take(L',')) return false;
    }
    int day, month, year, yearDigits, hour, minute, second = 0;
    if (!in.Number(1, 2, &day)) return false;
    month = IndexOf(in.Word(), kMonths, 12) + 1;
    if (month == 0) return false;
    if (!in.Number(2, 4, &year, &yearDigits)) return false;
    if (yearDigits == 2) year += year < 50 ? 2000 : 1900;
    if (yearDigits == 3) year += 1900;
    if (!in.Number(1, 2, &hour) || !in.Take(L':') || !in.Number(2, 2, &minute)) return false;
    if (in.Take(L':') && !in.Number(2, 2, &second)) return false;
    int offset = 0;
    if (in.Peek(L'+') || in.Peek(L'-')) {
        int sign = in.Take(L'-') ? -1 : (in.Take(L'+'), 1);
        int hhmm;
        if (!in.Number(4, 4, &hhmm) || hhmm / 100 > 23 || hhmm % 100 > 59) return false;
        offset = sign * (hhmm / 100 * 60 + hhmm % 100);
    } else if (!NamedZone(in.Word(), &offset)) {
        return false;
    }
    if (!in.AtEnd() || hour > 23 || minute > 59 || second > 59) return false;

    SYSTEMTIME stated{};
    stated.wYear = static_cast<WORD>(year);
    stated.wMonth = static_cast<WORD>(month);
    stated.wDay = static_cast<WORD>(day);
    stated.wHour = static_cast<WORD>(hour);
    stated.wMinute = static_cast<WORD>(minute);
    stated.wSecond = static_cast<WORD>(second);
    FILETIME time;
    if (!::SystemTimeToFileTime(&stated, &time)) return false;  // 31 Feb and the like
    ULARGE_INTEGER ticks{};
    ticks.LowPart = time.dwLowDateTime;
    ticks.HighPart = time.dwHighDateTime;
    ticks.QuadPart -= offset * kTicksPerMinute;
    time.dwLowDateTime = ticks.LowPart;
    time.dwHighDateTime = ticks.HighPart;
    return ::FileTimeToSystemTime(&time, universal) != FALSE;
}

}  // namespace

HRESULT FormatRfc822Date(DATE local, std::string* text) {
    SYSTEMTIME localParts;
    if (!DateToParts(local, &localParts)) return E_FAIL;
    TIME_ZONE_INFORMATION zone;
    HRESULT hr = CurrentTimeZone(&zone);
    if (FAILED(hr)) return hr;
    SYSTEMTIME universal;
    FILETIME time;
    // The round trip through FILETIME fills in the day of the week.
    if (!::TzSpecificLocalTimeToSystemTime(&zone, &localParts, &universal) ||
        !::SystemTimeToFileTime(&universal, &time) || !::FileTimeToSystemTime(&time, &universal)) {
        return E_FAIL;
    }
    char buffer[64];
    int length = std::snprintf(buffer, sizeof buffer, "%s, %02u %s %04u %02u:%02u:%02u GMT",
                               kDays[universal.wDayOfWeek], universal.wDay, kMonths[universal.wMonth - 1],
                               universal.wYear, universal.wHour, universal.wMinute, universal.wSecond);
    if (length <= 0 || length >= static_cast<int>(sizeof buffer)) return E_FAIL;
    text->assign(buffer, static_cast<size_t>(length));
    return S_OK;
}

HRESULT ParseRfc822Date(const wchar_t* text, size_t length, DATE* local) {
    SYSTEMTIME universal;
    if (!ParseUniversal(text, length, &universal)) return E_FAIL;
    TIME_ZONE_INFORMATION zone;
    HRESULT hr = CurrentTimeZone(&zone);
    if (FAILED(hr)) return hr;
    SYSTEMTIME localParts;
    if (!::SystemTimeToTzSpecificLocalTime(&zone, &universal, &localParts)) return E_FAIL;
    localParts.wMilliseconds = 0;
    return ::SystemTimeToVariantTime(&localParts, local) ? S_OK : E_FAIL;
}

}  // namespace OPML
