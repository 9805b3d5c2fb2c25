// The strict reader of service dates: every accepted form, a table of text it must refuse,
// and RFC 3339 written back in UTC and in a zone.
#include "kp/localization/service_date.h"

#include <gtest/gtest.h>

namespace {

using kp::ServiceDateReader;

std::string read(const ServiceDateReader& reader, std::string_view text) {
  const auto date = reader.read(text);
  return date ? kp::rfc3339String(*date) : "nothing";
}

TEST(ServiceDates, EachFormReadsToTheSameInstant) {
  const ServiceDateReader utc;
  const ServiceDateReader berlin(*kp::ZonedCalendar::make("Europe/Berlin").value());
  for (const char* text :
       {"2024-03-31T01:30:00Z", "2024-03-31t01:30:00z", "2024-03-31T03:30:00+02:00", "2024-03-31T03:30:00+0200",
        "2024-03-30T20:30-05:00", "2024-03-31T01:30:00.000000000Z", "1711848600", "1711848600000",
        "Sun, 31 Mar 2024 01:30:00 GMT", "Sun, 31 Mar 2024 03:30:00 +0200", "Sunday, 31-Mar-24 01:30:00 GMT",
        "Sun Mar 31 01:30:00 2024"}) {
    EXPECT_EQ(read(utc, text), "2024-03-31T01:30:00Z") << text;
    EXPECT_EQ(read(berlin, text), "2024-03-31T01:30:00Z") << text;  // carry their own offset
  }
  EXPECT_EQ(read(utc, "2024-03-31T01:30:00.25Z"), "2024-03-31T01:30:00.250Z");
  EXPECT_EQ(read(utc, "1711848600.25"), "2024-03-31T01:30:00.250Z");
  EXPECT_EQ(read(utc, "-86400"), "1969-12-31T00:00:00Z");
  EXPECT_EQ(read(utc, "2024-12-31T23:59:60Z"), "2025-01-01T00:00:00Z");  // a leap second

  // Local forms are read on the reader's clock: UTC, or the zone given.
  EXPECT_EQ(read(utc, "2024-02-29"), "2024-02-29T00:00:00Z");
  EXPECT_EQ(read(berlin, "2024-02-29"), "2024-02-28T23:00:00Z");
  EXPECT_EQ(read(berlin, "2024-03-31 03:30:00"), "2024-03-31T01:30:00Z");
  EXPECT_EQ(read(berlin, "2024-03-31T03:30"), "2024-03-31T01:30:00Z");
  EXPECT_EQ(read(berlin, "2024-03-31 02:30:00"), "nothing");               // skipped by the change
  EXPECT_EQ(read(berlin, "2024-10-27 02:30:00"), "2024-10-27T00:30:00Z");  // repeated: the first

  // Epoch integers: up to 11 digits are seconds, 12 to 15 milliseconds; alone, a form takes all.
  EXPECT_EQ(read(utc, "99999999999"), "5138-11-16T09:46:39Z");
  EXPECT_EQ(read(utc, "100000000000"), "1973-03-03T09:46:40Z");
  EXPECT_EQ(read(ServiceDateReader({.epochSeconds = false}), "86400"), "1970-01-01T00:01:26.400Z");
  EXPECT_EQ(read(ServiceDateReader({.epochMilliseconds = false}), "100000000000"), "5138-11-16T09:46:40Z");
  // Forms turned off are refused.
  EXPECT_EQ(read(ServiceDateReader({.date = false}), "2024-02-29"), "nothing");
  EXPECT_EQ(read(ServiceDateReader({.localDateTime = false}), "2024-02-29 10:00:00"), "nothing");
  EXPECT_EQ(read(ServiceDateReader({.rfc3339 = false}), "2024-02-29T10:00:00Z"), "nothing");
  EXPECT_EQ(read(ServiceDateReader({.httpDate = false}), "Thu, 29 Feb 2024 10:00:00 GMT"), "nothing");
}

TEST(ServiceDates, AnythingElseIsRefusedNotGuessed) {
  const ServiceDateReader reader;
  for (const char* text : {"",
                           "yesterday",
                           "now",
                           "2024-3-31",
                           "2024-03-31T",
                           "2024-03-31T1:30:00Z",
                           "2024-03-31T01:30:00ZZ",
                           "2024-03-31T01:30:00 Z",
                           "2024-03-31 01:30:00Z",
                           "2024-03-31T01:30:00.Z",
                           "2024-03-31T01:30:00.1234567890Z",
                           "2024-03-31T01:30:00+2",
                           "2024-03-31T01:30:00+24:00",
                           "2024-03-31T24:00:00Z",
                           "2024-03-31T23:60:00Z",
                           "2024-02-30T00:00:00Z",
                           "2023-02-29",
                           "2024-13-01",
                           "2024-00-10",
                           "0000-01-01T00:00:00Z",
                           "+2024-03-31T01:30:00Z",
                           " 2024-03-31T01:30:00Z",
                           "2024-03-31T01:30:00Z ",
                           "31/03/2024",
                           "03/31/2024 01:30",
                           "20240331T013000Z",
                           "1711848600.",
                           "17118486.00.5",
                           "1e9",
                           "0x10",
                           "--1",
                           "1711848600000.5",
                           "1234567890123456",
                           "Mon, 31 Mar 2024 01:30:00 GMT",  // 31 March 2024 was a Sunday
                           "Sun, 31 Mar 2024 01:30:00 CET",
                           "2024-03-31T01:30:00\xEF\xBC\xBA",
                           "\xD9\xA2\xD9\xA0\xD9\xA2\xD9\xA4-03-31"}) {
    EXPECT_EQ(read(reader, text), "nothing") << text;
  }
  // Dates outside the years 1 to 9999 give nothing, however they are written.
  for (const char* text :
       {"0001-01-01T00:00:00+00:01", "9999-12-31T23:59:59-00:01", "-62135596801", "999999999999999"}) {
    EXPECT_EQ(read(reader, text), "nothing") << text;
  }
  EXPECT_EQ(read(ServiceDateReader({.epochMilliseconds = false}), "253402300800"), "nothing");
  EXPECT_EQ(read(reader, "0001-01-01T00:00:00Z"), "0001-01-01T00:00:00Z");
  EXPECT_EQ(read(reader, "9999-12-31T23:59:59.999Z"), "9999-12-31T23:59:59.999Z");
  EXPECT_EQ(read(reader, std::string(10000, '1')), "nothing");
}

TEST(ServiceDates, Rfc3339TextInAZone) {
  const kp::Date t = *kp::readRfc3339("2024-03-31T01:30:00.25Z");
  EXPECT_EQ(kp::rfc3339String(t, *kp::ZonedCalendar::make("Europe/Berlin").value()), "2024-03-31T03:30:00.250+02:00");
  EXPECT_EQ(kp::rfc3339String(t, *kp::ZonedCalendar::make("America/St_Johns").value()),
            "2024-03-30T23:00:00.250-02:30");
  EXPECT_EQ(kp::rfc3339String(t, kp::ZonedCalendar::utc()), "2024-03-31T01:30:00.250Z");
  // Milliseconds round, carrying into the second.
  EXPECT_EQ(kp::rfc3339String(kp::Date::fromTimeIntervalSince1970(59.9996)), "1970-01-01T00:01:00Z");
  // Local mean time (Amsterdam, +00:19:32 until 1937) is no whole-minute offset: written in UTC.
  const kp::Date old = *kp::readRfc3339("1900-01-01T12:00:00Z");
  EXPECT_EQ(kp::rfc3339String(old, *kp::ZonedCalendar::make("Europe/Amsterdam").value()), "1900-01-01T12:00:00Z");
  EXPECT_EQ(kp::rfc3339String(kp::Date::fromTimeIntervalSince1970(std::numeric_limits<double>::infinity())), "");
}

}  // namespace
