// kp::DeviceKind: what sort of machine the library runs on, richer than the platform's idiom
// so that Linux machines are told apart, and the idiom it stands for.
//
// The kinds follow the chassis words of systemd-hostnamed (and the SMBIOS chassis types
// behind them). Idioms: a handset is a phone, a tablet a pad; every other kind has no idiom of
// the platform's (unspecified), since the platform's desktop idiom names another maker's
// computers and a convertible, a server or a virtual machine runs a desktop's interface.
//
// Thread safety: plain values and pure functions.
#pragma once

#include <optional>
#include <string_view>

#include "kp/platform/application_info.h"
#include "kp/platform/export.h"

namespace kp {

// What kind of device the library runs on.
enum class DeviceKind {
  unknown,
  phone,           // hostnamed "handset"
  tablet,          // "tablet"
  desktop,         // "desktop"
  laptop,          // "laptop"
  convertible,     // "convertible" (a laptop that folds into a tablet, or one whose keyboard comes off)
  server,          // "server"
  virtualMachine,  // "vm"
  container,       // "container"
  watch,           // "watch"
  embedded,        // "embedded"
};

// The kind for a chassis word of hostnamed's; unknown for anything else (empty included).
[[nodiscard]] KP_EXPORT DeviceKind deviceKindOfChassis(std::string_view chassis) noexcept;
// The chassis word of a kind ("handset", "vm"); "unknown" for unknown.
[[nodiscard]] KP_EXPORT std::string_view chassisName(DeviceKind kind) noexcept;
// phone -> phone, tablet -> pad, everything else -> unspecified.
[[nodiscard]] KP_EXPORT UserInterfaceIdiom idiomOf(DeviceKind kind) noexcept;

}  // namespace kp
