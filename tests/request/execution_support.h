// Helpers of the execution and typed-request tests: a loopback server that counts what it
// receives and can hold requests at a gate, and a collector of completions.
#pragma once

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kp/platform/dispatch.h"
#include "support/test_servers.h"
#include "support/wait.h"

namespace kp::test {

using namespace std::chrono_literals;

// Answers GET /item/NAME with "item NAME" after the gate opens (it starts open), and notes
// the order of arrival and how many requests it held at once. Other routes are added
// through server() before start().
class CountingServer {
 public:
  explicit CountingServer(const SelfSignedCertificate* certificate = nullptr) : server_(certificate) {
    server_.server().set_tcp_nodelay(true);
    server_.server().Get("/item/([^/]+)", [this](const httplib::Request& q, httplib::Response& r) {
      std::unique_lock lock(mutex_);
      arrivals_.push_back(q.matches[1]);
      maxInFlight_ = std::max(maxInFlight_, ++inFlight_);
      changed_.notify_all();
      changed_.wait_for(lock, 20s, [this] { return open_; });
      --inFlight_;
      r.set_content("item " + std::string(q.matches[1]), "text/plain");
    });
  }
  ~CountingServer() {
    open();
    server_.stop();
  }

  httplib::Server& server() { return server_.server(); }
  void start() { server_.start(); }
  [[nodiscard]] std::string url(const std::string& path) const { return server_.url(path); }

  void close() {
    std::lock_guard lock(mutex_);
    open_ = false;
  }
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  // Waits until `count` requests have arrived at /item; false after `limit`.
  bool waitForArrivals(std::size_t count, std::chrono::milliseconds limit = 10s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return arrivals_.size() >= count; });
  }
  [[nodiscard]] std::vector<std::string> arrivals() {
    std::lock_guard lock(mutex_);
    return arrivals_;
  }
  [[nodiscard]] int maxInFlight() {
    std::lock_guard lock(mutex_);
    return maxInFlight_;
  }

 private:
  TestServer server_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = true;                   // guarded by mutex_
  std::vector<std::string> arrivals_;  // guarded by mutex_
  int inFlight_ = 0;                   // guarded by mutex_
  int maxInFlight_ = 0;                // guarded by mutex_
};

// Gathers completions from any thread, with the thread each ran on.
template <class Result>
class Completions {
 public:
  // A completion handler that records into this collector.
  auto handler() {
    return [this](const std::shared_ptr<Result>& result) {
      std::lock_guard lock(mutex_);
      results_.push_back(result);
      onMainThread_.push_back(isMainThread());
      arrived_.notify_all();
    };
  }
  // Waits for `count` completions without draining the main queue.
  bool waitFor(std::size_t count, std::chrono::milliseconds limit = 10s) {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, limit, [&] { return results_.size() >= count; });
  }
  // Drains the main queue until `count` completions came (or `limit` passed).
  bool drainFor(std::size_t count, std::chrono::milliseconds limit = 10s) {
    return eventuallyOnMain([&] { return size() >= count; }, limit);
  }
  [[nodiscard]] std::size_t size() {
    std::lock_guard lock(mutex_);
    return results_.size();
  }
  [[nodiscard]] std::shared_ptr<Result> at(std::size_t index) {
    std::lock_guard lock(mutex_);
    return index < results_.size() ? results_[index] : nullptr;
  }
  [[nodiscard]] bool allOnMainThread() {
    std::lock_guard lock(mutex_);
    return std::all_of(onMainThread_.begin(), onMainThread_.end(), [](bool b) { return b; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::shared_ptr<Result>> results_;  // guarded by mutex_
  std::vector<bool> onMainThread_;                // guarded by mutex_
};

}  // namespace kp::test
