// Registration, resolution, merging and descriptions of the default service container.
#include "kp/container/default_service_container.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>
#include <typeinfo>
#include <unordered_map>
#include <utility>

namespace kp {

using tarvix::ServiceType;
using Identifier = DefaultServiceContainer::ServiceIdentifier;

struct DefaultServiceContainer::State {
  struct Registration {
    ServiceIdentifier instanceType;
    // The instance converted to the service type, once resolved: the fast path of safeGet().
    std::shared_ptr<void> resolved;
  };
  using Identifier = ServiceIdentifier;
  template <class V>
  using Table = std::unordered_map<Identifier, V, ServiceIdentifierHash>;
  struct Snapshot {
    Table<Registration> registeredTypes;
    Table<Factory> instanceFactories;
    Table<std::shared_ptr<tarvix::Service>> instanceCache;
  };
  // An open-addressing map from type_info addresses to registrations, in front of
  // registeredTypes_: a pointer hash instead of hashing and comparing mangled names. A type
  // met under another type_info address (another shared library) gets a slot of its own.
  struct FastSlot {
    const std::type_info* type = nullptr;
    Registration* registration = nullptr;
  };
  class FactoryRun;

  [[nodiscard]] bool runsFactoryOnThisThread() const noexcept {
    return factoryThread_.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }
  [[nodiscard]] ReentrantUseError reentrantUse(std::string_view action) const;
  [[nodiscard]] Registration* findRegistration(const ServiceType& serviceType);
  [[nodiscard]] std::shared_ptr<void> makeInstance(DefaultServiceContainer& container, Registration& registration,
                                                   const ServiceType& serviceType, std::unique_lock<std::mutex>& lock);
  [[nodiscard]] Snapshot snapshot() const;

  // Not annotated for the thread-safety analysis: a factory's own thread reads the tables
  // without taking the lock that its caller holds, which the analysis cannot follow.
  mutable std::mutex mutex_;
  Table<Registration> registeredTypes_;                    // keyed by service type
  Table<Factory> instanceFactories_;                       // keyed by instance type
  Table<std::shared_ptr<tarvix::Service>> instanceCache_;  // keyed by instance type
  std::vector<FastSlot> fastIndex_;                        // size: 0 or a power of two
  std::size_t fastIndexCount_ = 0;
  std::atomic<std::size_t> registeredCount_{0};
  // The thread running a factory of this container, and what that factory makes; the two
  // types are read only by that thread.
  std::atomic<std::thread::id> factoryThread_{};
  std::optional<tarvix::ServiceType> factoryInstanceType_;
  std::optional<tarvix::ServiceType> factoryServiceType_;
};

// Marks the calling thread as running a factory of `state`'s container until destruction.
// Only the thread that holds the container's lock creates one.
class DefaultServiceContainer::State::FactoryRun {
 public:
  FactoryRun(State& state, const ServiceType& instanceType, const ServiceType& serviceType) : state_(state) {
    state_.factoryInstanceType_ = instanceType;
    state_.factoryServiceType_ = serviceType;
    state_.factoryThread_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  ~FactoryRun() {
    state_.factoryThread_.store(std::thread::id{}, std::memory_order_relaxed);
    state_.factoryInstanceType_.reset();
    state_.factoryServiceType_.reset();
  }
  FactoryRun(const FactoryRun&) = delete;
  FactoryRun& operator=(const FactoryRun&) = delete;

 private:
  State& state_;
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

DefaultServiceContainer::DefaultServiceContainer() : state_(std::make_unique<State>()) {}
DefaultServiceContainer::~DefaultServiceContainer() = default;

bool DefaultServiceContainer::hasRegistrations() const noexcept {
  return state_->registeredCount_.load(std::memory_order_acquire) != 0;
}

DefaultServiceContainer::ReentrantUseError DefaultServiceContainer::State::reentrantUse(std::string_view action) const {
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
  if (state_->runsFactoryOnThisThread()) {
    const std::string names = serviceTypes.empty() ? std::string("no service type") : serviceTypes.front().name();
    throw state_->reentrantUse("register " + instanceType.name() + " for " + names);
  }
  std::unique_lock lock(state_->mutex_);
  for (const auto& serviceType : serviceTypes) {
    const auto [entry, inserted] = state_->registeredTypes_.try_emplace(
        Identifier(serviceType), State::Registration{Identifier(instanceType), nullptr});
    if (!inserted) {
      lock.unlock();
      throw Error::duplicateRegistration(serviceType, instanceType);
    }
    state_->registeredCount_.fetch_add(1, std::memory_order_release);
  }
  state_->instanceFactories_.insert_or_assign(Identifier(instanceType), std::move(factory));
}

std::shared_ptr<void> DefaultServiceContainer::safeGet(const ServiceType& serviceType) {
  return resolve(serviceType, true);
}

std::shared_ptr<void> DefaultServiceContainer::resolveIfRegistered(const ServiceType& serviceType) {
  return resolve(serviceType, false);
}

std::shared_ptr<void> DefaultServiceContainer::resolve(const ServiceType& serviceType, bool required) {
  if (state_->runsFactoryOnThisThread()) {
    // This thread holds the lock while its factory runs, so the table may be read directly.
    if (!required && !state_->registeredTypes_.contains(Identifier(serviceType))) return nullptr;
    throw state_->reentrantUse("resolve " + serviceType.name());
  }
  std::unique_lock lock(state_->mutex_);
  State::Registration* registration = state_->findRegistration(serviceType);
  if (registration == nullptr) {
    lock.unlock();
    if (!required) return nullptr;
    throw Error::notRegistered(serviceType);
  }
  if (registration->resolved) return registration->resolved;
  return state_->makeInstance(*this, *registration, serviceType, lock);
}

namespace {

std::size_t slotOf(const std::type_info* type, std::size_t mask) noexcept {
  auto bits = reinterpret_cast<std::uintptr_t>(type);
  bits ^= bits >> 17;
  bits *= 0x9E3779B97F4A7C15ULL;
  return static_cast<std::size_t>(bits >> 32) & mask;
}

}  // namespace

DefaultServiceContainer::State::Registration* DefaultServiceContainer::State::findRegistration(
    const ServiceType& serviceType) {
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

std::shared_ptr<void> DefaultServiceContainer::State::makeInstance(DefaultServiceContainer& container,
                                                                   Registration& registration,
                                                                   const ServiceType& serviceType,
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
    made = factory->second(container);
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

DefaultServiceContainer::State::Snapshot DefaultServiceContainer::State::snapshot() const {
  std::unique_lock lock(mutex_, std::defer_lock);
  if (!runsFactoryOnThisThread()) lock.lock();
  return Snapshot{registeredTypes_, instanceFactories_, instanceCache_};
}

std::shared_ptr<DefaultServiceContainer> DefaultServiceContainer::merge(const DefaultServiceContainer& other) const {
  auto merged = std::make_shared<DefaultServiceContainer>();
  // One source at a time, so that merging never holds two locks.
  for (const DefaultServiceContainer* source : {this, &other}) {
    auto tables = source->state_->snapshot();
    for (auto& [key, value] : tables.registeredTypes) {
      // Conversions are made again against the merged instance table.
      merged->state_->registeredTypes_.insert_or_assign(key, State::Registration{value.instanceType, nullptr});
    }
    for (auto& [key, value] : tables.instanceFactories) merged->state_->instanceFactories_.insert_or_assign(key, value);
    for (auto& [key, value] : tables.instanceCache) merged->state_->instanceCache_.insert_or_assign(key, value);
  }
  merged->state_->registeredCount_.store(merged->state_->registeredTypes_.size(), std::memory_order_release);
  return merged;
}

std::string DefaultServiceContainer::description() const {
  std::size_t count = 0;
  {
    std::unique_lock lock(state_->mutex_, std::defer_lock);
    if (!state_->runsFactoryOnThisThread()) lock.lock();
    count = state_->registeredTypes_.size();
  }
  return "Services instance with " + std::to_string(count) + " types registered.";
}

std::string DefaultServiceContainer::debugDescription() const {
  std::vector<std::pair<ServiceType, ServiceType>> registered;
  std::vector<ServiceType> made;
  {
    std::unique_lock lock(state_->mutex_, std::defer_lock);
    if (!state_->runsFactoryOnThisThread()) lock.lock();
    registered.reserve(state_->registeredTypes_.size());
    for (const auto& [service, registration] : state_->registeredTypes_) {
      registered.emplace_back(service.type(), registration.instanceType.type());
    }
    for (const auto& [instance, value] : state_->instanceCache_) made.push_back(instance.type());
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
