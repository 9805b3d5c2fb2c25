// Which place the forecast is for: the device's location from the library's location
// controller, or a place the user chose by hand from a short list (the only choice when the
// location is denied or the system has no location service). The choice and the last place
// shown are kept in the user defaults, so that the next start draws the same place from the
// cache at once, before any fix arrives.
//
// Thread safety: main thread only; the controller calls its delegates on the main queue,
// which the GLib main loop drains.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "forecast.h"
#include "kp/device/location.h"

namespace weatherapp {

// The places offered by hand.
[[nodiscard]] std::span<const Place> fixedPlaces();

class PlaceTracker final : public kp::LocationControllerDelegate, public std::enable_shared_from_this<PlaceTracker> {
 public:
  struct Events {
    std::function<void(const Place&)> placeChanged;
    // The location cannot be used (denied, no service, failed); the user chooses by hand.
    std::function<void(const std::string& reason)> locationUnavailable;
  };

  // `fixed`: a place given on the command line, which disables everything else.
  [[nodiscard]] static std::shared_ptr<PlaceTracker> make(std::optional<Place> fixed, Events events);

  // The place to show first.
  [[nodiscard]] const Place& current() const noexcept { return current_; }
  // True while the forecast follows the device's location.
  [[nodiscard]] bool followsLocation() const noexcept { return followsLocation_; }
  [[nodiscard]] bool isFixed() const noexcept { return fixed_; }

  // Follows the device's location (asks the system's location service).
  void followLocation();
  // Shows `place`, chosen by hand, from now on.
  void choose(const Place& place);

  void locationControllerDidUpdateLocation(kp::LocationController& controller, const kp::Location& location) override;
  void locationControllerDidFail(kp::LocationController& controller, const kp::ErrorPtr& error) override;

 private:
  PlaceTracker(std::optional<Place> fixed, Events events);
  void setCurrent(const Place& place);

  Events events_;
  Place current_;
  bool fixed_ = false;
  bool followsLocation_ = false;
  std::shared_ptr<kp::LocationController> controller_;
};

}  // namespace weatherapp
