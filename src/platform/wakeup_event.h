// platform::WakeupEvent: a descriptor that one thread waits for in poll() next to its other
// descriptors, and that any thread signals. A signal given before the wait is not lost, and
// signals given together end one wait. Internal; not installed.
//
// It lets a thread wake a poller outside the lock that guards what the poller polls: a
// wake-up given under a lock hands the woken thread a lock that is still held.
//
// Thread safety: signal() from any thread; descriptor() and clear() from the waiting thread.
// An event without a descriptor (the process had none left) is invalid: signal() then answers
// false, and the caller wakes the waiter another way.
//
// Example:
//   platform::WakeupEvent event;
//   pollfd wait{event.descriptor(), POLLIN, 0};
//   ::poll(&wait, 1, -1);            // another thread: event.signal();
//   if (wait.revents != 0) event.clear();
#pragma once

namespace kp::platform {

class WakeupEvent {
 public:
  WakeupEvent() noexcept;
  ~WakeupEvent();
  WakeupEvent(const WakeupEvent&) = delete;
  WakeupEvent& operator=(const WakeupEvent&) = delete;

  [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
  [[nodiscard]] int descriptor() const noexcept { return fd_; }
  // Makes the descriptor readable until clear(); false when the event is invalid.
  bool signal() noexcept;
  // Makes it unreadable again; for the waiter, after its wait saw it readable.
  void clear() noexcept;

 private:
  int fd_ = -1;
};

}  // namespace kp::platform
