// kp::RequestExecutor: runs one request once. It asks the request's handler whether it can
// run the request, answers it from the cache when the request is cacheable and has a key,
// otherwise hands it to the request's queue, settles the ticket when the result comes, and
// keeps successful results in the cache.
//
// The cache is the process-wide CacheController::sharedInstance(). The lookup runs on the
// library's pool, or on the calling thread when the request's cache config says
// forceSynchronousLoad; saving follows the same rule. A hit completes the request with the
// stored result (its class, error and response as stored, the payload from the entry, and
// fromCache() true), which is not saved again. An empty key is looked up but never saved;
// failed results are never saved.
//
// Ownership: the request holds its executor; the executor holds the request weakly and the
// ticket strongly; the ticket holds the executor weakly. Work the executor starts on the
// pool holds the request until it has handed it to its queue.
//
// Thread safety: execute() and cancel() may be called from any thread; handleFinished()
// runs on the thread that completes the request.
//
// Example:
//   auto request = kp::HttpRequest::make(*kp::Url::parse("https://api.example.com/now"));
//   request->generateCacheKey();
//   auto ticket = request->executor()->execute();   // what request->execute() does
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "kp/cache/cache_item.h"
#include "kp/foundation/dispatch.h"
#include "kp/platform/export.h"
#include "kp/request/request_result.h"
#include "kp/request/request_ticket.h"
#include "kp/request/request_types.h"

namespace kp {

class KP_EXPORT RequestExecutor final : public std::enable_shared_from_this<RequestExecutor> {
 public:
  // Name of the entry in a cache item's extra items that holds the result without payload.
  static constexpr std::string_view kResultExtraItemKey = "result";

  // The executor of `request`.
  explicit RequestExecutor(std::weak_ptr<RequestType> request) : request_(std::move(request)) {}

  // The first call runs the request and returns this executor's ticket; every later call
  // (and a call after the request is gone) returns a new ticket that failed with
  // RequestErrors::alreadyExecutedError(). A request the handler cannot run fails the
  // ticket with the handler's error; nothing is sent and no completion is called.
  [[nodiscard]] std::shared_ptr<RequestTicketType> execute();
  // The same, with the cache looked up on the calling thread whatever the request's cache
  // config says (for callers that block until the result is there anyway).
  [[nodiscard]] std::shared_ptr<RequestTicketType> executeLoadingCacheSynchronously();

  // The request's result arrived: settles the ticket and saves a fresh success in the cache.
  // Does nothing once the ticket is finished or failed, or when the request is gone. Returns
  // whether the result goes on to the request's completion: not a success that arrives after
  // a cancel settled the ticket, since the caller was promised that nothing follows a cancel.
  [[nodiscard]] bool handleFinished(const std::shared_ptr<RequestResult>& result);
  // Cancels the request on its queue, unless the ticket already finished or failed.
  void cancel();

  // The ticket of the first execution.
  [[nodiscard]] const std::shared_ptr<RequestTicket>& ticket();
  // Whether the request was executed.
  [[nodiscard]] bool executed() const noexcept { return executed_.load(); }
  // Whether the result came from the cache.
  [[nodiscard]] bool loadedFromCache() const noexcept { return loadedFromCache_.load(); }

  // The result a cache item holds: a copy of the stored result, with the item's payload and
  // an expiry date of creation date + maximum age. Nothing when the item holds no result.
  [[nodiscard]] static std::shared_ptr<RequestResult> resultFromCacheItem(const CacheItem& item);
  // The cache item that keeps `result` under `config`; nothing when the result has no payload
  // the cache can keep.
  [[nodiscard]] static std::shared_ptr<CacheItem> cacheItemFor(const RequestResult& result,
                                                               const RequestCacheConfig& config);

 private:
  std::shared_ptr<RequestTicketType> run(bool loadCacheSynchronously);
  // Answers from the cache, or hands the request to its queue.
  void runCacheStep(const std::shared_ptr<RequestType>& request, const std::string& key);
  void enqueue(const std::shared_ptr<RequestType>& request);

  std::weak_ptr<RequestType> request_;
  Once ticketOnce_;
  std::shared_ptr<RequestTicket> ticket_;  // made once under ticketOnce_
  std::atomic<bool> executed_{false};
  std::atomic<bool> loadedFromCache_{false};
};

}  // namespace kp
