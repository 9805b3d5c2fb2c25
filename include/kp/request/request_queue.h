// kp::RequestQueue: an operation queue for requests. It runs at most
// maxConcurrentRequests() handlers at a time (2 by default) and starts waiting requests by
// priority (high, normal, low; values outside the three count as normal), in the order they
// arrived within one priority. Handlers start on the library's threads, never on the main
// thread: on the pool, or on the thread that has just finished the operation before them
// (which spares a thread hand-off per request).
//
// Each request travels as a kp::RequestQueueOperation: pending, then executing, then
// finished, with "cancelled" as a flag beside them. An operation cancelled before it started
// only gets the flag: it reads as finished from then on, its start does nothing, and its
// handler is never called. Cancelling an executing operation cancels its handler, and its
// result, should one still arrive, is dropped. Operations announce each change of
// "isExecuting" and "isFinished" to the queue (will-change before, did-change after),
// inside their lock; the queue starts the next operation when one finishes.
//
// Ownership: the queue holds its operations until they finish; an operation holds its
// request; a request holds its queue. A queue that nobody else holds thus lives until its
// last operation has finished.
//
// Thread safety: every operation may be called from any thread. The flags of an operation
// may be read without its lock.
//
// Example:
//   auto queue = kp::RequestQueue::make();
//   for (const auto& url : urls) {
//     auto request = kp::DataRequest::make(url);
//     request->setQueue(queue);
//     request->setPriority(kp::RequestPriority::high);
//     (void)request->execute([](const std::shared_ptr<kp::DataRequestResult>& result) { ... });
//   }
//   queue->numberOfRequestsInQueue();   // running or waiting
#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "kp/platform/export.h"
#include "kp/request/request_types.h"

namespace kp {

class RequestQueueOperation;

// Learns of an operation's changes; the queue that made the operation.
class KP_EXPORT RequestQueueOperationDelegate {
 public:
  // The flag of an operation that changes.
  enum class Key { isExecuting, isFinished };

  virtual ~RequestQueueOperationDelegate() = default;
  // Called inside the operation's lock: must not call back into the operation except to
  // read its flags.
  virtual void operationWillChange(RequestQueueOperation& operation, Key key) = 0;
  // Called after the flag changed, inside the operation's lock as operationWillChange().
  virtual void operationDidChange(RequestQueueOperation& operation, Key key) = 0;
  // Called once an executing operation has finished (or was cancelled), after it let go of
  // its lock; the delegate may start further work from here.
  virtual void operationDidEnd(RequestQueueOperation&) {}
};

// One request on its way through a RequestQueue (see the top of this file).
class KP_EXPORT RequestQueueOperation final : public std::enable_shared_from_this<RequestQueueOperation> {
 public:
  // Operation priorities of the platform: low.
  static constexpr int kQueuePriorityLow = -4;
  // Operation priorities of the platform: normal.
  static constexpr int kQueuePriorityNormal = 0;
  // Operation priorities of the platform: high.
  static constexpr int kQueuePriorityHigh = 4;

  // Pending; runs `request` when started and tells `delegate` of its changes.
  RequestQueueOperation(std::shared_ptr<RequestType> request, std::weak_ptr<RequestQueueOperationDelegate> delegate);

  // p × 4 − 4 for a raw priority p below 3 (low −4, normal 0, high 4); 0 for anything else.
  [[nodiscard]] static int queuePriorityFor(RequestPriority priority) noexcept;

  ~RequestQueueOperation();
  RequestQueueOperation(const RequestQueueOperation&) = delete;
  RequestQueueOperation& operator=(const RequestQueueOperation&) = delete;

  // queuePriorityFor() of the request's priority when the operation was made.
  [[nodiscard]] int queuePriority() const noexcept;
  // Always true: the operation finishes when its handler answers, not when start() returns.
  [[nodiscard]] bool isAsynchronous() const noexcept { return true; }
  // True from start() until the handler has answered or the operation was cancelled.
  [[nodiscard]] bool isExecuting() const noexcept;
  // True once finished, and for an operation cancelled before it finished.
  [[nodiscard]] bool isFinished() const noexcept;
  // True once the operation was cancelled before it finished.
  [[nodiscard]] bool isCancelled() const noexcept;
  // The request the operation runs.
  [[nodiscard]] const std::shared_ptr<RequestType>& request() const noexcept;

  // Unless cancelled: becomes executing and starts the request's handler.
  void start();
  // Unless cancelled or finished: cancels the handler of an executing operation (which then
  // finishes) and sets the cancelled flag.
  void cancel();

 private:
  // The handler answered, or let go of its completion without answering (`result` null).
  void handlerEnded(const std::shared_ptr<RequestResult>& result);
  // REQUIRES: the operation's lock held and the operation executing.
  void moveToFinished();
  void announce(bool didChange, RequestQueueOperationDelegate::Key key);

  // The request, the delegate, the lock and the three flags.
  struct State;
  const std::unique_ptr<State> state_;
};

class KP_EXPORT RequestQueue final : public RequestQueueInterface, public std::enable_shared_from_this<RequestQueue> {
 public:
  // How many handlers a new queue runs at once.
  static constexpr std::int64_t kDefaultMaxConcurrentRequests = 2;
  // The platform's "utility" quality of service.
  static constexpr int kQualityOfServiceUtility = 17;

  // A new, empty queue.
  [[nodiscard]] static std::shared_ptr<RequestQueue> make() { return std::make_shared<RequestQueue>(); }

  RequestQueue();
  ~RequestQueue() override;
  RequestQueue(const RequestQueue&) = delete;
  RequestQueue& operator=(const RequestQueue&) = delete;

  void addRequest(const std::shared_ptr<RequestType>& request) override;
  // Cancels the first operation, in order of arrival, that runs `request`.
  void cancelRequest(const std::shared_ptr<RequestType>& request) override;
  void cancelAll() override;
  // At most this many handlers run at once; 0 starts nothing new (a paused queue) and a
  // negative value means no limit. Raising it starts waiting requests at once.
  [[nodiscard]] std::int64_t maxConcurrentRequests() const override;
  // Changes the limit; see maxConcurrentRequests().
  void setMaxConcurrentRequests(std::int64_t count) override;
  // Kept for hosts that read it back; the pool has a single class of service.
  [[nodiscard]] int qualityOfService() const noexcept;
  // Stores a value for qualityOfService(); it changes nothing else.
  void setQualityOfService(int value) noexcept;
  // Operations running or waiting.
  [[nodiscard]] std::size_t numberOfRequestsInQueue() const;

 private:
  // The operations, their order and the places they hold; the delegate of every operation.
  class State;
  const std::shared_ptr<State> state_;
};

}  // namespace kp
