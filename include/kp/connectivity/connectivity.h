// kp::Connectivity: the process's shared, read-only answer to whether the device is online
// and over which kind of link, as the service kp::ConnectivityService.
//
// The shared instance watches the internet through a kp::Reachability whose notifier it
// starts when made; a failure to start is reported to the core log, and the answers then come
// from flags read on demand. Without a reachability object (no source on this host) every
// answer is "offline". The class-level forms answer for the shared instance.
//
// Thread safety: every member may be called from any thread; default_() is made once, safely
// under concurrent first use, and lives until the process ends. Once the flags are known an
// answer costs a few atomic loads.
//
// Example:
//   if (kp::Connectivity::isCurrentlyOnline()) { /* fetch */ }
//   auto service = kp::Services::default_()->safeGet<kp::ConnectivityService>();
//   if (service->type() == kp::ConnectionType::cellular) { /* save data */ }
#pragma once

#include <memory>

#include "kp/connectivity/reachability.h"
#include "kp/platform/export.h"
#include "tarvix/service.h"

namespace kp {

// The kind of link the internet is reached over; wired links count as wifi.
enum class ConnectionType : int { none = 0, wifi = 1, cellular = 2 };
// Online is any kind of link but none.
enum class ConnectivityState : int { offline = 0, online = 1 };

// Whether the device is online and over which kind of link, as a service a host can replace.
class KP_EXPORT ConnectivityService : public virtual tarvix::Service {
 public:
  // The kind of link the internet is reached over now.
  [[nodiscard]] virtual ConnectionType type() const = 0;
  // Online while type() is not none.
  [[nodiscard]] virtual ConnectivityState state() const = 0;
  // True while type() is not none.
  [[nodiscard]] virtual bool isOnline() const = 0;
  // True while type() is none.
  [[nodiscard]] virtual bool isOffline() const = 0;
};

class KP_EXPORT Connectivity final : public ConnectivityService {
 public:
  // The process-wide instance.
  [[nodiscard]] static const std::shared_ptr<Connectivity>& default_();

  // Over a new reachability object for the host (none when the host has no source).
  Connectivity();
  // Over `reachability` (may be null), whose notifier it starts.
  explicit Connectivity(std::shared_ptr<Reachability> reachability);

  // The reachability object the answers come from; null when the host has no source.
  [[nodiscard]] const std::shared_ptr<Reachability>& reachability() const noexcept { return reachability_; }

  [[nodiscard]] ConnectionType type() const override {
    return reachability_ ? static_cast<ConnectionType>(reachability_->connection()) : ConnectionType::none;
  }
  [[nodiscard]] ConnectivityState state() const override {
    return isOnline() ? ConnectivityState::online : ConnectivityState::offline;
  }
  [[nodiscard]] bool isOnline() const override { return type() != ConnectionType::none; }
  [[nodiscard]] bool isOffline() const override { return !isOnline(); }

  // type() of the shared instance.
  [[nodiscard]] static ConnectionType currentType() { return default_()->type(); }
  // state() of the shared instance.
  [[nodiscard]] static ConnectivityState currentState() { return default_()->state(); }
  // isOnline() of the shared instance.
  [[nodiscard]] static bool isCurrentlyOnline() { return default_()->isOnline(); }
  // isOffline() of the shared instance.
  [[nodiscard]] static bool isCurrentlyOffline() { return default_()->isOffline(); }

 private:
  const std::shared_ptr<Reachability> reachability_;
};

}  // namespace kp
