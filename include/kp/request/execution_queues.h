// The two queues without an operation queue behind them:
//
//   DirectExecutionQueue: every request's default queue. It runs one request, once, at once
//     on the calling thread (the handler then works on its session's threads). Cancelling
//     cancels the handler and drops a result that still arrives.
//   SynchronousRequestQueue: runs the handler and blocks the caller until the result is
//     there, then completes the request on the calling thread. It cannot cancel. It must not
//     be used on a thread that the transfer's callbacks need: a session's delegate queue, or
//     the library's pool when every pool thread might be blocked in it at once.
//     A handler that ends without a result (a transfer cancelled elsewhere) releases the
//     caller without one.
//
// Thread safety: every operation may be called from any thread.
//
// Example:
//   request->setQueue(std::make_shared<kp::SynchronousRequestQueue>());
//   (void)request->execute();   // returns once the completion has run
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>

#include "kp/platform/export.h"
#include "kp/request/request_types.h"

namespace kp {

// Runs a request at once on the calling thread (see the top of this file).
class KP_EXPORT DirectExecutionQueue final : public RequestQueueInterface,
                                             public std::enable_shared_from_this<DirectExecutionQueue> {
 public:
  // Only the first call does anything: it keeps the request and starts its handler.
  void addRequest(const std::shared_ptr<RequestType>& request) override;
  // Cancels the request's handler and lets go of the kept request, so that a late result is
  // dropped.
  void cancelRequest(const std::shared_ptr<RequestType>& request) override;
  void cancelAll() override {}
  [[nodiscard]] std::int64_t maxConcurrentRequests() const override { return std::numeric_limits<std::int64_t>::max(); }
  void setMaxConcurrentRequests(std::int64_t) override {}

  // Whether a request was added.
  [[nodiscard]] bool isUsed() const;

 private:
  // The handler answered (`result`), or let go of its completion without answering (null).
  void handlerEnded(const std::shared_ptr<RequestResult>& result);

  mutable std::mutex mutex_;
  bool isUsed_ = false;                   // guarded by mutex_
  std::shared_ptr<RequestType> request_;  // guarded by mutex_
};

// Runs a request and blocks until its result is there (see the top of this file).
class KP_EXPORT SynchronousRequestQueue final : public RequestQueueInterface {
 public:
  void addRequest(const std::shared_ptr<RequestType>& request) override;
  void cancelRequest(const std::shared_ptr<RequestType>&) override {}
  void cancelAll() override {}
  [[nodiscard]] std::int64_t maxConcurrentRequests() const override { return 1; }
  void setMaxConcurrentRequests(std::int64_t) override {}
};

}  // namespace kp
