// kp::Services: the process-wide access point to services. It wraps a base container and, for
// the current task, an override container (see withDependencies() in dependency.h).
//
// Resolution asks the override first and, when that fails for any reason, the base container,
// whose error is the one thrown. A factory of the override that resolves through Services a
// service type of that same override gets ReentrantUseError (it is not silently answered by
// the base). Registrations through Services always go to the base container. The override is a
// TaskLocal: bound for a scope on the calling thread and carried into the work that the scope
// posts to the library's executors; everywhere else an empty default container stands in.
//
// Thread safety: every member may be called from any thread; default_() and the default
// override are each made once, safely under concurrent first use, and live until the process
// ends.
//
// Example:
//   auto& services = kp::Services::default_();
//   services->registerInstance<Clock>(std::make_shared<SystemClock>());
//   std::shared_ptr<Clock> clock = services->safeGet<Clock>();
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kp/container/default_service_container.h"
#include "kp/platform/export.h"
#include "kp/platform/task_local.h"
#include "tarvix/service_container.h"

namespace kp {

class KP_EXPORT Services final : public tarvix::ServiceContainer {
 public:
  // Lookups in `container`, after the current task's override.
  explicit Services(std::shared_ptr<DefaultServiceContainer> container);

  // The process-wide instance, around a new empty container.
  [[nodiscard]] static const std::shared_ptr<Services>& default_();
  // The override container of the current task (shared by every Services).
  [[nodiscard]] static const TaskLocal<DefaultServiceContainer>& localContainer();

  // The base container.
  [[nodiscard]] const std::shared_ptr<DefaultServiceContainer>& container() const noexcept { return container_; }

  void registerFactory(const std::vector<tarvix::ServiceType>& serviceTypes, const tarvix::ServiceType& instanceType,
                       Factory factory) override;
  [[nodiscard]] std::shared_ptr<void> safeGet(const tarvix::ServiceType& serviceType) override;
  using tarvix::ServiceContainer::safeGet;
  // Like safeGet(), but null when `serviceType` is registered neither in the override nor in
  // the base container; other failures still throw.
  [[nodiscard]] std::shared_ptr<void> resolveIfRegistered(const tarvix::ServiceType& serviceType);
  // resolveIfRegistered() for the service S.
  template <class S>
  [[nodiscard]] std::shared_ptr<S> resolveIfRegistered() {
    return std::static_pointer_cast<S>(resolveIfRegistered(tarvix::ServiceType::of<S>()));
  }
  // The non-throwing form of resolveIfRegistered(), as get() is of safeGet(): failures other
  // than a missing registration are reported through the assertion hook at `location`.
  template <class S>
  [[nodiscard]] std::shared_ptr<S> getIfRegistered(
      tarvix::SourceLocation location = tarvix::SourceLocation::current()) noexcept {
    try {
      return resolveIfRegistered<S>();
    } catch (const std::exception& error) {
      tarvix::AssertionCoordinator::assertionFailure(error.what(), location.file_name(), location.line());
    } catch (...) {
      tarvix::AssertionCoordinator::assertionFailure(
          "Unable to get " + tarvix::ServiceType::of<S>().name() + " service.", location.file_name(), location.line());
    }
    return nullptr;
  }

  // Those of the base container merged with the current override (the override's entries win).
  [[nodiscard]] std::string description() const;
  // description() with each registration's instance type.
  [[nodiscard]] std::string debugDescription() const;

 private:
  [[nodiscard]] std::shared_ptr<void> resolve(const tarvix::ServiceType& serviceType, bool required);

  std::shared_ptr<DefaultServiceContainer> container_;
};

}  // namespace kp
