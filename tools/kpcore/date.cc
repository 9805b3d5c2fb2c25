// kpcore date: reads service date strings strictly, and does calendar arithmetic, rounding and
// interval texts in a time zone.
#include <charconv>
#include <iostream>

#include "command.h"
#include "kp/localization/relative_time.h"
#include "kp/localization/service_date.h"
#include "kp/localization/zoned_calendar.h"

namespace {

using kpcore::CommandError;

std::string required(kpcore::Args& args, const char* what) {
  if (auto value = args.positional()) return *value;
  throw CommandError(std::string("missing ") + what, 2);
}

// The zone named by --zone, UTC without one; an unknown name fails.
kp::ZonedCalendar zoneOption(kpcore::Args& args, bool required = false) {
  const auto name = args.option("zone");
  if (!name) {
    if (required) throw CommandError("missing --zone ZONE", 2);
    return kp::ZonedCalendar::utc();
  }
  auto calendar = kp::ZonedCalendar::make(*name);
  if (!calendar.value()) throw CommandError(calendar.error()->localizedDescription());
  return *calendar.value();
}

kp::Date readDate(const kp::ZonedCalendar& zone, const std::string& text) {
  if (auto date = kp::ServiceDateReader(zone).read(text)) return *date;
  throw CommandError("not a date: " + kpcore::printable(text));
}

long long integer(const std::string& text) {
  long long value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) throw CommandError("not a whole number: " + text, 2);
  return value;
}

kp::CalendarUnit calendarUnit(std::string name) {
  if (name.size() > 1 && name.back() == 's') name.pop_back();
  static const std::pair<const char*, kp::CalendarUnit> kUnits[] = {
      {"second", kp::CalendarUnit::second}, {"minute", kp::CalendarUnit::minute}, {"hour", kp::CalendarUnit::hour},
      {"day", kp::CalendarUnit::day},       {"week", kp::CalendarUnit::week},     {"month", kp::CalendarUnit::month},
      {"year", kp::CalendarUnit::year}};
  for (const auto& [word, unit] : kUnits) {
    if (name == word) return unit;
  }
  throw CommandError("unknown unit: " + name + " (second, minute, hour, day, week, month, year)", 2);
}

// "15m", "1h": minutes that divide a day.
int step(const std::string& text) {
  const char last = text.empty() ? '\0' : text.back();
  const long long count = (last == 'm' || last == 'h') ? integer(text.substr(0, text.size() - 1)) : 0;
  const long long minutes = last == 'h' ? count * 60 : count;
  if (minutes <= 0 || minutes > 1440 || 1440 % minutes != 0) {
    throw CommandError("not a step that divides a day: " + text + " (such as 15m or 1h)", 2);
  }
  return static_cast<int>(minutes);
}

void print(bool json, const char* key, const std::string& value) {
  if (json) {
    std::cout << "{\"" << key << "\":" << kpcore::jsonQuote(value) << "}\n";
  } else {
    std::cout << value << "\n";
  }
}

void printDate(bool json, const std::optional<kp::Date>& date, const kp::ZonedCalendar& zone) {
  const std::string text = date ? kp::rfc3339String(*date, zone) : std::string();
  if (text.empty()) throw CommandError("the result is outside the years 1 to 9999");
  print(json, "date", text);
}

int parse(kpcore::Args& args, bool json) {
  const auto zone = zoneOption(args);
  const std::string text = required(args, "TEXT");
  args.expectEnd();
  printDate(json, readDate(zone, text), zone);
  return 0;
}

int ago(kpcore::Args& args, bool json) {
  const auto now = args.option("now");
  const std::string locale = args.option("locale").value_or("");
  const std::string text = required(args, "DATE");
  args.expectEnd();
  const auto utc = kp::ZonedCalendar::utc();
  const kp::Date date = readDate(utc, text);
  print(json, "text", kp::RelativeTimeFormatter(locale).string(date, now ? readDate(utc, *now) : kp::Date::now()));
  return 0;
}

int add(kpcore::Args& args, bool json) {
  const auto zone = zoneOption(args, true);
  const std::string text = required(args, "DATE");
  const long long count = integer(required(args, "COUNT"));
  const kp::CalendarUnit unit = calendarUnit(required(args, "UNIT"));
  args.expectEnd();
  printDate(json, zone.adding(readDate(zone, text), count, unit), zone);
  return 0;
}

int round(kpcore::Args& args, bool json) {
  const auto zone = zoneOption(args);
  const auto to = args.option("to");
  if (!to) throw CommandError("missing --to STEP (such as 15m or 1h)", 2);
  const int minutes = step(*to);
  const std::string text = required(args, "DATE");
  args.expectEnd();
  printDate(json, zone.rounded(readDate(zone, text), minutes, kp::RoundingRule::nearest), zone);
  return 0;
}

int runDate(kpcore::Args& args) {
  const bool json = args.flag("json");
  const auto action = args.positional();
  if (action == "parse") return parse(args, json);
  if (action == "ago") return ago(args, json);
  if (action == "add") return add(args, json);
  if (action == "round") return round(args, json);
  throw CommandError(
      action ? "unknown action: " + *action + " (parse, ago, add, round)" : "missing action (parse, ago, add, round)",
      2);
}

const kpcore::Registration registration{
    "date", "Read service dates; calendar arithmetic, rounding and interval texts in a zone",
    "kpcore date parse TEXT [--zone Z] [--json]\n"
    "       kpcore date ago DATE [--now DATE] [--locale L] [--json]\n"
    "       kpcore date add DATE COUNT UNIT --zone Z [--json]\n"
    "       kpcore date round DATE --to 15m|1h [--zone Z] [--json]\n"
    "  DATE: RFC 3339, yyyy-MM-dd, yyyy-MM-dd HH:mm:ss (in the zone, UTC without --zone), epoch\n"
    "  seconds or milliseconds, or an HTTP date. Results are RFC 3339 in the zone.\n"
    "  UNIT: second, minute, hour, day, week, month, year (or plurals).",
    runDate};

}  // namespace
