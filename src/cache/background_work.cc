// The cache's ordered background work with its memory budget.
#include "cache/background_work.h"

namespace kp::internal {
namespace {

void raise(std::atomic<std::size_t>& peak, std::size_t value) {
  std::size_t seen = peak.load(std::memory_order_relaxed);
  while (value > seen && !peak.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
  }
}

}  // namespace

CacheBackgroundWork::CacheBackgroundWork(std::string label, std::size_t budgetBytes)
    : queue_(SerialQueue::make(std::move(label))), budget_(budgetBytes), accounts_(std::make_shared<Accounts>()) {}

void CacheBackgroundWork::account(std::size_t cost) noexcept {
  raise(accounts_->peakTasks, accounts_->tasks.fetch_add(1, std::memory_order_relaxed) + 1);
  raise(accounts_->peakBytes, accounts_->bytes.fetch_add(cost, std::memory_order_relaxed) + cost);
}

void CacheBackgroundWork::waitIfOverBudget() {
  if (accounts_->bytes.load(std::memory_order_relaxed) > budget_ && !queue_->isCurrent()) waitUntilIdle();
}

void CacheBackgroundWork::waitUntilIdle() {
  queue_->sync([] {});
}

void CacheBackgroundWork::runInTurn(const std::function<void()>& work) { queue_->sync(work); }

CacheBackgroundWork::Statistics CacheBackgroundWork::statistics() const noexcept {
  return {accounts_->tasks.load(std::memory_order_relaxed), accounts_->bytes.load(std::memory_order_relaxed),
          accounts_->peakTasks.load(std::memory_order_relaxed), accounts_->peakBytes.load(std::memory_order_relaxed)};
}

}  // namespace kp::internal
