// kp::MeasurementFormatter: weather values as people of a locale read them, in the units they
// prefer: 21.5 °C is "71°F" in en_US and "22 °C" in de_DE; a 5.3 m/s wind "12 mph" in en_US,
// "5,3 м/с" in ru_RU, "19 km/h" in de_DE; 1013 hPa "29.92 inHg", "760 мм рт. ст.", "1,013 mbar".
//
// Units: with UnitSystem::locale the locale's region decides, by CLDR's preferences for each
// weather use (the usages "weather", "wind", "baromtrc", "rainfall", "snowfall", "visiblty");
// "en_US@rg=gbzzzz" asks for the British ones in American English. A chosen system decides
// instead:
//                  metric        us            uk
//   temperature    °C            °F            °C
//   wind           km/h          mph           mph
//   pressure       hPa           inHg          mbar
//   precipitation  mm            in            mm
//   snowfall       cm            in            cm
//   visibility     km (m < 1 km) mi (ft < 1 mi) mi (ft < 1 mi)
// Precision: digits after the separator by the unit shown (none for temperatures, speeds, hPa,
// mbar and mmHg; 1 for kPa, mm, cm and snowfall inches; 2 for inHg and rainfall inches);
// visibility keeps two significant digits ("850 m", "7.6 mi", "12 km"). Settings may fix the
// digits per quantity. Negative zero is written as zero.
//
// A value that is not finite, or a unit that does not measure the quantity, gives no text.
//
// Thread safety: every member may be called from any thread. The number formatters are made
// once per locale, settings, quantity and unit and shared by all formatters in the process.
//
// Example:
//   kp::MeasurementFormatter units({.locale = "en_US"});
//   units.string(kp::WeatherQuantity::temperature, {21.5, kp::Unit::celsius});   // "71°F"
//   kp::MeasurementFormatter metric({.locale = "en_US", .units = kp::UnitSystem::metric,
//                                   .width = kp::TextWidth::long_});
//   metric.string(kp::WeatherQuantity::wind, {5, kp::Unit::meterPerSecond});   // "18 kilometers per hour"
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kp/localization/localization.h"
#include "kp/localization/localized_strings.h"
#include "kp/localization/measurement.h"
#include "kp/platform/export.h"

namespace kp {

// What a measurement is of.
enum class WeatherQuantity { temperature, wind, pressure, precipitation, snowfall, visibility };
// Which units texts use: the locale's preferred ones, or a fixed system.
enum class UnitSystem { locale, metric, us, uk };

// "temperature", "wind", "pressure", "precipitation", "snowfall", "visibility".
[[nodiscard]] KP_EXPORT std::optional<WeatherQuantity> weatherQuantityNamed(std::string_view name) noexcept;
// "locale", "metric", "us", "uk".
[[nodiscard]] KP_EXPORT std::optional<UnitSystem> unitSystemNamed(std::string_view name) noexcept;
// "short", "narrow", "long".
[[nodiscard]] KP_EXPORT std::optional<TextWidth> textWidthNamed(std::string_view name) noexcept;

// Whether `unit` measures `quantity` (a speed measures wind, a length precipitation ...).
[[nodiscard]] KP_EXPORT bool measures(WeatherQuantity quantity, Unit unit) noexcept;

// How a formatter writes measurements.
struct KP_EXPORT MeasurementFormatSettings {
  std::string locale;  // empty: the environment's
  // Which units.
  UnitSystem units = UnitSystem::locale;
  // How long the unit names are.
  TextWidth width = TextWidth::short_;
  // Digits after the decimal separator for a quantity, whatever unit shows it.
  std::map<WeatherQuantity, int> fractionDigits;
  // Wind as its Beaufort force ("4 Bft", long "Beaufort force 4") instead of a speed.
  bool windInBeaufort = false;
  // The host's texts for the Beaufort force (see localized_strings.h); English without them.
  std::shared_ptr<const LocalizedStrings> strings = LocalizedStrings::shared();
};

class KP_EXPORT MeasurementFormatter {
 public:
  // A formatter with `settings`.
  explicit MeasurementFormatter(MeasurementFormatSettings settings = {});

  // How it writes.
  [[nodiscard]] const MeasurementFormatSettings& settings() const noexcept;
  // `measurement` of `quantity` as text in the settings' units; nothing when the unit does
  // not measure the quantity or the value is not finite.
  [[nodiscard]] std::optional<std::string> string(WeatherQuantity quantity, Measurement measurement) const;
  // Appends the text to `out`; false (and nothing appended) where string() gives none.
  bool append(std::string& out, WeatherQuantity quantity, Measurement measurement) const;

  class Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace kp
