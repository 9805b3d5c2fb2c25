// Reading the dates weather services send, strictly, and writing RFC 3339.
//
// kp::ServiceDateReader accepts exactly these forms (each may be turned off), and refuses
// everything else rather than guess:
//   rfc3339        "2024-03-31T01:30:00Z", "2024-03-31T03:30:00.250+02:00", "...+0200": ISO 8601
//                  date and time with 'T' (or 't'), seconds optional, a fraction of 1 to 9
//                  digits, and "Z" (or "z") or an offset
//   date           "2024-02-29": the start of that day in the reader's zone
//   localDateTime  "2024-03-31 03:30:00" (or with 'T', seconds optional): wall-clock time in
//                  the reader's zone; a time the zone skips is refused, one it repeats means
//                  the first
//   epochSeconds   "1711848600", "-86400", "1711848600.25": seconds since 1970 (UTC)
//   epochMilliseconds "1711848600000": milliseconds since 1970. When both epoch forms are on,
//                  integers of up to 11 digits are seconds and of 12 to 15 digits milliseconds
//   httpDate       "Sun, 31 Mar 2024 01:30:00 GMT", and the two older forms of HTTP dates
//                  ("Sunday, 31-Mar-24 01:30:00 GMT", "Sun Mar 31 01:30:00 2024"), as
//                  kp::parseHttpDate() reads them; the weekday must be the date's
// Dates outside the years 1 to 9999 give nothing. The reader's zone is UTC unless given.
//
// Thread safety: immutable; the reader and the free functions may be used from any thread.
//
// Example:
//   kp::ServiceDateReader reader(*kp::ZonedCalendar::make("Europe/Oslo").value());
//   std::optional<kp::Date> issued = reader.read(json["issued"]);   // nothing for "yesterday"
//   std::string text = kp::rfc3339String(*issued);                  // "2024-03-31T01:30:00Z"
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kp/localization/zoned_calendar.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"

namespace kp {

// Which forms a reader accepts (see the top of this file); all by default.
struct KP_EXPORT ServiceDateForms {
  bool rfc3339 = true;            // "2024-03-31T01:30:00Z"
  bool date = true;               // "2024-02-29"
  bool localDateTime = true;      // "2024-03-31 03:30:00"
  bool epochSeconds = true;       // "1711848600"
  bool epochMilliseconds = true;  // "1711848600000"
  bool httpDate = true;           // "Sun, 31 Mar 2024 01:30:00 GMT"
};

// Reads service dates strictly (see the top of this file).
class KP_EXPORT ServiceDateReader {
 public:
  // A reader in UTC accepting `forms`.
  explicit ServiceDateReader(ServiceDateForms forms = {});
  // A reader in `zone` accepting `forms`.
  explicit ServiceDateReader(ZonedCalendar zone, ServiceDateForms forms = {});

  // The date `text` stands for; nothing for any other text.
  [[nodiscard]] std::optional<Date> read(std::string_view text) const;
  // The zone of dates and wall-clock times without an offset.
  [[nodiscard]] const ZonedCalendar& zone() const noexcept { return zone_; }

 private:
  ZonedCalendar zone_;
  ServiceDateForms forms_;
};

// The rfc3339 form alone, without a calendar: what a parser of service answers calls per value.
[[nodiscard]] KP_EXPORT std::optional<Date> readRfc3339(std::string_view text);

// "2024-03-31T01:30:00Z", with ".250" milliseconds when the date has a fraction; nothing (an
// empty string) outside the years 1 to 9999.
[[nodiscard]] KP_EXPORT std::string rfc3339String(Date date);
// The same on the zone's wall clock with its offset: "2024-03-31T03:30:00+02:00" ("Z" where
// the offset is zero).
[[nodiscard]] KP_EXPORT std::string rfc3339String(Date date, const ZonedCalendar& zone);

}  // namespace kp
