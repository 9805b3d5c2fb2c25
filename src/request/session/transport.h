// What sessions transfer with, and the process-wide pools behind them: the DNS share handle,
// a session's Transport (multi handle and spare easy handles), the pool of transports that
// ended sessions leave for later ones, and the threads that run the sessions' drivers.
// Internal to the session layer; not installed.
//
// Thread safety: DnsShare, TransportPool and DriverThreads are safe from any thread. A
// Transport belongs to one thread at a time (its session's driver, or the pool under its lock).
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/mutex.h"
#include "platform/thread_annotations.h"

namespace kp::internal {

using Clock = std::chrono::steady_clock;

// One share handle for DNS answers, used by every session's transfers.
class DnsShare {
 public:
  DnsShare();
  DnsShare(const DnsShare&) = delete;
  DnsShare& operator=(const DnsShare&) = delete;

  [[nodiscard]] CURLSH* handle() const noexcept { return share_; }
  // Also sets libcurl up for the process, on first use.
  static DnsShare& instance();

 private:
  static void lock(CURL*, curl_lock_data data, curl_lock_access, void* user);
  static void unlock(CURL*, curl_lock_data data, void* user);
  static constexpr std::size_t kLocks = 8;
  CURLSH* share_ = nullptr;
  std::mutex mutexes_[kLocks];
};

// What a session transfers with: a multi handle (and the connections in its cache) and the
// easy handles of ended transfers, cleared of what those set for themselves but still set up
// with the options every transfer shares, which spares later transfers an allocation and
// that set-up. Owns them: moving hands them on, destruction closes them.
struct Transport {
  CURLM* multi = nullptr;
  std::vector<CURL*> spareHandles;
  Clock::time_point idleSince;

  Transport() = default;
  Transport(Transport&& other) noexcept
      : multi(std::exchange(other.multi, nullptr)),
        spareHandles(std::exchange(other.spareHandles, {})),
        idleSince(other.idleSince) {}
  Transport& operator=(Transport&& other) noexcept;
  ~Transport() { close(); }

  [[nodiscard]] static Transport make();
  void close() noexcept;
};

// The transports of ended sessions whose connections later sessions may use. Few are kept,
// and none for long: an idle one is closed after kIdleConnectionLifetime, by whoever next
// uses the pool or by a driver thread that ends for want of work.
class TransportPool {
 public:
  static TransportPool& instance();

  // A pooled transport, or a new one.
  [[nodiscard]] Transport acquire();
  // REQUIRES: no easy handle is in `transport`'s multi handle.
  void release(Transport transport);
  // Closes what has been idle for `age` or longer.
  void closeIdle(Clock::duration age);

 private:
  static constexpr std::size_t kCapacity = 4;
  static constexpr auto kIdleConnectionLifetime = std::chrono::seconds(5);

  void takeExpired(Clock::time_point idleBefore, std::vector<Transport>& out) REQUIRES(mutex_);

  Mutex mutex_;
  std::vector<Transport> idle_ GUARDED_BY(mutex_);
};

// Threads for the sessions' drivers. A session's driver runs until the session ends or has
// been idle for a while; its thread then waits here for the next session's driver instead
// of ending, which spares a short-lived session (one per request by default) a thread start.
class DriverThreads {
 public:
  static DriverThreads& instance();

  // Runs `driver` on a waiting thread, or on a new one.
  void run(std::function<void()> driver);

 private:
  static constexpr auto kIdleLifetime = std::chrono::seconds(5);

  void serve();

  Mutex mutex_;
  std::condition_variable available_;
  std::deque<std::function<void()>> drivers_ GUARDED_BY(mutex_);
  std::size_t waiting_ GUARDED_BY(mutex_) = 0;
};

}  // namespace kp::internal
