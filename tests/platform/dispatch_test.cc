// Executors: ordering, draining, sync semantics, task-local bindings and timers.
#include "kp/platform/dispatch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "kp/platform/task_local.h"
#include "platform/fd_watch.h"
#include "support/wait.h"

using namespace std::chrono_literals;

namespace {

using kp::test::eventually;

TEST(SerialQueue, KeepsPostingOrderUnderLoadFromManyThreads) {
  auto queue = kp::SerialQueue::make("test.order");
  constexpr int kThreads = 4;
  constexpr int kPerThread = 2000;
  std::vector<std::vector<int>> seen(kThreads);
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        queue->async([&, t, i] {
          if (running.fetch_add(1) != 0) overlapped = true;
          seen[t].push_back(i);
          running.fetch_sub(1);
        });
        if (i % 500 == 0) queue->sync([] {});  // sync calls interleaved with async ones
      }
    });
  }
  for (auto& p : posters) p.join();
  queue->sync([] {});  // everything posted before has run
  EXPECT_FALSE(overlapped);
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(seen[t].size(), static_cast<size_t>(kPerThread));
    for (int i = 0; i < kPerThread; ++i) ASSERT_EQ(seen[t][i], i) << "thread " << t;
  }
}

TEST(SerialQueue, SyncRunsAfterEarlierWorkAndInlineWhenNested) {
  auto queue = kp::SerialQueue::make("test.sync");
  std::vector<int> order;
  std::promise<void> release;
  auto released = release.get_future().share();
  queue->async([&, released] {
    released.wait();
    order.push_back(1);
  });
  queue->async([&] { order.push_back(2); });
  std::thread unblock([&] {
    std::this_thread::sleep_for(20ms);
    release.set_value();
  });
  const int value = queue->syncValue([&] {
    order.push_back(3);
    // A nested sync on the same queue must not wait for itself.
    queue->sync([&] { order.push_back(4); });
    return 7;
  });
  unblock.join();
  EXPECT_EQ(value, 7);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_FALSE(queue->isCurrent());
}

TEST(SerialQueue, ProgressesWhenEveryPoolThreadBlocksInSync) {
  // More blockers than pool threads, each waiting in sync() on a queue that has work
  // queued: the queue must not depend on a free pool thread to make progress.
  auto queue = kp::SerialQueue::make("test.starve");
  std::atomic<int> ran{0};
  for (int i = 0; i < 8; ++i) queue->async([&] { ran.fetch_add(1); });
  std::atomic<int> finished{0};
  const int blockers = static_cast<int>(std::thread::hardware_concurrency()) * 2 + 2;
  for (int i = 0; i < blockers; ++i) {
    kp::globalQueue()->async([&] {
      queue->sync([&] { ran.fetch_add(1); });
      finished.fetch_add(1);
    });
  }
  ASSERT_TRUE(eventually([&] { return finished.load() == blockers; }));
  EXPECT_EQ(ran.load(), 8 + blockers);
}

TEST(SerialQueue, RunsNowOnlyWhenIdleAndNeverAheadOfQueuedWork) {
  auto queue = kp::SerialQueue::make("test.now");
  std::vector<int> order;
  bool current = false;
  ASSERT_TRUE(queue->runNowIfIdle([&] {
    current = queue->isCurrent();
    order.push_back(1);
    // Work posted meanwhile waits for this item and then runs on the pool.
    queue->async([&] { order.push_back(2); });
    EXPECT_FALSE(queue->runNowIfIdle([&] { order.push_back(-1); }));
  }));
  EXPECT_TRUE(current);
  EXPECT_FALSE(queue->isCurrent());

  std::promise<void> release;
  auto released = release.get_future().share();
  queue->async([&, released] {
    released.wait();
    order.push_back(3);
  });
  EXPECT_FALSE(queue->runNowIfIdle([&] { order.push_back(-1); }));
  release.set_value();
  queue->sync([] {});
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));

  // Work for the main queue, or for a queue that targets it, belongs to the main thread.
  auto onMain = kp::SerialQueue::make("test.now.main", kp::MainQueue::shared());
  std::thread other([&] {
    EXPECT_FALSE(kp::MainQueue::shared()->runNowIfIdle([] {}));
    EXPECT_FALSE(onMain->runNowIfIdle([] {}));
  });
  other.join();
}

TEST(MainQueue, RunsNothingUntilDrainedThenRunsOnTheDrainingThread) {
  auto main = kp::MainQueue::shared();
  main->runPending();  // start from an empty queue
  std::atomic<int> ran{0};
  std::thread::id ranOn;
  bool sawMainThread = false;
  std::thread poster([&] {
    for (int i = 0; i < 3; ++i) {
      main->async([&] {
        ran.fetch_add(1);
        ranOn = std::this_thread::get_id();
        sawMainThread = kp::isMainThread() && main->isCurrent();
      });
    }
  });
  poster.join();
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(ran.load(), 0);
  EXPECT_EQ(main->runPending(), 3u);
  EXPECT_EQ(ran.load(), 3);
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(sawMainThread);
}

TEST(MainQueue, RunForStopsAtTheDeadlineOrOnStopAndWakesTheHost) {
  auto main = kp::MainQueue::shared();
  const auto start = std::chrono::steady_clock::now();
  main->runFor(30ms);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 25ms);

  std::atomic<int> wakeups{0};
  main->setWakeupHandler([&] { wakeups.fetch_add(1); });
  kp::globalQueue()->async([main] { main->async([main] { main->stop(); }); });
  const auto before = std::chrono::steady_clock::now();
  main->runFor(10s);
  EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
  // The handler runs on the posting thread just after the post, possibly after the drain.
  EXPECT_TRUE(eventually([&] { return wakeups.load() >= 1; }));
  main->setWakeupHandler({});

  // run() returns after stop() posted from another thread.
  std::thread stopper([main] { main->async([main] { main->stop(); }); });
  main->run();
  stopper.join();
}

TEST(TaskLocal, ScopedBindingReachesPostedWorkOnlyFromInsideTheScope) {
  kp::TaskLocal<int> local([] { return std::make_shared<int>(0); });
  auto queue = kp::SerialQueue::make("test.tasklocal");
  std::atomic<int> inside{-1}, outside{-1}, nested{-1}, afterScope{-1}, pool{-1};
  local.withValue(std::make_shared<int>(42), [&] {
    queue->async([&] {
      inside = *local.get();
      // Work posted from posted work inherits the binding too.
      kp::globalQueue()->async([&] { nested = *local.get(); });
    });
    kp::globalQueue()->async([&] { pool = *local.get(); });
  });
  queue->async([&] { outside = *local.get(); });
  afterScope = *local.get();
  ASSERT_TRUE(eventually([&] { return inside >= 0 && outside >= 0 && nested >= 0 && pool >= 0; }));
  EXPECT_EQ(inside.load(), 42);
  EXPECT_EQ(nested.load(), 42);
  EXPECT_EQ(pool.load(), 42);
  EXPECT_EQ(outside.load(), 0);
  EXPECT_EQ(afterScope.load(), 0);
}

TEST(TaskLocal, ConcurrentScopesDoNotSeeEachOther) {
  kp::TaskLocal<int> local([] { return std::make_shared<int>(-1); });
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        local.withValue(std::make_shared<int>(t), [&] {
          local.withValue(std::make_shared<int>(t + 100), [&] {
            if (*local.get() != t + 100) mismatches.fetch_add(1);
          });
          if (*local.get() != t) mismatches.fetch_add(1);
        });
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_FALSE(local.isBound());
}

TEST(Timers, DelayedAndRepeatingWorkRunsOnItsQueueAndStopsWhenInvalidated) {
  auto queue = kp::SerialQueue::make("test.timer");
  std::atomic<bool> delayedOnQueue{false};
  const auto start = std::chrono::steady_clock::now();
  std::atomic<std::chrono::steady_clock::duration> delayedAfter{};
  queue->asyncAfter(30ms, [&] {
    delayedAfter = std::chrono::steady_clock::now() - start;
    delayedOnQueue = queue->isCurrent();
  });
  std::atomic<int> ticks{0};
  auto timer = kp::RepeatingTimer::schedule(queue, 5ms, [&] { ticks.fetch_add(1); });
  ASSERT_TRUE(eventually([&] { return ticks.load() >= 3 && delayedOnQueue.load(); }));
  EXPECT_GE(delayedAfter.load(), 25ms);
  timer->invalidate();
  EXPECT_FALSE(timer->isValid());
  queue->sync([] {});
  const int stoppedAt = ticks.load();
  std::this_thread::sleep_for(40ms);
  queue->sync([] {});
  EXPECT_EQ(ticks.load(), stoppedAt);
}

TEST(FdWatch, RunsAgainForDataThatArrivesWhileTheWorkRunsAndWhenTheDescriptorTakesData) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  auto queue = kp::SerialQueue::make("test.fdwatch");
  std::atomic<int> runs{0};
  // Each run reads the pipe dry, then writes one byte more (until the third run) and lingers,
  // so that the byte arrives while the run is still under way: it must bring the next run.
  auto watch = kp::platform::FdWatch::watchReadable(::dup(ends[0]), queue, [&] {
    char buffer[64];
    while (::read(ends[0], buffer, sizeof buffer) == sizeof buffer) {
    }
    if (runs.fetch_add(1) < 2) (void)!::write(ends[1], "x", 1);
    std::this_thread::sleep_for(20ms);
  });
  ASSERT_TRUE(watch);
  ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
  ASSERT_EQ(::write(ends[1], "x", 1), 1);
  EXPECT_TRUE(eventually([&] { return runs.load() == 3; }, 2000ms)) << runs.load();

  std::atomic<int> writable{0};
  auto writer = kp::platform::FdWatch::watchReadable(::dup(ends[1]), queue, [&] { writable.fetch_add(1); });
  ASSERT_TRUE(writer);
  writer->runWhenWritable();
  EXPECT_TRUE(eventually([&] { return writable.load() == 1; }));
  watch.reset();
  writer.reset();
  ::close(ends[0]);
  ::close(ends[1]);
}

}  // namespace
