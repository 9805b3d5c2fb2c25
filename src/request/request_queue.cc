// The operation queue of requests and its operations.
#include "kp/request/request_queue.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <map>
#include <set>
#include <vector>

#include "handler_completion.h"
#include "kp/platform/dispatch.h"
#include "platform/mutex.h"

namespace kp {

// MARK: - Operation

struct RequestQueueOperation::State {
  State(std::shared_ptr<RequestType> request, std::weak_ptr<RequestQueueOperationDelegate> delegate)
      : request_(std::move(request)),
        delegate_(std::move(delegate)),
        queuePriority_(queuePriorityFor(request_->priority())) {}

  const std::shared_ptr<RequestType> request_;
  const std::weak_ptr<RequestQueueOperationDelegate> delegate_;
  const int queuePriority_;
  Mutex lock_;
  // Written under lock_, read without it.
  std::atomic<bool> executing_{false};
  std::atomic<bool> finished_{false};
  std::atomic<bool> cancelled_{false};
};

RequestQueueOperation::RequestQueueOperation(std::shared_ptr<RequestType> request,
                                             std::weak_ptr<RequestQueueOperationDelegate> delegate)
    : state_(std::make_unique<State>(std::move(request), std::move(delegate))) {}

RequestQueueOperation::~RequestQueueOperation() = default;

int RequestQueueOperation::queuePriority() const noexcept { return state_->queuePriority_; }

bool RequestQueueOperation::isExecuting() const noexcept { return state_->executing_.load(); }

bool RequestQueueOperation::isFinished() const noexcept {
  return state_->finished_.load() || state_->cancelled_.load();
}

bool RequestQueueOperation::isCancelled() const noexcept { return state_->cancelled_.load(); }

const std::shared_ptr<RequestType>& RequestQueueOperation::request() const noexcept { return state_->request_; }

int RequestQueueOperation::queuePriorityFor(RequestPriority priority) noexcept {
  const std::int64_t raw = static_cast<int>(priority);
  if (raw >= 3) return kQueuePriorityNormal;
  // Far below "low" stays far below it, without overflowing.
  return static_cast<int>(std::max<std::int64_t>(raw * 4 - 4, std::numeric_limits<int>::min()));
}

void RequestQueueOperation::announce(bool didChange, RequestQueueOperationDelegate::Key key) {
  auto delegate = state_->delegate_.lock();
  if (!delegate) return;
  if (didChange) {
    delegate->operationDidChange(*this, key);
  } else {
    delegate->operationWillChange(*this, key);
  }
}

void RequestQueueOperation::start() {
  {
    MutexLock lock(state_->lock_);
    if (state_->cancelled_.load() || state_->executing_.load() || state_->finished_.load()) return;
    announce(false, RequestQueueOperationDelegate::Key::isExecuting);
    state_->executing_.store(true);
    announce(true, RequestQueueOperationDelegate::Key::isExecuting);
  }
  // Weakly: the handler keeps its completion as long as the request lives, and the request
  // lives in this operation.
  internal::runHandler(state_->request_, [weak = weak_from_this()](const std::shared_ptr<RequestResult>& result) {
    if (auto self = weak.lock()) self->handlerEnded(result);
  });
  // A cancel that came while the handler was being started found no transfer to stop.
  if (state_->cancelled_.load()) {
    if (const auto handler = state_->request_->handler()) handler->cancel();
  }
}

void RequestQueueOperation::handlerEnded(const std::shared_ptr<RequestResult>& result) {
  // Checked before locking: a handler cancelled by cancel() may end inside it, on this thread.
  if (state_->cancelled_.load() || state_->finished_.load()) return;
  if (result && state_->delegate_.lock()) state_->request_->handleCompletion(result);
  {
    MutexLock lock(state_->lock_);
    if (state_->cancelled_.load() || state_->finished_.load() || !state_->executing_.load()) return;
    moveToFinished();
  }
  if (auto delegate = state_->delegate_.lock()) delegate->operationDidEnd(*this);
}

void RequestQueueOperation::moveToFinished() {
  announce(false, RequestQueueOperationDelegate::Key::isExecuting);
  announce(false, RequestQueueOperationDelegate::Key::isFinished);
  state_->executing_.store(false);
  state_->finished_.store(true);
  announce(true, RequestQueueOperationDelegate::Key::isExecuting);
  announce(true, RequestQueueOperationDelegate::Key::isFinished);
}

void RequestQueueOperation::cancel() {
  {
    MutexLock lock(state_->lock_);
    if (state_->cancelled_.load() || state_->finished_.load()) return;
    // Before the handler is cancelled, so that its end, reported from inside cancel(), is
    // recognised as this cancel and ignored.
    state_->cancelled_.store(true);
    if (!state_->executing_.load()) return;
    if (const auto handler = state_->request_->handler()) handler->cancel();
    moveToFinished();
  }
  if (auto delegate = state_->delegate_.lock()) delegate->operationDidEnd(*this);
}

// MARK: - Queue

namespace {
// Set while this thread starts an operation, so that operations ending inside that start
// have their successors posted instead of started deeper in the same stack.
thread_local bool startingInline = false;
}  // namespace

class RequestQueue::State final : public RequestQueueOperationDelegate, public std::enable_shared_from_this<State> {
 public:
  void add(std::shared_ptr<RequestQueueOperation> operation) EXCLUDES(mutex_);
  // Moves waiting operations to running, and into ready_, while the limit allows.
  void claimWaiting() REQUIRES(mutex_);
  // Starts the ready operations: on this thread unless it is the main thread or already
  // starting one, otherwise on the pool.
  void startReady() EXCLUDES(mutex_);
  void start(RequestQueueOperation& operation);
  // Forgets an operation that reads as finished and claims the places it frees.
  void operationEnded(const RequestQueueOperation& operation) EXCLUDES(mutex_);
  // Drops cancelled operations that never started.
  void forgetIfFinished(const std::shared_ptr<RequestQueueOperation>& operation);
  [[nodiscard]] std::shared_ptr<RequestQueueOperation> firstRunning(const std::shared_ptr<RequestType>& request)
      EXCLUDES(mutex_);
  [[nodiscard]] std::vector<std::shared_ptr<RequestQueueOperation>> all() EXCLUDES(mutex_);
  [[nodiscard]] std::int64_t maxConcurrent() const EXCLUDES(mutex_);
  void setMaxConcurrent(std::int64_t count) EXCLUDES(mutex_);
  [[nodiscard]] std::size_t count() const EXCLUDES(mutex_);

  void operationWillChange(RequestQueueOperation&, Key) override {}
  void operationDidChange(RequestQueueOperation& operation, Key key) override {
    if (key == Key::isFinished && operation.isFinished()) operationEnded(operation);
  }
  void operationDidEnd(RequestQueueOperation&) override { startReady(); }

  std::atomic<int> qualityOfService{kQualityOfServiceUtility};

 private:
  using Sequence = std::uint64_t;
  // Waiting operations in start order: higher priority first, then earlier arrival.
  using WaitingKey = std::pair<int, Sequence>;

  mutable Mutex mutex_;
  Sequence nextSequence_ GUARDED_BY(mutex_) = 0;
  std::map<Sequence, std::shared_ptr<RequestQueueOperation>> operations_ GUARDED_BY(mutex_);  // by arrival
  std::set<WaitingKey> waiting_ GUARDED_BY(mutex_);
  std::map<const RequestQueueOperation*, Sequence> sequences_ GUARDED_BY(mutex_);
  std::set<Sequence> running_ GUARDED_BY(mutex_);
  // Claimed places whose operations are not started yet.
  std::vector<std::shared_ptr<RequestQueueOperation>> ready_ GUARDED_BY(mutex_);
  std::int64_t maxConcurrent_ GUARDED_BY(mutex_) = kDefaultMaxConcurrentRequests;
};

void RequestQueue::State::add(std::shared_ptr<RequestQueueOperation> operation) {
  {
    MutexLock lock(mutex_);
    const Sequence sequence = nextSequence_++;
    sequences_.emplace(operation.get(), sequence);
    waiting_.emplace(-operation->queuePriority(), sequence);
    operations_.emplace(sequence, std::move(operation));
    claimWaiting();
  }
  startReady();
}

void RequestQueue::State::claimWaiting() {
  while (!waiting_.empty() && (maxConcurrent_ < 0 || running_.size() < static_cast<std::uint64_t>(maxConcurrent_))) {
    const Sequence sequence = waiting_.begin()->second;
    waiting_.erase(waiting_.begin());
    running_.insert(sequence);
    ready_.push_back(operations_.at(sequence));
  }
}

void RequestQueue::State::startReady() {
  while (true) {
    std::vector<std::shared_ptr<RequestQueueOperation>> starting;
    {
      MutexLock lock(mutex_);
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

void RequestQueue::State::start(RequestQueueOperation& operation) {
  operation.start();
  // An operation cancelled before it started says nothing: its place is freed here.
  if (operation.isFinished() && !operation.isExecuting()) operationEnded(operation);
}

void RequestQueue::State::operationEnded(const RequestQueueOperation& operation) {
  std::shared_ptr<RequestQueueOperation> released;  // destroyed after the lock is let go
  MutexLock lock(mutex_);
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

void RequestQueue::State::forgetIfFinished(const std::shared_ptr<RequestQueueOperation>& operation) {
  if (operation->isFinished() && !operation->isExecuting()) operationEnded(*operation);
  startReady();
}

std::shared_ptr<RequestQueueOperation> RequestQueue::State::firstRunning(const std::shared_ptr<RequestType>& request) {
  MutexLock lock(mutex_);
  for (const auto& [sequence, operation] : operations_) {
    if (operation->request() == request && !operation->isFinished()) return operation;
  }
  return nullptr;
}

std::vector<std::shared_ptr<RequestQueueOperation>> RequestQueue::State::all() {
  std::vector<std::shared_ptr<RequestQueueOperation>> all;
  MutexLock lock(mutex_);
  all.reserve(operations_.size());
  for (const auto& [sequence, operation] : operations_) all.push_back(operation);
  return all;
}

std::int64_t RequestQueue::State::maxConcurrent() const {
  MutexLock lock(mutex_);
  return maxConcurrent_;
}

void RequestQueue::State::setMaxConcurrent(std::int64_t count) {
  {
    MutexLock lock(mutex_);
    maxConcurrent_ = count;
    claimWaiting();
  }
  startReady();
}

std::size_t RequestQueue::State::count() const {
  MutexLock lock(mutex_);
  return operations_.size();
}

RequestQueue::RequestQueue() : state_(std::make_shared<State>()) {}

RequestQueue::~RequestQueue() = default;

void RequestQueue::addRequest(const std::shared_ptr<RequestType>& request) {
  if (!request) return;
  state_->add(std::make_shared<RequestQueueOperation>(request, state_));
}

void RequestQueue::cancelRequest(const std::shared_ptr<RequestType>& request) {
  const auto target = state_->firstRunning(request);
  if (!target) return;
  target->cancel();
  state_->forgetIfFinished(target);
}

void RequestQueue::cancelAll() {
  for (const auto& operation : state_->all()) {
    operation->cancel();
    state_->forgetIfFinished(operation);
  }
}

std::int64_t RequestQueue::maxConcurrentRequests() const { return state_->maxConcurrent(); }

void RequestQueue::setMaxConcurrentRequests(std::int64_t count) { state_->setMaxConcurrent(count); }

int RequestQueue::qualityOfService() const noexcept { return state_->qualityOfService.load(); }

void RequestQueue::setQualityOfService(int value) noexcept { state_->qualityOfService.store(value); }

std::size_t RequestQueue::numberOfRequestsInQueue() const { return state_->count(); }

}  // namespace kp
