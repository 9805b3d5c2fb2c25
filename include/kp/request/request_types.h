// The request toolkit's shared small types: priority, the per-request cache settings, and the
// interfaces through which a request meets its handler and its queue.
//
// The handler and queue interfaces are deliberately empty here: the transfer handler and the
// queues add their operations. The response, result, cancellation-flag and session types are
// only named.
//
// Thread safety: RequestCacheConfig is not locked; configure it before execution.
#pragma once

#include <optional>
#include <string>

#include "kp/platform/date.h"

namespace kp {

class HttpResponseType;
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

// Performs the transfer of a request.
class RequestHandlerInterface {
 public:
  virtual ~RequestHandlerInterface() = default;
};

// Decides when and on which thread a request's handler runs.
class RequestQueueInterface {
 public:
  virtual ~RequestQueueInterface() = default;
};

}  // namespace kp
