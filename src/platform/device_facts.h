// platform::DeviceFactsSource: what the machine says about itself (its chassis, its operating
// system, its displays) and platform::applicationDesktopEntry(): the launcher's record of the
// running application. The device layer turns these into device kinds, version tests and a
// screen diagonal; a port to another host implements this seam with its own sources.
//
// Thread safety: read() and watch() may be called from any thread; a source serves one caller
// at a time where its sources need it. The `changed` callback runs on a queue of the source.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kp::platform {

struct DisplayPanel {
  std::string connector;  // "eDP-1", "HDMI-A-1"
  bool builtIn = false;   // the machine's own panel (eDP, LVDS, DSI)
  int widthMillimetres = 0;
  int heightMillimetres = 0;
};

struct MachineFacts {
  // The chassis in systemd-hostnamed's words: "desktop", "laptop", "convertible", "server",
  // "tablet", "handset", "watch", "embedded", "vm", "container"; empty when unknown.
  std::string chassis;
  std::string chassisSource;           // "hostnamed", "dmi", or empty
  std::string osRelease;               // the os-release file's text (bounded); empty when there is none
  std::string kernelRelease;           // "6.1.0-18-amd64"
  std::vector<DisplayPanel> displays;  // connected displays that state their size
};

// Ends a watch when destroyed (from any thread); the callback does not start afterwards.
class FactsWatch {
 public:
  virtual ~FactsWatch() = default;
};

class DeviceFactsSource {
 public:
  virtual ~DeviceFactsSource() = default;
  // The host's own sources.
  [[nodiscard]] static std::shared_ptr<DeviceFactsSource> makeDefault();

  // Reads everything now; may wait for a system service for about a second at most.
  [[nodiscard]] virtual MachineFacts read() = 0;
  // Calls `changed` whenever a source tells that its facts changed; null when none can tell.
  [[nodiscard]] virtual std::unique_ptr<FactsWatch> watch(std::function<void()> changed) = 0;
};

struct DesktopEntry {
  std::string identifier;  // the desktop file's ID, "org.example.Weather"
  std::string name;        // its Name
};

// The desktop entry the launcher named for this process; nothing when none did or when the
// entry cannot be read as one.
[[nodiscard]] std::optional<DesktopEntry> applicationDesktopEntry();

}  // namespace kp::platform
