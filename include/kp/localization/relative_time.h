// kp::RelativeTimeFormatter: how long ago or how soon, as a person says it: "now",
// "3 minutes ago", "in 2 hours", "yesterday", "in 5 days", "2 months ago". The texts come from
// the host's localized strings where they hold them, otherwise from the locale's data (with
// its plural rules and digits: "5 часов назад", "قبل ٣ ساعات").
//
// The unit is chosen by the distance d between the date and now:
//   d < 45 s        "now"
//   d < 45 min      minutes, rounded, at least 1
//   d < 22 h        hours, rounded, at least 1
//   d < 26 days     days, rounded; one day is "yesterday" or "tomorrow"
//   d < 320 days    months of 30.436875 days, rounded, at least 1
//   otherwise       years of 365.2425 days, rounded
// A date that is not finite gives no text (an empty string).
//
// Thread safety: immutable after construction; may be used from any thread. Formatters of the
// same locale and width share the locale's data.
//
// Example:
//   kp::RelativeTimeFormatter ago("en_US");
//   ago.string(info.remoteCreatedAt.value_or(info.localCreatedAt));   // "3 minutes ago"
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kp/localization/localization.h"
#include "kp/localization/localized_strings.h"
#include "kp/localization/zoned_calendar.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"

namespace kp {

// The distance the rules above choose: a count of a unit, negative in the past. A zero count
// of seconds is "now".
struct KP_EXPORT RelativeInterval {
  // How many units; negative in the past.
  long long count = 0;
  // The unit.
  CalendarUnit unit = CalendarUnit::second;
};

class KP_EXPORT RelativeTimeFormatter {
 public:
  // An empty locale is the environment's.
  explicit RelativeTimeFormatter(std::string_view locale = {}, TextWidth width = TextWidth::long_,
                                 std::shared_ptr<const LocalizedStrings> strings = LocalizedStrings::shared());

  // How far `date` is from `now`, as text (see the top of this file).
  [[nodiscard]] std::string string(Date date, Date now = Date::now()) const;

  // The distance the text names; nothing when it is not a finite number of seconds.
  [[nodiscard]] static std::optional<RelativeInterval> interval(Date date, Date now);

 private:
  class Impl;
  std::shared_ptr<const Impl> impl_;
};

}  // namespace kp
