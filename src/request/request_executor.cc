// Tickets and the executor: one run of a request, answered from the cache or sent through
// its queue.
#include "kp/request/request_executor.h"

#include "kp/cache/cache_controller.h"
#include "kp/foundation/dispatch.h"
#include "kp/request/request_errors.h"

namespace kp {

namespace {

// Values outside the table behave as idle for the transitions that start from idle.
bool startsFromIdle(RequestTicketState state) {
  switch (state) {
    case RequestTicketState::invalid:
    case RequestTicketState::failed:
    case RequestTicketState::cancelled:
    case RequestTicketState::finished:
      return false;
    case RequestTicketState::idle:
      break;
  }
  return true;
}

bool hasEnded(RequestTicketState state) {
  return state == RequestTicketState::invalid || state == RequestTicketState::failed ||
         state == RequestTicketState::finished;
}

std::shared_ptr<RequestTicketType> alreadyExecutedTicket() {
  auto ticket = std::make_shared<RequestTicket>(std::weak_ptr<RequestExecutor>());
  ticket->setFailedWithError(RequestErrors::alreadyExecutedError());
  return ticket;
}

// The request's cache config when it takes part in caching at all.
const RequestCacheConfig* cacheConfigOf(const RequestType& request) {
  const auto* cacheable = dynamic_cast<const CacheableRequestType*>(&request);
  return cacheable ? cacheable->cacheConfig().get() : nullptr;
}

}  // namespace

// MARK: - Ticket

bool RequestTicketType::isFinished() const {
  const auto s = state();
  return s == RequestTicketState::invalid || s == RequestTicketState::failed || s == RequestTicketState::finished;
}
bool RequestTicketType::failed() const {
  const auto s = state();
  return s == RequestTicketState::invalid || s == RequestTicketState::failed;
}
bool RequestTicketType::isSuccess() const {
  const auto s = state();
  return s == RequestTicketState::idle || s == RequestTicketState::finished;
}
bool RequestTicketType::isCancelled() const { return state() == RequestTicketState::cancelled; }

RequestTicketState RequestTicket::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

ErrorPtr RequestTicket::error() const {
  std::lock_guard lock(mutex_);
  return error_;
}

bool RequestTicket::cancelRequested() const {
  std::lock_guard lock(mutex_);
  return cancelRequested_;
}

void RequestTicket::cancel() {
  {
    std::lock_guard lock(mutex_);
    if (!startsFromIdle(state_)) return;
    cancelRequested_ = true;
  }
  // Outside the lock: the queue may cancel a handler, which may take its time.
  if (auto executor = executor_.lock()) executor->cancel();
  std::lock_guard lock(mutex_);
  // A result that arrived meanwhile stands.
  if (startsFromIdle(state_)) state_ = RequestTicketState::cancelled;
}

void RequestTicket::setFinished() {
  std::lock_guard lock(mutex_);
  if (startsFromIdle(state_)) state_ = RequestTicketState::finished;
}

void RequestTicket::setFailedWithError(ErrorPtr error) {
  std::lock_guard lock(mutex_);
  state_ = RequestTicketState::failed;
  error_ = std::move(error);
}

// MARK: - Executor

const std::shared_ptr<RequestTicket>& RequestExecutor::ticket() {
  ticketOnce_.run([this] { ticket_ = std::make_shared<RequestTicket>(weak_from_this()); });
  return ticket_;
}

std::shared_ptr<RequestTicketType> RequestExecutor::execute() { return run(false); }

std::shared_ptr<RequestTicketType> RequestExecutor::executeLoadingCacheSynchronously() { return run(true); }

std::shared_ptr<RequestTicketType> RequestExecutor::run(bool loadCacheSynchronously) {
  auto request = request_.lock();
  if (!request || executed_.exchange(true)) return alreadyExecutedTicket();
  const auto& ticket = this->ticket();
  const auto& handler = request->handler();
  if (!handler || !request->queue()) {
    ticket->setFailedWithError(RequestErrors::incompleteRequestError());
    return ticket;
  }
  if (auto error = handler->canHandle(request)) {
    ticket->setFailedWithError(std::move(error));
    return ticket;
  }
  const RequestCacheConfig* cache = cacheConfigOf(*request);
  if (cache && cache->key) {
    if (loadCacheSynchronously || cache->forceSynchronousLoad) {
      runCacheStep(request, *cache->key);
    } else {
      runInBackground([self = shared_from_this(), request, key = *cache->key] { self->runCacheStep(request, key); });
    }
    return ticket;
  }
  enqueue(request);
  return ticket;
}

void RequestExecutor::runCacheStep(const std::shared_ptr<RequestType>& request, const std::string& key) {
  const auto& ticket = this->ticket();
  if (ticket->cancelRequested()) return;
  if (auto item = CacheController::sharedInstance()->getCacheItem(key, true)) {
    if (auto result = resultFromCacheItem(*item); result && request->deliversResult(*result)) {
      if (ticket->cancelRequested()) return;
      loadedFromCache_.store(true);
      request->handleCompletion(result);
      return;
    }
  }
  enqueue(request);
}

void RequestExecutor::enqueue(const std::shared_ptr<RequestType>& request) {
  const auto& ticket = this->ticket();
  // A cancelled ticket sends nothing. A cancel that races the hand-over may have looked for
  // the request on its queue too early: it is repeated once the queue holds the request.
  if (ticket->cancelRequested()) return;
  const auto queue = request->queue();
  queue->addRequest(request);
  if (ticket->cancelRequested()) queue->cancelRequest(request);
}

bool RequestExecutor::handleFinished(const std::shared_ptr<RequestResult>& result) {
  auto request = request_.lock();
  if (!request || !result) return false;
  const auto& ticket = this->ticket();
  if (hasEnded(ticket->state())) return true;
  if (result->isSuccess()) {
    ticket->setFinished();
    // A cancel only ever leaves idle, so a ticket cancelled now was cancelled before this
    // result could settle it: the queue could no longer stop the result, but the cancel stands.
    if (ticket->state() == RequestTicketState::cancelled) return false;
  } else {
    ticket->setFailedWithError(result->error);
  }
  const RequestCacheConfig* cache = cacheConfigOf(*request);
  if (loadedFromCache_.load() || result->failed() || !cache || !cache->key || cache->key->empty()) return true;
  auto save = [result, config = *cache] {
    if (auto item = cacheItemFor(*result, config)) CacheController::sharedInstance()->set(std::move(item), *config.key);
  };
  if (cache->forceSynchronousLoad) {
    save();
  } else {
    runInBackground(std::move(save));
  }
  return true;
}

void RequestExecutor::cancel() {
  auto request = request_.lock();
  if (!request || hasEnded(ticket()->state())) return;
  if (const auto queue = request->queue()) queue->cancelRequest(request);
}

std::shared_ptr<RequestResult> RequestExecutor::resultFromCacheItem(const CacheItem& item) {
  const auto found = item.extraItems.find(kResultExtraItemKey);
  if (found == item.extraItems.end()) return nullptr;
  const auto stored = found->second.object<RequestResult>();
  if (!stored) return nullptr;
  // The stored result may be shared by other readers of the cache's memory: change a copy.
  auto result = stored->copy();
  result->data.reset();
  if (item.item) result->restorePayload(*item.item);
  result->cacheExpirationDate = item.creationDate().addingTimeInterval(item.configuration.maximumAge);
  return result;
}

std::shared_ptr<CacheItem> RequestExecutor::cacheItemFor(const RequestResult& result,
                                                         const RequestCacheConfig& config) {
  auto payload = result.cachePayload(config.itemType);
  if (!payload || payload->isNull()) return nullptr;
  CacheItemConfiguration policy(config.maximumAge);
  policy.expireOnMemoryWarning = true;
  policy.retainInMemory = true;
  policy.rollingExpiration = false;
  policy.autoExpiration = true;
  auto item = std::make_shared<CacheItem>(std::move(payload), std::move(policy), config.itemType);
  item->configuration.groupName = config.group;
  item->configuration.retainInBackStore = true;
  auto stored = result.copy();
  stored->data.reset();
  stored->cacheExpirationDate.reset();
  item->extraItems.emplace(kResultExtraItemKey, ArchiveValue(std::static_pointer_cast<const Archivable>(stored)));
  return item;
}

}  // namespace kp
