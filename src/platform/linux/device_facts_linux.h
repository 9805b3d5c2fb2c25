// The Linux device-facts source: systemd-hostnamed's Chassis on the system bus (through
// sd-bus), else the DMI chassis type in sysfs; os-release; the kernel release; and the sizes
// of the connected DRM connectors' displays from their EDID. The paths are parameters so that
// tests read fixture trees laid out as the kernel lays them out.
//
// Thread safety: as platform::DeviceFactsSource.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/device_facts.h"

namespace kp::platform {

struct LinuxDeviceFactsPaths {
  std::filesystem::path sysfs = "/sys";
  // The first that exists is read, as the os-release format prescribes.
  std::vector<std::filesystem::path> osRelease = {"/etc/os-release", "/usr/lib/os-release"};
  bool askHostnamed = true;
  std::chrono::milliseconds busTimeout{1000};
};

[[nodiscard]] std::shared_ptr<DeviceFactsSource> makeLinuxDeviceFactsSource(LinuxDeviceFactsPaths paths);

// hostnamed's word for an SMBIOS chassis type as the kernel writes it ("10\n" is a notebook,
// so "laptop"); empty for types that name no chassis kind.
[[nodiscard]] std::string chassisOfDmiType(std::string_view text);

// A desktop entry's identifier and Name from its file text; nothing when the text has no
// [Desktop Entry] group first, or no Name in it.
[[nodiscard]] std::optional<DesktopEntry> parseDesktopEntry(std::string_view text, std::string identifier);

}  // namespace kp::platform
