// The direct and the synchronous queue.
#include "kp/request/execution_queues.h"

#include <condition_variable>

#include "handler_completion.h"

namespace kp {

// MARK: - Direct

bool DirectExecutionQueue::isUsed() const {
  std::lock_guard lock(mutex_);
  return isUsed_;
}

void DirectExecutionQueue::addRequest(const std::shared_ptr<RequestType>& request) {
  if (!request) return;
  {
    std::lock_guard lock(mutex_);
    if (isUsed_) return;
    isUsed_ = true;
    request_ = request;
  }
  // Weakly: the request holds this queue, and the handler holds its completion.
  internal::runHandler(request, [weak = weak_from_this()](const std::shared_ptr<RequestResult>& result) {
    if (auto self = weak.lock()) self->handlerEnded(result);
  });
}

void DirectExecutionQueue::handlerEnded(const std::shared_ptr<RequestResult>& result) {
  std::shared_ptr<RequestType> request;
  {
    std::lock_guard lock(mutex_);
    request = std::move(request_);
    request_ = nullptr;
  }
  if (request && result) request->handleCompletion(result);
}

void DirectExecutionQueue::cancelRequest(const std::shared_ptr<RequestType>& request) {
  if (!request) return;
  if (const auto handler = request->handler()) handler->cancel();
  std::shared_ptr<RequestType> released;  // may be the last reference: let go outside the lock
  std::lock_guard lock(mutex_);
  released = std::move(request_);
  request_ = nullptr;
}

// MARK: - Synchronous

void SynchronousRequestQueue::addRequest(const std::shared_ptr<RequestType>& request) {
  if (!request) return;
  struct Outcome {
    std::mutex mutex;
    std::condition_variable ended;
    bool done = false;                      // guarded by mutex
    std::shared_ptr<RequestResult> result;  // guarded by mutex
  };
  auto outcome = std::make_shared<Outcome>();
  internal::runHandler(request, [outcome](const std::shared_ptr<RequestResult>& result) {
    std::lock_guard lock(outcome->mutex);
    outcome->result = result;
    outcome->done = true;
    outcome->ended.notify_all();
  });
  std::shared_ptr<RequestResult> result;
  {
    std::unique_lock lock(outcome->mutex);
    outcome->ended.wait(lock, [&] { return outcome->done; });
    result = std::move(outcome->result);
  }
  if (result) request->handleCompletion(result);
}

}  // namespace kp
