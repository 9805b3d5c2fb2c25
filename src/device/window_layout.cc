// Size classes and split-screen modes from sizes in points; the thresholds are in the header.
#include "kp/device/window_layout.h"

#include <cmath>

namespace kp {
namespace {

constexpr double kFull = 0.95;
constexpr double kOneThirdAtMost = 0.42;
constexpr double kHalfAtMost = 0.58;
constexpr double kNarrowAtMost = 0.40;
constexpr double kSideBySideAtLeast = 0.25;
constexpr double kLargerThanScreen = 1.05;

bool usable(double points) { return std::isfinite(points) && points > 0; }

UserInterfaceSizeClass classOf(double points, double regularFrom) {
  if (!usable(points)) return UserInterfaceSizeClass::unspecified;
  return points < regularFrom ? UserInterfaceSizeClass::compact : UserInterfaceSizeClass::regular;
}

}  // namespace

SizeClasses sizeClasses(PointSize window) noexcept {
  return {classOf(window.width, kRegularWidthPoints), classOf(window.height, kRegularHeightPoints)};
}

SplitScreenMode splitScreenMode(PointSize window, PointSize screen) noexcept {
  if (!usable(window.width) || !usable(window.height) || !usable(screen.width) || !usable(screen.height)) {
    return SplitScreenMode::unknown;
  }
  const double width = window.width / screen.width;
  const double height = window.height / screen.height;
  if (width > kLargerThanScreen || height > kLargerThanScreen) return SplitScreenMode::unknown;
  if (height < kFull) return width <= kNarrowAtMost ? SplitScreenMode::floatingNarrow : SplitScreenMode::freeform;
  if (width >= kFull) return SplitScreenMode::fullScreen;
  if (width < kSideBySideAtLeast) return SplitScreenMode::freeform;
  if (width <= kOneThirdAtMost) return SplitScreenMode::oneThird;
  if (width <= kHalfAtMost) return SplitScreenMode::half;
  return SplitScreenMode::twoThirds;
}

std::string_view splitScreenModeName(SplitScreenMode mode) noexcept {
  switch (mode) {
    case SplitScreenMode::fullScreen:
      return "fullScreen";
    case SplitScreenMode::oneThird:
      return "oneThird";
    case SplitScreenMode::half:
      return "half";
    case SplitScreenMode::twoThirds:
      return "twoThirds";
    case SplitScreenMode::floatingNarrow:
      return "floatingNarrow";
    case SplitScreenMode::freeform:
      return "freeform";
    case SplitScreenMode::unknown:
      break;
  }
  return "unknown";
}

}  // namespace kp
