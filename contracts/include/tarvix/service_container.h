// tarvix::ServiceContainer: where services are registered for one or more service types and
// resolved as one shared instance each. tarvix::ServiceProvider: a registrar that adds a
// group of services to a container.
//
// Failures of the throwing operations are thrown (the container's errors derive from
// std::exception). get() is the non-throwing form of safeGet(): on failure it reports the
// error's full description through AssertionCoordinator::assertionFailure() at the caller's
// source location and returns null, so a missing service stops a debug build at the place
// that asked for it and is survivable in a release build.
//
// Thread safety: as the implementation documents; the library's containers may be used from
// any thread.
//
// Example:
//   container.register_<Clock, TimeSource>(
//       [](tarvix::ServiceContainer&) { return std::make_shared<SystemClock>(); });
//   container.registerInstance<Storage>(std::make_shared<MemoryStorage>());
//   std::shared_ptr<Clock> clock = container.safeGet<Clock>();   // throws when missing
//   std::shared_ptr<Storage> storage = container.get<Storage>();  // null when missing
#pragma once

#include <concepts>
#include <exception>
#include <functional>
#include <memory>
#include <type_traits>
#include <vector>

#include "tarvix/assertion_coordinator.h"
#include "tarvix/service.h"
#include "tarvix/source_location.h"

namespace tarvix {

class ServiceContainer;

// Registers a module's services in a container.
class ServiceProvider {
 public:
  virtual ~ServiceProvider() = default;
  // Registers the provider's services; lets registration errors through.
  virtual void register_(ServiceContainer& services) = 0;
};

class ServiceContainer {
 public:
  // Makes a new instance; may throw, and the error reaches the caller of safeGet().
  using Factory = std::function<std::shared_ptr<Service>(ServiceContainer&)>;

  virtual ~ServiceContainer() = default;

  // Registers `instanceType` for each of `serviceTypes`, made by `factory`.
  virtual void registerFactory(const std::vector<ServiceType>& serviceTypes, const ServiceType& instanceType,
                               Factory factory) = 0;
  // The one instance for `serviceType`, converted to it (see ServiceType::cast()).
  [[nodiscard]] virtual std::shared_ptr<void> safeGet(const ServiceType& serviceType) = 0;
  // Hands this container to the provider's registration.
  virtual void register_(ServiceProvider& provider) { provider.register_(*this); }

  // Registers the instance type that `factory` returns (a std::shared_ptr<T>, T a Service)
  // for the service types S....
  template <class... S, class F>
  requires std::invocable<F&, ServiceContainer&>
  void register_(F&& factory) {
    using Result = std::invoke_result_t<F&, ServiceContainer&>;
    using T = typename Result::element_type;
    static_assert(std::is_base_of_v<Service, T>, "the instance type must derive from tarvix::Service");
    static_assert(sizeof...(S) > 0, "name at least one service type");
    registerFactory({ServiceType::of<S>()...}, ServiceType::of<T>(),
                    [f = std::forward<F>(factory)](ServiceContainer& c) -> std::shared_ptr<Service> {
                      return std::static_pointer_cast<Service>(f(c));
                    });
  }

  // Registers an existing instance for the service type S: its factory returns `instance`.
  template <class S, class T>
  void registerInstance(std::shared_ptr<T> instance) {
    register_<S>([instance = std::move(instance)](ServiceContainer&) { return instance; });
  }

  // The service S; throws when it cannot be resolved.
  template <class S>
  [[nodiscard]] std::shared_ptr<S> safeGet() {
    return std::static_pointer_cast<S>(safeGet(ServiceType::of<S>()));
  }

  // The non-throwing form of safeGet(): null after reporting the failure (see above).
  template <class S>
  [[nodiscard]] std::shared_ptr<S> get(tarvix::SourceLocation location = tarvix::SourceLocation::current()) noexcept {
    try {
      return safeGet<S>();
    } catch (const std::exception& error) {
      AssertionCoordinator::assertionFailure(error.what(), location.file_name(), location.line());
    } catch (...) {
      AssertionCoordinator::assertionFailure("Unable to get " + ServiceType::of<S>().name() + " service.",
                                             location.file_name(), location.line());
    }
    return nullptr;
  }
};

}  // namespace tarvix
