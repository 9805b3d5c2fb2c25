// kp::OptionalLazyDependency<T>: a member that resolves the service type T through Services on
// its first read, for services a host may leave out. A T registered nowhere reads as null,
// quietly, and is looked up again on the next read, so a service registered later is found;
// once found it is kept. Other failures (a factory that throws, an instance of the wrong
// type) are reported through the assertion hook at the place that declared the member, as
// kp::LazyDependency does, and read as null.
//
// Thread safety: may be read from several threads; reads resolve under the member's lock.
//
// Example:
//   class Cache {
//     kp::OptionalLazyDependency<tarvix::Application> application_;
//    public:
//     bool isActive() {
//       auto app = application_.wrappedValue();
//       return app && app->applicationState() == tarvix::ApplicationState::active;
//     }
//   };
#pragma once

#include <exception>
#include <memory>
#include <mutex>
#include <utility>

#include "kp/container/services.h"
#include "tarvix/assertion_coordinator.h"
#include "tarvix/source_location.h"

namespace kp {

template <class T>
class OptionalLazyDependency {
 public:
  explicit OptionalLazyDependency(std::shared_ptr<Services> services = Services::default_(),
                                  tarvix::SourceLocation location = tarvix::SourceLocation::current())
      : services_(std::move(services)), location_(location) {}
  OptionalLazyDependency(const OptionalLazyDependency&) = delete;
  OptionalLazyDependency& operator=(const OptionalLazyDependency&) = delete;

  // The service, or null while it is not registered.
  [[nodiscard]] std::shared_ptr<T> wrappedValue() const {
    std::lock_guard lock(mutex_);
    if (value_) return value_;
    try {
      value_ = services_->template resolveIfRegistered<T>();
    } catch (const std::exception& error) {
      tarvix::AssertionCoordinator::assertionFailure(error.what(), location_.file_name(), location_.line());
    } catch (...) {
      tarvix::AssertionCoordinator::assertionFailure(
          "Unable to get " + tarvix::ServiceType::of<T>().name() + " service.", location_.file_name(),
          location_.line());
    }
    return value_;
  }

 private:
  mutable std::mutex mutex_;
  mutable std::shared_ptr<T> value_;  // guarded by mutex_
  std::shared_ptr<Services> services_;
  tarvix::SourceLocation location_;
};

}  // namespace kp
