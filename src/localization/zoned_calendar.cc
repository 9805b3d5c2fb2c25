// Calendar arithmetic in a zone on ICU's Gregorian calendar and zone data.
#include "kp/localization/zoned_calendar.h"

#include <array>
#include <cmath>
#include <limits>

#include "kp/localization/localization.h"
#include "localization/icu_support.h"

namespace kp {
namespace {

using internal::isDate;

constexpr double kMillisecondsPerSecond = 1000.0;

// ICU counts in milliseconds; a Date may carry microseconds, which ride along unchanged.
struct Split {
  UDate whole;
  double rest;  // seconds below the millisecond
};
Split split(Date date) {
  const double ms = date.timeIntervalSince1970() * kMillisecondsPerSecond;
  const double whole = std::floor(ms);
  return {whole, (ms - whole) / kMillisecondsPerSecond};
}

std::optional<Date> dateFrom(UDate ms, double rest = 0) {
  const double seconds = ms / kMillisecondsPerSecond + rest;
  if (!isDate(seconds)) return std::nullopt;
  return Date::fromTimeIntervalSince1970(seconds);
}

// Seconds east of UTC at `ms`; the calendar is left at `ms`.
double offsetAt(icu::Calendar& calendar, UDate ms) {
  UErrorCode status = U_ZERO_ERROR;
  calendar.setTime(ms, status);
  const int32_t zone = calendar.get(UCAL_ZONE_OFFSET, status);
  const int32_t dst = calendar.get(UCAL_DST_OFFSET, status);
  return U_SUCCESS(status) ? (zone + dst) / kMillisecondsPerSecond : 0;
}

// Wall-clock seconds past the last multiple of `step` (counted from the zone's midnights).
double remainder(icu::Calendar& calendar, double seconds, double step) {
  const double wall = seconds + offsetAt(calendar, std::floor(seconds * kMillisecondsPerSecond));
  return wall - step * std::floor(wall / step);
}

// The calendar set to the start of the day `fields` name (day may be out of the month: the
// lenient calendar carries it over); UDate NaN on failure.
UDate startOfDay(icu::Calendar& calendar, int32_t year, int32_t month0, int32_t day) {
  UErrorCode status = U_ZERO_ERROR;
  calendar.clear();
  calendar.set(year, month0, day, 0, 0, 0);
  const UDate ms = calendar.getTime(status);
  return U_SUCCESS(status) ? ms : std::numeric_limits<double>::quiet_NaN();
}

std::optional<UCalendarDateFields> calendarField(CalendarUnit unit) {
  switch (unit) {
    case CalendarUnit::day:
      return UCAL_DATE;
    case CalendarUnit::week:
      return UCAL_WEEK_OF_YEAR;
    case CalendarUnit::month:
      return UCAL_MONTH;
    case CalendarUnit::year:
      return UCAL_YEAR;
    default:
      return std::nullopt;
  }
}

double secondsPer(CalendarUnit unit) {
  switch (unit) {
    case CalendarUnit::minute:
      return 60;
    case CalendarUnit::hour:
      return 3600;
    default:
      return 1;
  }
}

bool sameDay(const DateParts& a, const DateParts& b) {
  return a.year == b.year && a.month == b.month && a.day == b.day;
}

}  // namespace

Result<ZonedCalendar> ZonedCalendar::make(std::string_view zone, std::string_view locale) {
  auto unknown = [&] {
    return Result<ZonedCalendar>::failure(Error::make(std::string(LocalizationError::kDomain),
                                                      LocalizationError::kUnknownTimeZone,
                                                      "Unknown time zone: \"" + std::string(zone) + "\""));
  };
  // Zone names are short; longer text is no name.
  if (zone.empty() || zone.size() > 64) return unknown();
  std::unique_ptr<icu::TimeZone> timeZone(
      icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(icu::StringPiece(zone.data(), zone.size()))));
  icu::UnicodeString id;
  if (!timeZone || timeZone->getID(id) == UNICODE_STRING_SIMPLE("Etc/Unknown")) return unknown();
  UErrorCode status = U_ZERO_ERROR;
  auto calendar = std::make_unique<icu::GregorianCalendar>(timeZone.release(), internal::localeFor(locale), status);
  if (U_FAILURE(status)) return unknown();
  // Proleptic Gregorian, as kp::Date and RFC 3339 count, also before 1582.
  calendar->setGregorianChange(-std::numeric_limits<double>::max(), status);
  calendar->setRepeatedWallTimeOption(UCAL_WALLTIME_FIRST);
  calendar->setSkippedWallTimeOption(UCAL_WALLTIME_LAST);
  return Result<ZonedCalendar>::success(ZonedCalendar(std::make_shared<Impl>(std::string(zone), std::move(calendar))));
}

Result<ZonedCalendar> ZonedCalendar::current() { return make(currentTimeZoneName()); }

ZonedCalendar ZonedCalendar::utc(std::string_view locale) { return *make("UTC", locale).value(); }

const std::string& ZonedCalendar::zoneName() const noexcept { return impl_->name(); }

int ZonedCalendar::firstWeekday() const noexcept { return impl_->firstWeekday(); }

std::optional<DateParts> ZonedCalendar::parts(Date date) const {
  if (!isDate(date)) return std::nullopt;
  return impl_->with([&](icu::Calendar& calendar) -> std::optional<DateParts> {
    UErrorCode status = U_ZERO_ERROR;
    calendar.setTime(split(date).whole, status);
    DateParts parts;
    parts.year = calendar.get(UCAL_YEAR, status);
    parts.month = calendar.get(UCAL_MONTH, status) + 1;
    parts.day = calendar.get(UCAL_DATE, status);
    parts.hour = calendar.get(UCAL_HOUR_OF_DAY, status);
    parts.minute = calendar.get(UCAL_MINUTE, status);
    parts.second = calendar.get(UCAL_SECOND, status);
    parts.millisecond = calendar.get(UCAL_MILLISECOND, status);
    parts.weekday = calendar.get(UCAL_DAY_OF_WEEK, status);
    parts.utcOffset = (calendar.get(UCAL_ZONE_OFFSET, status) + calendar.get(UCAL_DST_OFFSET, status)) / 1000;
    // Instants just inside the range may read as year 0 or 10000 on a zone's wall clock.
    if (U_FAILURE(status) || calendar.get(UCAL_ERA, status) != 1 || parts.year > 9999) return std::nullopt;
    return parts;
  });
}

std::optional<Date> ZonedCalendar::date(int year, int month, int day, int hour, int minute, double second) const {
  static constexpr std::array<int, 12> kDays{31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (year < 1 || year > 9999 || month < 1 || month > 12 || day < 1 || day > kDays[month - 1] || hour < 0 ||
      hour > 23 || minute < 0 || minute > 59 || !(second >= 0 && second < 60)) {
    return std::nullopt;
  }
  const double wholeSecond = std::floor(second);
  return impl_->with([&](icu::Calendar& calendar) -> std::optional<Date> {
    UErrorCode status = U_ZERO_ERROR;
    calendar.clear();
    calendar.set(year, month - 1, day, hour, minute, static_cast<int32_t>(wholeSecond));
    const UDate ms = calendar.getTime(status);
    // 30 February carries over into March, a skipped time moves past the change: both
    // read back differently.
    if (U_FAILURE(status) || calendar.get(UCAL_DATE, status) != day || calendar.get(UCAL_HOUR_OF_DAY, status) != hour ||
        calendar.get(UCAL_MINUTE, status) != minute) {
      return std::nullopt;
    }
    return dateFrom(ms, second - wholeSecond);
  });
}

std::optional<int> ZonedCalendar::utcOffset(Date date) const {
  if (auto p = parts(date)) return p->utcOffset;
  return std::nullopt;
}

std::optional<Date> ZonedCalendar::startOf(CalendarUnit unit, Date date) const {
  if (!isDate(date)) return std::nullopt;
  switch (unit) {
    case CalendarUnit::second:
      return Date::fromTimeIntervalSince1970(std::floor(date.timeIntervalSince1970()));
    case CalendarUnit::minute:
      return rounded(date, 1, RoundingRule::down);
    case CalendarUnit::hour:
      return rounded(date, 60, RoundingRule::down);
    default:
      break;
  }
  const int first = firstWeekday();
  return impl_->with([&](icu::Calendar& calendar) -> std::optional<Date> {
    UErrorCode status = U_ZERO_ERROR;
    calendar.setTime(split(date).whole, status);
    const int32_t year = calendar.get(UCAL_YEAR, status);
    const int32_t month0 = calendar.get(UCAL_MONTH, status);
    int32_t day = calendar.get(UCAL_DATE, status);
    const int32_t weekday = calendar.get(UCAL_DAY_OF_WEEK, status);
    if (U_FAILURE(status)) return std::nullopt;
    UDate start = 0;
    if (unit == CalendarUnit::day) {
      start = startOfDay(calendar, year, month0, day);
    } else if (unit == CalendarUnit::week) {
      start = startOfDay(calendar, year, month0, day - (weekday - first + 7) % 7);
    } else if (unit == CalendarUnit::month) {
      start = startOfDay(calendar, year, month0, 1);
    } else {
      start = startOfDay(calendar, year, 0, 1);
    }
    return dateFrom(start);
  });
}

std::optional<Date> ZonedCalendar::adding(Date date, long long count, CalendarUnit unit) const {
  if (!isDate(date)) return std::nullopt;
  const auto field = calendarField(unit);
  if (!field) {
    // A span of time; a count beyond ten thousand years' worth cannot stay in range.
    if (std::llabs(count) > 400'000'000'000LL) return std::nullopt;
    const Date result = date.addingTimeInterval(static_cast<double>(count) * secondsPer(unit));
    return isDate(result) ? std::optional(result) : std::nullopt;
  }
  if (count < std::numeric_limits<int32_t>::min() / 8 || count > std::numeric_limits<int32_t>::max() / 8) {
    return std::nullopt;
  }
  const Split start = split(date);
  return impl_->with([&](icu::Calendar& calendar) -> std::optional<Date> {
    UErrorCode status = U_ZERO_ERROR;
    calendar.setTime(start.whole, status);
    calendar.add(*field, static_cast<int32_t>(count), status);
    const UDate ms = calendar.getTime(status);
    if (U_FAILURE(status)) return std::nullopt;
    return dateFrom(ms, start.rest);
  });
}

std::optional<long long> ZonedCalendar::difference(Date from, Date to, CalendarUnit unit) const {
  if (!isDate(from) || !isDate(to)) return std::nullopt;
  const auto field = calendarField(unit);
  if (!field) return static_cast<long long>(std::trunc(to.timeIntervalSince(from) / secondsPer(unit)));
  return impl_->with([&](icu::Calendar& calendar) -> std::optional<long long> {
    UErrorCode status = U_ZERO_ERROR;
    calendar.setTime(split(from).whole, status);
    // Weeks are whole runs of seven days.
    const auto counted = unit == CalendarUnit::week ? UCAL_DATE : *field;
    const int32_t whole = calendar.fieldDifference(split(to).whole, counted, status);
    if (U_FAILURE(status)) return std::nullopt;
    return unit == CalendarUnit::week ? whole / 7 : whole;
  });
}

std::optional<Date> ZonedCalendar::rounded(Date date, int stepMinutes, RoundingRule rule) const {
  if (!isDate(date) || stepMinutes <= 0 || 1440 % stepMinutes != 0) return std::nullopt;
  const double step = stepMinutes * 60.0;
  const double t = date.timeIntervalSince1970();
  const auto [down, up] = impl_->with([&](icu::Calendar& calendar) {
    // Measured with the offset of `t`, the candidate may lie across a change of offset, where
    // the wall clock reads differently; measuring again from there finds the boundary.
    double below = t;
    for (int i = 0; i < 3; ++i) {
      const double r = remainder(calendar, below, step);
      if (r == 0) break;
      below -= r;
    }
    double above = t;
    for (int i = 0; i < 3; ++i) {
      const double r = remainder(calendar, above, step);
      if (r == 0) break;
      above += step - r;
    }
    return std::pair(below, above);
  });
  double result = up;
  if (rule == RoundingRule::down || (rule == RoundingRule::nearest && t - down < up - t)) result = down;
  return isDate(result) ? std::optional(Date::fromTimeIntervalSince1970(result)) : std::nullopt;
}

bool ZonedCalendar::isSameDay(Date a, Date b) const {
  const auto pa = parts(a);
  const auto pb = parts(b);
  return pa && pb && sameDay(*pa, *pb);
}

bool ZonedCalendar::isToday(Date date, Date now) const { return isSameDay(date, now); }

bool ZonedCalendar::isTomorrow(Date date, Date now) const {
  const auto today = startOf(CalendarUnit::day, now);
  const auto tomorrow = today ? adding(*today, 1, CalendarUnit::day) : std::nullopt;
  return tomorrow && isSameDay(date, *tomorrow);
}

bool ZonedCalendar::isYesterday(Date date, Date now) const {
  const auto today = startOf(CalendarUnit::day, now);
  const auto yesterday = today ? adding(*today, -1, CalendarUnit::day) : std::nullopt;
  return yesterday && isSameDay(date, *yesterday);
}

std::optional<int> ZonedCalendar::weekday(Date date) const {
  if (auto p = parts(date)) return p->weekday;
  return std::nullopt;
}

}  // namespace kp
