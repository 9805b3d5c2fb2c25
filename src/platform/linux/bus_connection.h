// platform::BusConnection: one sd-bus connection to the system bus, driven by the library's
// event machinery. The timer thread waits for its descriptor (FdWatch) and for its next
// deadline (a delayed item), and the connection's serial queue reads and dispatches; no thread
// of its own, no polling. sd-bus objects are not thread-safe: everything that touches bus()
// runs on queue(), and so do the callbacks that sd-bus calls.
//
// Thread safety: openSystem() from any thread; every other member on queue() only.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kp/platform/dispatch.h"
#include "platform/fd_watch.h"

namespace kp::platform {

class BusConnection : public std::enable_shared_from_this<BusConnection> {
 public:
  // Connects to the system bus ($DBUS_SYSTEM_BUS_ADDRESS, else the standard socket) without
  // waiting for the handshake, which the queue finishes. Null, with the reason in `error`,
  // when there is no bus to connect to.
  [[nodiscard]] static std::shared_ptr<BusConnection> openSystem(std::shared_ptr<SerialQueue> queue,
                                                                 std::string& error);
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  // Null once closed.
  [[nodiscard]] sd_bus* bus() const noexcept { return bus_; }
  [[nodiscard]] const std::shared_ptr<SerialQueue>& queue() const noexcept { return queue_; }

  // Dispatches everything that has arrived, then waits again for the descriptor, for room to
  // write, and for the next call's deadline. Callers run it after sending.
  void process();
  // Runs once when the bus goes away under the connection (not after close()).
  void setLostHandler(std::function<void()> handler) { lost_ = std::move(handler); }
  // Ends the connection; safe from inside a callback of this connection.
  void close();

  // Sends a method call whose answer (or error, or the timeout's error) `reply` receives on
  // the queue. `append` adds the arguments; false when the call could not be sent.
  bool callAsync(const char* destination, const char* path, const char* interface, const char* member,
                 std::uint64_t timeoutMicroseconds, const std::function<int(sd_bus_message*)>& append,
                 std::function<void(sd_bus_message* reply)> reply);
  // Calls `signal` with each message that matches `rule` (a D-Bus match rule), and
  // `installed` with the bus's answer once the rule is in place (or refused).
  bool addMatch(const std::string& rule, std::function<void(sd_bus_message*)> signal,
                std::function<void(sd_bus_message*)> installed = {});

 private:
  BusConnection(std::shared_ptr<SerialQueue> queue, sd_bus* bus);
  void start();
  void scheduleTimeout(std::uint64_t monotonicMicroseconds);
  void finish();

  std::shared_ptr<SerialQueue> queue_;
  sd_bus* bus_ = nullptr;
  std::unique_ptr<FdWatch> watch_;
  std::function<void()> lost_;
  std::vector<sd_bus_slot*> matches_;  // owned
  std::optional<std::uint64_t> timerDeadline_;
  bool processing_ = false;
  bool closing_ = false;
};

// The D-Bus error name of a reply that is an error, or empty; `message` gets its text.
[[nodiscard]] std::string busErrorName(sd_bus_message* reply, std::string* message = nullptr);

}  // namespace kp::platform
