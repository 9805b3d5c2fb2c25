// platform::FdWatch: runs work on a queue whenever a file descriptor has data to read. No
// thread of its own waits for it: the timer thread's event loop does, next to the timers.
//
// The watch waits again only after the work has run, so one run sees everything that
// arrived before it; work that leaves data unread simply runs again.
//
// Thread safety: cancel() and the destructor may be called from any thread, also from inside
// the work. Once cancel() has returned the work does not start again; a run already under way
// on another thread finishes.
//
// Example:
//   auto watch = platform::FdWatch::watchReadable(::dup(fd), queue, [] { /* read fd */ });
//   watch.reset();   // stops watching and closes the duplicate
#pragma once

#include <memory>

#include "kp/platform/dispatch.h"

namespace kp::platform {

class FdWatch {
 public:
  // Takes ownership of `fd` (closed when the watch ends). Null, with `fd` closed, when the
  // descriptor cannot be watched.
  [[nodiscard]] static std::unique_ptr<FdWatch> watchReadable(int fd, std::shared_ptr<DispatchQueue> queue, Work work);
  ~FdWatch();
  FdWatch(const FdWatch&) = delete;
  FdWatch& operator=(const FdWatch&) = delete;

  void cancel();

  struct State;

 private:
  explicit FdWatch(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

}  // namespace kp::platform
