// kp::Measurement: a quantity with its unit, for the values of a weather screen, and exact
// conversion between units of one dimension by their SI definitions:
//   temperature  °C, °F (×9/5 + 32), K (+273.15)
//   pressure     hPa = mbar = 100 Pa, kPa, inHg (25.4 mmHg), mmHg (13.5951 g/cm³ × 9.80665 m/s²
//                × 1 mm = 133.322387415 Pa)
//   length       m, km, mi (1609.344 m), ft (0.3048 m), nmi (1852 m), mm, cm, in (0.0254 m);
//                distance, visibility and precipitation alike
//   speed        m/s, km/h, mph (0.44704 m/s), kn (1852/3600 m/s), and the Beaufort force
// The Beaufort force is a whole number from 0 to 12 by the WMO's bands (speeds rounded to
// 0.1 m/s: 0.3 m/s is force 1, 32.7 m/s force 12); read back into a speed, force B is
// 0.836 × B^1.5 m/s (the scale's defining formula).
//
// Conversions give nothing across dimensions and for values that are not finite; negative
// speeds have no Beaufort force.
//
// Thread safety: values and pure functions.
//
// Example:
//   kp::Measurement wind{5.3, kp::Unit::meterPerSecond};
//   wind.converted(kp::Unit::knot)->value;        // 10.30...
//   wind.converted(kp::Unit::beaufort)->value;    // 3
//   kp::unitForSymbol("inHg");                    // kp::Unit::inchOfMercury
#pragma once

#include <optional>
#include <string_view>

#include "kp/platform/export.h"

namespace kp {

// The units of weather measurements.
enum class Unit {
  celsius,
  fahrenheit,
  kelvin,
  hectopascal,
  millibar,
  kilopascal,
  inchOfMercury,
  millimeterOfMercury,
  meter,
  kilometer,
  mile,
  foot,
  nauticalMile,
  millimeter,
  centimeter,
  inch,
  meterPerSecond,
  kilometerPerHour,
  milePerHour,
  knot,
  beaufort,
};

// What a unit measures.
enum class Dimension { temperature, pressure, length, speed };

// What `unit` measures.
[[nodiscard]] KP_EXPORT Dimension dimensionOf(Unit unit) noexcept;

// The command line's symbols: "C", "F", "K", "hPa", "mbar", "kPa", "inHg", "mmHg", "m", "km",
// "mi", "ft", "nmi", "mm", "cm", "in", "m/s", "km/h", "mph", "kn", "bft".
[[nodiscard]] KP_EXPORT std::string_view symbolOf(Unit unit) noexcept;
// The unit of a command-line symbol; nothing for another text.
[[nodiscard]] KP_EXPORT std::optional<Unit> unitForSymbol(std::string_view symbol) noexcept;

struct KP_EXPORT Measurement {
  // The amount.
  double value = 0;
  // Its unit.
  Unit unit = Unit::celsius;

  // The same measurement in `to`; nothing when `to` measures something else.
  [[nodiscard]] std::optional<Measurement> converted(Unit to) const noexcept;
};

// The Beaufort force of a speed in metres per second; nothing for negative or non-finite speeds.
[[nodiscard]] KP_EXPORT std::optional<int> beaufortForce(double metersPerSecond) noexcept;

}  // namespace kp
