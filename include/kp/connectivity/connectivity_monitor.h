// kp::ConnectivityMonitor: tells weakly held delegates when the connection kind of a
// connectivity service changes, and when the device goes online or offline.
//
// A delegate implements any subset of three operations by deriving from the matching
// interfaces; only those it implements are called:
//   ConnectivityChangeDelegate   every change of kind, with the new and the previous kind
//   ConnectivityOnlineDelegate   from none to a usable kind
//   ConnectivityOfflineDelegate  from a usable kind to none
// A switch between wifi and cellular is a change only. The monitor re-reads the kind on each
// "reachabilityChanged" (from any sender), so a burst of notifications yields one call per
// actual change.
//
// Thread safety: delegates may be added and removed from any thread. Delegate calls run on the
// thread that posts "reachabilityChanged", which for reachability objects is the main queue.
// default_() is made once and lives until the process ends.
//
// Example:
//   class Banner : public kp::ConnectivityOfflineDelegate {
//     void connectivityWentOffline() override { show("offline"); }
//   };
//   auto banner = std::make_shared<Banner>();
//   kp::ConnectivityMonitor::default_()->addDelegate(banner);   // held weakly
#pragma once

#include <atomic>
#include <memory>

#include "kp/connectivity/connectivity.h"
#include "kp/platform/export.h"
#include "kp/platform/notification_center.h"
#include "kp/platform/weak_hash_table.h"
#include "tarvix/service.h"

namespace kp {

// What every delegate of the monitor is; it implements the operations it wants through the
// interfaces below.
class KP_EXPORT ConnectivityMonitorDelegate {
 public:
  virtual ~ConnectivityMonitorDelegate() = default;
};

// Hears of every change of the connection kind.
class KP_EXPORT ConnectivityChangeDelegate : public virtual ConnectivityMonitorDelegate {
 public:
  // The kind changed from `oldType` to `changedTo`.
  virtual void connectivity(ConnectionType changedTo, ConnectionType oldType) = 0;
};

// Hears when the device goes online.
class KP_EXPORT ConnectivityOnlineDelegate : public virtual ConnectivityMonitorDelegate {
 public:
  // The kind changed from none to a usable one.
  virtual void connectivityWentOnline() = 0;
};

// Hears when the device goes offline.
class KP_EXPORT ConnectivityOfflineDelegate : public virtual ConnectivityMonitorDelegate {
 public:
  // The kind changed from a usable one to none.
  virtual void connectivityWentOffline() = 0;
};

// The monitor as a service a host can replace.
class KP_EXPORT ConnectivityMonitorService : public virtual tarvix::Service {
 public:
  // Holds `delegate` weakly: it hears of changes until it is removed or destroyed.
  virtual void addDelegate(const std::shared_ptr<ConnectivityMonitorDelegate>& delegate) = 0;
  // Stops telling `delegate`; nothing happens for one that was never added.
  virtual void removeDelegate(const std::shared_ptr<ConnectivityMonitorDelegate>& delegate) = 0;
};

class KP_EXPORT ConnectivityMonitor final : public ConnectivityMonitorService {
 public:
  // The process-wide instance, over Connectivity::default_().
  [[nodiscard]] static const std::shared_ptr<ConnectivityMonitor>& default_();

  ConnectivityMonitor();
  // Over `connectivity` (not null), observing `center`. REQUIRES: `center` outlives the monitor.
  explicit ConnectivityMonitor(std::shared_ptr<ConnectivityService> connectivity,
                               NotificationCenter& center = NotificationCenter::defaultCenter());
  ~ConnectivityMonitor() override;
  ConnectivityMonitor(const ConnectivityMonitor&) = delete;
  ConnectivityMonitor& operator=(const ConnectivityMonitor&) = delete;

  void addDelegate(const std::shared_ptr<ConnectivityMonitorDelegate>& delegate) override;
  void removeDelegate(const std::shared_ptr<ConnectivityMonitorDelegate>& delegate) override;

  // The kind seen at the last change (or at construction).
  [[nodiscard]] ConnectionType previousType() const noexcept;

  struct State;

 private:
  std::shared_ptr<State> state_;
  NotificationCenter::ObservationToken observation_;
};

}  // namespace kp
