// The window's texts in the user's locale and units.
#include "text.h"

#include <map>
#include <memory>
#include <optional>

#include "kp/localization/compass.h"
#include "kp/localization/localization.h"
#include "kp/localization/localized_strings.h"
#include "kp/localization/relative_time.h"
#include "kp/localization/zoned_calendar.h"
#include "kp/localization/zoned_date_formatter.h"

namespace weatherapp {
namespace {

struct Texts {
  std::string locale;
  std::shared_ptr<const kp::LocalizedStrings> strings;
  kp::MeasurementFormatter units;
  kp::CompassFormatter compass;
  kp::RelativeTimeFormatter ago;
  std::optional<kp::ZonedDateFormatter> hour;
  std::optional<kp::ZonedDateFormatter> day;
};

std::unique_ptr<Texts>& texts() {
  static std::unique_ptr<Texts> instance;
  return instance;
}

const Texts& get() {
  if (!texts()) setUpText({}, kp::UnitSystem::locale);
  return *texts();
}

std::optional<kp::ZonedDateFormatter> formatter(std::string_view skeleton, const kp::ZonedCalendar& calendar,
                                                const std::string& locale) {
  auto made = kp::ZonedDateFormatter::make(skeleton, calendar, locale);
  if (!made.value()) return std::nullopt;
  return *made.value();
}

}  // namespace

void setUpText(std::vector<std::filesystem::path> folders, kp::UnitSystem units) {
  const std::string locale = kp::currentLocaleIdentifier();
  auto strings = std::make_shared<const kp::LocalizedStrings>("weather-app", std::move(folders));
  // The library's formatters read the app's catalogue too (its compass points).
  kp::LocalizedStrings::setShared(strings);
  auto made = std::make_unique<Texts>(
      Texts{locale, strings, kp::MeasurementFormatter({.locale = locale, .units = units}), kp::CompassFormatter(locale),
            kp::RelativeTimeFormatter(locale), std::nullopt, std::nullopt});
  // A zone the zone data does not know shows hours in UTC rather than none.
  auto zone = kp::ZonedCalendar::current();
  made->hour = formatter("jmm", zone.value() ? *zone.value() : kp::ZonedCalendar::utc(locale), locale);
  made->day = formatter("MMMEd", kp::ZonedCalendar::utc(locale), locale);
  texts() = std::move(made);
}

std::string tr(std::string_view english) {
  return get().strings->text(get().locale, english).value_or(std::string(english));
}

std::string tr(std::string_view english, std::string_view value) {
  std::string text = tr(english);
  if (const auto at = text.find("{0}"); at != std::string::npos) text.replace(at, 3, value);
  return text;
}

const std::string& localeIdentifier() { return get().locale; }

std::string temperature(double celsius) {
  return get().units.string(kp::WeatherQuantity::temperature, {celsius, kp::Unit::celsius}).value_or("–");
}

std::string wind(double metresPerSecond, double fromDegrees) {
  const auto speed = get().units.string(kp::WeatherQuantity::wind, {metresPerSecond, kp::Unit::meterPerSecond});
  if (!speed) return "–";
  return *speed + " " + get().compass.string(fromDegrees);
}

std::string percent(int value) { return std::to_string(value) + " %"; }

std::string hourOf(kp::Date time) { return get().hour ? get().hour->string(time) : std::string(); }

std::string dayOf(kp::Date midnightUtc) { return get().day ? get().day->string(midnightUtc) : std::string(); }

std::string ago(kp::Date date) { return get().ago.string(date); }

std::string conditionText(const std::string& condition) {
  static const std::map<std::string, std::string_view, std::less<>> kWords{
      {"clear", "Clear"}, {"partlyCloudy", "Partly cloudy"}, {"cloudy", "Cloudy"}, {"rain", "Rain"}, {"snow", "Snow"}};
  const auto found = kWords.find(condition);
  return found == kWords.end() ? condition : tr(found->second);
}

}  // namespace weatherapp
