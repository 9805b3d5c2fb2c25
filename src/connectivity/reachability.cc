// Reachability: the flag word, its meaning as a connection kind, and the notifier.
#include "kp/connectivity/reachability.h"

#include <utility>

namespace kp {
namespace {

const char* describe(Reachability::ErrorCode code) {
  switch (code) {
    case Reachability::ErrorCode::callbackNotSet:
      return "The reachability callback could not be set.";
    case Reachability::ErrorCode::dispatchQueueNotSet:
      return "The reachability dispatch queue could not be set.";
    case Reachability::ErrorCode::flagsNotRead:
      return "The reachability flags could not be read.";
  }
  return "Unknown reachability error.";
}

}  // namespace

Reachability::Error::Error(ErrorCode code) : std::runtime_error(describe(code)), code_(code) {}

std::shared_ptr<Reachability> Reachability::make(DispatchQoS queueQoS, std::shared_ptr<DispatchQueue> targetQueue) {
  return make(NetworkReachability::createWithAddress(IPv4SocketAddress{}), queueQoS, std::move(targetQueue));
}

std::shared_ptr<Reachability> Reachability::make(std::shared_ptr<NetworkReachability> reachabilityRef,
                                                 DispatchQoS queueQoS, std::shared_ptr<DispatchQueue> targetQueue) {
  if (!reachabilityRef) return nullptr;
  return std::shared_ptr<Reachability>(new Reachability(std::move(reachabilityRef), queueQoS, std::move(targetQueue)));
}

Reachability::Reachability(std::shared_ptr<NetworkReachability> reachabilityRef, DispatchQoS queueQoS,
                           std::shared_ptr<DispatchQueue> targetQueue)
    : notificationCenter_(&NotificationCenter::defaultCenter()),
      reachabilityRef_(std::move(reachabilityRef)),
      queue_(SerialQueue::make(std::string(kQueueLabel), std::move(targetQueue))),
      queueQoS_(queueQoS) {}

Reachability::~Reachability() { detachFromSource(); }

void Reachability::setWhenReachable(Callback callback) {
  std::lock_guard lock(mutex_);
  whenReachable_ = std::move(callback);
}

void Reachability::setWhenUnreachable(Callback callback) {
  std::lock_guard lock(mutex_);
  whenUnreachable_ = std::move(callback);
}

Reachability::Callback Reachability::whenReachable() const {
  std::lock_guard lock(mutex_);
  return whenReachable_;
}

Reachability::Callback Reachability::whenUnreachable() const {
  std::lock_guard lock(mutex_);
  return whenUnreachable_;
}

std::optional<ReachabilityFlags> Reachability::flags() const noexcept {
  const std::uint64_t word = flags_.load(std::memory_order_acquire);
  if ((word & kFlagsPresent) == 0) return std::nullopt;
  return static_cast<ReachabilityFlags>(word);
}

Reachability::Connection Reachability::connectionAfterFirstRead() {
  queue_->sync([this] {
    if (flags()) return;  // read meanwhile
    try {
      setReachabilityFlags();
    } catch (const Error&) {
      // An unreadable word simply means no connection.
    }
  });
  const auto word = flags();
  return word ? connectionFor(*word, allowsCellularConnection()) : Connection::none;
}

void Reachability::startNotifier() {
  std::lock_guard lock(startMutex_);
  if (notifierRunning()) return;
  // The source must not keep this object alive, or it would never be destroyed.
  const bool callbackSet = reachabilityRef_->setCallback([weak = weak_from_this()](ReachabilityFlags flags) {
    if (auto self = weak.lock()) self->store(flags);
  });
  if (!callbackSet) {
    detachFromSource();
    throw Error(ErrorCode::callbackNotSet);
  }
  if (!reachabilityRef_->setDispatchQueue(queue_)) {
    detachFromSource();
    throw Error(ErrorCode::dispatchQueueNotSet);
  }
  std::optional<Error> failure;
  queue_->sync([&] {
    try {
      setReachabilityFlags();
    } catch (const Error& error) {
      failure = error;
    }
  });
  if (failure) throw *failure;
  notifierRunning_.store(true);
}

void Reachability::setReachabilityFlags() {
  const auto read = reachabilityRef_->flags();
  if (!read) {
    detachFromSource();
    throw Error(ErrorCode::flagsNotRead);
  }
  store(*read);
}

void Reachability::store(ReachabilityFlags flags) {
  const std::uint64_t previous = flags_.exchange(kFlagsPresent | flags, std::memory_order_acq_rel);
  if (previous == (kFlagsPresent | flags)) return;
  reachabilityChanged();
}

void Reachability::reachabilityChanged() {
  Callback picked = connection() != Connection::none ? whenReachable() : whenUnreachable();
  MainQueue::shared()->async([weak = weak_from_this(), picked = std::move(picked)] {
    const auto self = weak.lock();
    if (!self) return;
    if (picked) picked(*self);
    self->notificationCenter().post(kReachabilityChangedNotification, self.get());
  });
}

void Reachability::detachFromSource() noexcept {
  (void)reachabilityRef_->setCallback(nullptr);
  (void)reachabilityRef_->setDispatchQueue(nullptr);
  notifierRunning_.store(false);
}

}  // namespace kp
