// The operation queue of requests and its operations.
#include "kp/request/request_queue.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "handler_completion.h"
#include "kp/platform/dispatch.h"

namespace kp {

// MARK: - Operation

RequestQueueOperation::RequestQueueOperation(std::shared_ptr<RequestType> request,
                                             std::weak_ptr<RequestQueueOperationDelegate> delegate)
    : request_(std::move(request)),
      delegate_(std::move(delegate)),
      queuePriority_(queuePriorityFor(request_->priority())) {}

int RequestQueueOperation::queuePriorityFor(RequestPriority priority) noexcept {
  const std::int64_t raw = static_cast<int>(priority);
  if (raw >= 3) return kQueuePriorityNormal;
  // Far below "low" stays far below it, without overflowing.
  return static_cast<int>(std::max<std::int64_t>(raw * 4 - 4, std::numeric_limits<int>::min()));
}

void RequestQueueOperation::announce(bool didChange, RequestQueueOperationDelegate::Key key) {
  auto delegate = delegate_.lock();
  if (!delegate) return;
  if (didChange) {
    delegate->operationDidChange(*this, key);
  } else {
    delegate->operationWillChange(*this, key);
  }
}

void RequestQueueOperation::start() {
  {
    std::lock_guard lock(lock_);
    if (cancelled_.load() || executing_.load() || finished_.load()) return;
    announce(false, RequestQueueOperationDelegate::Key::isExecuting);
    executing_.store(true);
    announce(true, RequestQueueOperationDelegate::Key::isExecuting);
  }
  // Weakly: the handler keeps its completion as long as the request lives, and the request
  // lives in this operation.
  internal::runHandler(request_, [weak = weak_from_this()](const std::shared_ptr<RequestResult>& result) {
    if (auto self = weak.lock()) self->handlerEnded(result);
  });
  // A cancel that came while the handler was being started found no transfer to stop.
  if (cancelled_.load()) {
    if (const auto handler = request_->handler()) handler->cancel();
  }
}

void RequestQueueOperation::handlerEnded(const std::shared_ptr<RequestResult>& result) {
  // Checked before locking: a handler cancelled by cancel() may end inside it, on this thread.
  if (cancelled_.load() || finished_.load()) return;
  if (result && delegate_.lock()) request_->handleCompletion(result);
  {
    std::lock_guard lock(lock_);
    if (cancelled_.load() || finished_.load() || !executing_.load()) return;
    moveToFinished();
  }
  if (auto delegate = delegate_.lock()) delegate->operationDidEnd(*this);
}

void RequestQueueOperation::moveToFinished() {
  announce(false, RequestQueueOperationDelegate::Key::isExecuting);
  announce(false, RequestQueueOperationDelegate::Key::isFinished);
  executing_.store(false);
  finished_.store(true);
  announce(true, RequestQueueOperationDelegate::Key::isExecuting);
  announce(true, RequestQueueOperationDelegate::Key::isFinished);
}

void RequestQueueOperation::cancel() {
  {
    std::lock_guard lock(lock_);
    if (cancelled_.load() || finished_.load()) return;
    // Before the handler is cancelled, so that its end, reported from inside cancel(), is
    // recognised as this cancel and ignored.
    cancelled_.store(true);
    if (!executing_.load()) return;
    if (const auto handler = request_->handler()) handler->cancel();
    moveToFinished();
  }
  if (auto delegate = delegate_.lock()) delegate->operationDidEnd(*this);
}

// MARK: - Queue

namespace {
// Set while this thread starts an operation, so that operations ending inside that start
// have their successors posted instead of started deeper in the same stack.
thread_local bool startingInline = false;
}  // namespace

void RequestQueue::addRequest(const std::shared_ptr<RequestType>& request) {
  if (!request) return;
  auto operation = std::make_shared<RequestQueueOperation>(request, weak_from_this());
  {
    std::lock_guard lock(mutex_);
    const Sequence sequence = nextSequence_++;
    sequences_.emplace(operation.get(), sequence);
    waiting_.emplace(-operation->queuePriority(), sequence);
    operations_.emplace(sequence, std::move(operation));
    claimWaiting();
  }
  startReady();
}

void RequestQueue::claimWaiting() {
  while (!waiting_.empty() && (maxConcurrent_ < 0 || running_.size() < static_cast<std::uint64_t>(maxConcurrent_))) {
    const Sequence sequence = waiting_.begin()->second;
    waiting_.erase(waiting_.begin());
    running_.insert(sequence);
    ready_.push_back(operations_.at(sequence));
  }
}

void RequestQueue::startReady() {
  while (true) {
    std::vector<std::shared_ptr<RequestQueueOperation>> starting;
    {
      std::lock_guard lock(mutex_);
      starting.swap(ready_);
    }
    if (starting.empty()) return;
    for (auto& operation : starting) {
      // The thread that finished an operation starts the next one: a hand-over to the pool
      // would cost a thread wake-up per request. The main thread never runs a handler.
      if (isMainThread() || startingInline) {
        globalQueue()->async([weak = weak_from_this(), operation = std::move(operation)] {
          if (auto self = weak.lock()) {
            self->start(*operation);
            self->startReady();
          } else {
            operation->start();
          }
        });
      } else {
        startingInline = true;
        start(*operation);
        startingInline = false;
      }
    }
  }
}

void RequestQueue::start(RequestQueueOperation& operation) {
  operation.start();
  // An operation cancelled before it started says nothing: its place is freed here.
  if (operation.isFinished() && !operation.isExecuting()) operationEnded(operation);
}

void RequestQueue::operationEnded(const RequestQueueOperation& operation) {
  std::shared_ptr<RequestQueueOperation> released;  // destroyed after the lock is let go
  std::lock_guard lock(mutex_);
  const auto found = sequences_.find(&operation);
  if (found == sequences_.end()) return;
  const Sequence sequence = found->second;
  sequences_.erase(found);
  running_.erase(sequence);
  waiting_.erase({-operation.queuePriority(), sequence});
  const auto held = operations_.find(sequence);
  released = std::move(held->second);
  operations_.erase(held);
  claimWaiting();
}

void RequestQueue::forgetIfFinished(const std::shared_ptr<RequestQueueOperation>& operation) {
  if (operation->isFinished() && !operation->isExecuting()) operationEnded(*operation);
  startReady();
}

void RequestQueue::cancelRequest(const std::shared_ptr<RequestType>& request) {
  std::shared_ptr<RequestQueueOperation> target;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [sequence, operation] : operations_) {
      if (operation->request() == request && !operation->isFinished()) {
        target = operation;
        break;
      }
    }
  }
  if (!target) return;
  target->cancel();
  forgetIfFinished(target);
}

void RequestQueue::cancelAll() {
  std::vector<std::shared_ptr<RequestQueueOperation>> all;
  {
    std::lock_guard lock(mutex_);
    all.reserve(operations_.size());
    for (const auto& [sequence, operation] : operations_) all.push_back(operation);
  }
  for (const auto& operation : all) {
    operation->cancel();
    forgetIfFinished(operation);
  }
}

std::int64_t RequestQueue::maxConcurrentRequests() const {
  std::lock_guard lock(mutex_);
  return maxConcurrent_;
}

void RequestQueue::setMaxConcurrentRequests(std::int64_t count) {
  {
    std::lock_guard lock(mutex_);
    maxConcurrent_ = count;
    claimWaiting();
  }
  startReady();
}

std::size_t RequestQueue::numberOfRequestsInQueue() const {
  std::lock_guard lock(mutex_);
  return operations_.size();
}

void RequestQueue::operationWillChange(RequestQueueOperation&, Key) {}

void RequestQueue::operationDidChange(RequestQueueOperation& operation, Key key) {
  if (key == Key::isFinished && operation.isFinished()) operationEnded(operation);
}

void RequestQueue::operationDidEnd(RequestQueueOperation&) { startReady(); }

}  // namespace kp
