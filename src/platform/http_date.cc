// The one reader of HTTP dates, for the response headers of the request layer and the service
// dates of the localization layer.
#include "kp/platform/http_date.h"

#include <array>
#include <chrono>
#include <cstddef>

namespace kp {
namespace {

constexpr std::size_t kMaxLength = 64;

constexpr std::array<std::string_view, 7> kWeekdays{"sunday",   "monday", "tuesday", "wednesday",
                                                    "thursday", "friday", "saturday"};
constexpr std::array<std::string_view, 12> kMonths{"jan", "feb", "mar", "apr", "may", "jun",
                                                   "jul", "aug", "sep", "oct", "nov", "dec"};

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
bool isLetter(char c) { return lower(c) >= 'a' && lower(c) <= 'z'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// A cursor over the text; each read consumes exactly what it matched, and nothing on failure.
struct Cursor {
  std::string_view text;

  bool take(char c) {
    if (text.empty() || text.front() != c) return false;
    text.remove_prefix(1);
    return true;
  }
  // Exactly `count` ASCII digits.
  bool digits(std::size_t count, int& out) {
    if (text.size() < count) return false;
    int value = 0;
    for (std::size_t i = 0; i < count; ++i) {
      if (!isDigit(text[i])) return false;
      value = value * 10 + (text[i] - '0');
    }
    out = value;
    text.remove_prefix(count);
    return true;
  }
  // The letters up to the next non-letter, lowercased; empty when there are none or too many.
  std::string_view word(std::array<char, 16>& buffer) {
    std::size_t n = 0;
    while (n < text.size() && isLetter(text[n])) {
      if (n == buffer.size()) return {};
      buffer[n] = lower(text[n]);
      ++n;
    }
    text.remove_prefix(n);
    return {buffer.data(), n};
  }
  // "HH:MM:SS", a leap second included.
  bool time(int& hour, int& minute, int& second) {
    return digits(2, hour) && take(':') && digits(2, minute) && take(':') && digits(2, second) && hour <= 23 &&
           minute <= 59 && second <= 60;
  }
};

int monthNumber(std::string_view name) {
  for (std::size_t i = 0; i < kMonths.size(); ++i) {
    if (name == kMonths[i]) return static_cast<int>(i) + 1;
  }
  return 0;
}

// The rest of the text as a zone: seconds east of UTC. Names as mail headers have them, and
// numeric offsets, with or without "GMT" before them.
std::optional<int> zoneOffset(std::string_view zone) {
  static constexpr std::pair<std::string_view, int> kNamed[] = {
      {"GMT", 0},  {"UTC", 0},  {"UT", 0},   {"EST", -5}, {"EDT", -4}, {"CST", -6},
      {"CDT", -5}, {"MST", -7}, {"MDT", -6}, {"PST", -8}, {"PDT", -7},
  };
  for (const auto& [name, hours] : kNamed) {
    if (zone == name) return hours * 3600;
  }
  Cursor in{zone};
  const bool afterGmt = zone.starts_with("GMT");
  if (afterGmt) in.text.remove_prefix(3);
  const bool east = in.take('+');
  if (!east && !in.take('-')) return std::nullopt;
  // Hours of two digits ("+0200", "+02:00"), or of one after "GMT" ("GMT+2", "GMT+2:00").
  int hours = 0;
  int minutes = 0;
  if (!in.digits(2, hours) && !(afterGmt && in.digits(1, hours))) return std::nullopt;
  const bool colon = in.take(':');
  if ((colon || !afterGmt || !in.text.empty()) && !in.digits(2, minutes)) return std::nullopt;
  if (!in.text.empty() || hours > 23 || minutes > 59) return std::nullopt;
  return (east ? 1 : -1) * (hours * 3600 + minutes * 60);
}

struct Fields {
  int weekday = -1;  // 0 for Sunday
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  int offset = 0;  // seconds east of UTC
};

std::optional<Date> dateOf(const Fields& f) {
  using namespace std::chrono;
  const year_month_day ymd{year{f.year}, month{static_cast<unsigned>(f.month)}, day{static_cast<unsigned>(f.day)}};
  if (f.year < 1 || !ymd.ok()) return std::nullopt;
  const long long days = sys_days{ymd}.time_since_epoch().count();
  // 1970-01-01 was a Thursday.
  if ((days % 7 + 7 + 4) % 7 != f.weekday) return std::nullopt;
  const long long seconds = days * 86400 + f.hour * 3600LL + f.minute * 60LL + f.second - f.offset;
  return Date::fromTimeIntervalSince1970(static_cast<double>(seconds));
}

// The latest year ending in `twoDigits` that is at most 50 years after this one.
int fullYear(int twoDigits) {
  using namespace std::chrono;
  const int now = static_cast<int>(year_month_day{floor<days>(system_clock::now())}.year());
  const int year = now - now % 100 + twoDigits;
  return year > now + 50 ? year - 100 : year;
}

}  // namespace

std::optional<Date> parseHttpDate(std::string_view text) {
  if (text.size() > kMaxLength) return std::nullopt;
  Cursor in{text};
  Fields f;
  std::array<char, 16> buffer{};
  const std::string_view weekday = in.word(buffer);
  for (std::size_t i = 0; i < kWeekdays.size(); ++i) {
    if (weekday == kWeekdays[i] || weekday == kWeekdays[i].substr(0, 3)) f.weekday = static_cast<int>(i);
  }
  if (f.weekday < 0) return std::nullopt;
  std::array<char, 16> monthBuffer{};
  if (weekday.size() > 3) {
    // "Sunday, 06-Nov-94 08:49:37 GMT"
    int twoDigits = 0;
    if (!in.take(',') || !in.take(' ') || !in.digits(2, f.day) || !in.take('-')) return std::nullopt;
    f.month = monthNumber(in.word(monthBuffer));
    if (f.month == 0 || !in.take('-') || !in.digits(2, twoDigits) || !in.take(' ')) return std::nullopt;
    f.year = fullYear(twoDigits);
    if (!in.time(f.hour, f.minute, f.second) || !in.take(' ')) return std::nullopt;
  } else if (in.take(',')) {
    // "Sun, 06 Nov 1994 08:49:37 GMT"
    if (!in.take(' ') || !(in.digits(2, f.day) || in.digits(1, f.day)) || !in.take(' ')) return std::nullopt;
    f.month = monthNumber(in.word(monthBuffer));
    if (f.month == 0 || !in.take(' ') || !in.digits(4, f.year) || !in.take(' ')) return std::nullopt;
    if (!in.time(f.hour, f.minute, f.second) || !in.take(' ')) return std::nullopt;
  } else {
    // "Sun Nov  6 08:49:37 1994": the whole text is read here.
    if (!in.take(' ')) return std::nullopt;
    f.month = monthNumber(in.word(monthBuffer));
    if (f.month == 0 || !in.take(' ') || !((in.take(' ') && in.digits(1, f.day)) || in.digits(2, f.day))) {
      return std::nullopt;
    }
    if (!in.take(' ') || !in.time(f.hour, f.minute, f.second) || !in.take(' ') || !in.digits(4, f.year) ||
        !in.text.empty()) {
      return std::nullopt;
    }
    return dateOf(f);
  }
  const auto offset = zoneOffset(in.text);
  if (!offset) return std::nullopt;
  f.offset = *offset;
  return dateOf(f);
}

}  // namespace kp
