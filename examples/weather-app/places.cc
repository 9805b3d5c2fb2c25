// The device's location, or a place chosen by hand, kept across starts.
#include "places.h"

#include <any>
#include <array>
#include <cmath>

#include "kp/storage/user_defaults.h"
#include "text.h"

namespace weatherapp {
namespace {

// Not constexpr: a std::string in a constant is a GCC extension that clang refuses.
const std::array kPlaces{
    Place{"Amsterdam", 52.37, 4.90},  Place{"Berlin", 52.52, 13.40}, Place{"London", 51.51, -0.13},
    Place{"New York", 40.71, -74.01}, Place{"Tokyo", 35.68, 139.69}, Place{"Sydney", -33.87, 151.21},
};

constexpr std::string_view kModeKey = "placeMode";  // "location" or "chosen"
constexpr std::string_view kNameKey = "placeName";
constexpr std::string_view kLatitudeKey = "placeLatitude";
constexpr std::string_view kLongitudeKey = "placeLongitude";

// Fixes within the service's grid of a hundredth of a degree are the same place.
bool samePlace(const Place& a, const Place& b) {
  return std::abs(a.latitude - b.latitude) < 0.005 && std::abs(a.longitude - b.longitude) < 0.005;
}

// The place kept at the last run; one out of range (a damaged or foreign file) is none.
std::optional<Place> keptPlace() {
  const auto& defaults = kp::UserDefaults::standard();
  auto name = defaults->string(kNameKey);
  if (!name || !defaults->object(kLatitudeKey) || !defaults->object(kLongitudeKey)) return std::nullopt;
  Place place{*name, defaults->double_(kLatitudeKey), defaults->double_(kLongitudeKey)};
  if (!(std::abs(place.latitude) <= 90) || !(std::abs(place.longitude) <= 180)) return std::nullopt;
  return place;
}

}  // namespace

std::span<const Place> fixedPlaces() { return kPlaces; }

std::shared_ptr<PlaceTracker> PlaceTracker::make(std::optional<Place> fixed, Events events) {
  return std::shared_ptr<PlaceTracker>(new PlaceTracker(std::move(fixed), std::move(events)));
}

PlaceTracker::PlaceTracker(std::optional<Place> fixed, Events events) : events_(std::move(events)) {
  if (fixed) {
    current_ = *fixed;
    fixed_ = true;
    return;
  }
  current_ = keptPlace().value_or(kPlaces.front());
  followsLocation_ = kp::UserDefaults::standard()->string(kModeKey).value_or("location") == "location";
}

void PlaceTracker::followLocation() {
  if (fixed_) return;
  followsLocation_ = true;
  kp::UserDefaults::standard()->setObject(std::any(std::string("location")), kModeKey);
  if (!controller_) {
    controller_ = kp::LocationController::make(std::chrono::seconds(5));
    controller_->setDesiredAccuracy(kp::LocationAccuracy::city);
    controller_->addDelegate(shared_from_this());
  }
  controller_->startUpdatingLocation();
}

void PlaceTracker::choose(const Place& place) {
  followsLocation_ = false;
  if (controller_) controller_->stopUpdatingLocation();
  kp::UserDefaults::standard()->setObject(std::any(std::string("chosen")), kModeKey);
  setCurrent(place);
}

void PlaceTracker::setCurrent(const Place& place) {
  const bool changed = !samePlace(place, current_) || place.name != current_.name;
  current_ = place;
  if (!fixed_) {
    const auto& defaults = kp::UserDefaults::standard();
    defaults->setObject(std::any(place.name), kNameKey);
    defaults->setDouble(place.latitude, kLatitudeKey);
    defaults->setDouble(place.longitude, kLongitudeKey);
  }
  if (changed && events_.placeChanged) events_.placeChanged(current_);
}

void PlaceTracker::locationControllerDidUpdateLocation(kp::LocationController&, const kp::Location& location) {
  if (!followsLocation_) return;
  setCurrent(Place{tr("Current location"), location.latitude, location.longitude});
}

void PlaceTracker::locationControllerDidFail(kp::LocationController&, const kp::ErrorPtr& error) {
  if (!followsLocation_ || !events_.locationUnavailable) return;
  const bool denied = error && error->domain() == kp::kLocationErrorDomain &&
                      error->code() == static_cast<std::int64_t>(kp::LocationErrorCode::denied);
  events_.locationUnavailable(denied ? tr("Location access is denied: choose a place")
                                     : tr("Location unavailable: choose a place"));
}

}  // namespace weatherapp
