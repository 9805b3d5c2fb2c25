// Test helper: a private bus that the library takes for the system bus (its address is put in
// DBUS_SYSTEM_BUS_ADDRESS for this process while the helper lives), services of the test's
// own on it (python3-dbusmock templates beside this file), and a connection of the test's to
// call them. Every wait is bounded; the bus and the services end with the test process.
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <memory>
#include <string>

#include "support/child_process.h"
#include "support/temp_dir.h"

namespace kp::test {

class PrivateSystemBus {
 public:
  // Throws std::runtime_error when the bus does not start.
  PrivateSystemBus();
  ~PrivateSystemBus();
  PrivateSystemBus(const PrivateSystemBus&) = delete;
  PrivateSystemBus& operator=(const PrivateSystemBus&) = delete;

  [[nodiscard]] const std::string& address() const noexcept { return address_; }
  // A connection of the test's own to the bus.
  [[nodiscard]] sd_bus* bus() const noexcept { return bus_; }

  // Starts the template `name` ("geoclue2_mock.py") with JSON `parameters` and waits until it
  // owns `busName`. Throws when it does not come up in time.
  [[nodiscard]] std::unique_ptr<ChildProcess> startMock(const std::string& name, const std::string& busName,
                                                        const std::string& parameters = "{}");
  // Waits until `busName` is owned (or, with `owned` false, not); false on timeout.
  bool waitForOwner(const std::string& busName, bool owned,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Calls the mock interface of a service's main object; the D-Bus error name, or empty.
  std::string callMock(const char* busName, const char* path, const char* member, const char* types, ...);

 private:
  TempDir dir_;
  std::unique_ptr<ChildProcess> daemon_;
  std::string address_;
  sd_bus* bus_ = nullptr;
};

}  // namespace kp::test
