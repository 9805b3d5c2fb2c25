// Date arithmetic and ISO 8601 text, independent of the process's time zone.
#include "kp/platform/date.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kp {
namespace {

using std::chrono::days;
using std::chrono::sys_days;
using std::chrono::year_month_day;

bool readDigits(std::string_view& text, std::size_t count, int& out) {
  if (text.size() < count) return false;
  int value = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  out = value;
  text.remove_prefix(count);
  return true;
}

bool expect(std::string_view& text, char c) {
  if (text.empty() || text.front() != c) return false;
  text.remove_prefix(1);
  return true;
}

}  // namespace

Date Date::now() { return fromTimePoint(std::chrono::system_clock::now()); }

Date Date::fromTimePoint(std::chrono::system_clock::time_point point) {
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(point.time_since_epoch());
  return Date(static_cast<double>(micros.count()) / 1e6);
}

std::chrono::system_clock::time_point Date::timePoint() const {
  const auto micros = std::chrono::microseconds(static_cast<long long>(std::llround(seconds_ * 1e6)));
  return std::chrono::system_clock::time_point(std::chrono::duration_cast<std::chrono::system_clock::duration>(micros));
}

std::string Date::iso8601(bool fractional) const {
  // Four-digit years only: dates beyond them (and NaN) are pinned to the nearest end, which
  // also keeps every conversion below within range.
  constexpr double kFirst = -62135596800.0;  // 0001-01-01T00:00:00Z
  constexpr double kLast = 253402300799.0;   // 9999-12-31T23:59:59Z
  const double clamped = std::isnan(seconds_) ? 0.0 : std::clamp(seconds_, kFirst, kLast);
  const double whole = std::floor(clamped);
  int millis = static_cast<int>(std::lround((clamped - whole) * 1000.0));
  auto secs = static_cast<long long>(whole);
  if (millis == 1000) {
    millis = 0;
    if (secs < static_cast<long long>(kLast)) {
      ++secs;
    } else {
      millis = 999;
    }
  }
  const auto dayCount = static_cast<long long>(std::floor(static_cast<double>(secs) / 86400.0));
  const long long secOfDay = secs - dayCount * 86400;
  const year_month_day ymd{sys_days{days{dayCount}}};
  char buffer[48];
  const int hour = static_cast<int>(secOfDay / 3600);
  const int minute = static_cast<int>(secOfDay % 3600 / 60);
  const int second = static_cast<int>(secOfDay % 60);
  if (fractional) {
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(ymd.year()),
                  static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()), hour, minute, second, millis);
  } else {
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(ymd.year()),
                  static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()), hour, minute, second);
  }
  return buffer;
}

std::optional<Date> Date::fromIso8601(std::string_view text) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!readDigits(text, 4, year) || !expect(text, '-') || !readDigits(text, 2, month) || !expect(text, '-') ||
      !readDigits(text, 2, day) || !expect(text, 'T') || !readDigits(text, 2, hour) || !expect(text, ':') ||
      !readDigits(text, 2, minute) || !expect(text, ':') || !readDigits(text, 2, second)) {
    return std::nullopt;
  }
  double fraction = 0;
  if (!text.empty() && text.front() == '.') {
    text.remove_prefix(1);
    double scale = 0.1;
    std::size_t digits = 0;
    while (!text.empty() && text.front() >= '0' && text.front() <= '9') {
      fraction += (text.front() - '0') * scale;
      scale /= 10;
      text.remove_prefix(1);
      ++digits;
    }
    if (digits == 0) return std::nullopt;
  }
  int offset = 0;
  if (expect(text, 'Z')) {
  } else if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    const int sign = text.front() == '+' ? 1 : -1;
    text.remove_prefix(1);
    int oh = 0, om = 0;
    if (!readDigits(text, 2, oh)) return std::nullopt;
    expect(text, ':');
    if (!readDigits(text, 2, om)) return std::nullopt;
    offset = sign * (oh * 3600 + om * 60);
  } else {
    return std::nullopt;
  }
  if (!text.empty()) return std::nullopt;
  const year_month_day ymd{std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(month)},
                           std::chrono::day{static_cast<unsigned>(day)}};
  if (!ymd.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  const long long dayCount = sys_days{ymd}.time_since_epoch().count();
  const long long secondOfDay = 3600LL * hour + 60LL * minute + second - offset;
  const double seconds = static_cast<double>(dayCount * 86400 + secondOfDay);
  return Date(seconds + fraction);
}

}  // namespace kp
