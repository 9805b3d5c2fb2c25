// The process-wide access point and the fall-through from the task's override to the base.
#include "kp/container/services.h"

#include <utility>

#include "platform/no_destructor.h"

namespace kp {
namespace {

// The default override: empty unless someone registers into it. Immortal, like the TaskLocal
// that holds it, so that a plain reference to it stays valid.
DefaultServiceContainer& defaultLocalContainer() {
  static DefaultServiceContainer& container = *Services::localContainer().defaultValue();
  return container;
}

}  // namespace

Services::Services(std::shared_ptr<DefaultServiceContainer> container) : container_(std::move(container)) {}

const std::shared_ptr<Services>& Services::default_() {
  static internal::NoDestructor<std::shared_ptr<Services>> services(
      std::make_shared<Services>(std::make_shared<DefaultServiceContainer>()));
  return *services;
}

const TaskLocal<DefaultServiceContainer>& Services::localContainer() {
  static const auto* local =
      new TaskLocal<DefaultServiceContainer>([] { return std::make_shared<DefaultServiceContainer>(); });
  return *local;
}

void Services::registerFactory(const std::vector<tarvix::ServiceType>& serviceTypes,
                               const tarvix::ServiceType& instanceType, Factory factory) {
  container_->registerFactory(serviceTypes, instanceType, std::move(factory));
}

std::shared_ptr<void> Services::safeGet(const tarvix::ServiceType& serviceType) { return resolve(serviceType, true); }

std::shared_ptr<void> Services::resolveIfRegistered(const tarvix::ServiceType& serviceType) {
  return resolve(serviceType, false);
}

std::shared_ptr<void> Services::resolve(const tarvix::ServiceType& serviceType, bool required) {
  const auto& local = localContainer();
  // Without a bound override the default one answers, and it is almost always empty: skip it
  // without taking its lock or copying a pointer.
  std::shared_ptr<DefaultServiceContainer> bound = local.isBound() ? local.get() : nullptr;
  DefaultServiceContainer& overrides = bound ? *bound : defaultLocalContainer();
  if (overrides.hasRegistrations()) {
    try {
      if (auto instance = overrides.resolveIfRegistered(serviceType)) return instance;
    } catch (const DefaultServiceContainer::ReentrantUseError&) {
      throw;
    } catch (...) {
      // Any other failure of the override falls through to the base container.
    }
  }
  return required ? container_->safeGet(serviceType) : container_->resolveIfRegistered(serviceType);
}

std::string Services::description() const { return container_->merge(*localContainer().get())->description(); }

std::string Services::debugDescription() const {
  return container_->merge(*localContainer().get())->debugDescription();
}

}  // namespace kp
