// The dispatch helpers: main-thread work inline or queued in order, and run-once tokens that
// make late callers wait for the block and let a failed block run again.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "kp/foundation/dispatch.h"

namespace {

using namespace std::chrono_literals;

TEST(DispatchHelpers, MainThreadWorkRunsAtOnceThereAndQueuedInOrderFromElsewhere) {
  ASSERT_TRUE(kp::isMainThread());
  bool ranInline = false;
  kp::runOnMainThread([&] { ranInline = true; });
  EXPECT_TRUE(ranInline);

  std::vector<int> order;
  std::promise<void> posted;
  kp::runInBackground([&] {
    EXPECT_FALSE(kp::isMainThread());
    for (int i = 0; i < 3; ++i) {
      kp::runOnMainThread([&order, i] {
        EXPECT_TRUE(kp::isMainThread());
        order.push_back(i);
      });
    }
    posted.set_value();
  });
  ASSERT_EQ(posted.get_future().wait_for(5s), std::future_status::ready);
  EXPECT_TRUE(order.empty());  // nothing runs until the host drains the main queue
  kp::MainQueue::shared()->runPending();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST(DispatchHelpers, RunOnceRunsOnceAndLateCallersWaitForTheBlock) {
  kp::Once once;
  std::atomic<int> calls{0};
  std::atomic<int> tokenCalls{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < 100; ++k) {
        once.run([&] { calls.fetch_add(1); });
        kp::runOnce("test.runOnce.token", [&] { tokenCalls.fetch_add(1); });
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(calls.load(), 1);
  EXPECT_EQ(tokenCalls.load(), 1);

  // A caller that comes while the block runs returns only after it has finished.
  std::promise<void> started;
  std::promise<void> release;
  std::atomic<bool> finished{false};
  std::thread first([&] {
    kp::runOnce("test.runOnce.slow", [&] {
      started.set_value();
      release.get_future().wait();
      finished = true;
    });
  });
  started.get_future().wait();
  std::atomic<bool> sawFinished{false};
  std::thread late([&] {
    kp::runOnce("test.runOnce.slow", [] { ADD_FAILURE() << "ran twice"; });
    sawFinished = finished.load();
  });
  std::this_thread::sleep_for(50ms);
  release.set_value();
  first.join();
  late.join();
  EXPECT_TRUE(sawFinished);

  // A block that throws has not run; the next caller runs it.
  int attempts = 0;
  EXPECT_THROW(kp::runOnce("test.runOnce.throws",
                           [&] {
                             ++attempts;
                             throw std::runtime_error("not yet");
                           }),
               std::runtime_error);
  kp::runOnce("test.runOnce.throws", [&] { ++attempts; });
  kp::runOnce("test.runOnce.throws", [&] { ++attempts; });
  EXPECT_EQ(attempts, 2);
}

}  // namespace
