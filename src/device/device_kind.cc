// Device kinds and their chassis words and idioms.
#include "kp/device/device_kind.h"

#include <array>
#include <utility>

namespace kp {
namespace {

constexpr std::array<std::pair<DeviceKind, std::string_view>, 10> kChassis{{
    {DeviceKind::phone, "handset"},
    {DeviceKind::tablet, "tablet"},
    {DeviceKind::desktop, "desktop"},
    {DeviceKind::laptop, "laptop"},
    {DeviceKind::convertible, "convertible"},
    {DeviceKind::server, "server"},
    {DeviceKind::virtualMachine, "vm"},
    {DeviceKind::container, "container"},
    {DeviceKind::watch, "watch"},
    {DeviceKind::embedded, "embedded"},
}};

}  // namespace

DeviceKind deviceKindOfChassis(std::string_view chassis) noexcept {
  for (const auto& [kind, word] : kChassis) {
    if (word == chassis) return kind;
  }
  return DeviceKind::unknown;
}

std::string_view chassisName(DeviceKind kind) noexcept {
  for (const auto& [k, word] : kChassis) {
    if (k == kind) return word;
  }
  return "unknown";
}

UserInterfaceIdiom idiomOf(DeviceKind kind) noexcept {
  switch (kind) {
    case DeviceKind::phone:
      return UserInterfaceIdiom::phone;
    case DeviceKind::tablet:
      return UserInterfaceIdiom::pad;
    default:
      return UserInterfaceIdiom::unspecified;
  }
}

}  // namespace kp
