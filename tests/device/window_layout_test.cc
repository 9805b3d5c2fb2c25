// Size classes and split-screen modes at the sizes real screens and windows have, and the
// accessibility identifiers' forms.
#include "kp/device/window_layout.h"

#include <gtest/gtest.h>

#include <limits>

#include "kp/device/accessibility_identifiers.h"

namespace kp {
namespace {

using C = UserInterfaceSizeClass;

TEST(WindowLayout, ClassesAndModesAtTheSizesOfRealScreens) {
  EXPECT_EQ(sizeClasses({390, 844}), (SizeClasses{C::compact, C::regular}));    // a phone upright
  EXPECT_EQ(sizeClasses({844, 390}), (SizeClasses{C::regular, C::compact}));    // on its side
  EXPECT_EQ(sizeClasses({1024, 1366}), (SizeClasses{C::regular, C::regular}));  // a tablet
  EXPECT_EQ(sizeClasses({599.5, 480}), (SizeClasses{C::compact, C::regular}));
  EXPECT_EQ(sizeClasses({std::numeric_limits<double>::quiet_NaN(), 0}), (SizeClasses{}));

  const PointSize tablet{1366, 1024};
  EXPECT_EQ(splitScreenMode({1366, 1024}, tablet), SplitScreenMode::fullScreen);
  EXPECT_EQ(splitScreenMode({678, 1024}, tablet), SplitScreenMode::half);
  EXPECT_EQ(splitScreenMode({375, 1024}, tablet), SplitScreenMode::oneThird);
  EXPECT_EQ(splitScreenMode({981, 1024}, tablet), SplitScreenMode::twoThirds);
  EXPECT_EQ(splitScreenMode({320, 900}, tablet), SplitScreenMode::floatingNarrow);
  EXPECT_EQ(splitScreenMode({1200, 800}, {1920, 1080}), SplitScreenMode::freeform);  // a desktop's window
  EXPECT_EQ(splitScreenMode({200, 1080}, {1920, 1080}), SplitScreenMode::freeform);
  EXPECT_EQ(splitScreenMode({1500, 1024}, tablet), SplitScreenMode::unknown);  // larger than its screen
  EXPECT_EQ(splitScreenMode({100, 100}, {0, 1024}), SplitScreenMode::unknown);
}

TEST(AccessibilityIdentifiers, AreDottedWordsAndChildrenStayOne) {
  constexpr AccessibilityIdentifier radar{"radar.map"};
  static_assert(radar.text() == "radar.map");
  EXPECT_EQ(AccessibilityIdentifiers::hourlyRow.child(3), "forecast.hourly.row.3");
  EXPECT_EQ(radar.child("legend"), "radar.map.legend");
  EXPECT_EQ(radar.child("a.b"), "radar.map._");  // a word, not a path
  EXPECT_EQ(radar.child("ünits"), "radar.map._");
  static_assert(!AccessibilityIdentifier::isWellFormed("forecast..row"));
  static_assert(!AccessibilityIdentifier::isWellFormed(".forecast"));
  static_assert(!AccessibilityIdentifier::isWellFormed("a b"));
}

}  // namespace
}  // namespace kp
