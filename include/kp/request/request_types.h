// The request toolkit's shared small types: priority, the per-request cache settings, and the
// interfaces through which a request meets its handler and its queue.
//
// The queue interface is deliberately empty here: the queues add their operations. The
// response, result, cancellation-flag and session types are only named.
//
// Thread safety: RequestCacheConfig is not locked; configure it before execution.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kp/platform/date.h"
#include "kp/platform/error.h"

namespace kp {

class HttpResponseType;
class RequestResult;
class HttpRequestResultType;
class CancelledFlag;
class UrlSession;

enum class RequestPriority : int { low = 0, normal = 1, high = 2 };

// What the executor needs to read from and store into the cache for one request.
class RequestCacheConfig {
 public:
  // Without a key the cache is bypassed.
  std::optional<std::string> key;
  std::optional<std::string> group;
  TimeInterval maximumAge = 86400.0;
  // Raw value of the cache item type.
  int itemType = 0;
  bool forceSynchronousLoad = false;
};

// Every kind of request; handlers find out what a request is by its interfaces.
class RequestType {
 public:
  virtual ~RequestType() = default;
};

using RequestHandlerCompletion = std::function<void(const std::shared_ptr<RequestResult>&)>;

// Performs the transfer of a request.
class RequestHandlerInterface {
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
class RequestQueueInterface {
 public:
  virtual ~RequestQueueInterface() = default;
};

}  // namespace kp
