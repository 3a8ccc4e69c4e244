// Dates of the OPML head: RFC 822 text in universal time, local DATE values
// in the model. Both directions use the time-zone rules in force now.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>

namespace OPML {

// Formats a local DATE as "Mon, 01 Jul 2024 16:00:00 GMT" (seconds
// truncated). E_FAIL for a DATE that has no such form, E_UNEXPECTED when the
// time zone cannot be read.
HRESULT FormatRfc822Date(DATE local, std::string* text);

// Parses RFC 822 date-time text into a local DATE. Accepted beyond the form
// above: no weekday, names in any case, one-digit days, two-digit years,
// no seconds, the zones UT, UTC, Z, EST, EDT, CST, CDT, MST, MDT, PST, PDT
// and numeric zones (+hhmm, -hhmm), and blanks around the parts. E_FAIL for
// other text, E_UNEXPECTED when the time zone cannot be read.
HRESULT ParseRfc822Date(const wchar_t* text, size_t length, DATE* local);

}  // namespace OPML
