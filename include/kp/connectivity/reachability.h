// kp::Reachability: whether the internet can be reached, and over which kind of link, read
// from the host's reachability flag word for the all-zero IPv4 address.
//
// The flag word is read and written only on the object's own serial queue (the source
// delivers changes there); a change of the word runs the object's callbacks and posts
// "reachabilityChanged" (sender: the object) on the main queue, callbacks first. Destroying
// the object detaches it from its source and ends delivery: work already queued for it finds
// it gone and does nothing.
//
// Thread safety: every member may be called from any thread. connection() reads the word
// without waiting once it is known; the first call before that reads it on the serial queue.
//
// Example:
//   auto reachability = kp::Reachability::make();     // null when the host has no source
//   reachability->setWhenUnreachable([](kp::Reachability&) { /* on the main queue */ });
//   try { reachability->startNotifier(); } catch (const kp::Reachability::Error& e) { ... }
//   if (reachability->connection() == kp::Reachability::Connection::wifi) { ... }
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "kp/platform/dispatch.h"
#include "kp/platform/export.h"
#include "kp/platform/network_reachability.h"
#include "kp/platform/notification_center.h"

namespace kp {

// The quality of service asked for a queue. The pool runs every queue at one priority, so it
// is recorded, not acted on.
enum class DispatchQoS { unspecified, background, utility, default_, userInitiated, userInteractive };

class KP_EXPORT Reachability : public std::enable_shared_from_this<Reachability> {
 public:
  // The kind of link the internet is reached over; links that are not cellular count as wifi.
  enum class Connection : int { none = 0, wifi = 1, cellular = 2 };

  // Why startNotifier() failed.
  enum class ErrorCode {
    callbackNotSet,       // the source refused the callback
    dispatchQueueNotSet,  // the source refused the queue
    flagsNotRead,         // the flags could not be read
  };
  // What startNotifier() throws.
  class Error : public std::runtime_error {
   public:
    // An error whose message names `code`.
    explicit Error(ErrorCode code);
    // Why it failed.
    [[nodiscard]] ErrorCode code() const noexcept { return code_; }

   private:
    ErrorCode code_;
  };

  // Told of a change, with the object that changed.
  using Callback = std::function<void(Reachability&)>;

  // Posted, with the object as sender, on the main queue after each change.
  static constexpr std::string_view kReachabilityChangedNotification = "reachabilityChanged";
  // The label of the object's serial queue.
  static constexpr std::string_view kQueueLabel = "com.kp.reachability";

  // Watches the all-zero IPv4 address through the host's source; null when there is none.
  [[nodiscard]] static std::shared_ptr<Reachability> make(DispatchQoS queueQoS = DispatchQoS::default_,
                                                          std::shared_ptr<DispatchQueue> targetQueue = nullptr);
  // Around `reachabilityRef`; null when it is null.
  [[nodiscard]] static std::shared_ptr<Reachability> make(std::shared_ptr<NetworkReachability> reachabilityRef,
                                                          DispatchQoS queueQoS = DispatchQoS::default_,
                                                          std::shared_ptr<DispatchQueue> targetQueue = nullptr);
  ~Reachability();
  Reachability(const Reachability&) = delete;
  Reachability& operator=(const Reachability&) = delete;

  // Run on the main queue after a change to a connection that is not none (reachable) or is
  // none (unreachable).
  void setWhenReachable(Callback callback);
  // See setWhenReachable().
  void setWhenUnreachable(Callback callback);
  // The callback set with setWhenReachable(); none by default.
  [[nodiscard]] Callback whenReachable() const;
  // The callback set with setWhenUnreachable(); none by default.
  [[nodiscard]] Callback whenUnreachable() const;

  // When false, a cellular link counts as no connection. Default true.
  void setAllowsCellularConnection(bool allows) noexcept;
  // See setAllowsCellularConnection().
  [[nodiscard]] bool allowsCellularConnection() const noexcept;

  // Where "reachabilityChanged" is posted; the default centre unless changed.
  // REQUIRES: `center` outlives this object.
  void setNotificationCenter(NotificationCenter& center) noexcept;
  // See setNotificationCenter().
  [[nodiscard]] NotificationCenter& notificationCenter() const noexcept;

  // True between a successful startNotifier() and the end of delivery.
  [[nodiscard]] bool notifierRunning() const noexcept;
  // The source the flags come from.
  [[nodiscard]] const std::shared_ptr<NetworkReachability>& reachabilityRef() const noexcept;
  // The queue that reads the flags and runs the change step.
  [[nodiscard]] const std::shared_ptr<SerialQueue>& reachabilitySerialQueue() const noexcept;
  // The quality of service the queue was asked for.
  [[nodiscard]] DispatchQoS queueQoS() const noexcept;
  // The flag word last read; nothing before the first read.
  [[nodiscard]] std::optional<ReachabilityFlags> flags() const noexcept;

  // The connection kind now. Reads the flags first when none have been read.
  [[nodiscard]] Connection connection();

  // Starts delivery of changes; returns at once when running. Reads the flags, so that the
  // first change step (and its callbacks) follows at once. On failure the object is detached
  // from its source and the notifier stays stopped. Throws Error.
  void startNotifier();

  // The connection kind that a flag word stands for.
  [[nodiscard]] static constexpr Connection connectionFor(ReachabilityFlags flags,
                                                          bool allowsCellularConnection) noexcept {
    using F = ReachabilityFlag;
    if ((flags & F::reachable) == 0) return Connection::none;
    if ((flags & F::isWWAN) != 0) return allowsCellularConnection ? Connection::cellular : Connection::none;
    const bool required = (flags & F::connectionRequired) != 0;
    if ((flags & (F::connectionOnTraffic | F::connectionOnDemand)) == 0) {
      return required ? Connection::none : Connection::wifi;
    }
    // A connection made on traffic or on demand is usable unless the user must step in first.
    return required && (flags & F::interventionRequired) != 0 ? Connection::none : Connection::wifi;
  }

 private:
  Reachability(std::shared_ptr<NetworkReachability> reachabilityRef, DispatchQoS queueQoS,
               std::shared_ptr<DispatchQueue> targetQueue);
  struct State;
  // On the serial queue: reads the flags from the source and stores them. Throws Error.
  void setReachabilityFlags();
  // On the serial queue: a new word from the source.
  void store(ReachabilityFlags flags);
  // On the serial queue: tells the main queue of a change.
  void reachabilityChanged();
  void detachFromSource() noexcept;

  const std::unique_ptr<State> state_;
};

}  // namespace kp
