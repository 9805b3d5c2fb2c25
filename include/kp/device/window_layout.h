// Window size classes and split-screen modes: pure functions of a window's size and its
// screen's size, in points.
//
// Size classes: a width under 600 points is compact, 600 and more regular (a phone upright, a
// third or a narrow half of a tablet's screen are compact; a tablet's full or wide half screen
// is regular). A height under 480 points is compact (a phone on its side), 480 and more regular.
// A size that is not positive and finite has no class (unspecified).
//
// Split-screen modes compare the window with its screen: a window at least 95% of the
// screen's width and height fills the screen; a window of full height (at least 95%) shares
// the screen side by side as one third (up to 42% of the width), one half (up to 58%) or two
// thirds (up to 95%); a window of less than full height floats, as a narrow window (at most
// 40% of the width, the tablet's slide-over panel) or a free-form one (a desktop's window).
// A window of full height narrower than a quarter of the screen is free-form too.
//
// Thread safety: pure functions.
#pragma once

#include <string_view>

#include "kp/platform/export.h"

namespace kp {

// A size in points.
struct KP_EXPORT PointSize {
  double width = 0;   // points
  double height = 0;  // points
};

// The platform's values.
enum class UserInterfaceSizeClass { unspecified = 0, compact = 1, regular = 2 };

// A window's size class in each direction.
struct KP_EXPORT SizeClasses {
  UserInterfaceSizeClass horizontal = UserInterfaceSizeClass::unspecified;   // by width
  UserInterfaceSizeClass vertical = UserInterfaceSizeClass::unspecified;     // by height
  friend bool operator==(const SizeClasses&, const SizeClasses&) = default;  // both classes equal
};

// How a window shares its screen (see the top of this file).
enum class SplitScreenMode { unknown, fullScreen, oneThird, half, twoThirds, floatingNarrow, freeform };

inline constexpr double kRegularWidthPoints = 600;   // the narrowest regular width
inline constexpr double kRegularHeightPoints = 480;  // the lowest regular height

// The size classes of a window of size `window` (see the top of this file).
[[nodiscard]] KP_EXPORT SizeClasses sizeClasses(PointSize window) noexcept;
// unknown when either size is not positive and finite, or the window is larger than its screen
// by more than 5% either way.
[[nodiscard]] KP_EXPORT SplitScreenMode splitScreenMode(PointSize window, PointSize screen) noexcept;
// "fullScreen", "oneThird", ... for logs and tools.
[[nodiscard]] KP_EXPORT std::string_view splitScreenModeName(SplitScreenMode mode) noexcept;

}  // namespace kp
