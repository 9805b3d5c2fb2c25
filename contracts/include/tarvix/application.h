// tarvix::Application: the running application as the host exposes it to shared modules.
// The host implements it over its own application object and registers it as a service.
//
// Thread safety: as the host's implementation documents; the library calls it on the main
// thread.
//
// Example:
//   auto app = services.safeGet<tarvix::Application>();
//   if (app->applicationState() == tarvix::ApplicationState::active) { ... }
#pragma once

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "tarvix/service.h"

namespace tarvix {

// Whether the application is in the foreground and receiving events.
enum class ApplicationState { active = 0, inactive = 1, background = 2 };

// How the interface is turned, with the platform's raw values.
enum class InterfaceOrientation {
  unknown = 0,
  portrait = 1,
  portraitUpsideDown = 2,
  landscapeLeft = 4,
  landscapeRight = 3,
};

// The running application (see the top of this file).
class Application : public virtual Service {
 public:
  using OpenOptions = std::map<std::string, std::any>;  // options for open(), by key

  // The key window as an opaque handle of the host's; null when there is none.
  [[nodiscard]] virtual std::shared_ptr<void> applicationWindow() const = 0;
  // Where the application stands now.
  [[nodiscard]] virtual ApplicationState applicationState() const = 0;
  // How the interface is turned now.
  [[nodiscard]] virtual InterfaceOrientation statusBarOrientation() const = 0;
  // True while the application keeps the screen from dimming.
  [[nodiscard]] virtual bool isIdleTimerDisabled() const = 0;
  // Keeps the screen from dimming, or lets it dim again.
  virtual void setIdleTimerDisabled(bool disabled) = 0;
  // Whether some program can open `url`.
  [[nodiscard]] virtual bool canOpenURL(std::string_view url) const = 0;
  // Opens `url` in the program that handles it.
  virtual void open(std::string_view url) = 0;
  // The same with `options`; `completion` learns whether it was opened.
  virtual void open(std::string_view url, const OpenOptions& options, std::function<void(bool)> completion) = 0;
};

}  // namespace tarvix
