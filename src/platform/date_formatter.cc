// Date patterns: tokenised once, then written field by field. The calendar fields of the
// current second are cached per thread, because the C library's zone conversion takes a
// global lock and re-reads zone state on every call, which a busy log line cannot afford.
#include "kp/platform/date_formatter.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>

namespace kp {
namespace {

struct Fields {
  std::int64_t year = 1970;
  int month = 1;  // 1-12
  int day = 1;
  int yearDay = 1;  // 1-366
  int weekday = 0;  // 0 = Sunday
  int hour = 0;
  int minute = 0;
  int second = 0;
  long offset = 0;  // seconds east of UTC
  std::array<char, 16> zone{};
};

constexpr std::array<std::string_view, 12> kMonths = {"January",   "February", "March",    "April",
                                                      "May",       "June",     "July",     "August",
                                                      "September", "October",  "November", "December"};
constexpr std::array<std::string_view, 7> kWeekdays = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                       "Thursday", "Friday", "Saturday"};

Fields breakDown(std::int64_t seconds, DateFormatter::Zone zone) {
  Fields f;
  const auto t = static_cast<time_t>(seconds);
  struct tm parts {};
  const bool ok =
      zone == DateFormatter::Zone::utc ? gmtime_r(&t, &parts) != nullptr : localtime_r(&t, &parts) != nullptr;
  if (!ok) return f;
  f.year = static_cast<std::int64_t>(parts.tm_year) + 1900;
  f.month = parts.tm_mon + 1;
  f.day = parts.tm_mday;
  f.yearDay = parts.tm_yday + 1;
  f.weekday = parts.tm_wday;
  f.hour = parts.tm_hour;
  f.minute = parts.tm_min;
  f.second = parts.tm_sec;
  f.offset = zone == DateFormatter::Zone::utc ? 0 : parts.tm_gmtoff;
  const char* name = zone == DateFormatter::Zone::utc ? "UTC" : parts.tm_zone;
  for (std::size_t i = 0; name && name[i] && i + 1 < f.zone.size(); ++i) f.zone[i] = name[i];
  return f;
}

const Fields& cachedFields(std::int64_t seconds, DateFormatter::Zone zone) {
  struct Slot {
    bool valid = false;
    std::int64_t seconds = 0;
    Fields fields;
  };
  thread_local std::array<Slot, 2> slots;
  Slot& slot = slots[zone == DateFormatter::Zone::utc ? 1 : 0];
  if (!slot.valid || slot.seconds != seconds) {
    slot.fields = breakDown(seconds, zone);
    slot.seconds = seconds;
    slot.valid = true;
  }
  return slot.fields;
}

void appendNumber(std::string& out, std::int64_t value, int width) {
  if (value < 0) {
    out.push_back('-');
    value = -value;
  }
  std::array<char, 24> digits{};
  auto [end, ec] = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  (void)ec;
  const auto length = static_cast<int>(end - digits.data());
  if (width > length) out.append(static_cast<std::size_t>(width - length), '0');
  out.append(digits.data(), end);
}

void appendOffset(std::string& out, long offset, bool colon, bool minutesAlways) {
  out.push_back(offset < 0 ? '-' : '+');
  const long magnitude = std::labs(offset);
  appendNumber(out, magnitude / 3600, 2);
  const long minutes = (magnitude % 3600) / 60;
  if (!minutesAlways && minutes == 0) return;
  if (colon) out.push_back(':');
  appendNumber(out, minutes, 2);
}

void appendField(std::string& out, char field, int count, const Fields& f, int micros) {
  switch (field) {
    case 'G':
      out.append(f.year > 0 ? "AD" : "BC");
      break;
    case 'y':
      if (count == 2) {
        appendNumber(out, ((f.year % 100) + 100) % 100, 2);
      } else {
        appendNumber(out, f.year, count);
      }
      break;
    case 'M':
    case 'L':
      if (count <= 2) {
        appendNumber(out, f.month, count);
      } else {
        const std::string_view month = kMonths[static_cast<std::size_t>(f.month - 1)];
        out.append(count == 3 ? month.substr(0, 3) : count == 4 ? month : month.substr(0, 1));
      }
      break;
    case 'd':
      appendNumber(out, f.day, count);
      break;
    case 'D':
      appendNumber(out, f.yearDay, count);
      break;
    case 'E': {
      const std::string_view day = kWeekdays[static_cast<std::size_t>(f.weekday)];
      out.append(count <= 3 ? day.substr(0, 3) : count == 4 ? day : day.substr(0, 1));
      break;
    }
    case 'a':
      out.append(f.hour < 12 ? "AM" : "PM");
      break;
    case 'H':
      appendNumber(out, f.hour, count);
      break;
    case 'k':
      appendNumber(out, f.hour == 0 ? 24 : f.hour, count);
      break;
    case 'h':
      appendNumber(out, f.hour % 12 == 0 ? 12 : f.hour % 12, count);
      break;
    case 'K':
      appendNumber(out, f.hour % 12, count);
      break;
    case 'm':
      appendNumber(out, f.minute, count);
      break;
    case 's':
      appendNumber(out, f.second, count);
      break;
    case 'S': {
      // Microseconds are all a Date carries reliably; further digits are zeros.
      std::array<char, 6> digits{};
      int value = micros;
      for (int i = 5; i >= 0; --i, value /= 10)
        digits[static_cast<std::size_t>(i)] = static_cast<char>('0' + value % 10);
      out.append(digits.data(), static_cast<std::size_t>(std::min(count, 6)));
      if (count > 6) out.append(static_cast<std::size_t>(count - 6), '0');
      break;
    }
    case 'Z':
      if (count <= 3) {
        appendOffset(out, f.offset, false, true);
      } else if (count == 4) {
        out.append("GMT");
        appendOffset(out, f.offset, true, true);
      } else if (f.offset == 0) {
        out.push_back('Z');
      } else {
        appendOffset(out, f.offset, true, true);
      }
      break;
    case 'X':
    case 'x':
      if (field == 'X' && f.offset == 0) {
        out.push_back('Z');
      } else {
        appendOffset(out, f.offset, count >= 3, count >= 2);
      }
      break;
    case 'z':
      out.append(f.zone.data());
      break;
    default:
      break;
  }
}

constexpr std::string_view kFields = "GyMLdDEahHkKmsSZXxz";

}  // namespace

DateFormatter::DateFormatter(std::string_view pattern, Zone zone) : pattern_(pattern), zone_(zone) {
  std::string literal;
  auto flushLiteral = [&] {
    if (!literal.empty()) tokens_.push_back(Token{0, 0, std::move(literal)});
    literal.clear();
  };
  for (std::size_t i = 0; i < pattern.size();) {
    const char c = pattern[i];
    if (c == '\'') {
      if (i + 1 < pattern.size() && pattern[i + 1] == '\'') {
        literal.push_back('\'');
        i += 2;
        continue;
      }
      // Quoted text up to the closing quote ('' inside stands for one quote); an unclosed
      // quote runs to the end.
      for (++i; i < pattern.size(); ++i) {
        if (pattern[i] != '\'') {
          literal.push_back(pattern[i]);
        } else if (i + 1 < pattern.size() && pattern[i + 1] == '\'') {
          literal.push_back('\'');
          ++i;
        } else {
          ++i;
          break;
        }
      }
      continue;
    }
    if (kFields.find(c) == std::string_view::npos) {
      literal.push_back(c);
      ++i;
      continue;
    }
    std::size_t count = 1;
    while (i + count < pattern.size() && pattern[i + count] == c && count < 64) ++count;
    flushLiteral();
    tokens_.push_back(Token{c, static_cast<std::uint16_t>(count), {}});
    i += count;
  }
  flushLiteral();
}

std::string DateFormatter::string(Date date) const {
  std::string out;
  append(out, date);
  return out;
}

void DateFormatter::append(std::string& out, Date date) const {
  double interval = date.timeIntervalSince1970();
  if (!std::isfinite(interval)) interval = 0;
  interval = std::clamp(interval, -1e15, 1e15);
  auto seconds = static_cast<std::int64_t>(std::floor(interval));
  auto micros = static_cast<int>(std::llround((interval - static_cast<double>(seconds)) * 1e6));
  if (micros >= 1000000) {
    ++seconds;
    micros -= 1000000;
  }
  const Fields* fields = nullptr;
  for (const Token& token : tokens_) {
    if (token.field == 0) {
      out.append(token.literal);
      continue;
    }
    if (!fields) fields = &cachedFields(seconds, zone_);
    appendField(out, token.field, token.count, *fields, micros);
  }
}

}  // namespace kp
