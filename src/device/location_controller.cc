// The location controller: sessions of the platform's location provider, checked and told to
// weakly held delegates on the main queue.
#include <cmath>

#include "kp/device/bundle_information.h"
#include "kp/device/location.h"
#include "kp/platform/dispatch.h"
#include "kp/platform/weak_hash_table.h"
#include "platform/location_provider.h"
#include "platform/mutex.h"

namespace kp {
namespace {

platform::LocationLevel levelOf(LocationAccuracy accuracy) {
  switch (accuracy) {
    case LocationAccuracy::country:
      return platform::LocationLevel::country;
    case LocationAccuracy::city:
      return platform::LocationLevel::city;
    case LocationAccuracy::neighborhood:
      return platform::LocationLevel::neighborhood;
    case LocationAccuracy::street:
      return platform::LocationLevel::street;
    case LocationAccuracy::exact:
      break;
  }
  return platform::LocationLevel::exact;
}

ErrorPtr locationError(LocationErrorCode code, const std::string& detail) {
  std::string description;
  switch (code) {
    case LocationErrorCode::serviceUnavailable:
      description = "The location service is not available.";
      break;
    case LocationErrorCode::denied:
      description = "The location service denied this application access.";
      break;
    case LocationErrorCode::serviceVanished:
      description = "The location service went away.";
      break;
    case LocationErrorCode::malformedReply:
      description = "The location service answered in a form it does not document.";
      break;
    case LocationErrorCode::timedOut:
      description = "The location service did not answer in time.";
      break;
    case LocationErrorCode::noApplicationIdentity:
      description = "The application has no identifier for the location service to know it by.";
      break;
    case LocationErrorCode::locationUnknown:
      description = "The location is unknown.";
      break;
  }
  Error::UserInfo info{{std::string(Error::kLocalizedDescriptionKey), description}};
  if (!detail.empty()) info.emplace(std::string(Error::kLocalizedFailureReasonKey), detail);
  return Error::make(std::string(kLocationErrorDomain), static_cast<std::int64_t>(code), std::move(info));
}

LocationErrorCode codeOf(platform::LocationFailure failure) {
  switch (failure) {
    case platform::LocationFailure::unavailable:
      return LocationErrorCode::serviceUnavailable;
    case platform::LocationFailure::denied:
      return LocationErrorCode::denied;
    case platform::LocationFailure::vanished:
      return LocationErrorCode::serviceVanished;
    case platform::LocationFailure::malformed:
      return LocationErrorCode::malformedReply;
    case platform::LocationFailure::timedOut:
      break;
  }
  return LocationErrorCode::timedOut;
}

std::optional<double> finite(std::optional<double> value) {
  if (value && std::isfinite(*value)) return value;
  return std::nullopt;
}

// The fix as a location, or what is wrong with it.
std::optional<Location> checked(const platform::LocationFix& fix, std::string& wrong) {
  if (!(fix.latitude >= -90 && fix.latitude <= 90))
    wrong = "latitude is out of range";
  else if (!(fix.longitude >= -180 && fix.longitude <= 180))
    wrong = "longitude is out of range";
  else if (!(fix.horizontalAccuracy >= 0 && std::isfinite(fix.horizontalAccuracy)))
    wrong = "accuracy is not a distance";
  if (!wrong.empty()) return std::nullopt;
  Location location;
  location.latitude = fix.latitude;
  location.longitude = fix.longitude;
  location.horizontalAccuracy = fix.horizontalAccuracy;
  location.altitude = finite(fix.altitude);
  location.speed = finite(fix.speed);
  location.heading = finite(fix.heading);
  if (location.heading && (*location.heading < 0 || *location.heading >= 360)) location.heading.reset();
  const auto taken = finite(fix.timestamp);
  location.timestamp = taken && *taken > 0 ? Date::fromTimeIntervalSince1970(*taken) : Date::now();
  location.description = fix.description;
  return location;
}

}  // namespace

struct LocationController::Impl {
  WeakHashTable<LocationControllerDelegate> delegates;
  std::weak_ptr<LocationController> owner;

  mutable Mutex mutex;
  // Set once by make(); called only under the lock, so that a start and a stop never cross.
  std::unique_ptr<platform::LocationProvider> provider PT_GUARDED_BY(mutex);
  std::optional<std::string> applicationId GUARDED_BY(mutex);
  LocationAccuracy accuracy GUARDED_BY(mutex) = LocationAccuracy::city;
  std::uint64_t session GUARDED_BY(mutex) = 0;  // the current session's number; stop() and start() move it on
  bool updating GUARDED_BY(mutex) = false;
  LocationAuthorizationStatus status GUARDED_BY(mutex) = LocationAuthorizationStatus::notDetermined;
  std::optional<Location> last GUARDED_BY(mutex);

  // Runs `call` for each delegate on the main queue, unless session `number` has ended by then.
  template <class Call>
  void tell(std::uint64_t number, Call call) {
    MainQueue::shared()->async([weak = owner, number, call = std::move(call)] {
      auto self = weak.lock();
      if (!self) return;
      {
        MutexLock lock(self->impl_->mutex);
        if (self->impl_->session != number) return;
      }
      self->impl_->delegates.forEach([&](const auto& delegate) { call(*delegate, *self); });
    });
  }

  void changeStatus(std::uint64_t number, LocationAuthorizationStatus next) REQUIRES(mutex) {
    if (status == next) return;
    status = next;
    tell(number, [next](LocationControllerDelegate& d, LocationController& c) {
      d.locationControllerDidChangeAuthorization(c, next);
    });
  }

  void failLocked(std::uint64_t number, LocationErrorCode code, const std::string& detail) REQUIRES(mutex) {
    updating = false;
    if (code == LocationErrorCode::denied) changeStatus(number, LocationAuthorizationStatus::denied);
    auto error = locationError(code, detail);
    tell(number,
         [error](LocationControllerDelegate& d, LocationController& c) { d.locationControllerDidFail(c, error); });
  }

  void authorized(std::uint64_t number) EXCLUDES(mutex) {
    MutexLock lock(mutex);
    if (number == session) changeStatus(number, LocationAuthorizationStatus::authorizedWhenInUse);
  }

  void fixed(std::uint64_t number, const platform::LocationFix& fix) EXCLUDES(mutex) {
    std::string wrong;
    auto location = checked(fix, wrong);
    MutexLock lock(mutex);
    if (number != session || !updating) return;
    if (!location) {
      provider->stop();
      return failLocked(number, LocationErrorCode::malformedReply, "the location's " + wrong);
    }
    last = location;
    tell(number, [location = std::move(*location)](LocationControllerDelegate& d, LocationController& c) {
      d.locationControllerDidUpdateLocation(c, location);
    });
  }

  void failed(std::uint64_t number, platform::LocationFailure failure, const std::string& detail) EXCLUDES(mutex) {
    MutexLock lock(mutex);
    if (number == session && updating) failLocked(number, codeOf(failure), detail);
  }
};

std::shared_ptr<LocationController> LocationController::make(std::chrono::milliseconds timeout) {
  auto impl = std::make_unique<Impl>();
  impl->provider = platform::LocationProvider::makeDefault(timeout);
  auto controller = std::make_shared<LocationController>(std::move(impl));
  controller->impl_->owner = controller;
  return controller;
}

LocationController::LocationController(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

LocationController::~LocationController() {
  MutexLock lock(impl_->mutex);
  impl_->provider->stop();
}

void LocationController::addDelegate(const std::shared_ptr<LocationControllerDelegate>& delegate) {
  impl_->delegates.add(delegate);
}

void LocationController::removeDelegate(const std::shared_ptr<LocationControllerDelegate>& delegate) {
  impl_->delegates.remove(delegate);
}

void LocationController::setApplicationId(std::string desktopId) {
  MutexLock lock(impl_->mutex);
  impl_->applicationId = std::move(desktopId);
}

std::optional<std::string> LocationController::applicationId() const {
  {
    MutexLock lock(impl_->mutex);
    if (impl_->applicationId) return impl_->applicationId;
  }
  return BundleInformation::current().identifier;
}

void LocationController::setDesiredAccuracy(LocationAccuracy accuracy) {
  MutexLock lock(impl_->mutex);
  impl_->accuracy = accuracy;
}

LocationAccuracy LocationController::desiredAccuracy() const {
  MutexLock lock(impl_->mutex);
  return impl_->accuracy;
}

void LocationController::startUpdatingLocation() {
  const auto identity = applicationId();
  MutexLock lock(impl_->mutex);
  const std::uint64_t number = ++impl_->session;
  impl_->provider->stop();
  impl_->updating = true;
  if (!identity || identity->empty()) {
    return impl_->failLocked(number, LocationErrorCode::noApplicationIdentity, {});
  }
  Impl* impl = impl_.get();
  auto weak = weak_from_this();
  // The provider's events hold the controller weakly: a controller that goes stops its provider.
  platform::LocationProvider::Events events;
  events.authorized = [weak, impl, number] {
    if (auto self = weak.lock()) impl->authorized(number);
  };
  events.location = [weak, impl, number](const platform::LocationFix& fix) {
    if (auto self = weak.lock()) impl->fixed(number, fix);
  };
  events.failed = [weak, impl, number](platform::LocationFailure failure, const std::string& detail) {
    if (auto self = weak.lock()) impl->failed(number, failure, detail);
  };
  impl_->provider->start(*identity, levelOf(impl_->accuracy), std::move(events));
}

void LocationController::stopUpdatingLocation() {
  MutexLock lock(impl_->mutex);
  ++impl_->session;
  impl_->updating = false;
  impl_->provider->stop();
}

bool LocationController::isUpdating() const {
  MutexLock lock(impl_->mutex);
  return impl_->updating;
}

LocationAuthorizationStatus LocationController::authorizationStatus() const {
  MutexLock lock(impl_->mutex);
  return impl_->status;
}

std::optional<Location> LocationController::location() const {
  MutexLock lock(impl_->mutex);
  return impl_->last;
}

std::string_view authorizationStatusName(LocationAuthorizationStatus status) noexcept {
  switch (status) {
    case LocationAuthorizationStatus::notDetermined:
      return "notDetermined";
    case LocationAuthorizationStatus::restricted:
      return "restricted";
    case LocationAuthorizationStatus::denied:
      return "denied";
    case LocationAuthorizationStatus::authorizedAlways:
      return "authorizedAlways";
    case LocationAuthorizationStatus::authorizedWhenInUse:
      break;
  }
  return "authorizedWhenInUse";
}

}  // namespace kp
