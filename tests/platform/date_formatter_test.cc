// Date patterns: the fields, quoting, zones and hostile patterns.
#include "kp/platform/date_formatter.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <limits>
#include <string>

namespace kp {
namespace {

const Date kMonday = Date::fromTimeIntervalSince1970(1795442587.125);  // 2026-11-23T14:03:07.125Z

std::string utc(std::string_view pattern, Date date = kMonday) {
  return DateFormatter(pattern, DateFormatter::Zone::utc).string(date);
}

TEST(DateFormatterTest, FieldsInUtc) {
  EXPECT_EQ(utc("yyyy-MM-dd'T'HH:mm:ss.SSSZZZZZ"), "2026-11-23T14:03:07.125Z");
  EXPECT_EQ(utc("EEE, d MMM yy h:mm a"), "Mon, 23 Nov 26 2:03 PM");
  EXPECT_EQ(utc("EEEE MMMM MMMMM D DDD y G"), "Monday November N 327 327 2026 AD");
  EXPECT_EQ(utc("k K H hh S SSSSSSSS"), "14 2 14 02 1 12500000");
  EXPECT_EQ(utc("Z ZZZZ X xx xxx z"), "+0000 GMT+00:00 Z +0000 +00:00 UTC");
  EXPECT_EQ(utc("HH:mm:ss.SSS", Date::fromTimeIntervalSince1970(59.9999996)), "00:01:00.000");
  EXPECT_EQ(utc("HH:mm:ss.SSS", Date::fromTimeIntervalSince1970(-0.5)), "23:59:59.500");
}

TEST(DateFormatterTest, QuotesAndUnknownCharactersAreLiteral) {
  EXPECT_EQ(utc("'at' HH 'o''clock' '' ! qQ"), "at 14 o'clock ' ! qQ");
  EXPECT_EQ(utc("'unclosed HH"), "unclosed HH");
  EXPECT_EQ(utc(""), "");
  EXPECT_EQ(utc(std::string(100, 's')).size(), 100u);  // runs are capped, never unbounded
  EXPECT_EQ(utc("HH", Date::fromTimeIntervalSince1970(std::numeric_limits<double>::quiet_NaN())), "00");
  EXPECT_FALSE(utc("yyyy", Date::fromTimeIntervalSince1970(1e300)).empty());
}

TEST(DateFormatterTest, LocalZoneFollowsTheEnvironmentIncludingSummerTime) {
  ::setenv("TZ", "Europe/Berlin", 1);
  ::tzset();
  DateFormatter local("HH:mm ZZZZZ z");
  EXPECT_EQ(local.string(kMonday), "15:03 +01:00 CET");
  EXPECT_EQ(local.string(Date::fromTimeIntervalSince1970(1782907200.0)), "14:00 +02:00 CEST");
  EXPECT_EQ(local.pattern(), "HH:mm ZZZZZ z");
}

}  // namespace
}  // namespace kp
