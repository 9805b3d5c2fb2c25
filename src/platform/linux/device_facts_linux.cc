// Device facts on Linux: systemd-hostnamed, sysfs (DMI, DRM), os-release, uname, and the
// launcher's desktop entry.
#include "platform/linux/device_facts_linux.h"

#include <sys/utsname.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "kp/platform/dispatch.h"
#include "platform/edid.h"
#include "platform/env.h"
#include "platform/files.h"
#include "platform/linux/bus_connection.h"

namespace kp::platform {
namespace {

constexpr const char* kHostnamed = "org.freedesktop.hostname1";
constexpr const char* kHostnamedPath = "/org/freedesktop/hostname1";
constexpr std::uint64_t kTextLimit = 64 * 1024;
// EDID has at most 256 blocks of 128 bytes.
constexpr std::uint64_t kEdidLimit = 256 * 128;
// More connectors than any machine has; a stranger tree is not read further.
constexpr int kMaxConnectors = 256;

std::string trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return std::string(text.substr(first, last - first + 1));
}

std::optional<std::string> readText(const std::filesystem::path& path) {
  auto contents = readFile(path, kTextLimit);
  if (contents.status != FileContents::Status::ok) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(contents.bytes.data()), contents.bytes.size());
}

std::uint64_t monotonicMicroseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000u + static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
}

// hostnamed's Chassis, asked on a connection of this call's own and waited for on this
// thread, within `timeout` all told (the handshake included); empty when it cannot tell.
std::string hostnamedChassis(std::chrono::milliseconds timeout) {
  sd_bus* bus = nullptr;
  if (sd_bus_open_system(&bus) < 0) return {};
  struct Answer {
    bool done = false;
    std::string chassis;
  } answer;
  const auto deadline = monotonicMicroseconds() + static_cast<std::uint64_t>(timeout.count()) * 1000u;
  const int sent = sd_bus_call_method_async(
      bus, nullptr, kHostnamed, kHostnamedPath, "org.freedesktop.DBus.Properties", "Get",
      [](sd_bus_message* reply, void* userdata, sd_bus_error*) -> int {
        auto& out = *static_cast<Answer*>(userdata);
        out.done = true;
        const char* value = nullptr;
        if (sd_bus_message_is_method_error(reply, nullptr) == 0 &&
            sd_bus_message_enter_container(reply, 'v', "s") > 0 && sd_bus_message_read(reply, "s", &value) > 0 &&
            value != nullptr) {
          out.chassis = value;
        }
        return 1;
      },
      &answer, "ss", kHostnamed, "Chassis");
  while (sent >= 0 && !answer.done) {
    const int r = sd_bus_process(bus, nullptr);
    if (r < 0) break;
    if (r > 0) continue;
    const auto now = monotonicMicroseconds();
    if (now >= deadline || sd_bus_wait(bus, deadline - now) < 0) break;
  }
  sd_bus_close_unref(bus);
  // Only hostnamed's own words count; anything else is as good as no answer.
  static constexpr std::string_view kWords[] = {"desktop", "laptop", "convertible", "server", "tablet",
                                                "handset", "watch",  "embedded",    "vm",     "container"};
  if (std::find(std::begin(kWords), std::end(kWords), answer.chassis) == std::end(kWords)) return {};
  return answer.chassis;
}

std::vector<DisplayPanel> connectedDisplays(const std::filesystem::path& sysfs) {
  std::vector<DisplayPanel> displays;
  std::error_code ec;
  std::filesystem::directory_iterator it(sysfs / "class" / "drm", ec);
  int seen = 0;
  for (; !ec && it != std::filesystem::directory_iterator() && seen < kMaxConnectors; it.increment(ec), ++seen) {
    // Connectors are "card<N>-<type>-<index>"; the cards themselves have no dash.
    const std::string name = it->path().filename().string();
    const auto dash = name.find('-');
    if (name.rfind("card", 0) != 0 || dash == std::string::npos) continue;
    const auto status = readText(it->path() / "status");
    if (!status || trimmed(*status) != "connected") continue;
    const auto edid = readFile(it->path() / "edid", kEdidLimit);
    if (edid.status != FileContents::Status::ok) continue;
    const auto size = readEdidPhysicalSize(std::span(edid.bytes.data(), edid.bytes.size()));
    if (!size) continue;
    DisplayPanel panel;
    panel.connector = name.substr(dash + 1);
    for (std::string_view prefix : {"eDP", "LVDS", "DSI"}) {
      if (panel.connector.rfind(prefix, 0) == 0) panel.builtIn = true;
    }
    panel.widthMillimetres = size->widthMillimetres;
    panel.heightMillimetres = size->heightMillimetres;
    displays.push_back(std::move(panel));
  }
  std::sort(displays.begin(), displays.end(),
            [](const DisplayPanel& a, const DisplayPanel& b) { return a.connector < b.connector; });
  return displays;
}

// Tells of hostnamed's property changes through a system-bus connection of its own.
class HostnamedWatch final : public FactsWatch {
 public:
  explicit HostnamedWatch(std::shared_ptr<BusConnection> connection) : connection_(std::move(connection)) {}
  ~HostnamedWatch() override {
    connection_->queue()->async([connection = connection_] { connection->close(); });
  }

 private:
  std::shared_ptr<BusConnection> connection_;
};

class LinuxDeviceFactsSource final : public DeviceFactsSource {
 public:
  explicit LinuxDeviceFactsSource(LinuxDeviceFactsPaths paths) : paths_(std::move(paths)) {}

  MachineFacts read() override {
    MachineFacts facts;
    if (paths_.askHostnamed) facts.chassis = hostnamedChassis(paths_.busTimeout);
    if (!facts.chassis.empty()) {
      facts.chassisSource = "hostnamed";
    } else if (auto type = readText(paths_.sysfs / "class" / "dmi" / "id" / "chassis_type")) {
      facts.chassis = chassisOfDmiType(*type);
      if (!facts.chassis.empty()) facts.chassisSource = "dmi";
    }
    for (const auto& path : paths_.osRelease) {
      if (auto text = readText(path)) {
        facts.osRelease = std::move(*text);
        break;
      }
    }
    utsname names{};
    if (::uname(&names) == 0) facts.kernelRelease = names.release;
    facts.displays = connectedDisplays(paths_.sysfs);
    return facts;
  }

  std::unique_ptr<FactsWatch> watch(std::function<void()> changed) override {
    if (!paths_.askHostnamed) return nullptr;
    std::string error;
    auto connection = BusConnection::openSystem(SerialQueue::make("com.kp.device.hostnamed"), error);
    if (!connection) return nullptr;
    const std::string rule = std::string("type='signal',sender='") + kHostnamed + "',path='" + kHostnamedPath +
                             "',interface='org.freedesktop.DBus.Properties',member='PropertiesChanged'";
    // A change made between the caller's read and the rule's installation is caught by one
    // more call once the rule is in place.
    connection->queue()->async([connection, rule, changed = std::move(changed)] {
      connection->addMatch(
          rule, [changed](sd_bus_message*) { changed(); }, [changed](sd_bus_message*) { changed(); });
      connection->process();
    });
    return std::make_unique<HostnamedWatch>(std::move(connection));
  }

 private:
  LinuxDeviceFactsPaths paths_;
};

}  // namespace

std::shared_ptr<DeviceFactsSource> makeLinuxDeviceFactsSource(LinuxDeviceFactsPaths paths) {
  return std::make_shared<LinuxDeviceFactsSource>(std::move(paths));
}

std::shared_ptr<DeviceFactsSource> DeviceFactsSource::makeDefault() {
  return makeLinuxDeviceFactsSource(LinuxDeviceFactsPaths{});
}

std::optional<DesktopEntry> applicationDesktopEntry() {
  auto& env = Env::current();
  // GLib's launcher names the entry it started a process from, and that process's ID; the
  // processes it starts in turn (a terminal's shell and whatever runs there) inherit both,
  // so the entry is ours only when the ID is.
  const auto file = env.variable("GIO_LAUNCHED_DESKTOP_FILE");
  const auto pid = env.variable("GIO_LAUNCHED_DESKTOP_FILE_PID");
  if (!file || !pid || *pid != std::to_string(::getpid()) || file->empty() || file->front() != '/') {
    return std::nullopt;
  }
  const std::filesystem::path path(*file);
  if (path.extension() != ".desktop" || path.stem().empty()) return std::nullopt;
  const auto text = readText(path);
  if (!text) return std::nullopt;
  return parseDesktopEntry(*text, path.stem().string());
}

}  // namespace kp::platform
