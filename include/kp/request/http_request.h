// kp::HttpRequestType and kp::HttpRequest: a request before, while and after it runs.
// HttpRequestType is the interface the rest of the toolkit sees. BasicHttpRequest is the one
// implementation of its fields and operations, which every kind of request shares; HttpRequest
// adds the cache policy, and the typed requests (typed_http_request.h) add their own handler
// and result type.
//
// A request owns its handler, queue, configurations, callbacks and executor; the executor
// holds the request weakly. A request runs once: execute() returns the executor's ticket the
// first time and a failed ticket ("This request was already executed.", 700) afterwards. The
// completion callback runs on completionDispatchQueue() (the main queue, which runs only
// while the host drains it) or, without one, on the thread that completed the request.
//
// Thread safety: not locked; configure a request on one thread, then execute it. Results
// arrive on other threads; the callbacks must not reconfigure the request.
//
// Example:
//   auto request = kp::HttpRequest::make(*kp::Url::parse("https://api.example.com/v1/now"));
//   request->httpConfig()->addQuery("52.5", "lat");
//   request->generateCacheKey();   // cacheConfig()->key = "https://api.example.com/v1/now?lat=52.5"
//   auto ticket = request->execute([](const std::shared_ptr<kp::HttpRequestResultType>& result) {
//     if (result->isSuccess()) show(result->data, result->fromCache());
//   });
//   std::shared_ptr<kp::HttpRequestResultType> now = other->executeSynchronously();
#pragma once

#include <any>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "kp/foundation/dispatch.h"
#include "kp/platform/data.h"
#include "kp/platform/export.h"
#include "kp/platform/url.h"
#include "kp/request/http_request_config.h"
#include "kp/request/request_ticket.h"
#include "kp/request/request_types.h"

namespace kp {

class RequestExecutor;

// A fraction of the transfer done, 0...1.
using ProgressUpdateHandler = std::function<void(float)>;
// Turns the received body into the result's object; checks the flag to stop early.
using ProcessReceivedDataHandler = std::function<std::any(
    const std::optional<Data>&, const std::shared_ptr<HttpResponseType>&, const std::shared_ptr<CancelledFlag>&)>;
// Receives the result of an execution.
using RequestCompletionHandler = std::function<void(const std::shared_ptr<HttpRequestResultType>&)>;

// Every HTTP request, as the handlers and the executor see it.
class KP_EXPORT HttpRequestType : public RequestType {
 public:
  // Called as the transfer progresses; none by default.
  [[nodiscard]] virtual const ProgressUpdateHandler& progressUpdateHandler() const = 0;
  // Replaces the progress handler; before execution.
  virtual void setProgressUpdateHandler(ProgressUpdateHandler handler) = 0;
  // Turns the received body into the result's object instead of the handler's own reading;
  // none by default.
  [[nodiscard]] virtual const ProcessReceivedDataHandler& processReceivedDataHandler() const = 0;
  // Replaces the body handler; before execution.
  virtual void setProcessReceivedDataHandler(ProcessReceivedDataHandler handler) = 0;
  // Receives the result, on completionDispatchQueue().
  [[nodiscard]] virtual const RequestCompletionHandler& completionHandler() const = 0;
  // Replaces the completion handler; before execution.
  virtual void setCompletionHandler(RequestCompletionHandler handler) = 0;
  // May be null: the request then runs with the default configuration (httpConfigOrDefault).
  [[nodiscard]] virtual const std::shared_ptr<HttpRequestConfig>& httpConfig() const = 0;
  // Replaces the configuration; before execution.
  virtual void setHttpConfig(std::shared_ptr<HttpRequestConfig> config) = 0;
  // What the request runs with: httpConfig(), or a default configuration when it has none.
  [[nodiscard]] const HttpRequestConfig& httpConfigOrDefault() const;
  // Where the request goes, without the configuration's query parameters.
  [[nodiscard]] virtual const Url& url() const = 0;
  // Replaces the URL; before execution.
  virtual void setUrl(Url url) = 0;
  // Where the completion handler runs; with none, it runs on the completing thread.
  [[nodiscard]] virtual const std::shared_ptr<DispatchQueue>& completionDispatchQueue() const = 0;
  // Replaces the completion queue; null runs the completion on the completing thread.
  virtual void setCompletionDispatchQueue(std::shared_ptr<DispatchQueue> queue) = 0;
  // A session to use instead of the handler's own.
  [[nodiscard]] virtual const std::shared_ptr<UrlSession>& urlSession() const = 0;
  // Replaces the session; null lets the handler use its own.
  virtual void setUrlSession(std::shared_ptr<UrlSession> session) = 0;

  // url() with the query parameters appended.
  [[nodiscard]] virtual Url completeUrl() const = 0;
  // Runs the request through its executor; see BasicHttpRequest::execute().
  [[nodiscard]] virtual std::shared_ptr<RequestTicketType> execute() = 0;
};

// Every field and operation of a request except the cache policy. Subclasses reach their
// shared_ptr through this base's weak_from_this(); a second enable_shared_from_this base
// would leave both unset, and the executor without its request.
class KP_EXPORT BasicHttpRequest : public HttpRequestType, public std::enable_shared_from_this<BasicHttpRequest> {
 public:
  // A new HttpRequestHandler, a new DirectExecutionQueue, fresh configuration, normal
  // priority, completion on the main queue.
  explicit BasicHttpRequest(Url url);
  ~BasicHttpRequest() override;
  BasicHttpRequest(const BasicHttpRequest&) = delete;
  BasicHttpRequest& operator=(const BasicHttpRequest&) = delete;

  [[nodiscard]] const std::shared_ptr<RequestHandlerInterface>& handler() const override { return handler_; }
  void setHandler(std::shared_ptr<RequestHandlerInterface> handler) override { handler_ = std::move(handler); }
  [[nodiscard]] const std::shared_ptr<RequestQueueInterface>& queue() const override { return queue_; }
  void setQueue(std::shared_ptr<RequestQueueInterface> queue) override { queue_ = std::move(queue); }
  [[nodiscard]] RequestPriority priority() const override { return priority_; }
  void setPriority(RequestPriority priority) override { priority_ = priority; }
  [[nodiscard]] const ProgressUpdateHandler& progressUpdateHandler() const override { return progressUpdateHandler_; }
  void setProgressUpdateHandler(ProgressUpdateHandler handler) override { progressUpdateHandler_ = std::move(handler); }
  [[nodiscard]] const ProcessReceivedDataHandler& processReceivedDataHandler() const override {
    return processReceivedDataHandler_;
  }
  void setProcessReceivedDataHandler(ProcessReceivedDataHandler handler) override {
    processReceivedDataHandler_ = std::move(handler);
  }
  [[nodiscard]] const RequestCompletionHandler& completionHandler() const override { return completionHandler_; }
  void setCompletionHandler(RequestCompletionHandler handler) override { completionHandler_ = std::move(handler); }
  [[nodiscard]] const std::shared_ptr<HttpRequestConfig>& httpConfig() const override { return httpConfig_; }
  void setHttpConfig(std::shared_ptr<HttpRequestConfig> config) override { httpConfig_ = std::move(config); }
  [[nodiscard]] const Url& url() const override { return url_; }
  void setUrl(Url url) override { url_ = std::move(url); }
  [[nodiscard]] const std::shared_ptr<DispatchQueue>& completionDispatchQueue() const override {
    return completionDispatchQueue_;
  }
  void setCompletionDispatchQueue(std::shared_ptr<DispatchQueue> queue) override {
    completionDispatchQueue_ = std::move(queue);
  }
  [[nodiscard]] const std::shared_ptr<UrlSession>& urlSession() const override { return urlSession_; }
  void setUrlSession(std::shared_ptr<UrlSession> session) override { urlSession_ = std::move(session); }

  [[nodiscard]] Url completeUrl() const override;

  // The executor, made on first use. REQUIRES: the request is held by a shared_ptr (make());
  // otherwise the executor cannot reach it and every execution fails.
  [[nodiscard]] const std::shared_ptr<RequestExecutor>& executor();

  // Runs the request and returns its ticket at once; the result reaches the completion
  // handler, unless the ticket is cancelled first.
  [[nodiscard]] std::shared_ptr<RequestTicketType> execute() override;
  // The same, with `completion` as the completion handler; before the first execution only,
  // a later call leaves the stored handler as it is.
  std::shared_ptr<RequestTicketType> execute(RequestCompletionHandler completion);
  // Runs the request on the calling thread's time: clears the completion queue, switches to
  // a SynchronousRequestQueue, and returns the result once it is there; nothing when no
  // result was delivered (the request failed before sending, or was executed before).
  // REQUIRES: not called on a session's delegate queue.
  [[nodiscard]] std::shared_ptr<HttpRequestResultType> executeSynchronously();

  // Hands a result that this request delivers to the executor, then to the completion
  // handler (on the completion queue when there is one). Other results are ignored.
  void handleCompletion(const std::shared_ptr<RequestResult>& result) override;
  // Every HTTP result; typed requests deliver only their own result type.
  [[nodiscard]] bool deliversResult(const RequestResult& result) const override;

 protected:
  // The same defaults with another handler, for kinds that bring their own.
  BasicHttpRequest(Url url, std::shared_ptr<RequestHandlerInterface> handler);

 private:
  std::shared_ptr<RequestHandlerInterface> handler_;
  std::shared_ptr<RequestQueueInterface> queue_;
  RequestPriority priority_ = RequestPriority::normal;
  ProgressUpdateHandler progressUpdateHandler_;
  ProcessReceivedDataHandler processReceivedDataHandler_;
  RequestCompletionHandler completionHandler_;
  std::shared_ptr<HttpRequestConfig> httpConfig_;
  Url url_;
  std::shared_ptr<DispatchQueue> completionDispatchQueue_;
  std::shared_ptr<UrlSession> urlSession_;
  Once executorOnce_;
  std::shared_ptr<RequestExecutor> executor_;  // made once under executorOnce_
};

// The plain HTTP request: a BasicHttpRequest with a cache policy.
class KP_EXPORT HttpRequest : public BasicHttpRequest, public CacheableRequestType {
 public:
  // The defaults of BasicHttpRequest, and a cache configuration without a key.
  explicit HttpRequest(Url url);
  // A new request, as the constructor makes it.
  [[nodiscard]] static std::shared_ptr<HttpRequest> make(Url url) {
    return std::make_shared<HttpRequest>(std::move(url));
  }

  [[nodiscard]] const std::shared_ptr<RequestCacheConfig>& cacheConfig() const override { return cacheConfig_; }
  void setCacheConfig(std::shared_ptr<RequestCacheConfig> config) override { cacheConfig_ = std::move(config); }
  void generateCacheKey() override;

 protected:
  // As HttpRequest(url), with `handler` in place of a new HttpRequestHandler.
  HttpRequest(Url url, std::shared_ptr<RequestHandlerInterface> handler);

 private:
  std::shared_ptr<RequestCacheConfig> cacheConfig_;
};

}  // namespace kp
