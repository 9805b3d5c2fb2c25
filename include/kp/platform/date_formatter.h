// kp::DateFormatter: writes dates by a pattern in the platform's date-pattern syntax (the
// Unicode date field symbols), e.g. "yyyy-MM-dd HH:mm:ss.SSS" or "EEE, d MMM yyyy HH:mm:ssZZZZZ".
//
// Supported fields (repeat a letter for width; numbers are zero-padded to the repeat count):
//   y year ("yy": last two digits)     M/L month (1-2 digits, 3 "Jan", 4 "January", 5 "J")
//   d day of month    D day of year    E weekday (1-3 "Mon", 4 "Monday", 5 "M")
//   a "AM"/"PM"       H 0-23   k 1-24  h 1-12   K 0-11   m minute   s second
//   S fraction of a second, as many digits as letters (truncated)
//   Z offset: 1-3 "+0100", 4 "GMT+01:00", 5 "+01:00" ("Z" at zero)
//   X/x offset: 1 "+01", 2 "+0100", 3 "+01:00" (X writes "Z" at zero)
//   z zone abbreviation ("CET"; "UTC" in UTC)
//   G era ("AD"/"BC")
// Text in single quotes is literal, two single quotes are one quote, and any other character,
// including a letter that is not a field, is written as it stands. Names are English.
// The pattern is read once, when the formatter is made.
//
// Thread safety: immutable after construction; may be used from any thread.
//
// Example:
//   kp::DateFormatter formatter("HH:mm:ss.SSS");
//   std::string text = formatter.string(kp::Date::now());   // "14:03:07.125"
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kp/platform/date.h"
#include "kp/platform/export.h"

namespace kp {

class KP_EXPORT DateFormatter {
 public:
  // The zone dates are written in.
  enum class Zone { local, utc };

  // A formatter for `pattern` in `zone`.
  explicit DateFormatter(std::string_view pattern, Zone zone = Zone::local);

  // The pattern.
  [[nodiscard]] const std::string& pattern() const noexcept { return pattern_; }
  // `date` as the pattern writes it.
  [[nodiscard]] std::string string(Date date) const;
  // Appends the formatted date to `out`.
  void append(std::string& out, Date date) const;

 private:
  struct Token {
    char field;  // 0 for literal text
    std::uint16_t count;
    std::string literal;
  };
  std::string pattern_;
  Zone zone_;
  std::vector<Token> tokens_;
};

}  // namespace kp
