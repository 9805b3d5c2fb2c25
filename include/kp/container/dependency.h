// Services as members, and scoped overrides.
//
//   kp::Dependency<T>: resolves the service type T through Services when made and keeps it.
//   kp::LazyDependency<T>: resolves T on first read and keeps it, even if its Services is
//     replaced later; replacing Services only affects a wrapper not yet resolved. A read that
//     fails to resolve keeps nothing, so the next read tries again (the service may have been
//     registered meanwhile).
//   kp::OptionalLazyDependency<T>: the same for a service the host may leave out: while T is
//     registered nowhere, a read gives null without reporting it.
//   kp::withDependencies(update, operation): runs `update` on a new, empty override container,
//     then runs `operation` with that container bound as the override of Services: service types
//     registered there resolve from it, all others from the base container. Nested scopes
//     replace the override rather than layering it. The binding travels with the work that the
//     scope posts to the library's executors and ends with the scope.
//   kp::withDependencies<R>(update, operation, completion): the same for work that finishes
//     later: `update` and `operation` each report their end through the callback they receive.
//   kp::with(value, update): a changed copy of a value.
//
// Both wrappers resolve with the non-throwing get(): a failure is reported through the
// assertion hook at the place that declared the wrapper, and the read gives null.
//
// Thread safety: a Dependency is immutable. A LazyDependency may be read from several threads;
// the first reader resolves under the wrapper's lock and later readers wait for it, so T is
// resolved once.
//
// Example:
//   class Forecasts {
//     kp::LazyDependency<tarvix::DateService> dates_;
//    public:
//     bool isStale(Time t) { return dates_->now() > t; }
//   };
//   auto stale = kp::withDependencies(
//       [](kp::DefaultServiceContainer& c) { c.registerInstance<tarvix::DateService>(fixedClock); },
//       [&] { return Forecasts().isStale(t); });
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <variant>

#include "kp/container/default_service_container.h"
#include "kp/container/services.h"
#include "kp/platform/task_local.h"
#include "tarvix/source_location.h"

namespace kp {

// The service T, resolved when the wrapper is made (see the top of this file).
template <class T>
class Dependency {
 public:
  // Resolves T in `services`; a failure is reported at `location` and leaves it null.
  explicit Dependency(const std::shared_ptr<Services>& services = Services::default_(),
                      tarvix::SourceLocation location = tarvix::SourceLocation::current())
      : value_(services->template get<T>(location)) {}

  [[nodiscard]] const std::shared_ptr<T>& wrappedValue() const noexcept { return value_; }  // null when unresolved
  T* operator->() const noexcept { return value_.get(); }                                   // the service
  T& operator*() const noexcept { return *value_; }                                         // REQUIRES: resolved

 private:
  std::shared_ptr<T> value_;
};

// Whether a lazy dependency's service must be registered.
enum class Presence { required, optional };

// The service T, resolved on first read (see the top of this file).
template <class T, Presence kPresence = Presence::required>
class LazyDependency {
 public:
  // Resolves T in `services` when first read; failures are reported at `location`.
  explicit LazyDependency(std::shared_ptr<Services> services = Services::default_(),
                          tarvix::SourceLocation location = tarvix::SourceLocation::current())
      : services_(std::move(services)), location_(location) {}
  // A copy has its own lock and starts from the other's state.
  LazyDependency(const LazyDependency& other) : location_(other.location_) {
    std::lock_guard lock(other.mutex_);
    value_ = other.value_;
    services_ = other.services_;
  }
  LazyDependency& operator=(const LazyDependency&) = delete;

  // The service, resolved on the first read that succeeds.
  [[nodiscard]] std::shared_ptr<T> wrappedValue() const {
    std::lock_guard lock(mutex_);
    if (!value_) {
      if constexpr (kPresence == Presence::required) {
        value_ = services_->template get<T>(location_);
      } else {
        value_ = services_->template getIfRegistered<T>(location_);
      }
    }
    return value_;
  }
  // The pointer stays valid as long as the wrapper: a resolved value is never replaced.
  T* operator->() const { return wrappedValue().get(); }
  T& operator*() const { return *wrappedValue(); }  // REQUIRES: the service resolves

  // Where the service is looked up.
  [[nodiscard]] std::shared_ptr<Services> services() const {
    std::lock_guard lock(mutex_);
    return services_;
  }
  // Looks the service up in `services` from now on; a value already resolved stays.
  void setServices(std::shared_ptr<Services> services) {
    std::lock_guard lock(mutex_);
    services_ = std::move(services);
  }

 private:
  mutable std::mutex mutex_;
  mutable std::shared_ptr<T> value_;    // guarded by mutex_; null until a resolution succeeds
  std::shared_ptr<Services> services_;  // guarded by mutex_
  tarvix::SourceLocation location_;
};

// A lazy dependency whose service may be missing: it then reads as null, unreported.
template <class T>
using OptionalLazyDependency = LazyDependency<T, Presence::optional>;

// Runs `operation` with the services `update` registers in a new container overriding the
// current ones, for this thread and the work it posts; returns what `operation` returns.
template <class Update, class Operation>
decltype(auto) withDependencies(Update&& update, Operation&& operation) {
  auto overrides = std::make_shared<DefaultServiceContainer>();
  std::invoke(std::forward<Update>(update), *overrides);
  return Services::localContainer().withValue(std::move(overrides), std::forward<Operation>(operation));
}

// The end of asynchronous work: its value, or the exception that ended it.
template <class R>
class AsyncOutcome {
 public:
  using Value = std::conditional_t<std::is_void_v<R>, std::monostate, R>;  // R, or nothing for void

  // A success with `value`.
  [[nodiscard]] static AsyncOutcome success(Value value = Value()) { return AsyncOutcome(std::move(value)); }
  // A failure with `error`.
  [[nodiscard]] static AsyncOutcome failure(std::exception_ptr error) { return AsyncOutcome(std::move(error)); }

  [[nodiscard]] bool hasValue() const noexcept { return state_.index() == 0; }  // a success
  // The error of a failure; null for a success.
  [[nodiscard]] std::exception_ptr error() const noexcept {
    return hasValue() ? nullptr : std::get<std::exception_ptr>(state_);
  }
  // The value; rethrows the error.
  Value& value() {
    if (!hasValue()) std::rethrow_exception(std::get<std::exception_ptr>(state_));
    return std::get<0>(state_);
  }

 private:
  explicit AsyncOutcome(Value value) : state_(std::in_place_index<0>, std::move(value)) {}
  explicit AsyncOutcome(std::exception_ptr error) : state_(std::in_place_index<1>, std::move(error)) {}
  std::variant<Value, std::exception_ptr> state_;
};

// `update` gets the override container and a callback to call once when it is done (with null,
// or the error that should end the scope); `operation` runs with the override bound once the
// update is done and calls its callback once with its outcome. `completion` receives that
// outcome (or the update's error, with `operation` not run) under the caller's bindings, not
// the override. An exception thrown by `update` or `operation` itself counts as their error.
template <class R>
void withDependencies(std::function<void(DefaultServiceContainer&, std::function<void(std::exception_ptr)>)> update,
                      std::function<void(std::function<void(AsyncOutcome<R>)>)> operation,
                      std::function<void(AsyncOutcome<R>)> completion) {
  struct Scope {
    TaskLocalSnapshot callerBindings;
    std::shared_ptr<DefaultServiceContainer> overrides;
    std::function<void(std::function<void(AsyncOutcome<R>)>)> operation;
    std::function<void(AsyncOutcome<R>)> completion;

    void finish(AsyncOutcome<R> outcome) const {
      ScopedTaskLocalBindings caller(callerBindings);
      completion(std::move(outcome));
    }
  };
  auto scope =
      std::make_shared<const Scope>(Scope{currentTaskLocalBindings(), std::make_shared<DefaultServiceContainer>(),
                                          std::move(operation), std::move(completion)});
  auto updated = [scope](std::exception_ptr error) {
    if (error) return scope->finish(AsyncOutcome<R>::failure(std::move(error)));
    ScopedTaskLocalBindings caller(scope->callerBindings);
    Services::localContainer().withValue(scope->overrides, [&] {
      try {
        scope->operation([scope](AsyncOutcome<R> outcome) { scope->finish(std::move(outcome)); });
      } catch (...) {
        scope->finish(AsyncOutcome<R>::failure(std::current_exception()));
      }
    });
  };
  try {
    update(*scope->overrides, updated);
  } catch (...) {
    scope->finish(AsyncOutcome<R>::failure(std::current_exception()));
  }
}

// A copy of `value` changed by `update`; if `update` throws, the copy is dropped and the
// exception passes through.
template <class T, class F>
[[nodiscard]] T with(T value, F&& update) {
  std::invoke(std::forward<F>(update), value);
  return value;
}

}  // namespace kp
