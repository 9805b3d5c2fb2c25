// kp::ZonedCalendar: calendar arithmetic on instants (kp::Date) as a clock on the wall of one
// IANA time zone reads them: the start of an hour, day or week (the locale's first weekday),
// adding hours, days or months across daylight-saving changes, differences in whole units,
// rounding to steps of minutes or hours, and same-day, today and tomorrow tests. The calendar
// is the proleptic Gregorian one, whatever the locale's own.
//
// Rules:
// - Hours, minutes and seconds are spans of time: adding 1 hour to 01:30 on the night clocks
//   go forward gives 03:30. Days, weeks, months and years keep the wall-clock time: adding 1
//   day to noon before a change gives noon after it, 23 or 25 hours later. A month added to
//   31 January gives the month's last day (29 February in a leap year).
// - A wall-clock time that a change skips is moved forward by the change (02:30 becomes
//   03:30 where clocks jump from 02:00 to 03:00); one that occurs twice means the first.
// - Only instants of the years 1 to 9999 are dates here: anything outside (and NaN) gives
//   nothing, as does a result that would leave that range.
// - An unknown zone name is an error, never UTC.
//
// Thread safety: every member may be called from any thread; copies share one calendar,
// whose use is serialised.
//
// Example:
//   auto berlin = kp::ZonedCalendar::make("Europe/Berlin", "de_DE");
//   if (!berlin.value()) return report(berlin.error());
//   const kp::ZonedCalendar& calendar = *berlin.value();
//   auto tomorrow = calendar.adding(*calendar.startOf(kp::CalendarUnit::day, now), 1, kp::CalendarUnit::day);
//   auto slot = calendar.rounded(now, 15, kp::RoundingRule::down);   // 14:07 -> 14:00
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/date.h"
#include "kp/platform/export.h"
#include "kp/platform/result.h"

namespace kp {

namespace internal {
struct ZonedCalendarAccess;
}

// The units of calendar arithmetic.
enum class CalendarUnit { second, minute, hour, day, week, month, year };

// Which way rounded() goes.
enum class RoundingRule { nearest, down, up };

// An instant as the zone's wall clock shows it.
struct KP_EXPORT DateParts {
  int year = 1;         // 1 to 9999
  int month = 1;        // 1 to 12
  int day = 1;          // 1 to 31
  int hour = 0;         // 0 to 23
  int minute = 0;       // 0 to 59
  int second = 0;       // 0 to 59
  int millisecond = 0;  // 0 to 999
  int weekday = 1;      // 1 Sunday, 2 Monday ... 7 Saturday
  int utcOffset = 0;    // seconds east of UTC, daylight saving included
};

class KP_EXPORT ZonedCalendar {
 public:
  // The calendar of the IANA zone `zone` ("Europe/Berlin", "UTC", "Etc/GMT-3"); `locale`
  // chooses the first day of the week (empty: the environment's). An unknown or empty zone
  // name gives LocalizationError::kUnknownTimeZone.
  [[nodiscard]] static Result<ZonedCalendar> make(std::string_view zone, std::string_view locale = {});
  // The environment's zone and locale; an error when the environment names an unknown zone.
  [[nodiscard]] static Result<ZonedCalendar> current();
  // UTC, with `locale` choosing the first day of the week.
  [[nodiscard]] static ZonedCalendar utc(std::string_view locale = {});

  // The zone's name as given.
  [[nodiscard]] const std::string& zoneName() const noexcept;
  // 1 Sunday, 2 Monday ... 7 Saturday.
  [[nodiscard]] int firstWeekday() const noexcept;

  // `date` on the zone's wall clock; nothing outside the years 1 to 9999.
  [[nodiscard]] std::optional<DateParts> parts(Date date) const;
  // The instant the wall clock shows these fields at; nothing for fields out of range (such
  // as 30 February or hour 24) and for a time the zone skips.
  [[nodiscard]] std::optional<Date> date(int year, int month, int day, int hour = 0, int minute = 0,
                                         double second = 0) const;
  // Seconds east of UTC at `date`, daylight saving included.
  [[nodiscard]] std::optional<int> utcOffset(Date date) const;

  // The start of the minute, hour, day, week, month or year holding `date` (a `second` unit
  // cuts the fraction). A day that starts with a skipped midnight starts when the clocks do.
  [[nodiscard]] std::optional<Date> startOf(CalendarUnit unit, Date date) const;
  // `date` moved by `count` units: seconds, minutes and hours as spans of time, days, weeks,
  // months and years on the wall clock; nothing when the result leaves the years 1 to 9999.
  [[nodiscard]] std::optional<Date> adding(Date date, long long count, CalendarUnit unit) const;
  // Whole units from `from` to `to`, truncated toward zero (negative when `to` is earlier).
  [[nodiscard]] std::optional<long long> difference(Date from, Date to, CalendarUnit unit) const;
  // `date` rounded to a wall-clock time that is a whole number of `stepMinutes` since
  // midnight; the step must divide a day (1, 5, 15, 30, 60, 180, 1440 ...). Down gives the
  // latest such time at or before `date`, up the earliest at or after, nearest the closer of
  // the two (a tie rounds up). Nothing for a step that does not divide a day.
  [[nodiscard]] std::optional<Date> rounded(Date date, int stepMinutes, RoundingRule rule) const;

  [[nodiscard]] bool isSameDay(Date a, Date b) const;                       // on one wall-clock day
  [[nodiscard]] bool isToday(Date date, Date now = Date::now()) const;      // on the day of `now`
  [[nodiscard]] bool isTomorrow(Date date, Date now = Date::now()) const;   // on the day after `now`'s
  [[nodiscard]] bool isYesterday(Date date, Date now = Date::now()) const;  // on the day before `now`'s
  // 1 Sunday ... 7 Saturday.
  [[nodiscard]] std::optional<int> weekday(Date date) const;

  class Impl;

 private:
  friend struct internal::ZonedCalendarAccess;
  explicit ZonedCalendar(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
  std::shared_ptr<Impl> impl_;
};

}  // namespace kp
