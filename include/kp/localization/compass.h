// Wind directions as compass points: 106° is "ESE" of 16 points and "E" of 8. Names come from
// the host's localized strings where they hold them (context "compass point", see
// localized_strings.h), English otherwise: "ESE" short and narrow, "east-southeast" long.
//
// Degrees are where the wind comes from, clockwise from north; any finite value is taken
// modulo 360. NaN and infinity give no point and no text.
//
// Thread safety: immutable after construction; may be used from any thread.
//
// Example:
//   kp::CompassFormatter compass("en_US");
//   compass.string(106);                                        // "ESE"
//   kp::compassPoint(106, kp::CompassPoints::eight);            // 2 (east)
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kp/localization/localization.h"
#include "kp/localization/localized_strings.h"
#include "kp/platform/export.h"

namespace kp {

// How many points of the compass a direction is named with.
enum class CompassPoints { eight = 8, sixteen = 16 };

// The point nearest to `degrees`, counted clockwise from north (0) in steps of 360/points.
[[nodiscard]] KP_EXPORT std::optional<int> compassPoint(double degrees, CompassPoints points) noexcept;

// The English name of a point: "NNE" or "north-northeast" (16 points; 8 use every other one).
[[nodiscard]] KP_EXPORT std::string_view compassPointName(int point, CompassPoints points, TextWidth width) noexcept;

// Names a direction in degrees as a compass point in a locale.
class KP_EXPORT CompassFormatter {
 public:
  // An empty locale is the environment's.
  explicit CompassFormatter(std::string_view locale = {}, CompassPoints points = CompassPoints::sixteen,
                            TextWidth width = TextWidth::short_,
                            std::shared_ptr<const LocalizedStrings> strings = LocalizedStrings::shared());

  // The point nearest `degrees`, clockwise from north.
  [[nodiscard]] std::string string(double degrees) const;

 private:
  std::string locale_;
  CompassPoints points_;
  TextWidth width_;
  std::shared_ptr<const LocalizedStrings> strings_;
};

}  // namespace kp
