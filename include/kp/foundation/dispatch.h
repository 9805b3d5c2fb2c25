// The dispatch helpers every part of the library and its host reaches for: run on the main
// thread, run in the background, run once. They sit on the executors of kp/platform/dispatch.h
// and carry the caller's task-local bindings into the work as those do.
//
// - runOnMainThread: at once, on the calling thread, when that is the main thread (the thread
//   that drains the main queue); otherwise queued on the main queue, to run when the host
//   drains it. Work queued from one thread runs in the order it was queued.
// - runInBackground: queued on the library's background pool; runs concurrently with other
//   work, in no fixed order.
// - Once / runOnce: a block runs at most once per token, whatever the number of threads that
//   call at the same time; a caller that arrives while the block runs waits until it has
//   finished, so every caller returns after the block's effects. A block that throws has not
//   run: the exception reaches its caller and the next caller runs the block again.
//
// Work must not throw: an exception escaping queued work ends the process.
//
// Thread safety: every function may be called from any thread; a Once may be shared by any
// number of threads.
//
// Example:
//   kp::runInBackground([model] {
//     auto rows = model->load();
//     kp::runOnMainThread([model, rows] { model->show(rows); });
//   });
//   static kp::Once setUp;
//   setUp.run([] { registerDefaults(); });
//   kp::runOnce("com.example.migration", [] { migrate(); });
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string_view>
#include <utility>

#include "kp/platform/dispatch.h"
#include "kp/platform/export.h"

namespace kp {

// Runs `work` at once on the main thread, else posts it to the main queue.
KP_EXPORT void runOnMainThread(Work work);
// Posts `work` to the background pool.
KP_EXPORT void runInBackground(Work work);

// A once-token held by its user, usually a member or a function-local static. A block that
// runs the same token again from inside itself deadlocks.
//
// Not std::call_once: a block that throws leaves a once_flag unusable with some C libraries
// and under ThreadSanitizer (the next caller waits for ever), and a failed block must let the
// next caller try again. Callers that come while the block runs wait on the lock it runs under.
class KP_EXPORT Once {
 public:
  Once() = default;
  Once(const Once&) = delete;
  Once& operator=(const Once&) = delete;

  // Runs `block` unless a run of this token has completed; a block that throws leaves the
  // token unused, and the exception goes to the caller.
  template <class F>
  void run(F&& block) {
    if (done_.load(std::memory_order_acquire)) return;
    std::lock_guard lock(mutex_);
    if (done_.load(std::memory_order_relaxed)) return;
    std::invoke(std::forward<F>(block));
    done_.store(true, std::memory_order_release);
  }

 private:
  std::atomic<bool> done_{false};
  std::mutex mutex_;
};

// Runs `block` the first time `token` is used in this process. Tokens are compared as text;
// each one used costs a few bytes for the life of the process.
KP_EXPORT void runOnce(std::string_view token, const std::function<void()>& block);

}  // namespace kp
