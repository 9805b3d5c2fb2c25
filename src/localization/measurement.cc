// Units, their symbols and exact conversions through each dimension's SI unit.
#include "kp/localization/measurement.h"

#include <array>
#include <cmath>

namespace kp {
namespace {

struct UnitInfo {
  Unit unit;
  Dimension dimension;
  std::string_view symbol;
  double factor;  // SI units per unit (K, Pa, m, m/s); temperatures add `offset` first
  double offset;
};

constexpr double kMillimeterOfMercury = 133.322387415;

constexpr std::array<UnitInfo, 21> kUnits{{
    {Unit::celsius, Dimension::temperature, "C", 1, 273.15},
    {Unit::fahrenheit, Dimension::temperature, "F", 5.0 / 9.0, 459.67},
    {Unit::kelvin, Dimension::temperature, "K", 1, 0},
    {Unit::hectopascal, Dimension::pressure, "hPa", 100, 0},
    {Unit::millibar, Dimension::pressure, "mbar", 100, 0},
    {Unit::kilopascal, Dimension::pressure, "kPa", 1000, 0},
    {Unit::inchOfMercury, Dimension::pressure, "inHg", 25.4 * kMillimeterOfMercury, 0},
    {Unit::millimeterOfMercury, Dimension::pressure, "mmHg", kMillimeterOfMercury, 0},
    {Unit::meter, Dimension::length, "m", 1, 0},
    {Unit::kilometer, Dimension::length, "km", 1000, 0},
    {Unit::mile, Dimension::length, "mi", 1609.344, 0},
    {Unit::foot, Dimension::length, "ft", 0.3048, 0},
    {Unit::nauticalMile, Dimension::length, "nmi", 1852, 0},
    {Unit::millimeter, Dimension::length, "mm", 0.001, 0},
    {Unit::centimeter, Dimension::length, "cm", 0.01, 0},
    {Unit::inch, Dimension::length, "in", 0.0254, 0},
    {Unit::meterPerSecond, Dimension::speed, "m/s", 1, 0},
    {Unit::kilometerPerHour, Dimension::speed, "km/h", 1 / 3.6, 0},
    {Unit::milePerHour, Dimension::speed, "mph", 0.44704, 0},
    {Unit::knot, Dimension::speed, "kn", 1852.0 / 3600.0, 0},
    {Unit::beaufort, Dimension::speed, "bft", 0, 0},  // not linear: see toSi / fromSi
}};

const UnitInfo& infoOf(Unit unit) noexcept { return kUnits[static_cast<std::size_t>(unit)]; }

// Lower bounds (m/s, at 0.1 m/s resolution) of forces 1 to 12.
constexpr std::array<double, 12> kBeaufortBands{0.3, 1.6, 3.4, 5.5, 8.0, 10.8, 13.9, 17.2, 20.8, 24.5, 28.5, 32.7};

std::optional<double> toSi(double value, Unit unit) {
  if (unit == Unit::beaufort) {
    if (value < 0 || value > 12) return std::nullopt;
    return 0.836 * std::pow(value, 1.5);
  }
  const UnitInfo& info = infoOf(unit);
  return (value + info.offset) * info.factor;
}

std::optional<double> fromSi(double value, Unit unit) {
  if (unit == Unit::beaufort) {
    const auto force = beaufortForce(value);
    return force ? std::optional<double>(*force) : std::nullopt;
  }
  const UnitInfo& info = infoOf(unit);
  return value / info.factor - info.offset;
}

}  // namespace

Dimension dimensionOf(Unit unit) noexcept { return infoOf(unit).dimension; }

std::string_view symbolOf(Unit unit) noexcept { return infoOf(unit).symbol; }

std::optional<Unit> unitForSymbol(std::string_view symbol) noexcept {
  for (const auto& info : kUnits) {
    if (info.symbol == symbol) return info.unit;
  }
  return std::nullopt;
}

std::optional<Measurement> Measurement::converted(Unit to) const noexcept {
  if (!std::isfinite(value) || dimensionOf(unit) != dimensionOf(to)) return std::nullopt;
  if (to == unit) return *this;
  const auto si = toSi(value, unit);
  const auto result = si ? fromSi(*si, to) : std::nullopt;
  if (!result || !std::isfinite(*result)) return std::nullopt;
  return Measurement{*result, to};
}

std::optional<int> beaufortForce(double metersPerSecond) noexcept {
  if (!std::isfinite(metersPerSecond) || metersPerSecond < 0) return std::nullopt;
  // The bands are tabulated to 0.1 m/s; the small allowance keeps 0.25 m/s (0.3 rounded) from
  // falling short by a rounding error of the division.
  const double tenths = std::round(metersPerSecond * 10.0 + 1e-9) / 10.0;
  int force = 0;
  while (force < 12 && tenths >= kBeaufortBands[static_cast<std::size_t>(force)] - 1e-9) ++force;
  return force;
}

}  // namespace kp
