// kp::DefaultServiceContainer: the library's service container. For one or more service types
// (interfaces) it registers an instance type and the factory that makes it; resolving a service
// type gives the one shared instance of its instance type, made on first resolution and kept
// for the life of the container.
//
// Three tables: which instance type answers for each service type (keyed by service type), the
// factory of each instance type and the instance made for it (both keyed by instance type).
// Service types registered with the same instance type share one factory and one instance.
// Registrations only add: a service type that is already registered fails with the
// duplicate-registration error, leaving the service types before it in the same call
// registered (there is no rollback) and storing no factory. Registering an instance type
// again replaces its factory; an instance already made stays in use.
//
// Errors: DefaultServiceContainer::Error (a TarvixError) for an unregistered service type, a
// duplicate registration and an instance that does not implement the requested type; the
// factory's own exceptions pass through unchanged. A failed resolution caches nothing.
//
// Thread safety: any thread may register and resolve. Registration and resolution hold one
// non-re-entrant lock for the whole operation, including the run of a factory. A factory that
// resolves or registers through the container that is running it (directly or through
// Services) gets ReentrantUseError instead of waiting for itself; it may use other containers.
// merge() and the descriptions take the lock briefly (or read directly when called from a
// factory of the same container).
//
// Example:
//   auto container = std::make_shared<kp::DefaultServiceContainer>();
//   container->register_<Clock, TimeSource>([](tarvix::ServiceContainer&) {
//     return std::make_shared<SystemClock>();
//   });
//   std::shared_ptr<Clock> clock = container->safeGet<Clock>();
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kp/container/tarvix_error.h"
#include "kp/platform/export.h"
#include "tarvix/service_container.h"

namespace kp {

class KP_EXPORT DefaultServiceContainer final : public tarvix::ServiceContainer {
 public:
  // The key of the three tables: one type, equal to another exactly when it wraps the same
  // type.
  class ServiceIdentifier {
   public:
    explicit ServiceIdentifier(const tarvix::ServiceType& type) noexcept : type_(type) {}  // for `type`
    [[nodiscard]] const tarvix::ServiceType& type() const noexcept { return type_; }       // the type
    // The unqualified name of the wrapped type.
    [[nodiscard]] std::string description() const { return type_.name(); }
    // The same type.
    friend bool operator==(const ServiceIdentifier& a, const ServiceIdentifier& b) noexcept {
      return a.type_ == b.type_;
    }

   private:
    tarvix::ServiceType type_;
  };
  // Hashes identifiers by their type, for the tables.
  struct ServiceIdentifierHash {
    // The type's hash.
    std::size_t operator()(const ServiceIdentifier& id) const noexcept {
      return std::hash<tarvix::ServiceType>{}(id.type());
    }
  };

  // What the container throws; each names the types involved and what to check.
  class Error : public TarvixError {
   public:
    // The constructors of TarvixError.
    using TarvixError::TarvixError;  // the constructors of TarvixError
    // `instanceType` is the instance type of the registration being attempted.
    [[nodiscard]] static Error duplicateRegistration(const tarvix::ServiceType& serviceType,
                                                     const tarvix::ServiceType& instanceType);
    // No registration for `serviceType`.
    [[nodiscard]] static Error notRegistered(const tarvix::ServiceType& serviceType);
    // The instance made for `serviceType` is not one.
    [[nodiscard]] static Error failedCast(const tarvix::ServiceType& instanceType,
                                          const tarvix::ServiceType& serviceType);
  };

  // A factory used the container that is running it. Names the service type it asked for and
  // the instance type whose factory was running.
  class ReentrantUseError final : public Error {
   public:
    using Error::Error;
  };

  DefaultServiceContainer();
  ~DefaultServiceContainer() override;
  DefaultServiceContainer(const DefaultServiceContainer&) = delete;
  DefaultServiceContainer& operator=(const DefaultServiceContainer&) = delete;

  void registerFactory(const std::vector<tarvix::ServiceType>& serviceTypes, const tarvix::ServiceType& instanceType,
                       Factory factory) override;
  [[nodiscard]] std::shared_ptr<void> safeGet(const tarvix::ServiceType& serviceType) override;
  using tarvix::ServiceContainer::safeGet;

  // Like safeGet(), but null when `serviceType` is not registered here (other failures still
  // throw). From a factory of this container it answers null for unregistered types and
  // throws ReentrantUseError for registered ones.
  [[nodiscard]] std::shared_ptr<void> resolveIfRegistered(const tarvix::ServiceType& serviceType);

  // True once anything has been registered.
  [[nodiscard]] bool hasRegistrations() const noexcept;

  // A new container holding both containers' tables; where both have an entry, `other`'s wins.
  [[nodiscard]] std::shared_ptr<DefaultServiceContainer> merge(const DefaultServiceContainer& other) const;

  // "Services instance with <n> types registered."
  [[nodiscard]] std::string description() const;
  // The registered service types with their instance types, then the instances made.
  [[nodiscard]] std::string debugDescription() const;

 private:
  [[nodiscard]] std::shared_ptr<void> resolve(const tarvix::ServiceType& serviceType, bool required);

  // The three tables, the fast index in front of them, the lock and the factory in progress.
  struct State;
  const std::unique_ptr<State> state_;
};

}  // namespace kp
