// kp::LocationController: the device's position from the operating system's location service
// (GeoClue2 on Linux), told to delegates on the main queue.
//
// A controller asks for updates at an accuracy level under the application's identity (the
// desktop ID the service knows it by: the application identifier unless set otherwise). It
// keeps the last location and the authorization as the service reports it: not determined
// until the service first answers, authorized when in use once it accepted the application,
// denied when it refused it or withdrew its permission.
//
// Whatever goes wrong ends the updates with one error to the delegates, after which the
// controller is stopped and may be started again: no service (unavailable), a refusal
// (denied), the service exiting or restarting (vanished), an answer not as documented or a
// location out of range (malformed: latitude outside -90...90, longitude outside -180...180,
// a negative or non-finite accuracy, NaN), or an answer that did not come within the timeout.
//
// Thread safety: every member may be called from any thread. Delegates are held weakly and
// called on the main queue (kp::MainQueue), in the order the events happened; a delegate that
// is gone is skipped. Events of a session that was stopped (or restarted) before they reached
// the main queue are not delivered.
//
// Example:
//   auto controller = kp::LocationController::make();
//   controller->setDesiredAccuracy(kp::LocationAccuracy::city);
//   controller->addDelegate(myDelegate);          // a shared_ptr the host keeps
//   controller->startUpdatingLocation();
//   kp::MainQueue::shared()->run();               // delegates are called here
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/date.h"
#include "kp/platform/error.h"
#include "kp/platform/export.h"

namespace kp {

// One position as the location service reported it.
struct KP_EXPORT Location {
  double latitude = 0;             // degrees, -90...90
  double longitude = 0;            // degrees, -180...180
  double horizontalAccuracy = 0;   // metres
  std::optional<double> altitude;  // metres above sea level, when known
  std::optional<double> speed;     // metres per second, when known
  std::optional<double> heading;   // degrees clockwise from true north, 0...<360, when known
  Date timestamp;                  // when the service took the fix (else when it arrived)
  std::string description;         // the service's words for the place, often empty
};

// The platform's values.
enum class LocationAuthorizationStatus {
  notDetermined = 0,
  restricted = 1,
  denied = 2,
  authorizedAlways = 3,
  authorizedWhenInUse = 4,
};

// How exact a position the application asks for, coarsest first.
enum class LocationAccuracy { country, city, neighborhood, street, exact };

// Codes of the errors in kLocationErrorDomain; 0 and 1 keep the platform's meanings.
enum class LocationErrorCode : std::int64_t {
  locationUnknown = 0,
  denied = 1,
  serviceUnavailable = 100,
  serviceVanished = 101,
  malformedReply = 102,
  timedOut = 103,
  noApplicationIdentity = 104,
};
inline constexpr std::string_view kLocationErrorDomain = "KPLocation";  // the location errors' domain

class LocationController;

// Hears of a controller's events on the main queue; each operation does nothing by default.
class KP_EXPORT LocationControllerDelegate {
 public:
  virtual ~LocationControllerDelegate() = default;
  // A new location.
  virtual void locationControllerDidUpdateLocation(LocationController& controller, const Location& location) {
    (void)controller;
    (void)location;
  }
  // The updates ended with `error` (in kLocationErrorDomain); the controller is stopped.
  virtual void locationControllerDidFail(LocationController& controller, const ErrorPtr& error) {
    (void)controller;
    (void)error;
  }
  // The service changed its answer about the application's permission.
  virtual void locationControllerDidChangeAuthorization(LocationController& controller,
                                                        LocationAuthorizationStatus status) {
    (void)controller;
    (void)status;
  }
};

class KP_EXPORT LocationController : public std::enable_shared_from_this<LocationController> {
 public:
  // Calls to the service are answered within `timeout`, or the updates end (timedOut).
  [[nodiscard]] static std::shared_ptr<LocationController> make(
      std::chrono::milliseconds timeout = std::chrono::seconds(10));
  ~LocationController();
  LocationController(const LocationController&) = delete;
  LocationController& operator=(const LocationController&) = delete;

  // Holds `delegate` weakly until it is removed or released.
  void addDelegate(const std::shared_ptr<LocationControllerDelegate>& delegate);
  // Stops telling `delegate`.
  void removeDelegate(const std::shared_ptr<LocationControllerDelegate>& delegate);

  // The identity the service knows the application by; by default the application identifier
  // (kp::BundleInformation). Starting without one fails with noApplicationIdentity.
  void setApplicationId(std::string desktopId);
  [[nodiscard]] std::optional<std::string> applicationId() const;  // see setApplicationId()
  // Takes effect at the next start; city by default.
  void setDesiredAccuracy(LocationAccuracy accuracy);
  [[nodiscard]] LocationAccuracy desiredAccuracy() const;  // see setDesiredAccuracy()

  // Starts updates (restarting them when they run); the answer comes to the delegates.
  void startUpdatingLocation();
  // Ends the updates; events of the session not yet delivered are dropped.
  void stopUpdatingLocation();
  [[nodiscard]] bool isUpdating() const;  // between a start and its stop or failure

  // The permission as the service reported it last (see the top of this file).
  [[nodiscard]] LocationAuthorizationStatus authorizationStatus() const;
  // The last valid location of any session; nothing before the first.
  [[nodiscard]] std::optional<Location> location() const;

  struct Impl;
  // Made by make().
  explicit LocationController(std::unique_ptr<Impl> impl);

 private:
  std::unique_ptr<Impl> impl_;
};

// "notDetermined", "denied", "authorizedWhenInUse", ... for logs and tools.
[[nodiscard]] KP_EXPORT std::string_view authorizationStatusName(LocationAuthorizationStatus status) noexcept;

}  // namespace kp
