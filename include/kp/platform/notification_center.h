// kp::NotificationCenter: named notifications with an optional sender, delivered to the
// observers registered for that name (and that sender, or any sender).
//
// Delivery runs on the posting thread, in registration order, unless the observer gave a
// queue; then it is queued there. The application posts the three application notifications
// below; the library posts its own (such as "reachabilityChanged").
//
// Thread safety: observers may be added and removed from any thread, also from inside a
// delivery. An observer removed while a post is under way on another thread may still get
// that one delivery; once removeObserver() returns on the delivering thread, it gets no more.
//
// Example:
//   auto token = kp::NotificationCenter::defaultCenter().addObserver(
//       kp::ApplicationNotifications::kDidBecomeActive, nullptr, nullptr,
//       [](const kp::Notification& n) { /* ... */ });
//   kp::NotificationCenter::defaultCenter().post(kp::ApplicationNotifications::kDidBecomeActive);
//   token.reset();   // ends the observation
#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kp/platform/dispatch.h"
#include "kp/platform/export.h"

namespace kp {

// One notification.
struct KP_EXPORT Notification {
  std::string name;  // what happened
  // The sender's identity (compared, never dereferenced); null for none.
  const void* sender = nullptr;
  std::map<std::string, std::any> userInfo;  // details, by key
};

// The application notifications the host posts (the library observes them).
struct KP_EXPORT ApplicationNotifications {
  // The application came to the foreground.
  static constexpr std::string_view kDidBecomeActive = "UIApplicationDidBecomeActiveNotification";
  // The application is about to leave the foreground.
  static constexpr std::string_view kWillResignActive = "UIApplicationWillResignActiveNotification";
  // The system is short of memory.
  static constexpr std::string_view kDidReceiveMemoryWarning = "UIApplicationDidReceiveMemoryWarningNotification";
};

// Delivers named notifications to their observers.
class KP_EXPORT NotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;  // receives a notification

  // An observation; it ends when removed through the centre or when the token is destroyed.
  class Observation {
   public:
    ~Observation();
    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;

   private:
    friend class NotificationCenter;
    struct Entry;
    Observation(NotificationCenter* center, std::shared_ptr<Entry> entry);
    NotificationCenter* center_;
    std::shared_ptr<Entry> entry_;
  };
  using ObservationToken = std::unique_ptr<Observation>;  // owns an observation

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // The process-wide default centre.
  [[nodiscard]] static NotificationCenter& defaultCenter();

  // Observes `name` from `sender` (null: from any sender). `queue` null delivers on the
  // posting thread. REQUIRES: the centre outlives the token.
  [[nodiscard]] ObservationToken addObserver(std::string_view name, const void* sender,
                                             std::shared_ptr<DispatchQueue> queue, Handler handler);
  // Ends the observation and empties the token.
  void removeObserver(ObservationToken& token);

  // Delivers `notification` to every observer of its name and sender.
  void post(Notification notification);
  // The same, for a notification without user info.
  void post(std::string_view name, const void* sender = nullptr) { post(Notification{std::string(name), sender, {}}); }

 private:
  void remove(const std::shared_ptr<Observation::Entry>& entry);
  std::mutex mutex_;
  std::vector<std::shared_ptr<Observation::Entry>> entries_;  // guarded by mutex_
};

}  // namespace kp
