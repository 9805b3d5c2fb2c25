// Interval texts: the host's catalogue first, then ICU's relative-time data for the locale.
#include "kp/localization/relative_time.h"

#include <unicode/reldatefmt.h>

#include <array>
#include <cmath>

#include "localization/icu_support.h"
#include "platform/no_destructor.h"

namespace kp {
namespace {

constexpr double kMinute = 60;
constexpr double kHour = 3600;
constexpr double kDay = 86400;
constexpr double kMonth = 30.436875 * kDay;
constexpr double kYear = 365.2425 * kDay;

struct UnitNames {
  CalendarUnit unit;
  URelativeDateTimeUnit icu;
  const char* past;  // catalogue ids: singular forms
  const char* future;
};
constexpr std::array<UnitNames, 5> kUnits{{
    {CalendarUnit::minute, UDAT_REL_UNIT_MINUTE, "{0} minute ago", "in {0} minute"},
    {CalendarUnit::hour, UDAT_REL_UNIT_HOUR, "{0} hour ago", "in {0} hour"},
    {CalendarUnit::day, UDAT_REL_UNIT_DAY, "{0} day ago", "in {0} day"},
    {CalendarUnit::month, UDAT_REL_UNIT_MONTH, "{0} month ago", "in {0} month"},
    {CalendarUnit::year, UDAT_REL_UNIT_YEAR, "{0} year ago", "in {0} year"},
}};

const UnitNames& namesOf(CalendarUnit unit) {
  for (const auto& names : kUnits) {
    if (names.unit == unit) return names;
  }
  return kUnits[0];
}

UDateRelativeDateTimeFormatterStyle styleOf(TextWidth width) {
  switch (width) {
    case TextWidth::short_:
      return UDAT_STYLE_SHORT;
    case TextWidth::narrow:
      return UDAT_STYLE_NARROW;
    case TextWidth::long_:
      break;
  }
  return UDAT_STYLE_LONG;
}

using IcuFormatter = icu::RelativeDateTimeFormatter;

std::shared_ptr<const IcuFormatter> icuFormatter(const std::string& locale, TextWidth width) {
  static internal::NoDestructor<internal::SharedCache<IcuFormatter>> cache;
  const std::string key = internal::localeKey(locale) + "/" + std::to_string(static_cast<int>(width));
  return cache->get(key, [&]() -> std::shared_ptr<const IcuFormatter> {
    UErrorCode status = U_ZERO_ERROR;
    auto made = std::make_shared<IcuFormatter>(internal::localeFor(locale), nullptr, styleOf(width),
                                               UDISPCTX_CAPITALIZATION_NONE, status);
    if (U_SUCCESS(status)) return made;
    // Locale data missing altogether: the root locale's texts.
    status = U_ZERO_ERROR;
    made = std::make_shared<IcuFormatter>(icu::Locale::getRoot(), nullptr, styleOf(width), UDISPCTX_CAPITALIZATION_NONE,
                                          status);
    return U_SUCCESS(status) ? made : nullptr;
  });
}

}  // namespace

class RelativeTimeFormatter::Impl {
 public:
  Impl(std::string locale, std::shared_ptr<const IcuFormatter> icu, std::shared_ptr<const LocalizedStrings> strings)
      : locale_(std::move(locale)), icu_(std::move(icu)), strings_(std::move(strings)) {}

  std::string string(const RelativeInterval& interval) const {
    if (interval.unit == CalendarUnit::second) {
      if (auto text = hostText("now")) return *text;
      return icuText([](const IcuFormatter& f, UErrorCode& s) {
        return f.formatToValue(UDAT_DIRECTION_PLAIN, UDAT_ABSOLUTE_NOW, s);
      });
    }
    const UnitNames& names = namesOf(interval.unit);
    if (interval.unit == CalendarUnit::day && std::llabs(interval.count) == 1) {
      if (auto text = hostText(interval.count < 0 ? "yesterday" : "tomorrow")) return *text;
      return icuText([&](const IcuFormatter& f, UErrorCode& s) {
        return f.formatToValue(static_cast<double>(interval.count), names.icu, s);
      });
    }
    const long long magnitude = std::llabs(interval.count);
    if (strings_) {
      if (auto text = strings_->pluralText(locale_, interval.count < 0 ? names.past : names.future, magnitude)) {
        return internal::substitute(std::move(*text), internal::integerText(locale_, magnitude));
      }
    }
    return icuText([&](const IcuFormatter& f, UErrorCode& s) {
      return f.formatNumericToValue(static_cast<double>(interval.count), names.icu, s);
    });
  }

 private:
  std::optional<std::string> hostText(const char* id) const {
    return strings_ ? strings_->text(locale_, id) : std::nullopt;
  }

  template <class Format>
  std::string icuText(Format&& format) const {
    if (!icu_) return {};
    UErrorCode status = U_ZERO_ERROR;
    const auto value = format(*icu_, status);
    const auto text = value.toString(status);
    return U_SUCCESS(status) ? internal::utf8(text) : std::string();
  }

  std::string locale_;
  std::shared_ptr<const IcuFormatter> icu_;
  std::shared_ptr<const LocalizedStrings> strings_;
};

RelativeTimeFormatter::RelativeTimeFormatter(std::string_view locale, TextWidth width,
                                             std::shared_ptr<const LocalizedStrings> strings) {
  std::string id = locale.empty() ? currentLocaleIdentifier() : std::string(locale);
  auto icu = icuFormatter(id, width);
  impl_ = std::make_shared<const Impl>(std::move(id), std::move(icu), std::move(strings));
}

std::optional<RelativeInterval> RelativeTimeFormatter::interval(Date date, Date now) {
  const double d = date.timeIntervalSince(now);
  if (!std::isfinite(d)) return std::nullopt;
  const double a = std::fabs(d);
  auto counted = [&](double unit, CalendarUnit which) {
    const double whole = std::max(1.0, std::round(a / unit));
    const auto count = static_cast<long long>(whole);
    return RelativeInterval{d < 0 ? -count : count, which};
  };
  if (a < 45) return RelativeInterval{0, CalendarUnit::second};
  if (a < 45 * kMinute) return counted(kMinute, CalendarUnit::minute);
  if (a < 22 * kHour) return counted(kHour, CalendarUnit::hour);
  if (a < 26 * kDay) return counted(kDay, CalendarUnit::day);
  if (a < 320 * kDay) return counted(kMonth, CalendarUnit::month);
  // Beyond any date's range the count would not fit; such distances are no interval.
  if (a > 1e4 * kYear) return std::nullopt;
  return counted(kYear, CalendarUnit::year);
}

std::string RelativeTimeFormatter::string(Date date, Date now) const {
  const auto chosen = interval(date, now);
  return chosen ? impl_->string(*chosen) : std::string();
}

}  // namespace kp
