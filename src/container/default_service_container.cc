// Registration, resolution, merging and descriptions of the default service container.
#include "kp/container/default_service_container.h"

#include <cstdint>
#include <utility>

namespace kp {

using tarvix::ServiceType;

// Marks the calling thread as running a factory of `container` until destruction. Only the
// thread that holds the container's lock creates one.
class DefaultServiceContainer::FactoryRun {
 public:
  FactoryRun(DefaultServiceContainer& container, const ServiceType& instanceType, const ServiceType& serviceType)
      : container_(container) {
    container_.factoryInstanceType_ = instanceType;
    container_.factoryServiceType_ = serviceType;
    container_.factoryThread_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  ~FactoryRun() {
    container_.factoryThread_.store(std::thread::id{}, std::memory_order_relaxed);
    container_.factoryInstanceType_.reset();
    container_.factoryServiceType_.reset();
  }
  FactoryRun(const FactoryRun&) = delete;
  FactoryRun& operator=(const FactoryRun&) = delete;

 private:
  DefaultServiceContainer& container_;
};

struct DefaultServiceContainer::Snapshot {
  Table<Registration> registeredTypes;
  Table<Factory> instanceFactories;
  Table<std::shared_ptr<tarvix::Service>> instanceCache;
};

DefaultServiceContainer::Error DefaultServiceContainer::Error::duplicateRegistration(const ServiceType& serviceType,
                                                                                     const ServiceType& instanceType) {
  return Error(
      "The service type " + serviceType.name() + " already has instance type " + instanceType.name() + " registered.",
      {"The same instance type is registered for the same service type at multiple locations"},
      {"Remove one of the registration calls"});
}

DefaultServiceContainer::Error DefaultServiceContainer::Error::notRegistered(const ServiceType& serviceType) {
  const auto name = serviceType.name();
  return Error("Unable to get " + name + " service.", {"No service is registered for type " + name},
               {"Register a service for type " + name});
}

DefaultServiceContainer::Error DefaultServiceContainer::Error::failedCast(const ServiceType& instanceType,
                                                                          const ServiceType& serviceType) {
  const auto instance = instanceType.name();
  const auto service = serviceType.name();
  return Error("Failed to cast instance of " + instance + " to service type " + service,
               {"The registered service " + instance + " does not implement type " + service},
               {"Register the correct service for type " + service, "Implement the type on the service"});
}

DefaultServiceContainer::DefaultServiceContainer() = default;
DefaultServiceContainer::~DefaultServiceContainer() = default;

DefaultServiceContainer::ReentrantUseError DefaultServiceContainer::reentrantUse(std::string_view action) const {
  // Called only on the thread that runs the factory, so the two types are its own writes.
  const auto instance = factoryInstanceType_ ? factoryInstanceType_->name() : std::string("?");
  const auto service = factoryServiceType_ ? factoryServiceType_->name() : std::string("?");
  std::string message = "The factory of " + instance + " (made for " + service + ") tried to ";
  message += action;
  message += " through the container that is running it; the container is locked until the factory returns.";
  return ReentrantUseError(
      std::move(message),
      {"A factory resolves or registers services through the container it was given, or through Services, while "
       "that container runs it"},
      {"Resolve the services that " + instance + " needs on first use (a LazyDependency) instead of in its factory",
       "Register every service before the first resolution, not from inside a factory",
       "Resolve the dependency from another container"});
}

void DefaultServiceContainer::registerFactory(const std::vector<ServiceType>& serviceTypes,
                                              const ServiceType& instanceType, Factory factory) {
  if (runsFactoryOnThisThread()) {
    const std::string names = serviceTypes.empty() ? std::string("no service type") : serviceTypes.front().name();
    throw reentrantUse("register " + instanceType.name() + " for " + names);
  }
  std::unique_lock lock(mutex_);
  for (const auto& serviceType : serviceTypes) {
    const auto [entry, inserted] =
        registeredTypes_.try_emplace(Identifier(serviceType), Registration{Identifier(instanceType), nullptr});
    if (!inserted) {
      lock.unlock();
      throw Error::duplicateRegistration(serviceType, instanceType);
    }
    registeredCount_.fetch_add(1, std::memory_order_release);
  }
  instanceFactories_.insert_or_assign(Identifier(instanceType), std::move(factory));
}

std::shared_ptr<void> DefaultServiceContainer::safeGet(const ServiceType& serviceType) {
  return resolve(serviceType, true);
}

std::shared_ptr<void> DefaultServiceContainer::resolveIfRegistered(const ServiceType& serviceType) {
  return resolve(serviceType, false);
}

std::shared_ptr<void> DefaultServiceContainer::resolve(const ServiceType& serviceType, bool required) {
  if (runsFactoryOnThisThread()) {
    // This thread holds the lock while its factory runs, so the table may be read directly.
    if (!required && !registeredTypes_.contains(Identifier(serviceType))) return nullptr;
    throw reentrantUse("resolve " + serviceType.name());
  }
  std::unique_lock lock(mutex_);
  Registration* registration = findRegistration(serviceType);
  if (registration == nullptr) {
    lock.unlock();
    if (!required) return nullptr;
    throw Error::notRegistered(serviceType);
  }
  if (registration->resolved) return registration->resolved;
  return makeInstance(*registration, serviceType, lock);
}

namespace {

std::size_t slotOf(const std::type_info* type, std::size_t mask) noexcept {
  auto bits = reinterpret_cast<std::uintptr_t>(type);
  bits ^= bits >> 17;
  bits *= 0x9E3779B97F4A7C15ULL;
  return static_cast<std::size_t>(bits >> 32) & mask;
}

}  // namespace

DefaultServiceContainer::Registration* DefaultServiceContainer::findRegistration(const ServiceType& serviceType) {
  const std::type_info* type = &serviceType.typeInfo();
  if (!fastIndex_.empty()) {
    const std::size_t mask = fastIndex_.size() - 1;
    for (std::size_t i = slotOf(type, mask);; i = (i + 1) & mask) {
      const FastSlot& slot = fastIndex_[i];
      if (slot.type == type) return slot.registration;
      if (slot.type == nullptr) break;
    }
  }
  const auto entry = registeredTypes_.find(Identifier(serviceType));
  if (entry == registeredTypes_.end()) return nullptr;
  // Entries are never removed and map nodes never move, so the address stays valid.
  if (2 * (fastIndexCount_ + 1) > fastIndex_.size()) {
    std::vector<FastSlot> grown(fastIndex_.empty() ? 16 : 2 * fastIndex_.size());
    for (const FastSlot& slot : fastIndex_) {
      if (slot.type == nullptr) continue;
      std::size_t i = slotOf(slot.type, grown.size() - 1);
      while (grown[i].type != nullptr) i = (i + 1) & (grown.size() - 1);
      grown[i] = slot;
    }
    fastIndex_.swap(grown);
  }
  std::size_t i = slotOf(type, fastIndex_.size() - 1);
  while (fastIndex_[i].type != nullptr) i = (i + 1) & (fastIndex_.size() - 1);
  fastIndex_[i] = FastSlot{type, &entry->second};
  ++fastIndexCount_;
  return &entry->second;
}

std::shared_ptr<void> DefaultServiceContainer::makeInstance(Registration& registration, const ServiceType& serviceType,
                                                            std::unique_lock<std::mutex>& lock) {
  const ServiceType& instanceType = registration.instanceType.type();
  const Identifier instanceKey(instanceType);
  if (const auto cached = instanceCache_.find(instanceKey); cached != instanceCache_.end()) {
    if (auto converted = serviceType.cast(cached->second)) {
      registration.resolved = converted;
      return converted;
    }
  }
  std::shared_ptr<tarvix::Service> made;
  if (const auto factory = instanceFactories_.find(instanceKey); factory != instanceFactories_.end()) {
    // Nothing can change the tables while the factory runs: other threads wait for the lock
    // and this thread's attempts fail with ReentrantUseError.
    FactoryRun run(*this, instanceType, serviceType);
    made = factory->second(*this);
  }
  auto converted = made ? serviceType.cast(made) : nullptr;
  if (!converted) {
    lock.unlock();
    throw Error::failedCast(instanceType, serviceType);
  }
  if (!instanceCache_.insert_or_assign(instanceKey, std::move(made)).second) {
    // A new instance replaces one that did not implement this service type: forget the
    // conversions of the old one.
    for (auto& [service, other] : registeredTypes_) {
      if (other.instanceType == registration.instanceType) other.resolved.reset();
    }
  }
  registration.resolved = converted;
  return converted;
}

DefaultServiceContainer::Snapshot DefaultServiceContainer::snapshot() const {
  std::unique_lock lock(mutex_, std::defer_lock);
  if (!runsFactoryOnThisThread()) lock.lock();
  return Snapshot{registeredTypes_, instanceFactories_, instanceCache_};
}

std::shared_ptr<DefaultServiceContainer> DefaultServiceContainer::merge(const DefaultServiceContainer& other) const {
  auto merged = std::make_shared<DefaultServiceContainer>();
  // One source at a time, so that merging never holds two locks.
  for (const DefaultServiceContainer* source : {this, &other}) {
    auto tables = source->snapshot();
    for (auto& [key, value] : tables.registeredTypes) {
      // Conversions are made again against the merged instance table.
      merged->registeredTypes_.insert_or_assign(key, Registration{value.instanceType, nullptr});
    }
    for (auto& [key, value] : tables.instanceFactories) merged->instanceFactories_.insert_or_assign(key, value);
    for (auto& [key, value] : tables.instanceCache) merged->instanceCache_.insert_or_assign(key, value);
  }
  merged->registeredCount_.store(merged->registeredTypes_.size(), std::memory_order_release);
  return merged;
}

std::string DefaultServiceContainer::description() const {
  std::size_t count = 0;
  {
    std::unique_lock lock(mutex_, std::defer_lock);
    if (!runsFactoryOnThisThread()) lock.lock();
    count = registeredTypes_.size();
  }
  return "Services instance with " + std::to_string(count) + " types registered.";
}

std::string DefaultServiceContainer::debugDescription() const {
  std::vector<std::pair<ServiceType, ServiceType>> registered;
  std::vector<ServiceType> made;
  {
    std::unique_lock lock(mutex_, std::defer_lock);
    if (!runsFactoryOnThisThread()) lock.lock();
    registered.reserve(registeredTypes_.size());
    for (const auto& [service, registration] : registeredTypes_) {
      registered.emplace_back(service.type(), registration.instanceType.type());
    }
    for (const auto& [instance, value] : instanceCache_) made.push_back(instance.type());
  }
  std::string out = "Registered services:\n";
  for (std::size_t i = 0; i < registered.size(); ++i) {
    if (i != 0) out += '\n';
    out += " - " + Identifier(registered[i].first).description() + " with instance type [" +
           Identifier(registered[i].second).description() + "]";
  }
  out += "\nThe following instances have been initialized:\n";
  for (std::size_t i = 0; i < made.size(); ++i) {
    if (i != 0) out += '\n';
    out += " - " + Identifier(made[i]).description();
  }
  return out;
}

}  // namespace kp
