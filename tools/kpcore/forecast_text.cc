// The demo's forecast screen in the user's locale and units.
#include "forecast_text.h"

#include <cctype>
#include <ostream>

#include "command.h"
#include "kp/localization/localization.h"

namespace kpcore {
namespace {

using kp::Unit;
using kp::WeatherQuantity;

// Words for the service's condition names ("partlyCloudy" -> "partly cloudy").
std::string words(kp::weather::WeatherCondition condition) {
  std::string out;
  for (char c : kp::weather::conditionName(condition)) {
    if (std::isupper(static_cast<unsigned char>(c))) {
      out += ' ';
      out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    } else {
      out += c;
    }
  }
  return out;
}

// `text` padded to `width` characters (code points: the columns of most scripts).
std::string padded(const std::string& text, std::size_t width) {
  std::size_t characters = 0;
  for (unsigned char c : text) characters += (c & 0xC0) != 0x80 ? 1 : 0;
  return text + std::string(characters < width ? width - characters : 1, ' ');
}

kp::ZonedDateFormatter dateFormatter(const char* skeleton, const kp::ZonedCalendar& zone, const std::string& locale) {
  auto made = kp::ZonedDateFormatter::make(skeleton, zone, locale);
  if (!made.value()) throw CommandError(made.error()->localizedDescription());
  return *made.value();
}

}  // namespace

kp::UnitSystem unitSystemOption(const std::optional<std::string>& name) {
  if (!name) return kp::UnitSystem::locale;
  if (auto system = kp::unitSystemNamed(*name)) return *system;
  throw CommandError("unknown unit system: " + *name + " (locale, metric, us, uk)", 2);
}

ForecastText::ForecastText(const std::string& locale, kp::UnitSystem units)
    : locale_(locale.empty() ? kp::currentLocaleIdentifier() : locale),
      units_({.locale = locale_, .units = units}),
      compass_(locale_),
      ago_(locale_) {
  auto zone = kp::ZonedCalendar::current();
  if (!zone.value()) zoneNote_ = " (" + zone.error()->localizedDescription() + ": times in UTC)";
  const kp::ZonedCalendar calendar = zone.value() ? *zone.value() : kp::ZonedCalendar::utc(locale_);
  hour_ = dateFormatter("EEEjmm", calendar, locale_);
  // The service's days are UTC days (each starts at midnight UTC).
  day_ = dateFormatter("EEEMMMd", kp::ZonedCalendar::utc(locale_), locale_);
}

std::string ForecastText::value(WeatherQuantity quantity, double value, Unit unit) const {
  return units_.string(quantity, {value, unit}).value_or("-");
}

void ForecastText::print(std::ostream& out, const kp::weather::Forecast& forecast, kp::Date updated) const {
  const auto& now = forecast.current;
  out << "Locale " << locale_ << zoneNote_ << "; updated " << ago_.string(updated) << "\n";
  out << "Now (" << hour_->string(now.time)
      << "): " << value(WeatherQuantity::temperature, now.temperature, Unit::celsius) << ", feels like "
      << value(WeatherQuantity::temperature, now.apparentTemperature, Unit::celsius) << ", " << words(now.condition)
      << "\n";
  out << "  wind " << value(WeatherQuantity::wind, now.windSpeed, Unit::meterPerSecond) << " from "
      << compass_.string(now.windDirection) << ", gusts "
      << value(WeatherQuantity::wind, now.windGust, Unit::meterPerSecond) << "; "
      << value(WeatherQuantity::pressure, now.pressure, Unit::hectopascal) << "; humidity " << now.humidity
      << " %; clouds " << now.cloudCover << " %\n";

  out << "\nNext 24 hours (every third hour, local time)\n";
  out << "  " << padded("time", 14) << padded("temp", 9) << padded("wind", 14) << padded("pressure", 14)
      << padded("rain", 10) << padded("chance", 8) << "sky\n";
  for (std::size_t i = 0; i < forecast.hourly.size() && i < 24; i += 3) {
    const auto& h = forecast.hourly[i];
    out << "  " << padded(hour_->string(h.time), 14)
        << padded(value(WeatherQuantity::temperature, h.temperature, Unit::celsius), 9)
        << padded(
               value(WeatherQuantity::wind, h.windSpeed, Unit::meterPerSecond) + " " + compass_.string(h.windDirection),
               14)
        << padded(value(WeatherQuantity::pressure, h.pressure, Unit::hectopascal), 14)
        << padded(value(WeatherQuantity::precipitation, h.precipitation, Unit::millimeter), 10)
        << padded(std::to_string(h.precipitationProbability) + " %", 8) << words(h.condition) << "\n";
  }
  out << "\nNext " << forecast.daily.size() << " days\n";
  out << "  " << padded("day", 14) << padded("min", 9) << padded("max", 9) << padded("wind", 14) << padded("rain", 10)
      << padded("chance", 8) << "sky\n";
  for (const auto& d : forecast.daily) {
    out << "  " << padded(day_->string(d.date), 14)
        << padded(value(WeatherQuantity::temperature, d.temperatureMin, Unit::celsius), 9)
        << padded(value(WeatherQuantity::temperature, d.temperatureMax, Unit::celsius), 9)
        << padded(value(WeatherQuantity::wind, d.windSpeedMax, Unit::meterPerSecond) + " " +
                      compass_.string(d.windDirection),
                  14)
        << padded(value(WeatherQuantity::precipitation, d.precipitation, Unit::millimeter), 10)
        << padded(std::to_string(d.precipitationProbability) + " %", 8) << words(d.condition) << "\n";
  }
}

}  // namespace kpcore
