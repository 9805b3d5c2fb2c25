// Parameter strings and the request object.
#include "kp/request/http_request.h"

#include "kp/coding/coding.h"
#include "kp/crypto/percent_encoding.h"
#include "kp/request/execution_queues.h"
#include "kp/request/request_executor.h"
#include "kp/request/request_handler.h"
#include "kp/request/url_request_factory.h"
#include "platform/no_destructor.h"

namespace kp {

void HttpRequestParameter::appendParameterString(std::string& out, std::span<const HttpRequestParameter> parameters,
                                                 bool urlEncode) {
  const std::size_t start = out.size();
  for (const HttpRequestParameter& parameter : parameters) {
    if (parameter.name().empty()) continue;
    if (out.size() != start) out.push_back('&');
    out += parameter.name();
    out.push_back('=');
    if (const auto& value = parameter.value()) {
      if (urlEncode) {
        appendUrlEncodedQueryParameter(out, *value);
      } else {
        out += *value;
      }
    }
  }
}

std::string HttpRequestParameter::makeParameterString(std::span<const HttpRequestParameter> parameters,
                                                      bool urlEncode) {
  std::string out;
  appendParameterString(out, parameters, urlEncode);
  return out;
}

const HttpRequestConfig& HttpRequestType::httpConfigOrDefault() const {
  static internal::NoDestructor<const HttpRequestConfig> defaults;
  const auto& config = httpConfig();
  return config ? *config : *defaults;
}

BasicHttpRequest::BasicHttpRequest(Url url)
    : BasicHttpRequest(std::move(url), std::make_shared<HttpRequestHandler>()) {}

BasicHttpRequest::BasicHttpRequest(Url url, std::shared_ptr<RequestHandlerInterface> handler)
    : handler_(std::move(handler)),
      queue_(std::make_shared<DirectExecutionQueue>()),
      httpConfig_(std::make_shared<HttpRequestConfig>()),
      url_(std::move(url)),
      completionDispatchQueue_(MainQueue::shared()) {}

BasicHttpRequest::~BasicHttpRequest() = default;

Url BasicHttpRequest::completeUrl() const {
  if (!httpConfig_) return url_;
  return UrlRequestFactory::append(httpConfig_->queryParameters, url_);
}

const std::shared_ptr<RequestExecutor>& BasicHttpRequest::executor() {
  executorOnce_.run(
      [this] { executor_ = std::make_shared<RequestExecutor>(std::weak_ptr<RequestType>(weak_from_this())); });
  return executor_;
}

std::shared_ptr<RequestTicketType> BasicHttpRequest::execute() { return executor()->execute(); }

std::shared_ptr<RequestTicketType> BasicHttpRequest::execute(RequestCompletionHandler completion) {
  if (!executor()->executed()) completionHandler_ = std::move(completion);
  return execute();
}

std::shared_ptr<HttpRequestResultType> BasicHttpRequest::executeSynchronously() {
  completionDispatchQueue_ = nullptr;
  queue_ = std::make_shared<SynchronousRequestQueue>();
  // The queue completes on this thread, so the box needs no lock.
  auto box = std::make_shared<std::shared_ptr<HttpRequestResultType>>();
  if (!executor()->executed()) {
    completionHandler_ = [box](const std::shared_ptr<HttpRequestResultType>& result) { *box = result; };
  }
  (void)executor()->executeLoadingCacheSynchronously();
  return *box;
}

bool BasicHttpRequest::deliversResult(const RequestResult& result) const {
  return dynamic_cast<const HttpRequestResultType*>(&result) != nullptr;
}

void BasicHttpRequest::handleCompletion(const std::shared_ptr<RequestResult>& result) {
  if (!result || !deliversResult(*result)) return;
  auto delivered = std::dynamic_pointer_cast<HttpRequestResultType>(result);
  if (!delivered) return;
  if (!executor()->handleFinished(result)) return;
  RequestCompletionHandler completion = completionHandler_;
  if (!completion) return;
  if (const auto& queue = completionDispatchQueue_) {
    queue->async([completion = std::move(completion), delivered = std::move(delivered)] { completion(delivered); });
  } else {
    completion(delivered);
  }
}

HttpRequest::HttpRequest(Url url) : HttpRequest(std::move(url), std::make_shared<HttpRequestHandler>()) {}

HttpRequest::HttpRequest(Url url, std::shared_ptr<RequestHandlerInterface> handler)
    : BasicHttpRequest(std::move(url), std::move(handler)), cacheConfig_(std::make_shared<RequestCacheConfig>()) {}

void HttpRequest::generateCacheKey() {
  if (!cacheConfig_) cacheConfig_ = std::make_shared<RequestCacheConfig>();
  cacheConfig_->key = HttpRequestTypeCacheKeyGenerator::generate(*this);
}

void HttpRequestParameter::encode(Encoder& encoder) const {
  auto keyed = encoder.keyed();
  keyed.encode(kNameKey, name_);
  keyed.encodeIfPresent(kValueKey, value_);
}

HttpRequestParameter HttpRequestParameter::decode(const Decoder& decoder) {
  auto keyed = decoder.keyed();
  return HttpRequestParameter(keyed.decode<std::string>(kNameKey), keyed.decodeIfPresent<std::string>(kValueKey));
}

}  // namespace kp
