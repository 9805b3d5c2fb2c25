// Reachability: the flag word, its meaning as a connection kind, and the notifier.
#include "kp/connectivity/reachability.h"

#include <atomic>
#include <utility>

#include "platform/mutex.h"

namespace kp {
namespace {

// Set in the stored word once the flags have been read.
constexpr std::uint64_t kFlagsPresent = std::uint64_t{1} << 32;

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

struct Reachability::State {
  State(std::shared_ptr<NetworkReachability> source, DispatchQoS qos, std::shared_ptr<DispatchQueue> targetQueue)
      : reachabilityRef(std::move(source)),
        queue(SerialQueue::make(std::string(kQueueLabel), std::move(targetQueue))),
        queueQoS(qos) {}

  mutable Mutex mutex;
  Callback whenReachable GUARDED_BY(mutex);
  Callback whenUnreachable GUARDED_BY(mutex);
  Mutex startMutex;  // serialises startNotifier()
  std::atomic<bool> allowsCellularConnection{true};
  std::atomic<NotificationCenter*> notificationCenter{&NotificationCenter::defaultCenter()};
  std::atomic<bool> notifierRunning{false};
  const std::shared_ptr<NetworkReachability> reachabilityRef;
  const std::shared_ptr<SerialQueue> queue;
  const DispatchQoS queueQoS;
  // The word with kFlagsPresent once read; written only on `queue`.
  std::atomic<std::uint64_t> flags{0};
};

Reachability::Reachability(std::shared_ptr<NetworkReachability> reachabilityRef, DispatchQoS queueQoS,
                           std::shared_ptr<DispatchQueue> targetQueue)
    : state_(std::make_unique<State>(std::move(reachabilityRef), queueQoS, std::move(targetQueue))) {}

void Reachability::setAllowsCellularConnection(bool allows) noexcept { state_->allowsCellularConnection.store(allows); }

bool Reachability::allowsCellularConnection() const noexcept { return state_->allowsCellularConnection.load(); }

void Reachability::setNotificationCenter(NotificationCenter& center) noexcept {
  state_->notificationCenter.store(&center);
}

NotificationCenter& Reachability::notificationCenter() const noexcept { return *state_->notificationCenter.load(); }

bool Reachability::notifierRunning() const noexcept { return state_->notifierRunning.load(); }

const std::shared_ptr<NetworkReachability>& Reachability::reachabilityRef() const noexcept {
  return state_->reachabilityRef;
}

const std::shared_ptr<SerialQueue>& Reachability::reachabilitySerialQueue() const noexcept { return state_->queue; }

DispatchQoS Reachability::queueQoS() const noexcept { return state_->queueQoS; }

Reachability::~Reachability() { detachFromSource(); }

void Reachability::setWhenReachable(Callback callback) {
  MutexLock lock(state_->mutex);
  state_->whenReachable = std::move(callback);
}

void Reachability::setWhenUnreachable(Callback callback) {
  MutexLock lock(state_->mutex);
  state_->whenUnreachable = std::move(callback);
}

Reachability::Callback Reachability::whenReachable() const {
  MutexLock lock(state_->mutex);
  return state_->whenReachable;
}

Reachability::Callback Reachability::whenUnreachable() const {
  MutexLock lock(state_->mutex);
  return state_->whenUnreachable;
}

std::optional<ReachabilityFlags> Reachability::flags() const noexcept {
  const std::uint64_t word = state_->flags.load(std::memory_order_acquire);
  if ((word & kFlagsPresent) == 0) return std::nullopt;
  return static_cast<ReachabilityFlags>(word);
}

Reachability::Connection Reachability::connection() {
  const std::uint64_t word = state_->flags.load(std::memory_order_acquire);
  if ((word & kFlagsPresent) != 0) {
    return connectionFor(static_cast<ReachabilityFlags>(word), allowsCellularConnection());
  }
  // No word yet: read one now, on the queue that owns the flags.
  state_->queue->sync([this] {
    if (flags()) return;  // read meanwhile
    try {
      setReachabilityFlags();
    } catch (const Error&) {
      // An unreadable word simply means no connection.
    }
  });
  const auto read = flags();
  return read ? connectionFor(*read, allowsCellularConnection()) : Connection::none;
}

void Reachability::startNotifier() {
  MutexLock lock(state_->startMutex);
  if (notifierRunning()) return;
  // The source must not keep this object alive, or it would never be destroyed.
  const bool callbackSet = state_->reachabilityRef->setCallback([weak = weak_from_this()](ReachabilityFlags flags) {
    if (auto self = weak.lock()) self->store(flags);
  });
  if (!callbackSet) {
    detachFromSource();
    throw Error(ErrorCode::callbackNotSet);
  }
  if (!state_->reachabilityRef->setDispatchQueue(state_->queue)) {
    detachFromSource();
    throw Error(ErrorCode::dispatchQueueNotSet);
  }
  std::optional<Error> failure;
  state_->queue->sync([&] {
    try {
      setReachabilityFlags();
    } catch (const Error& error) {
      failure = error;
    }
  });
  if (failure) throw *failure;
  state_->notifierRunning.store(true);
}

void Reachability::setReachabilityFlags() {
  const auto read = state_->reachabilityRef->flags();
  if (!read) {
    detachFromSource();
    throw Error(ErrorCode::flagsNotRead);
  }
  store(*read);
}

void Reachability::store(ReachabilityFlags flags) {
  const std::uint64_t previous = state_->flags.exchange(kFlagsPresent | flags, std::memory_order_acq_rel);
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
  (void)state_->reachabilityRef->setCallback(nullptr);
  (void)state_->reachabilityRef->setDispatchQueue(nullptr);
  state_->notifierRunning.store(false);
}

}  // namespace kp
