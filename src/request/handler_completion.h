// Internal: a handler completion that reports exactly once, so that queues learn of every
// end of a transfer, also of the silent ones.
//
// A handler calls its completion at most once, and lets go of it uncalled when the transfer
// ends without a result (a cancelled task). The completion made here reports the result in
// the first case and null in the second, when the handler's last copy of it is destroyed.
//
// Thread safety: the report runs on the thread that calls the completion or drops its last
// copy; it must not throw.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "kp/request/request_types.h"

namespace kp::internal {

using HandlerEndReport = std::function<void(const std::shared_ptr<RequestResult>& resultOrNull)>;

[[nodiscard]] inline RequestHandlerCompletion completionReportingOnce(HandlerEndReport report) {
  struct Once {
    explicit Once(HandlerEndReport r) : report(std::move(r)) {}
    ~Once() {
      if (!reported.exchange(true)) report(nullptr);
    }
    Once(const Once&) = delete;
    Once& operator=(const Once&) = delete;
    HandlerEndReport report;
    std::atomic<bool> reported{false};
  };
  return [once = std::make_shared<Once>(std::move(report))](const std::shared_ptr<RequestResult>& result) {
    if (!once->reported.exchange(true)) once->report(result);
  };
}

// Starts the request's handler with a completion that reports once; a request without a
// handler reports its end at once.
inline void runHandler(const std::shared_ptr<RequestType>& request, HandlerEndReport report) {
  const auto handler = request->handler();
  if (!handler) {
    report(nullptr);
    return;
  }
  handler->handle(request, completionReportingOnce(std::move(report)));
}

}  // namespace kp::internal
