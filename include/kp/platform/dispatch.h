// Executors: the main queue that the host drains, a background pool, serial queues, and
// delayed and repeating work. The shared helpers "run on the main thread", "run in the
// background" and "run once" are in kp/foundation/dispatch.h.
//
// Every queue carries the poster's task-local bindings (see task_local.h) into the work it
// runs. Work must not throw: an exception escaping a work item ends the process.
//
// Thread safety: every operation here may be called from any thread.
//
// Example:
//   auto queue = kp::SerialQueue::make("com.example.db");
//   queue->async([] { /* runs after everything posted before it */ });
//   int n = queue->syncValue([] { return 42; });
//   kp::MainQueue::shared()->async([] { /* runs when the host drains the main queue */ });
//   kp::MainQueue::shared()->runFor(std::chrono::milliseconds(100));
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "kp/platform/export.h"

namespace kp {

// A work item; it must not throw.
using Work = std::function<void()>;
// Delays and intervals of the queues and timers.
using Duration = std::chrono::steady_clock::duration;

// Where work runs: the main queue, a serial queue or the background pool.
class KP_EXPORT DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
 public:
  virtual ~DispatchQueue() = default;

  // Queues `work` and returns at once.
  virtual void async(Work work) = 0;
  // Runs `work` on this queue and returns when it has run. Called from work that this queue
  // (or a queue it targets) is running, `work` runs at once rather than waiting for itself.
  virtual void sync(const std::function<void()>& work) = 0;
  // The name the queue was made with, for logs and diagnostics.
  [[nodiscard]] virtual const std::string& label() const noexcept = 0;
  // Runs `work` on the calling thread, as this queue's item, when the queue is idle and work
  // run here would be indistinguishable from work run by async(); returns false, leaving
  // `work` unrun, otherwise. Spares a producer that is about to go idle a thread hand-off.
  [[nodiscard]] virtual bool runNowIfIdle(const std::function<void()>& work);

  // True while the calling thread runs work of this queue.
  [[nodiscard]] bool isCurrent() const noexcept;

  // Runs `work` on this queue after `delay`.
  void asyncAfter(Duration delay, Work work);

  // sync() for work with a result: runs `f` on this queue and returns what it returned.
  template <class F>
  auto syncValue(F&& f) -> std::invoke_result_t<F&> {
    using R = std::invoke_result_t<F&>;
    if constexpr (std::is_void_v<R>) {
      sync([&] { f(); });
    } else {
      std::optional<R> result;
      sync([&] { result.emplace(f()); });
      return std::move(*result);
    }
  }

 protected:
  // Marks the calling thread as running work of `queue` for the frame's lifetime.
  class RunningFrame {
   public:
    // Marks the calling thread as running work of `queue`.
    explicit RunningFrame(const DispatchQueue* queue) noexcept;
    ~RunningFrame();
    RunningFrame(const RunningFrame&) = delete;
    RunningFrame& operator=(const RunningFrame&) = delete;

   private:
    const DispatchQueue* queue_;
    const RunningFrame* outer_;
    friend class DispatchQueue;
  };
};

// The main queue: runs work only when the host drains it, on the thread that drains it
// (which the library then treats as the main thread). A host with its own event loop sets a
// wake-up handler and calls runPending() from its loop when woken.
class KP_EXPORT MainQueue final : public DispatchQueue {
 public:
  // The process-wide main queue.
  [[nodiscard]] static const std::shared_ptr<MainQueue>& shared();

  ~MainQueue() override;
  void async(Work work) override;
  void sync(const std::function<void()>& work) override;
  [[nodiscard]] const std::string& label() const noexcept override;

  // Runs work until stop() is called.
  void run();
  // Runs work for `duration` (or until stop()); returns the number of items run.
  std::size_t runFor(Duration duration);
  // Runs what is ready now, including what that work posts; returns the number of items run.
  std::size_t runPending();
  // Makes run() and runFor() return soon; a later run starts afresh.
  void stop();
  // Called after each post, from the posting thread, so that a host loop can schedule a
  // runPending(). The handler must not drain the queue itself. Pass {} to remove it.
  void setWakeupHandler(std::function<void()> handler);

  struct Impl;

 private:
  MainQueue();
  std::unique_ptr<Impl> impl_;
};

// A queue that runs one item at a time, in the order posted, on the background pool (or on
// the queue it targets).
class KP_EXPORT SerialQueue final : public DispatchQueue {
 public:
  // A new queue named `label`, running its items on `target`, or on the background pool when
  // `target` is null.
  [[nodiscard]] static std::shared_ptr<SerialQueue> make(std::string label,
                                                         std::shared_ptr<DispatchQueue> target = nullptr);
  ~SerialQueue() override;
  void async(Work work) override;
  void sync(const std::function<void()>& work) override;
  [[nodiscard]] const std::string& label() const noexcept override;
  // Only for a queue on the background pool, whose items may run on any thread.
  [[nodiscard]] bool runNowIfIdle(const std::function<void()>& work) override;

  struct Impl;

 private:
  SerialQueue(std::string label, std::shared_ptr<DispatchQueue> target);
  void drain();
  void scheduleDrain();
  std::unique_ptr<Impl> impl_;
};

// The process-wide background pool: items run concurrently, in no fixed order.
[[nodiscard]] KP_EXPORT const std::shared_ptr<DispatchQueue>& globalQueue();

// True on the thread that drains the main queue (before any drain: the process's first
// thread).
[[nodiscard]] KP_EXPORT bool isMainThread() noexcept;

// A timer that runs `work` on `queue` every `interval` until invalidated or destroyed.
class KP_EXPORT RepeatingTimer {
 public:
  // A running timer whose first firing comes `interval` from now; it stops when the returned
  // timer is destroyed.
  [[nodiscard]] static std::unique_ptr<RepeatingTimer> schedule(std::shared_ptr<DispatchQueue> queue, Duration interval,
                                                                Work work);
  ~RepeatingTimer();
  RepeatingTimer(const RepeatingTimer&) = delete;
  RepeatingTimer& operator=(const RepeatingTimer&) = delete;
  // Stops the timer; a firing already queued on the target queue does not run.
  void invalidate();
  // True until invalidate().
  [[nodiscard]] bool isValid() const noexcept;

  struct State;

 private:
  explicit RepeatingTimer(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

}  // namespace kp
