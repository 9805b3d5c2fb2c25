// kp::TypedHttpRequest: what the typed request kinds share. A kind is a trio of request,
// handler and result; its request is a BasicHttpRequest (or, when the kind may be cached, an
// HttpRequest) whose default handler is the kind's own and whose completion receives the
// kind's result type. Everything else (fields, defaults, the executor, the queues) is the
// request protocol of BasicHttpRequest, unchanged.
//
// A new kind names itself, its handler and its result:
//   class ForecastRequest final
//       : public kp::TypedHttpRequest<ForecastRequest, ForecastRequestHandler, ForecastRequestResult> {
//    public:
//     using TypedHttpRequest::TypedHttpRequest;
//   };
//
// Thread safety: as BasicHttpRequest.
//
// Example:
//   auto request = kp::JsonRequest::make(*kp::Url::parse("https://api.example.com/now.json"));
//   (void)request->execute([](const std::shared_ptr<kp::JsonRequestResult>& result) {
//     if (auto json = result->dataAsJson()) show((*json)["temperature"].doubleValue());
//   });
#pragma once

#include <functional>
#include <memory>

#include "kp/platform/export.h"
#include "kp/request/http_request.h"
#include "kp/request/request_result.h"

namespace kp {

// REQUIRES: Handler derives from RequestHandlerInterface, Result from HttpRequestResultType,
// and Base is BasicHttpRequest or a class derived from it with the same constructors.
template <class Self, class Handler, class Result, class Base = HttpRequest>
class KP_EXPORT TypedHttpRequest : public Base {
 public:
  using HandlerType = Handler;  // the kind's handler
  using ResultType = Result;    // the kind's result
  // Receives the kind's result.
  using CompletionHandler = std::function<void(const std::shared_ptr<Result>&)>;

  // The defaults of BasicHttpRequest, with a new Handler.
  explicit TypedHttpRequest(Url url) : Base(std::move(url), std::make_shared<Handler>()) {}
  // A new request of the kind, as the constructor makes it.
  [[nodiscard]] static std::shared_ptr<Self> make(Url url) { return std::make_shared<Self>(std::move(url)); }

  // The completion receives the kind's result.
  void setCompletionHandler(CompletionHandler completion) { Base::setCompletionHandler(typed(std::move(completion))); }
  // The completion receives the result as HttpRequestResultType.
  void setCompletionHandler(RequestCompletionHandler completion) override {
    Base::setCompletionHandler(std::move(completion));
  }

  // Runs the request through its executor; see BasicHttpRequest::execute().
  [[nodiscard]] std::shared_ptr<RequestTicketType> execute() override { return Base::execute(); }
  // The same, with `completion`, which receives the kind's result, as the completion handler.
  std::shared_ptr<RequestTicketType> execute(CompletionHandler completion) {
    return Base::execute(typed(std::move(completion)));
  }
  // BasicHttpRequest::executeSynchronously() with the kind's result; null when none came.
  [[nodiscard]] std::shared_ptr<Result> executeSynchronously() {
    return std::dynamic_pointer_cast<Result>(Base::executeSynchronously());
  }

  // Only the kind's own results.
  [[nodiscard]] bool deliversResult(const RequestResult& result) const override {
    return dynamic_cast<const Result*>(&result) != nullptr;
  }

 private:
  static RequestCompletionHandler typed(CompletionHandler completion) {
    if (!completion) return {};
    return [completion = std::move(completion)](const std::shared_ptr<HttpRequestResultType>& result) {
      if (auto delivered = std::dynamic_pointer_cast<Result>(result)) completion(delivered);
    };
  }
};

}  // namespace kp
