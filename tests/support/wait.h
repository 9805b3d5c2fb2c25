// Test helper: waiting, bounded, for a condition that other threads (or the main queue) make
// true. Any thread may call it; the draining form makes the calling thread the main thread.
#pragma once

#include <chrono>
#include <thread>
#include <utility>

#include "kp/platform/dispatch.h"

namespace kp::test {

// What the waiting thread does between two looks at the condition.
enum class WhileWaiting {
  sleep,
  drainMainQueue,  // runs the main queue's work, for conditions that wait on it
};

// Looks at `condition` until it holds or `limit` has passed; returns whether it held.
template <class Condition>
bool eventually(Condition&& condition, std::chrono::milliseconds limit = std::chrono::seconds(10),
                WhileWaiting meanwhile = WhileWaiting::sleep) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    if (meanwhile == WhileWaiting::drainMainQueue) {
      MainQueue::shared()->runFor(std::chrono::milliseconds(2));
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  return true;
}

// The same, running the main queue meanwhile.
template <class Condition>
bool eventuallyOnMain(Condition&& condition, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  return eventually(std::forward<Condition>(condition), limit, WhileWaiting::drainMainQueue);
}

}  // namespace kp::test
