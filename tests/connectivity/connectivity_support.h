// Test helpers for connectivity: a reachability source the test drives, and a delegate that
// records its calls.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kp/connectivity/connectivity_monitor.h"
#include "kp/platform/dispatch.h"
#include "kp/platform/network_reachability.h"
#include "support/wait.h"

namespace kp::test {

// A source whose flags and refusals the test sets; change() delivers like the real one.
class DrivenSource final : public NetworkReachability {
 public:
  explicit DrivenSource(std::optional<ReachabilityFlags> flags = 0) : flags_(flags) {}

  bool refuseCallback = false;
  bool refuseQueue = false;

  bool setCallback(Callback callback) override {
    std::lock_guard lock(mutex_);
    if (callback && refuseCallback) return false;
    callback_ = std::move(callback);
    return true;
  }
  bool setDispatchQueue(std::shared_ptr<DispatchQueue> queue) override {
    std::lock_guard lock(mutex_);
    if (queue && refuseQueue) return false;
    queue_ = std::move(queue);
    return true;
  }
  std::optional<ReachabilityFlags> flags() override {
    std::lock_guard lock(mutex_);
    ++reads_;
    return flags_;
  }

  // Sets the flags and, while watched, delivers them on the queue.
  void change(std::optional<ReachabilityFlags> flags) {
    std::lock_guard lock(mutex_);
    flags_ = flags;
    if (queue_ && callback_ && flags) queue_->async([callback = callback_, word = *flags] { callback(word); });
  }
  [[nodiscard]] bool watched() const {
    std::lock_guard lock(mutex_);
    return queue_ != nullptr || callback_ != nullptr;
  }
  [[nodiscard]] int reads() const {
    std::lock_guard lock(mutex_);
    return reads_;
  }

 private:
  mutable std::mutex mutex_;
  std::optional<ReachabilityFlags> flags_;  // guarded by mutex_
  Callback callback_;                       // guarded by mutex_
  std::shared_ptr<DispatchQueue> queue_;    // guarded by mutex_
  int reads_ = 0;                           // guarded by mutex_
};

// Records every call as text ("wifi<-none", "online", "offline"), with the thread check.
class RecordingDelegate final : public ConnectivityChangeDelegate,
                                public ConnectivityOnlineDelegate,
                                public ConnectivityOfflineDelegate {
 public:
  void connectivity(ConnectionType changedTo, ConnectionType oldType) override {
    static const char* const names[] = {"none", "wifi", "cellular"};
    record(std::string(names[static_cast<int>(changedTo)]) + "<-" + names[static_cast<int>(oldType)]);
  }
  void connectivityWentOnline() override { record("online"); }
  void connectivityWentOffline() override { record("offline"); }

  [[nodiscard]] std::vector<std::string> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  [[nodiscard]] std::size_t count() const { return calls().size(); }
  [[nodiscard]] bool offMainThread() const {
    std::lock_guard lock(mutex_);
    return offMain_;
  }

 private:
  void record(std::string call) {
    std::lock_guard lock(mutex_);
    offMain_ = offMain_ || !isMainThread();
    calls_.push_back(std::move(call));
  }
  mutable std::mutex mutex_;
  std::vector<std::string> calls_;  // guarded by mutex_
  bool offMain_ = false;            // guarded by mutex_
};

}  // namespace kp::test
