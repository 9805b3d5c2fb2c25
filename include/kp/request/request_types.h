// The request toolkit's shared small types: priority, the per-request cache settings, and the
// interfaces through which a request meets its executor, its handler and its queue.
//
//   RequestType: what the executor and the queues need of any request: its handler, its
//     queue, its priority, and the entry point for a finished result.
//   CacheableRequestType: requests that the cache may answer and keep.
//   RequestHandlerInterface: performs the transfer of one request.
//   RequestQueueInterface: decides when, and on which thread, a request's handler runs.
//
// The response, result, cancellation-flag and session types are only named here.
//
// Thread safety: RequestCacheConfig is not locked; configure it before execution. The queue
// interface may be used from any thread.
//
// Example:
//   auto config = std::make_shared<kp::RequestCacheConfig>();
//   config->key = "forecast/berlin";
//   config->maximumAge = 600;
//   config->itemType = kp::CacheItemType::rawDataToFile;
//   request->setCacheConfig(config);
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kp/cache/cacheable.h"
#include "kp/platform/date.h"
#include "kp/platform/error.h"
#include "kp/platform/export.h"

namespace kp {

class HttpResponseType;
class RequestResult;
class HttpRequestResultType;
class CancelledFlag;
class UrlSession;
class RequestHandlerInterface;
class RequestQueueInterface;

// Values outside the three cases may be stored; queues treat them as normal.
enum class RequestPriority : int { low = 0, normal = 1, high = 2 };

// What the executor needs to read from and store into the cache for one request.
class KP_EXPORT RequestCacheConfig {
 public:
  // Without a key the cache is bypassed. An empty key is looked up but never saved.
  std::optional<std::string> key;
  // The cache group the result is saved under, so that a wipe of the group removes it; none
  // for no group.
  std::optional<std::string> group;
  // Seconds a saved result stays valid.
  TimeInterval maximumAge = 86400.0;
  // How the result is kept: serialized in the database, or as bytes or an image in a file.
  CacheItemType itemType = CacheItemType::serialized;
  // Look up (and save) on the calling thread instead of the background pool.
  bool forceSynchronousLoad = false;
};

// Every kind of request; handlers find out what else a request is by its interfaces.
class KP_EXPORT RequestType {
 public:
  virtual ~RequestType() = default;

  // Performs the request's transfer.
  [[nodiscard]] virtual const std::shared_ptr<RequestHandlerInterface>& handler() const = 0;
  // Replaces the handler; before execution.
  virtual void setHandler(std::shared_ptr<RequestHandlerInterface> handler) = 0;
  // Decides when, and on which thread, the handler runs.
  [[nodiscard]] virtual const std::shared_ptr<RequestQueueInterface>& queue() const = 0;
  // Replaces the queue; before execution.
  virtual void setQueue(std::shared_ptr<RequestQueueInterface> queue) = 0;
  // Which waiting requests a queue starts first.
  [[nodiscard]] virtual RequestPriority priority() const = 0;
  // Changes the priority; before execution.
  virtual void setPriority(RequestPriority priority) = 0;

  // Called with the finished result (by the queue, or by the executor on a cache hit): the
  // executor settles the ticket and the cache, then the completion callback runs. Results
  // that the request does not deliver are ignored.
  virtual void handleCompletion(const std::shared_ptr<RequestResult>& result) = 0;
  // Whether handleCompletion() takes `result` (a cached result of another kind is a miss).
  [[nodiscard]] virtual bool deliversResult(const RequestResult&) const { return true; }
};

// A request whose results the cache may answer and keep.
class KP_EXPORT CacheableRequestType {
 public:
  virtual ~CacheableRequestType() = default;
  // May be null: the request then bypasses the cache.
  [[nodiscard]] virtual const std::shared_ptr<RequestCacheConfig>& cacheConfig() const = 0;
  // Replaces the cache configuration; null bypasses the cache.
  virtual void setCacheConfig(std::shared_ptr<RequestCacheConfig> config) = 0;
  // Sets cacheConfig()->key from the complete URL and the body. The library never calls it.
  virtual void generateCacheKey() = 0;
};

// Receives the result of a transfer. A handler calls it at most once; a handler that ends
// without a result (a cancelled transfer) lets go of it uncalled.
using RequestHandlerCompletion = std::function<void(const std::shared_ptr<RequestResult>&)>;

// Performs the transfer of a request.
class KP_EXPORT RequestHandlerInterface {
 public:
  virtual ~RequestHandlerInterface() = default;
  // An error when this handler cannot run `request`; nothing otherwise.
  [[nodiscard]] virtual ErrorPtr canHandle(const std::shared_ptr<RequestType>& request) = 0;
  // Starts the transfer; `completion` receives the result (at most once per transfer).
  virtual void handle(const std::shared_ptr<RequestType>& request, RequestHandlerCompletion completion) = 0;
  // Stops the transfer; no result is delivered afterwards.
  virtual void cancel() = 0;
};

// Decides when and on which thread a request's handler runs.
class KP_EXPORT RequestQueueInterface {
 public:
  virtual ~RequestQueueInterface() = default;
  // Runs the request's handler now or later; the result goes to request->handleCompletion().
  virtual void addRequest(const std::shared_ptr<RequestType>& request) = 0;
  // Stops the request if this queue holds it: no result is delivered for it afterwards.
  virtual void cancelRequest(const std::shared_ptr<RequestType>& request) = 0;
  // Cancels every request the queue holds, running or waiting.
  virtual void cancelAll() = 0;
  // How many handlers may run at once.
  [[nodiscard]] virtual std::int64_t maxConcurrentRequests() const = 0;
  // Changes how many handlers may run at once; see maxConcurrentRequests().
  virtual void setMaxConcurrentRequests(std::int64_t count) = 0;
};

}  // namespace kp
