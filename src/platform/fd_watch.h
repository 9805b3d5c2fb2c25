// platform::FdWatch: runs work on a queue whenever a file descriptor has data to read. No
// thread of its own waits for it: the timer thread's event loop does, next to the timers.
//
// The watch waits again only after the work has run, so one run sees everything that
// arrived before it; work that leaves data unread simply runs again, and so does work after
// which data arrived before the watch waited again. Runs go to the queue, which should be
// serial (runs for a writable descriptor come on top of the others).
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

  // Runs the work once more as soon as the descriptor can take data: for a writer whose
  // output waits because the descriptor was full. Asked again before it ran, it runs once.
  void runWhenWritable();
  void cancel();

  struct State;

 private:
  explicit FdWatch(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

}  // namespace kp::platform
