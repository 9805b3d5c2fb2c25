// kp::ZonedDateFormatter: dates and times as a locale writes them, on the wall clock of one
// zone. The caller names the fields it wants as a skeleton in the Unicode date field symbols,
// in any order ("EEEjmm": short weekday, hour in the locale's own cycle, minutes; "MMMd";
// "yMMMMEEEEd"); the locale's data orders them and adds its punctuation and digits, so
// "EEEjmm" is "Mon 2:00 PM" in en_US, "Mo., 14:00" in de_DE and "الاثنين ٢:٠٠ م" in ar_EG.
// The calendar is the locale's own (Buddhist years in th_TH), as people there read dates.
//
// Dates outside the years 1 to 9999, and NaN, give no text.
//
// Thread safety: every member may be called from any thread; copies share one formatter,
// whose use is serialised (make one per thread where many threads format at once).
//
// Example:
//   auto hours = kp::ZonedDateFormatter::make("jmm", "America/New_York", "en_US");
//   if (hours.value()) std::string text = hours.value()->string(kp::Date::now());   // "9:41 AM"
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "kp/localization/zoned_calendar.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"
#include "kp/platform/result.h"

namespace kp {

class KP_EXPORT ZonedDateFormatter {
 public:
  // An unknown zone gives LocalizationError::kUnknownTimeZone, a skeleton the locale's data
  // cannot use LocalizationError::kInvalidSkeleton. An empty locale is the environment's.
  [[nodiscard]] static Result<ZonedDateFormatter> make(std::string_view skeleton, std::string_view zone,
                                                       std::string_view locale = {});
  // A formatter for `skeleton` in `calendar`'s zone and `locale`; an error for a skeleton it cannot use.
  [[nodiscard]] static Result<ZonedDateFormatter> make(std::string_view skeleton, const ZonedCalendar& calendar,
                                                       std::string_view locale = {});

  // The pattern the locale's data made of the skeleton ("EEE HH:mm").
  [[nodiscard]] const std::string& pattern() const noexcept;
  // `date` as text.
  [[nodiscard]] std::string string(Date date) const;
  // Appends the text to `out`; appends nothing where string() gives no text.
  void append(std::string& out, Date date) const;

 private:
  class Impl;
  explicit ZonedDateFormatter(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
  std::shared_ptr<Impl> impl_;
};

}  // namespace kp
