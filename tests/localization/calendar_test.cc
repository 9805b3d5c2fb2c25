// Calendar arithmetic on real zone data: the daylight-saving changes of Berlin and New York,
// Lord Howe Island's half-hour change, leap days, and the edges of the date range.
#include <gtest/gtest.h>

#include "kp/localization/localization.h"
#include "kp/localization/service_date.h"
#include "kp/localization/zoned_calendar.h"
#include "kp/localization/zoned_date_formatter.h"

namespace {

using kp::CalendarUnit;
using kp::Date;
using kp::RoundingRule;
using kp::ZonedCalendar;

ZonedCalendar zone(const char* name, const char* locale = "en_US") {
  return *ZonedCalendar::make(name, locale).value();
}

Date at(const char* text) { return *kp::readRfc3339(text); }

std::string local(const ZonedCalendar& calendar, std::optional<Date> date) {
  return date ? kp::rfc3339String(*date, calendar) : "nothing";
}

TEST(ZonedCalendar, DaysKeepTheWallClockAcrossDaylightSavingChangesWhileHoursAreElapsedTime) {
  const auto berlin = zone("Europe/Berlin");
  // Spring forward on 31 March 2024 (02:00 -> 03:00) and back on 27 October (03:00 -> 02:00).
  const Date noonBefore = at("2024-03-30T12:00:00+01:00");
  EXPECT_EQ(local(berlin, berlin.adding(noonBefore, 1, CalendarUnit::day)), "2024-03-31T12:00:00+02:00");
  EXPECT_EQ(local(berlin, berlin.adding(noonBefore, 24, CalendarUnit::hour)), "2024-03-31T13:00:00+02:00");
  EXPECT_EQ(local(berlin, berlin.adding(at("2024-10-26T12:00:00+02:00"), 1, CalendarUnit::day)),
            "2024-10-27T12:00:00+01:00");
  EXPECT_EQ(local(berlin, berlin.adding(at("2024-03-31T01:30:00+01:00"), 1, CalendarUnit::hour)),
            "2024-03-31T03:30:00+02:00");
  const auto springDay = berlin.startOf(CalendarUnit::day, at("2024-03-31T15:00:00+02:00"));
  const auto nextDay = berlin.adding(*springDay, 1, CalendarUnit::day);
  EXPECT_EQ(nextDay->timeIntervalSince(*springDay), 23 * 3600);
  EXPECT_EQ(berlin.difference(*springDay, *nextDay, CalendarUnit::day), 1);
  EXPECT_EQ(berlin.difference(*springDay, *nextDay, CalendarUnit::hour), 23);
  EXPECT_EQ(berlin.difference(*nextDay, *springDay, CalendarUnit::day), -1);

  const auto newYork = zone("America/New_York");
  // 10 March 2024 02:00 -> 03:00; 3 November 02:00 -> 01:00, when 01:30 happens twice.
  EXPECT_EQ(local(newYork, newYork.adding(at("2024-03-09T12:00:00-05:00"), 1, CalendarUnit::day)),
            "2024-03-10T12:00:00-04:00");
  const auto fallDay = newYork.startOf(CalendarUnit::day, at("2024-11-03T20:00:00-05:00"));
  EXPECT_EQ(local(newYork, fallDay), "2024-11-03T00:00:00-04:00");
  EXPECT_EQ(newYork.adding(*fallDay, 1, CalendarUnit::day)->timeIntervalSince(*fallDay), 25 * 3600);
  EXPECT_EQ(local(newYork, newYork.date(2024, 11, 3, 1, 30)), "2024-11-03T01:30:00-04:00");  // the first
  EXPECT_EQ(local(newYork, newYork.date(2024, 3, 10, 2, 30)), "nothing");                    // skipped
  // The start of an hour that repeats is the second run's start, not the first's.
  EXPECT_EQ(local(newYork, newYork.startOf(CalendarUnit::hour, at("2024-11-03T01:40:00-05:00"))),
            "2024-11-03T01:00:00-05:00");
}

TEST(ZonedCalendar, HalfHourChangesOfLordHoweRoundOnTheLocalClock) {
  const auto lordHowe = zone("Australia/Lord_Howe");
  EXPECT_EQ(lordHowe.utcOffset(at("2024-01-15T00:00:00Z")), 11 * 3600);
  EXPECT_EQ(lordHowe.utcOffset(at("2024-07-15T00:00:00Z")), 10 * 3600 + 1800);
  // Clocks go back from 02:00 to 01:30 on 7 April 2024 (15:00Z).
  EXPECT_EQ(local(lordHowe, lordHowe.adding(at("2024-04-06T12:00:00+11:00"), 1, CalendarUnit::day)),
            "2024-04-07T12:00:00+10:30");
  EXPECT_EQ(lordHowe.difference(at("2024-04-06T12:00:00+11:00"), at("2024-04-07T12:00:00+10:30"), CalendarUnit::hour),
            24);
  // Whole hours of the local clock are half past in UTC in winter.
  EXPECT_EQ(local(lordHowe, lordHowe.rounded(at("2024-07-31T10:40:00Z"), 60, RoundingRule::nearest)),
            "2024-07-31T21:00:00+10:30");
  EXPECT_EQ(local(lordHowe, lordHowe.rounded(at("2024-01-31T10:40:00Z"), 60, RoundingRule::nearest)),
            "2024-01-31T22:00:00+11:00");
  // After the change the wall clock reads 01:40 of standard time; the last whole hour it showed
  // was 01:00 of summer time, an hour and ten minutes earlier.
  const Date afterChange = at("2024-04-06T15:10:00Z");
  EXPECT_EQ(local(lordHowe, lordHowe.rounded(afterChange, 60, RoundingRule::down)), "2024-04-07T01:00:00+11:00");
  EXPECT_EQ(local(lordHowe, lordHowe.rounded(afterChange, 60, RoundingRule::up)), "2024-04-07T02:00:00+10:30");
  // Spring forward from 02:00 to 02:30 on 6 October: 02:00 never shows.
  EXPECT_EQ(local(lordHowe, lordHowe.rounded(at("2024-10-06T01:50:00+10:30"), 60, RoundingRule::up)),
            "2024-10-06T03:00:00+11:00");
}

TEST(ZonedCalendar, RoundingStartsAndDayTests) {
  const auto utc = ZonedCalendar::utc();
  const Date t = at("2024-03-31T10:52:30Z");
  EXPECT_EQ(local(utc, utc.rounded(t, 15, RoundingRule::down)), "2024-03-31T10:45:00Z");
  EXPECT_EQ(local(utc, utc.rounded(t, 15, RoundingRule::up)), "2024-03-31T11:00:00Z");
  EXPECT_EQ(local(utc, utc.rounded(t, 15, RoundingRule::nearest)), "2024-03-31T11:00:00Z");  // a tie
  EXPECT_EQ(local(utc, utc.rounded(t.addingTimeInterval(-1), 15, RoundingRule::nearest)), "2024-03-31T10:45:00Z");
  EXPECT_EQ(local(utc, utc.rounded(at("2024-03-31T10:52:30Z"), 5, RoundingRule::nearest)), "2024-03-31T10:55:00Z");
  EXPECT_EQ(local(utc, utc.rounded(at("2024-03-31T10:45:00Z"), 15, RoundingRule::up)), "2024-03-31T10:45:00Z");
  EXPECT_EQ(local(utc, utc.rounded(t, 180, RoundingRule::down)), "2024-03-31T09:00:00Z");
  EXPECT_FALSE(utc.rounded(t, 7, RoundingRule::down));
  EXPECT_FALSE(utc.rounded(t, 0, RoundingRule::down));

  // The week starts on the locale's first weekday: Sunday in the US, Monday in Germany,
  // Saturday in Egypt.
  EXPECT_EQ(local(utc, zone("UTC", "en_US").startOf(CalendarUnit::week, t)), "2024-03-31T00:00:00Z");
  EXPECT_EQ(local(utc, zone("UTC", "de_DE").startOf(CalendarUnit::week, t)), "2024-03-25T00:00:00Z");
  EXPECT_EQ(local(utc, zone("UTC", "ar_EG").startOf(CalendarUnit::week, t)), "2024-03-30T00:00:00Z");
  EXPECT_EQ(local(utc, utc.startOf(CalendarUnit::month, t)), "2024-03-01T00:00:00Z");

  const auto tokyo = zone("Asia/Tokyo");
  const Date lateEvening = at("2024-03-31T23:30:00+09:00");
  EXPECT_TRUE(tokyo.isToday(at("2024-03-31T00:10:00+09:00"), lateEvening));
  EXPECT_FALSE(utc.isToday(at("2024-03-31T00:10:00+09:00"), lateEvening));  // 30 March in UTC
  EXPECT_TRUE(tokyo.isTomorrow(at("2024-04-01T00:10:00+09:00"), lateEvening));
  EXPECT_TRUE(tokyo.isYesterday(at("2024-03-30T23:59:00+09:00"), lateEvening));
  EXPECT_EQ(tokyo.weekday(lateEvening), 1);  // Sunday
}

TEST(ZonedCalendar, LeapDaysAndMonthEnds) {
  const auto utc = ZonedCalendar::utc();
  EXPECT_EQ(local(utc, utc.adding(at("2024-01-31T08:00:00Z"), 1, CalendarUnit::month)), "2024-02-29T08:00:00Z");
  EXPECT_EQ(local(utc, utc.adding(at("2023-01-31T08:00:00Z"), 1, CalendarUnit::month)), "2023-02-28T08:00:00Z");
  EXPECT_EQ(local(utc, utc.adding(at("2024-02-29T08:00:00Z"), 1, CalendarUnit::year)), "2025-02-28T08:00:00Z");
  EXPECT_EQ(local(utc, utc.adding(at("2024-02-29T08:00:00Z"), 4, CalendarUnit::year)), "2028-02-29T08:00:00Z");
  EXPECT_EQ(local(utc, utc.date(2000, 2, 29)), "2000-02-29T00:00:00Z");
  EXPECT_EQ(local(utc, utc.date(1900, 2, 29)), "nothing");
  EXPECT_EQ(local(utc, utc.date(2023, 2, 29)), "nothing");
  // Differences count as adding does: a year after 29 February is 28 February.
  EXPECT_EQ(utc.difference(at("2024-02-29T00:00:00Z"), at("2025-02-28T00:00:00Z"), CalendarUnit::year), 1);
  EXPECT_EQ(utc.difference(at("2024-02-29T00:00:00Z"), at("2025-02-27T23:00:00Z"), CalendarUnit::year), 0);
  EXPECT_EQ(utc.difference(at("2024-01-01T00:00:00Z"), at("2025-01-01T00:00:00Z"), CalendarUnit::day), 366);
  EXPECT_EQ(utc.difference(at("2024-01-01T00:00:00Z"), at("2024-03-01T00:00:00Z"), CalendarUnit::week), 8);
  // Proleptic Gregorian before 1582, as RFC 3339 counts: 1500 has no leap day, and the
  // fields of 1200 are those of the text.
  EXPECT_EQ(local(utc, utc.date(1500, 2, 29)), "nothing");
  EXPECT_EQ(local(utc, utc.date(1200, 3, 1, 12)), "1200-03-01T12:00:00Z");
}

TEST(ZonedCalendar, UnknownZonesAndDatesOutOfRangeGiveNothing) {
  for (const char* name : {"Mars/Olympus_Mons", "", "Etc/Unknown", "Europe/Berlin\n", "../../etc/passwd"}) {
    auto made = ZonedCalendar::make(name);
    ASSERT_FALSE(made.value()) << name;
    EXPECT_EQ(made.error()->domain(), kp::LocalizationError::kDomain);
    EXPECT_EQ(made.error()->code(), kp::LocalizationError::kUnknownTimeZone);
  }
  EXPECT_FALSE(kp::ZonedDateFormatter::make("jmm", "Nowhere/Town").value());
  const auto utc = ZonedCalendar::utc();
  const Date nan = Date::fromTimeIntervalSince1970(std::numeric_limits<double>::quiet_NaN());
  for (const Date bad :
       {nan, Date::fromTimeIntervalSince1970(1e300), at("0001-01-01T00:00:00Z").addingTimeInterval(-1)}) {
    EXPECT_FALSE(utc.parts(bad));
    EXPECT_FALSE(utc.startOf(CalendarUnit::day, bad));
    EXPECT_FALSE(utc.adding(bad, 1, CalendarUnit::day));
    EXPECT_FALSE(utc.rounded(bad, 15, RoundingRule::down));
    EXPECT_FALSE(utc.isSameDay(bad, bad));
  }
  EXPECT_FALSE(utc.adding(at("9999-12-31T12:00:00Z"), 1, CalendarUnit::day));
  EXPECT_FALSE(utc.adding(at("2024-01-01T00:00:00Z"), 1LL << 40, CalendarUnit::month));
  EXPECT_FALSE(utc.adding(at("2024-01-01T00:00:00Z"), -(1LL << 62), CalendarUnit::second));
  // Just inside the range in UTC, but still year 0 on New York's wall clock.
  EXPECT_FALSE(zone("America/New_York").parts(at("0001-01-01T00:00:00Z")));
}

TEST(ZonedDateFormatter, WritesTheLocalesPatternOnTheZonesClock) {
  const Date t = at("2024-03-31T12:05:00Z");
  auto text = [&](const char* skeleton, const char* zoneName, const char* locale) {
    auto made = kp::ZonedDateFormatter::make(skeleton, zoneName, locale);
    return made.value() ? made.value()->string(t) : "error";
  };
  EXPECT_EQ(text("EEEjmm", "America/New_York", "en_US"), "Sun 8:05\u202FAM");
  EXPECT_EQ(text("EEEjmm", "Europe/Berlin", "de_DE"), "So., 14:05");
  EXPECT_EQ(text("jmm", "Asia/Riyadh", "ar_EG"), "\u0663:\u0660\u0665 \u0645");
  EXPECT_EQ(text("jmm", "UTC", "xx_YY"), "12:05");
  EXPECT_EQ(kp::ZonedDateFormatter::make("jmm", "UTC", "en_US").value()->string(Date::fromTimeIntervalSince1970(1e18)),
            "");
}

}  // namespace
