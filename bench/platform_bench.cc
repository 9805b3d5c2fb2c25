// Executors against the primitives they are built from, measured in the same run:
// Synchronized reads against a bare std::mutex, serial-queue throughput against a
// mutex-guarded std::deque handed to one thread.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "kp/platform/dispatch.h"
#include "kp/platform/synchronized.h"

namespace {

void BM_Baseline_MutexRead(benchmark::State& state) {
  std::mutex mutex;
  std::uint64_t value = 1;
  for (auto _ : state) {
    std::lock_guard lock(mutex);
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_Baseline_MutexRead);

void BM_SynchronizedRead(benchmark::State& state) {
  kp::Synchronized<std::uint64_t> value(1, "bench.synchronized");
  for (auto _ : state) benchmark::DoNotOptimize(value.get());
}
BENCHMARK(BM_SynchronizedRead);

// One worker thread for the whole run, as the serial queue's drain runs on the pool that is
// already there; each round posts the items and then waits for a last one, as sync() does.
void BM_Baseline_DequeWorkerThroughput(benchmark::State& state) {
  constexpr int kItems = 10000;
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<std::function<void()>> items;
  bool stop = false;
  std::thread worker([&] {
    std::unique_lock lock(mutex);
    while (true) {
      cv.wait(lock, [&] { return stop || !items.empty(); });
      if (items.empty()) return;
      auto item = std::move(items.front());
      items.pop_front();
      lock.unlock();
      item();
      lock.lock();
    }
  });
  auto post = [&](std::function<void()> item) {
    {
      std::lock_guard lock(mutex);
      items.push_back(std::move(item));
    }
    cv.notify_one();
  };
  for (auto _ : state) {
    std::atomic<int> done{0};
    for (int i = 0; i < kItems; ++i) post([&] { done.fetch_add(1, std::memory_order_relaxed); });
    std::mutex syncMutex;
    std::condition_variable synced;
    bool reached = false;
    post([&] {
      std::lock_guard lock(syncMutex);
      reached = true;
      synced.notify_one();
    });
    std::unique_lock lock(syncMutex);
    synced.wait(lock, [&] { return reached; });
  }
  {
    std::lock_guard lock(mutex);
    stop = true;
  }
  cv.notify_one();
  worker.join();
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_Baseline_DequeWorkerThroughput)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SerialQueueThroughput(benchmark::State& state) {
  constexpr int kItems = 10000;
  auto queue = kp::SerialQueue::make("bench.serial");
  for (auto _ : state) {
    std::atomic<int> done{0};
    for (int i = 0; i < kItems; ++i) queue->async([&] { done.fetch_add(1, std::memory_order_relaxed); });
    queue->sync([] {});
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_SerialQueueThroughput)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
