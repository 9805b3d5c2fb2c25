// What the localization sources share: locales from identifiers, UTF-16 to UTF-8, the range
// of instants that count as dates, and the calendar's internals for the formatters.
// Internal; not installed.
//
// Thread safety: pure functions; ZonedCalendar::Impl serialises its calendar itself.
#pragma once

#include <unicode/gregocal.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <cmath>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "kp/localization/zoned_calendar.h"
#include "kp/platform/date.h"

namespace kp::internal {

// Instants of the years 1 to 9999: from 0001-01-01T00:00:00Z up to, not including,
// 10000-01-01T00:00:00Z. NaN is outside.
inline constexpr double kEarliestDate = -62135596800.0;
inline constexpr double kEndOfDates = 253402300800.0;
[[nodiscard]] inline bool isDate(double secondsSince1970) {
  return secondsSince1970 >= kEarliestDate && secondsSince1970 < kEndOfDates;
}
[[nodiscard]] inline bool isDate(Date date) { return isDate(date.timeIntervalSince1970()); }

// The locale an identifier names: "" is the environment's; ".UTF-8" and POSIX modifiers
// ("@euro") are dropped, ICU keywords ("@rg=gbzzzz") kept; text that is no identifier is the
// root locale.
[[nodiscard]] icu::Locale localeFor(std::string_view identifier);
// The identifier of that locale ("de_DE"), as a key for caches.
[[nodiscard]] std::string localeKey(std::string_view identifier);

[[nodiscard]] std::string utf8(const icu::UnicodeString& text);
void appendUtf8(std::string& out, const icu::UnicodeString& text);

// An integer with the locale's digits and grouping ("١٢", "1 234"), for the "{0}" of the host's
// strings.
[[nodiscard]] std::string integerText(std::string_view locale, long long value);
// `text` with its first "{0}" replaced by `number`.
[[nodiscard]] std::string substitute(std::string text, std::string_view number);

// Values made once per key and shared; at most `Limit` are kept, so arbitrary keys from
// callers cannot grow it without end (holders keep an evicted value alive).
template <class V, std::size_t Limit = 128>
class SharedCache {
 public:
  template <class Make>
  std::shared_ptr<const V> get(const std::string& key, Make&& make) {
    std::lock_guard lock(mutex_);
    if (auto it = values_.find(key); it != values_.end()) return it->second;
    if (values_.size() >= Limit) values_.erase(values_.begin());
    std::shared_ptr<const V> made = make();
    values_.emplace(key, made);
    return made;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<const V>> values_;
};

}  // namespace kp::internal

namespace kp {

class ZonedCalendar::Impl {
 public:
  Impl(std::string name, std::unique_ptr<icu::GregorianCalendar> calendar)
      : name_(std::move(name)), calendar_(std::move(calendar)), firstWeekday_(calendar_->getFirstDayOfWeek()) {}

  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  [[nodiscard]] int firstWeekday() const noexcept { return firstWeekday_; }
  // Runs `work` with the calendar, alone.
  template <class F>
  auto with(F&& work) const {
    std::lock_guard lock(mutex_);
    return work(*calendar_);
  }
  // A copy of the zone, for formatters that keep their own.
  [[nodiscard]] std::unique_ptr<icu::TimeZone> zone() const {
    std::lock_guard lock(mutex_);
    return std::unique_ptr<icu::TimeZone>(calendar_->getTimeZone().clone());
  }

 private:
  std::string name_;
  mutable std::mutex mutex_;
  std::unique_ptr<icu::GregorianCalendar> calendar_;
  int firstWeekday_;
};

namespace internal {
struct ZonedCalendarAccess {
  static const ZonedCalendar::Impl& impl(const ZonedCalendar& calendar) { return *calendar.impl_; }
};
}  // namespace internal

}  // namespace kp
