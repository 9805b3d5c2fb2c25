// Two small services of the library:
//   kp::DefaultDateService: the current date from the system clock.
//   kp::BridgedApplication: the Application service over the host's application object. There
//     is no platform application object on Linux, so the host hands its own implementation to
//     the constructor and every member forwards to it.
//
// Thread safety: DefaultDateService may be called from any thread. BridgedApplication adds no
// locking: its members run on the calling thread with the host implementation's guarantees
// (the library calls it on the main thread).
//
// Example:
//   services.registerInstance<tarvix::DateService>(std::make_shared<kp::DefaultDateService>());
//   services.registerInstance<tarvix::Application>(std::make_shared<kp::BridgedApplication>(hostApp));
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string_view>

#include "kp/platform/export.h"
#include "tarvix/application.h"
#include "tarvix/date_service.h"

namespace kp {

// The current date from the system clock.
class KP_EXPORT DefaultDateService final : public tarvix::DateService {
 public:
  // The system clock's time now.
  [[nodiscard]] std::chrono::system_clock::time_point now() const override { return std::chrono::system_clock::now(); }
};

// The Application service over the host's own implementation; every member forwards to it.
class KP_EXPORT BridgedApplication final : public tarvix::Application {
 public:
  // `host` must not be null.
  explicit BridgedApplication(std::shared_ptr<tarvix::Application> host);

  [[nodiscard]] std::shared_ptr<void> applicationWindow() const override;
  [[nodiscard]] tarvix::ApplicationState applicationState() const override;
  [[nodiscard]] tarvix::InterfaceOrientation statusBarOrientation() const override;
  [[nodiscard]] bool isIdleTimerDisabled() const override;
  void setIdleTimerDisabled(bool disabled) override;
  [[nodiscard]] bool canOpenURL(std::string_view url) const override;
  void open(std::string_view url) override;
  void open(std::string_view url, const OpenOptions& options, std::function<void(bool)> completion) override;

 private:
  std::shared_ptr<tarvix::Application> host_;
};

}  // namespace kp
