// Reading the dates of HTTP header fields (Date, Expires, Last-Modified) and of services that
// send dates the same way.
//
// parseHttpDate() accepts the three forms that every HTTP recipient must accept:
//   "Sun, 06 Nov 1994 08:49:37 GMT"   the preferred form; a one-digit day, "UTC", "UT", the US
//                                     zones ("EST" to "PDT") and offsets such as "GMT+02:00",
//                                     "+0200" or "+02:00" also
//   "Sunday, 06-Nov-94 08:49:37 GMT"  the obsolete form, whose two-digit year is the latest year
//                                     with those digits that is at most 50 years ahead of now
//   "Sun Nov  6 08:49:37 1994"        the C library's asctime() form, in UTC
// Day and month names are English, in any case, and the weekday must be the date's. A leap
// second (60) reads as the start of the next minute. Anything else gives nothing: text around
// the date, other zones, a day the month lacks, the year 0, text longer than 64 bytes.
//
// Thread safety: a pure function (it reads the clock only for two-digit years).
//
// Example:
//   std::optional<kp::Date> sent = kp::parseHttpDate(headers["Date"]);
#pragma once

#include <optional>
#include <string_view>

#include "kp/platform/date.h"
#include "kp/platform/export.h"

namespace kp {

// The date `text` stands for in one of the forms above; nothing for any other text.
[[nodiscard]] KP_EXPORT std::optional<Date> parseHttpDate(std::string_view text);

}  // namespace kp
