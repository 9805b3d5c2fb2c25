// kp::HttpRequestType and kp::HttpRequest: a request before it runs. HttpRequestType is the
// interface the rest of the toolkit sees; HttpRequest is its base implementation, which the
// typed requests extend.
//
// A request owns its handler, queue, configurations and callbacks. It is configured on one
// thread, then executed once.
//
// Thread safety: not locked; configure on one thread before execution.
//
// Example:
//   auto request = kp::HttpRequest::make(*kp::Url::parse("https://api.example.com/v1/now"));
//   request->httpConfig()->addQuery("52.5", "lat");
//   request->generateCacheKey();   // cacheConfig()->key = "https://api.example.com/v1/now?lat=52.5"
//   kp::UrlRequest wire = kp::UrlRequestFactory::createUrlRequest(*request);
#pragma once

#include <any>
#include <functional>
#include <memory>
#include <optional>

#include "kp/platform/data.h"
#include "kp/platform/dispatch.h"
#include "kp/platform/url.h"
#include "kp/request/http_request_config.h"
#include "kp/request/request_types.h"

namespace kp {

// A fraction of the transfer done, 0...1.
using ProgressUpdateHandler = std::function<void(float)>;
// Turns the received body into the result's object; checks the flag to stop early.
using ProcessReceivedDataHandler = std::function<std::any(
    const std::optional<Data>&, const std::shared_ptr<HttpResponseType>&, const std::shared_ptr<CancelledFlag>&)>;
using RequestCompletionHandler = std::function<void(const std::shared_ptr<HttpRequestResultType>&)>;

class HttpRequestType : public RequestType {
 public:
  virtual ~HttpRequestType() = default;

  [[nodiscard]] virtual const std::shared_ptr<RequestHandlerInterface>& handler() const = 0;
  virtual void setHandler(std::shared_ptr<RequestHandlerInterface> handler) = 0;
  [[nodiscard]] virtual const std::shared_ptr<RequestQueueInterface>& queue() const = 0;
  virtual void setQueue(std::shared_ptr<RequestQueueInterface> queue) = 0;
  [[nodiscard]] virtual RequestPriority priority() const = 0;
  virtual void setPriority(RequestPriority priority) = 0;
  [[nodiscard]] virtual const ProgressUpdateHandler& progressUpdateHandler() const = 0;
  virtual void setProgressUpdateHandler(ProgressUpdateHandler handler) = 0;
  [[nodiscard]] virtual const ProcessReceivedDataHandler& processReceivedDataHandler() const = 0;
  virtual void setProcessReceivedDataHandler(ProcessReceivedDataHandler handler) = 0;
  [[nodiscard]] virtual const RequestCompletionHandler& completionHandler() const = 0;
  virtual void setCompletionHandler(RequestCompletionHandler handler) = 0;
  [[nodiscard]] virtual const std::shared_ptr<RequestCacheConfig>& cacheConfig() const = 0;
  virtual void setCacheConfig(std::shared_ptr<RequestCacheConfig> config) = 0;
  // May be null: the request then runs with the default configuration (httpConfigOrDefault).
  [[nodiscard]] virtual const std::shared_ptr<HttpRequestConfig>& httpConfig() const = 0;
  virtual void setHttpConfig(std::shared_ptr<HttpRequestConfig> config) = 0;
  // What the request runs with: httpConfig(), or a default configuration when it has none.
  [[nodiscard]] const HttpRequestConfig& httpConfigOrDefault() const;
  [[nodiscard]] virtual const Url& url() const = 0;
  virtual void setUrl(Url url) = 0;
  // Where the completion handler runs; with none, it runs on the completing thread.
  [[nodiscard]] virtual const std::shared_ptr<DispatchQueue>& completionDispatchQueue() const = 0;
  virtual void setCompletionDispatchQueue(std::shared_ptr<DispatchQueue> queue) = 0;
  // A session to use instead of the handler's own.
  [[nodiscard]] virtual const std::shared_ptr<UrlSession>& urlSession() const = 0;
  virtual void setUrlSession(std::shared_ptr<UrlSession> session) = 0;

  // url() with the query parameters appended.
  [[nodiscard]] virtual Url completeUrl() const = 0;
  // Sets cacheConfig()->key from the complete URL and the body. The library never calls it.
  virtual void generateCacheKey() = 0;
};

class HttpRequest : public HttpRequestType {
 public:
  // A new HttpRequestHandler, fresh configurations, normal priority, completion on the main
  // queue. The queue stays empty until the queues provide a default.
  explicit HttpRequest(Url url);
  [[nodiscard]] static std::shared_ptr<HttpRequest> make(Url url) {
    return std::make_shared<HttpRequest>(std::move(url));
  }

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
  [[nodiscard]] const std::shared_ptr<RequestCacheConfig>& cacheConfig() const override { return cacheConfig_; }
  void setCacheConfig(std::shared_ptr<RequestCacheConfig> config) override { cacheConfig_ = std::move(config); }
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
  void generateCacheKey() override;

 private:
  std::shared_ptr<RequestHandlerInterface> handler_;
  std::shared_ptr<RequestQueueInterface> queue_;
  RequestPriority priority_ = RequestPriority::normal;
  ProgressUpdateHandler progressUpdateHandler_;
  ProcessReceivedDataHandler processReceivedDataHandler_;
  RequestCompletionHandler completionHandler_;
  std::shared_ptr<RequestCacheConfig> cacheConfig_;
  std::shared_ptr<HttpRequestConfig> httpConfig_;
  Url url_;
  std::shared_ptr<DispatchQueue> completionDispatchQueue_;
  std::shared_ptr<UrlSession> urlSession_;
};

}  // namespace kp
