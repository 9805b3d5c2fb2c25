// Strict readers of service date strings, and RFC 3339 text.
#include "kp/localization/service_date.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "kp/platform/http_date.h"
#include "localization/icu_support.h"

namespace kp {
namespace {

using internal::isDate;

// A cursor over the text; every reader consumes exactly what it matched.
struct Cursor {
  std::string_view text;

  [[nodiscard]] bool done() const { return text.empty(); }
  [[nodiscard]] char peek() const { return text.empty() ? '\0' : text.front(); }
  bool take(char c) {
    if (text.empty() || text.front() != c) return false;
    text.remove_prefix(1);
    return true;
  }
  bool takeEither(char a, char b) { return take(a) || take(b); }
  // Exactly `count` ASCII digits.
  bool digits(std::size_t count, int& out) {
    if (text.size() < count) return false;
    int value = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const unsigned d = static_cast<unsigned char>(text[i]) - '0';
      if (d > 9) return false;
      value = value * 10 + static_cast<int>(d);
    }
    out = value;
    text.remove_prefix(count);
    return true;
  }
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

long long daysFromCivil(int year, int month, int day) {
  return std::chrono::sys_days{std::chrono::year{year} / month / day}.time_since_epoch().count();
}

bool validDay(int year, int month, int day) {
  if (month < 1 || month > 12 || day < 1) return false;
  static constexpr std::array<int, 12> kDays{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return day <= kDays[static_cast<std::size_t>(month - 1)] + (month == 2 && leap ? 1 : 0);
}

struct Civil {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  double fraction = 0;
};

bool readCalendarDate(Cursor& in, Civil& c) {
  return in.digits(4, c.year) && in.take('-') && in.digits(2, c.month) && in.take('-') && in.digits(2, c.day) &&
         c.year >= 1 && validDay(c.year, c.month, c.day);
}

// "HH:mm[:ss[.f{1,9}]]"; a leap second (60) is read as the next minute's start.
bool readTime(Cursor& in, Civil& c) {
  if (!in.digits(2, c.hour) || !in.take(':') || !in.digits(2, c.minute)) return false;
  if (in.take(':')) {
    if (!in.digits(2, c.second)) return false;
    if (in.take('.')) {
      double scale = 0.1;
      std::size_t count = 0;
      while (isDigit(in.peek()) && count < 9) {
        c.fraction += (in.peek() - '0') * scale;
        scale /= 10;
        in.text.remove_prefix(1);
        ++count;
      }
      if (count == 0 || isDigit(in.peek())) return false;
    }
  }
  return c.hour <= 23 && c.minute <= 59 && c.second <= 60;
}

// "Z", "+HH:MM", "+HHMM" (and "-"); seconds east of UTC.
bool readOffset(Cursor& in, int& offset) {
  if (in.takeEither('Z', 'z')) {
    offset = 0;
    return true;
  }
  const char sign = in.peek();
  if (sign != '+' && sign != '-') return false;
  in.text.remove_prefix(1);
  int hours = 0, minutes = 0;
  if (!in.digits(2, hours)) return false;
  in.take(':');
  if (!in.digits(2, minutes) || hours > 23 || minutes > 59) return false;
  offset = (sign == '+' ? 1 : -1) * (hours * 3600 + minutes * 60);
  return true;
}

std::optional<Date> utcDate(const Civil& c, int offset) {
  const double seconds = static_cast<double>(daysFromCivil(c.year, c.month, c.day) * 86400 + c.hour * 3600LL +
                                             c.minute * 60LL + c.second - offset) +
                         c.fraction;
  if (!isDate(seconds)) return std::nullopt;
  return Date::fromTimeIntervalSince1970(seconds);
}

// Signed digits with an optional fraction ("-86400", "1711848600.25").
struct EpochText {
  bool negative = false;
  std::string_view integer;
  std::string_view fraction;
  bool hasPoint = false;
};
std::optional<EpochText> readEpochText(std::string_view text) {
  EpochText e;
  if (!text.empty() && text.front() == '-') {
    e.negative = true;
    text.remove_prefix(1);
  }
  const auto point = text.find('.');
  e.integer = text.substr(0, point);
  if (point != std::string_view::npos) {
    e.hasPoint = true;
    e.fraction = text.substr(point + 1);
    if (e.fraction.empty()) return std::nullopt;
  }
  auto allDigits = [](std::string_view s) {
    for (char c : s) {
      if (!isDigit(c)) return false;
    }
    return true;
  };
  if (e.integer.empty() || e.integer.size() > 15 || e.fraction.size() > 9 || !allDigits(e.integer) ||
      !allDigits(e.fraction)) {
    return std::nullopt;
  }
  return e;
}

std::optional<Date> epochDate(const EpochText& e, double unit) {
  double value = 0;
  for (char c : e.integer) value = value * 10 + (c - '0');
  double scale = 0.1;
  for (char c : e.fraction) {
    value += (c - '0') * scale;
    scale /= 10;
  }
  const double seconds = (e.negative ? -value : value) / unit;
  if (!isDate(seconds)) return std::nullopt;
  return Date::fromTimeIntervalSince1970(seconds);
}

// A date in any of the HTTP forms, within the years 1 to 9999 once its offset is applied.
std::optional<Date> readHttpDate(std::string_view text) {
  const auto date = parseHttpDate(text);
  if (!date || !isDate(date->timeIntervalSince1970())) return std::nullopt;
  return date;
}

void appendFields(std::string& out, const DateParts& p, int millisecond) {
  char buffer[40];
  int n = std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d", p.year, p.month, p.day, p.hour,
                        p.minute, p.second);
  if (millisecond != 0)
    n += std::snprintf(buffer + n, sizeof buffer - static_cast<std::size_t>(n), ".%03d", millisecond);
  out.append(buffer, static_cast<std::size_t>(n));
}

}  // namespace

std::optional<Date> readRfc3339(std::string_view text) {
  Cursor in{text};
  Civil c;
  int offset = 0;
  if (!readCalendarDate(in, c) || !in.takeEither('T', 't') || !readTime(in, c) || !readOffset(in, offset) ||
      !in.done()) {
    return std::nullopt;
  }
  return utcDate(c, offset);
}

ServiceDateReader::ServiceDateReader(ServiceDateForms forms) : zone_(ZonedCalendar::utc()), forms_(forms) {}

ServiceDateReader::ServiceDateReader(ZonedCalendar zone, ServiceDateForms forms)
    : zone_(std::move(zone)), forms_(forms) {}

std::optional<Date> ServiceDateReader::read(std::string_view text) const {
  if (text.empty() || text.size() > 64) return std::nullopt;
  if (isDigit(text.front()) && text.size() >= 10 && text[4] == '-') {
    Cursor in{text};
    Civil c;
    if (!readCalendarDate(in, c)) return std::nullopt;
    if (in.done()) return forms_.date ? zone_.date(c.year, c.month, c.day) : std::nullopt;
    const bool t = in.takeEither('T', 't');
    if (!t && !in.take(' ')) return std::nullopt;
    if (!readTime(in, c)) return std::nullopt;
    if (in.done()) {
      if (!forms_.localDateTime || c.second == 60) return std::nullopt;
      return zone_.date(c.year, c.month, c.day, c.hour, c.minute, c.second + c.fraction);
    }
    int offset = 0;
    if (!forms_.rfc3339 || !t || !readOffset(in, offset) || !in.done()) return std::nullopt;
    return utcDate(c, offset);
  }
  if (isDigit(text.front()) || text.front() == '-') {
    const auto epoch = readEpochText(text);
    if (!epoch) return std::nullopt;
    const std::size_t width = epoch->integer.size();
    const bool both = forms_.epochSeconds && forms_.epochMilliseconds;
    if (forms_.epochMilliseconds && !epoch->hasPoint && (!both || width >= 12)) return epochDate(*epoch, 1000);
    if (forms_.epochSeconds && (!both || width <= 11)) return epochDate(*epoch, 1);
    return std::nullopt;
  }
  return forms_.httpDate ? readHttpDate(text) : std::nullopt;
}

std::string rfc3339String(Date date) {
  if (!isDate(date)) return {};
  const double seconds = date.timeIntervalSince1970();
  // Milliseconds rounded, carried into the second when they reach 1000.
  const double rounded = std::round(seconds * 1000.0) / 1000.0;
  if (!isDate(rounded)) return {};
  const double whole = std::floor(rounded);
  const long long days = static_cast<long long>(std::floor(whole / 86400.0));
  const auto secondOfDay = static_cast<long long>(whole) - days * 86400;
  const std::chrono::year_month_day ymd{std::chrono::sys_days{std::chrono::days{days}}};
  DateParts p;
  p.year = static_cast<int>(ymd.year());
  p.month = static_cast<int>(static_cast<unsigned>(ymd.month()));
  p.day = static_cast<int>(static_cast<unsigned>(ymd.day()));
  p.hour = static_cast<int>(secondOfDay / 3600);
  p.minute = static_cast<int>(secondOfDay % 3600 / 60);
  p.second = static_cast<int>(secondOfDay % 60);
  std::string out;
  appendFields(out, p, static_cast<int>(std::lround((rounded - whole) * 1000.0)));
  out += 'Z';
  return out;
}

std::string rfc3339String(Date date, const ZonedCalendar& zone) {
  if (!isDate(date)) return {};
  const double rounded = std::round(date.timeIntervalSince1970() * 1000.0) / 1000.0;
  const auto p = zone.parts(Date::fromTimeIntervalSince1970(rounded));
  if (!p) return {};
  // RFC 3339 offsets are whole minutes; the local mean times of old dates (+00:53:28) are not.
  if (p->utcOffset % 60 != 0) return rfc3339String(date);
  std::string out;
  appendFields(out, *p, p->millisecond);
  if (p->utcOffset == 0) {
    out += 'Z';
    return out;
  }
  const int minutes = std::abs(p->utcOffset) / 60;
  char buffer[8];
  std::snprintf(buffer, sizeof buffer, "%c%02d:%02d", p->utcOffset < 0 ? '-' : '+', minutes / 60 % 100, minutes % 60);
  out += buffer;
  return out;
}

}  // namespace kp
