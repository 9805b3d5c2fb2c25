// kp::Mutex and kp::MutexLock: std::mutex and a scoped lock on it, annotated so that Clang's
// thread-safety analysis can check the members they guard (libstdc++'s own are not
// annotated). A MutexLock may be let go and taken again within its scope, and waits on a
// std::condition_variable. Internal; not installed.
//
// Thread safety: a Mutex is shared between threads by design; a MutexLock belongs to the
// thread that made it.
//
// Example:
//   kp::Mutex mutex_;
//   int count_ GUARDED_BY(mutex_) = 0;
//   void add() EXCLUDES(mutex_) {
//     kp::MutexLock lock(mutex_);
//     ++count_;
//   }
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/thread_annotations.h"

namespace kp {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  [[nodiscard]] bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~MutexLock() RELEASE() = default;
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // Lets go of the lock before the end of the scope, and takes it again.
  void unlock() RELEASE() { lock_.unlock(); }
  void lock() ACQUIRE() { lock_.lock(); }

  // Waits on `condition` once, without the lock meanwhile, and holds it again on return.
  // Callers loop over their condition in their own code, where the analysis sees the lock
  // held (it does not follow a predicate lambda).
  void wait(std::condition_variable& condition) { condition.wait(lock_); }
  // The same, giving up at `deadline`; false when the deadline passed.
  template <class Clock, class Duration>
  bool waitUntil(std::condition_variable& condition, const std::chrono::time_point<Clock, Duration>& deadline) {
    return condition.wait_until(lock_, deadline) == std::cv_status::no_timeout;
  }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace kp
