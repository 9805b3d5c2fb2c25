// kp::internal::CacheBackgroundWork: the background tasks of one cache controller (saves,
// timestamp updates, removals, wipes, clean-ups, trims). Internal; not installed.
//
// The tasks run one at a time, in the order posted, on the library's pool, so that a wipe or
// a removal always follows the saves posted before it and a save posted after a wipe
// survives it: racing writers and wipes can leave no row without its file.
//
// Posting returns at once while the work waiting to run holds at most `budgetBytes`; a
// poster that finds more waits until the work posted before it has run, running it itself
// when no pool thread is at it, which bounds the memory of a backlog when writers outrun the
// disk and cannot deadlock a pool whose threads are all posting.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "kp/platform/dispatch.h"

namespace kp::internal {

class CacheBackgroundWork {
 public:
  struct Statistics {
    std::size_t pendingTasks = 0;
    std::size_t pendingBytes = 0;
    std::size_t peakTasks = 0;
    std::size_t peakBytes = 0;
  };

  CacheBackgroundWork(std::string label, std::size_t budgetBytes);
  CacheBackgroundWork(const CacheBackgroundWork&) = delete;
  CacheBackgroundWork& operator=(const CacheBackgroundWork&) = delete;

  // Queues `work` (a callable taking nothing); `cost` is what it holds in memory until it has
  // run.
  template <class F>
  void post(std::size_t cost, F&& work) {
    account(cost);
    queue_->async([accounts = accounts_, cost, work = std::forward<F>(work)]() mutable {
      work();
      accounts->release(cost);
    });
    waitIfOverBudget();
  }
  // Returns once the work posted before the call has run (at once from inside a task).
  void waitUntilIdle();
  // Runs `work` on the calling thread after the work posted before the call, and before any
  // posted later.
  void runInTurn(const std::function<void()>& work);
  [[nodiscard]] bool isCurrent() const noexcept { return queue_->isCurrent(); }
  [[nodiscard]] Statistics statistics() const noexcept;

 private:
  struct Accounts {
    std::atomic<std::size_t> tasks{0};
    std::atomic<std::size_t> bytes{0};
    std::atomic<std::size_t> peakTasks{0};
    std::atomic<std::size_t> peakBytes{0};
    void release(std::size_t cost) noexcept {
      bytes.fetch_sub(cost, std::memory_order_relaxed);
      tasks.fetch_sub(1, std::memory_order_relaxed);
    }
  };

  void account(std::size_t cost) noexcept;
  // A poster that finds more than the budget waiting waits for (or runs) what is ahead of it;
  // a task that posts more work must not wait for itself.
  void waitIfOverBudget();

  std::shared_ptr<SerialQueue> queue_;
  std::size_t budget_;
  std::shared_ptr<Accounts> accounts_;
};

}  // namespace kp::internal
