// kp::DeviceInformation: the device's kind, its operating system and version tests, and the
// size of its screen, read from the machine once and then kept.
//
// On Linux: the chassis as systemd-hostnamed reports it (else the DMI chassis type), the
// os-release file and the kernel release, and the EDID of the connected displays. The facts
// are read on first use (which may wait about a second for hostnamed) and kept; hostnamed's
// change signals refresh them, and refresh() reads everything again.
//
// Thread safety: every member may be called from any thread. After the first read, facts()
// copies a pointer under a lock held for nothing else and kind() is an atomic load; neither
// waits for the sources.
//
// Example:
//   auto& device = kp::DeviceInformation::shared();
//   if (device.kind() == kp::DeviceKind::laptop) { ... }
//   if (device.isOperatingSystemAtLeast({12, 0, 0})) { ... }
//   if (auto inches = device.facts()->screenDiagonalInches) { ... }
#pragma once

#include <compare>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kp/device/device_kind.h"
#include "kp/platform/export.h"

namespace kp {

// A version number major.minor.patch.
struct KP_EXPORT OperatingSystemVersion {
  int majorVersion = 0;  // 22 in 22.4.0
  int minorVersion = 0;  // 4 in 22.4.0
  int patchVersion = 0;  // 0 in 22.4.0
  // Compared part by part, major first.
  friend auto operator<=>(const OperatingSystemVersion&, const OperatingSystemVersion&) = default;

  // Up to three dot-separated decimal numbers at the start of `text`, the missing ones 0:
  // "22.04" is 22.4.0 and "6.1.0-18-amd64" is 6.1.0; nothing when `text` starts otherwise or a
  // number is out of range.
  [[nodiscard]] static std::optional<OperatingSystemVersion> parse(std::string_view text) noexcept;
};

// The operating system and kernel the library runs on.
struct KP_EXPORT OperatingSystem {
  static constexpr std::string_view kUnknown = "unknown";  // what a fact nobody gave reads as

  std::string name = std::string(kUnknown);             // os-release NAME, "Debian GNU/Linux"
  std::string identifier = std::string(kUnknown);       // ID, "debian"
  std::string versionText = std::string(kUnknown);      // VERSION_ID, "12"
  std::string build = std::string(kUnknown);            // BUILD_ID, else the kernel release
  std::string kernelRelease = std::string(kUnknown);    // "6.1.0-18-amd64"
  std::optional<OperatingSystemVersion> version;        // from VERSION_ID
  std::optional<OperatingSystemVersion> kernelVersion;  // from the kernel release

  // From os-release text (shell-style KEY=value lines, values quoted or not) and the kernel
  // release; lines that are not assignments and values that are badly quoted are skipped.
  [[nodiscard]] static OperatingSystem fromOsRelease(std::string_view osRelease, std::string_view kernelRelease);
};

// What the library knows of the device.
struct KP_EXPORT DeviceFacts {
  DeviceKind kind = DeviceKind::unknown;  // from the chassis
  std::string chassis;                    // the source's word, empty when none said
  std::string chassisSource;              // "hostnamed", "dmi", or empty
  OperatingSystem operatingSystem;        // the system and kernel
  // The built-in display's diagonal if the machine has one connected, else the largest
  // connected display's; nothing when no display states its size.
  std::optional<double> screenDiagonalInches;
  std::string screenConnector;  // the display measured, "eDP-1"
};

// The device facts of this machine.
class KP_EXPORT DeviceInformation {
 public:
  // The process-wide instance over the host's sources; made on first use, never destroyed.
  [[nodiscard]] static DeviceInformation& shared();
  ~DeviceInformation();
  DeviceInformation(const DeviceInformation&) = delete;
  DeviceInformation& operator=(const DeviceInformation&) = delete;

  // The facts, read on the first call and kept.
  [[nodiscard]] std::shared_ptr<const DeviceFacts> facts() const;
  [[nodiscard]] DeviceKind kind() const;  // the facts' kind
  // The host's idiom when it set one in ApplicationInfo, else the kind's.
  [[nodiscard]] UserInterfaceIdiom idiom() const;
  // Whether the operating system's version is `version` or later; false when it is unknown.
  [[nodiscard]] bool isOperatingSystemAtLeast(const OperatingSystemVersion& version) const;
  // The same for the kernel.
  [[nodiscard]] bool isKernelAtLeast(const OperatingSystemVersion& version) const;
  // Reads every source again (blocking, as the first read).
  void refresh();

  struct Impl;
  // Over the sources `impl` reads; shared() uses the host's.
  explicit DeviceInformation(std::unique_ptr<Impl> impl);

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace kp
