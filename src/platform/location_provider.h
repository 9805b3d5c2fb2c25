// platform::LocationProvider: the operating system's location service, as the device layer's
// location controller needs it: start with an application identity and an accuracy level,
// fixes as they come, the one failure that ends a session, and stop. A port to another host
// implements it with that host's service.
//
// Thread safety: start() and stop() from any thread, one at a time. The events run on a
// serial queue of the provider, in order; after a failure the session is over (the provider
// has stopped it), and once stop() has returned no event of the stopped session starts.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kp::platform {

// The levels in the service's own order, coarse to fine.
enum class LocationLevel { country, city, neighborhood, street, exact };

struct LocationFix {
  double latitude = 0;
  double longitude = 0;
  double horizontalAccuracy = 0;    // metres
  std::optional<double> altitude;   // metres above sea level
  std::optional<double> speed;      // metres per second
  std::optional<double> heading;    // degrees clockwise from true north
  std::optional<double> timestamp;  // seconds since 1970 when the service took the fix
  std::string description;
};

enum class LocationFailure {
  unavailable,  // no location service (no bus, no such service, not activatable)
  denied,       // the service refused this application, or withdrew its permission
  vanished,     // the service went away (exited, restarted) during the session
  malformed,    // an answer did not have the documented form
  timedOut,     // an answer did not come in time
};

class LocationProvider {
 public:
  struct Events {
    std::function<void()> authorized;  // the service accepted the session
    std::function<void(const LocationFix&)> location;
    std::function<void(LocationFailure, const std::string& detail)> failed;
  };

  virtual ~LocationProvider() = default;
  // The host's own service; calls to it are answered within `timeout`.
  [[nodiscard]] static std::unique_ptr<LocationProvider> makeDefault(std::chrono::milliseconds timeout);

  // Starts a session (ending any earlier one).
  virtual void start(std::string applicationId, LocationLevel level, Events events) = 0;
  virtual void stop() = 0;
};

}  // namespace kp::platform
