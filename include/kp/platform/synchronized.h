// kp::Synchronized<T>: one value whose every read and write runs synchronously on one serial
// queue, either given by the creator or made from a label. Writes carry the work-item flags
// given at construction. The value may thus be read and changed from any thread.
//
// Thread safety: every member may be called from any thread. Calling back into the same
// Synchronized from inside read() or modify() runs inline (the queue is already ours).
//
// Example:
//   kp::Synchronized<std::uint64_t> limit(350u << 20, "com.example.limit");
//   limit.set(1024);
//   limit.modify([](std::uint64_t& v) { v *= 2; });
//   std::uint64_t now = limit.get();
#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "kp/platform/dispatch.h"

namespace kp {

// Flags of a work item; kept for the platform's barrier semantics. On a serial queue every
// item already runs alone, so a barrier changes nothing there.
enum class WorkItemFlags : unsigned { none = 0, barrier = 1u << 0, enforceQoS = 1u << 1, inheritQoS = 1u << 2 };

template <class T>
class Synchronized {
 public:
  // `value`, guarded by a new serial queue named `label`.
  Synchronized(T value, std::string label, WorkItemFlags writeFlags = WorkItemFlags::none)
      : Synchronized(std::move(value), SerialQueue::make(std::move(label)), writeFlags) {}
  // REQUIRES: `queue` is serial; a concurrent queue would let reads race writes.
  Synchronized(T value, std::shared_ptr<DispatchQueue> queue, WorkItemFlags writeFlags = WorkItemFlags::none)
      : queue_(std::move(queue)), writeFlags_(writeFlags), value_(std::move(value)) {}

  Synchronized(const Synchronized&) = delete;
  Synchronized& operator=(const Synchronized&) = delete;

  // A copy of the value.
  [[nodiscard]] T get() const {
    return queue_->syncValue([this]() -> T { return value_; });
  }
  // Replaces the value.
  void set(T value) {
    queue_->sync([&] { value_ = std::move(value); });
  }
  // Runs `f` with the value for reading and returns a copy of what it returns.
  template <class F>
  auto read(F&& f) const {
    return queue_->syncValue([&] { return f(std::as_const(value_)); });
  }
  // Runs `f` with the value for changing and returns a copy of what it returns.
  template <class F>
  auto modify(F&& f) {
    return queue_->syncValue([&] { return f(value_); });
  }

  // The queue that guards the value.
  [[nodiscard]] const std::shared_ptr<DispatchQueue>& queue() const noexcept { return queue_; }
  // The flags of writes.
  [[nodiscard]] WorkItemFlags writeFlags() const noexcept { return writeFlags_; }

 private:
  std::shared_ptr<DispatchQueue> queue_;
  WorkItemFlags writeFlags_;
  T value_;  // touched only on queue_
};

}  // namespace kp
