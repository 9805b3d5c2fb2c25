// ConnectivityMonitor: the change, online and offline calls that follow a change of kind.
#include "kp/connectivity/connectivity_monitor.h"

#include <stdexcept>
#include <utility>

#include "platform/no_destructor.h"

namespace kp {

// Shared with the observation, so that a delivery still under way on another thread while
// the monitor is destroyed finds it alive.
struct ConnectivityMonitor::State {
  std::shared_ptr<ConnectivityService> connectivity;
  WeakHashTable<ConnectivityMonitorDelegate> delegates;
  // Changed only by deliveries, which come from one poster at a time (the main queue).
  std::atomic<ConnectionType> previousType{ConnectionType::none};

  void reachabilityChanged() {
    const ConnectionType now = connectivity->type();
    const ConnectionType previous = previousType.load();
    if (now == previous) return;
    const auto live = delegates.allObjects();
    for (const auto& delegate : live) {
      if (auto* d = dynamic_cast<ConnectivityChangeDelegate*>(delegate.get())) d->connectivity(now, previous);
    }
    // Read again: the kind may have moved on while the delegates ran.
    const ConnectionType again = connectivity->type();
    if (again != ConnectionType::none && previous == ConnectionType::none) {
      for (const auto& delegate : live) {
        if (auto* d = dynamic_cast<ConnectivityOnlineDelegate*>(delegate.get())) d->connectivityWentOnline();
      }
    } else if (again == ConnectionType::none && previous != ConnectionType::none) {
      for (const auto& delegate : live) {
        if (auto* d = dynamic_cast<ConnectivityOfflineDelegate*>(delegate.get())) d->connectivityWentOffline();
      }
    }
    previousType.store(now);
  }
};

const std::shared_ptr<ConnectivityMonitor>& ConnectivityMonitor::default_() {
  static internal::NoDestructor<std::shared_ptr<ConnectivityMonitor>> instance(std::make_shared<ConnectivityMonitor>());
  return *instance;
}

ConnectivityMonitor::ConnectivityMonitor() : ConnectivityMonitor(Connectivity::default_()) {}

ConnectivityMonitor::ConnectivityMonitor(std::shared_ptr<ConnectivityService> connectivity, NotificationCenter& center)
    : state_(std::make_shared<State>()) {
  if (!connectivity) throw std::invalid_argument("ConnectivityMonitor needs a connectivity service");
  state_->connectivity = std::move(connectivity);
  state_->previousType.store(state_->connectivity->type());
  observation_ = center.addObserver(Reachability::kReachabilityChangedNotification, nullptr, nullptr,
                                    [state = state_](const Notification&) { state->reachabilityChanged(); });
}

ConnectivityMonitor::~ConnectivityMonitor() = default;

void ConnectivityMonitor::addDelegate(const std::shared_ptr<ConnectivityMonitorDelegate>& delegate) {
  state_->delegates.add(delegate);
}

void ConnectivityMonitor::removeDelegate(const std::shared_ptr<ConnectivityMonitorDelegate>& delegate) {
  state_->delegates.remove(delegate);
}

ConnectionType ConnectivityMonitor::previousType() const noexcept { return state_->previousType.load(); }

}  // namespace kp
