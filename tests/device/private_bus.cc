#include "device/private_bus.h"

#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "support/bus_config.h"

namespace kp::test {
namespace {

using namespace std::chrono_literals;

}  // namespace

PrivateSystemBus::PrivateSystemBus() {
  std::string config = kPrivateBusConfig;
  config.replace(config.find("@SOCKET@"), 8, (dir_.path() / "bus").string());
  std::ofstream(dir_.path() / "bus.conf") << config;
  daemon_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"dbus-daemon", "--config-file=" + (dir_.path() / "bus.conf").string(), "--nofork",
                               "--print-address"},
      ChildProcess::Options{.input = {}, .captureOutput = true, .quiet = true, .environment = {}});
  auto address = daemon_->readLine(10s);
  if (!address || address->empty()) throw std::runtime_error("the private bus did not start");
  address_ = *address;
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
  if (sd_bus_new(&bus_) < 0 || sd_bus_set_address(bus_, address_.c_str()) < 0 || sd_bus_set_bus_client(bus_, 1) < 0 ||
      sd_bus_start(bus_) < 0) {
    throw std::runtime_error("cannot connect to the private bus");
  }
}

PrivateSystemBus::~PrivateSystemBus() {
  if (bus_ != nullptr) sd_bus_close_unref(bus_);
  daemon_.reset();
  ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");  // NOLINT(concurrency-mt-unsafe)
}

std::unique_ptr<ChildProcess> PrivateSystemBus::startMock(const std::string& name, const std::string& busName,
                                                          const std::string& parameters) {
  const std::filesystem::path folder = KP_DEVICE_TEST_DIR;
  auto mock = std::make_unique<ChildProcess>(
      std::vector<std::string>{"/usr/bin/python3", "-m", "dbusmock", "--system", "--template", (folder / name).string(),
                               "--parameters", parameters, "--logfile", "/dev/null"},
      ChildProcess::Options{
          .input = {}, .captureOutput = false, .quiet = true, .environment = {"DBUS_SYSTEM_BUS_ADDRESS=" + address_}});
  if (!waitForOwner(busName, true)) throw std::runtime_error(busName + " did not come up on the private bus");
  return mock;
}

bool PrivateSystemBus::waitForOwner(const std::string& busName, bool owned, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    sd_bus_message* reply = nullptr;
    int has = 0;
    if (sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "NameHasOwner", nullptr, &reply, "s", busName.c_str()) >= 0) {
      (void)sd_bus_message_read(reply, "b", &has);
      sd_bus_message_unref(reply);
      if ((has != 0) == owned) return true;
    }
    std::this_thread::sleep_for(20ms);
  }
  return false;
}

std::string PrivateSystemBus::callMock(const char* busName, const char* path, const char* member, const char* types,
                                       ...) {
  va_list arguments;
  va_start(arguments, types);
  sd_bus_error error = SD_BUS_ERROR_NULL;
  const int r =
      sd_bus_call_methodv(bus_, busName, path, "org.freedesktop.DBus.Mock", member, &error, nullptr, types, arguments);
  va_end(arguments);
  std::string name = r < 0 ? (error.name != nullptr ? error.name : "failed") : "";
  sd_bus_error_free(&error);
  return name;
}

}  // namespace kp::test
