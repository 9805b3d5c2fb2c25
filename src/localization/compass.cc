// Compass points and their names.
#include "kp/localization/compass.h"

#include <array>
#include <cmath>

namespace kp {
namespace {

constexpr std::array<std::string_view, 16> kShort{"N", "NNE", "NE", "ENE", "E", "ESE", "SE", "SSE",
                                                  "S", "SSW", "SW", "WSW", "W", "WNW", "NW", "NNW"};
constexpr std::array<std::string_view, 16> kLong{"north", "north-northeast", "northeast", "east-northeast",
                                                 "east",  "east-southeast",  "southeast", "south-southeast",
                                                 "south", "south-southwest", "southwest", "west-southwest",
                                                 "west",  "west-northwest",  "northwest", "north-northwest"};

}  // namespace

std::optional<int> compassPoint(double degrees, CompassPoints points) noexcept {
  if (!std::isfinite(degrees)) return std::nullopt;
  const int count = static_cast<int>(points);
  double turned = std::fmod(degrees, 360.0);
  if (turned < 0) turned += 360.0;
  return static_cast<int>(std::floor(turned / (360.0 / count) + 0.5)) % count;
}

std::string_view compassPointName(int point, CompassPoints points, TextWidth width) noexcept {
  const int count = static_cast<int>(points);
  if (point < 0 || point >= count) return {};
  const auto index = static_cast<std::size_t>(point * (16 / count));
  return width == TextWidth::long_ ? kLong[index] : kShort[index];
}

CompassFormatter::CompassFormatter(std::string_view locale, CompassPoints points, TextWidth width,
                                   std::shared_ptr<const LocalizedStrings> strings)
    : locale_(locale.empty() ? currentLocaleIdentifier() : std::string(locale)),
      points_(points),
      width_(width),
      strings_(std::move(strings)) {}

std::string CompassFormatter::string(double degrees) const {
  const auto point = compassPoint(degrees, points_);
  if (!point) return {};
  const std::string_view name = compassPointName(*point, points_, width_);
  if (strings_) {
    if (auto text = strings_->text(locale_, name, "compass point")) return *text;
  }
  return std::string(name);
}

}  // namespace kp
