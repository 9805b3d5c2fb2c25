// `kpcore units` and `kpcore date` as a user runs them: one line out, or one line of error and
// a non-zero exit.
#include <gtest/gtest.h>

#include "support/process.h"

namespace {

using kp::test::runCommand;

kp::test::ProcessResult kpcore(const std::string& arguments) {
  return runCommand(std::string(KPCORE_PATH) + " " + arguments + " 2>&1");
}

void expectLine(const std::string& arguments, const std::string& line) {
  const auto result = kpcore(arguments);
  EXPECT_EQ(result.status, 0) << arguments;
  EXPECT_EQ(result.output, line + "\n") << arguments;
}

void expectError(const std::string& arguments, const std::string& message) {
  const auto result = kpcore(arguments);
  EXPECT_NE(result.status, 0) << arguments;
  EXPECT_EQ(result.output.find('\n'), result.output.size() - 1) << arguments << ": " << result.output;
  EXPECT_NE(result.output.find(message), std::string::npos) << arguments << ": " << result.output;
}

TEST(KpcoreUnits, ConvertsAndFormats) {
  // (What the values become in each locale is the formatter's test; here, that the options
  // reach it.)
  expectLine("units convert 1 inHg hPa", "33.8638864 hPa");
  expectLine("units convert 20 kn bft --json", R"({"value":5,"unit":"bft"})");
  expectLine("units format pressure 1013.2 hPa --locale ru_RU --width long", "760 миллиметров ртутного столба");
  expectLine("units format wind 5 m/s --locale en_US --units uk --width narrow", "11mph");
  expectLine("units format precipitation 2.35 mm --locale en_US --json", R"({"text":"0.09 in"})");

  expectError("units convert 20 C km", "cannot convert C to km");
  expectError("units convert 20 C Rankine", "unknown unit: Rankine");
  expectError("units convert nan C F", "no F value");
  expectError("units convert 20x C F", "not a number: 20x");
  expectError("units format mood 3 C", "unknown quantity: mood");
  expectError("units format wind 3 C", "C does not measure wind");
  expectError("units format wind 3 kn --units imperial", "unknown unit system: imperial");
  expectError("units format wind inf kn", "no text");
  expectError("units weigh 3 kg", "unknown action: weigh");
}

TEST(KpcoreDate, ParsesComputesAndRoundsInAZone) {
  expectLine("date parse 1711848600", "2024-03-31T01:30:00Z");
  expectLine("date parse 2024-03-31T01:30:00Z --zone Europe/Berlin", "2024-03-31T03:30:00+02:00");
  expectLine("date parse '2024-11-03 01:30:00' --zone America/New_York --json",
             R"({"date":"2024-11-03T01:30:00-04:00"})");
  expectLine("date ago 2024-03-31T01:30:00Z --now 2024-03-31T06:30:00Z --locale ru_RU", "5 часов назад");
  expectLine("date add 2024-03-30T12:00:00+01:00 1 day --zone Europe/Berlin", "2024-03-31T12:00:00+02:00");
  expectLine("date add 2024-03-30T12:00:00+01:00 -2 hours --zone Europe/Berlin", "2024-03-30T10:00:00+01:00");
  expectLine("date round 2024-07-31T10:40:00Z --to 1h --zone Australia/Lord_Howe", "2024-07-31T21:00:00+10:30");

  expectError("date parse 2024-03-31 --zone Mars/Base", "Unknown time zone: \"Mars/Base\"");
  expectError("date parse 31/03/2024", "not a date: 31/03/2024");
  expectError("date parse " + kp::test::shellQuote("2024\x1b[31m"), "not a date: 2024\\x1b[31m");
  expectError("date add 2024-03-31 1 day", "missing --zone");
  expectError("date add 9999-12-31 1 day --zone UTC", "outside the years 1 to 9999");
  expectError("date add 2024-03-31 1 fortnight --zone UTC", "unknown unit: fortnight");
  expectError("date round 2024-03-31T10:52:29Z --to 7m", "not a step that divides a day: 7m");
  expectError("date ago yesterday", "not a date: yesterday");
}

}  // namespace
