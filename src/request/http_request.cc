// Parameter strings and the request object.
#include "kp/request/http_request.h"

#include "kp/coding/coding.h"
#include "kp/request/request_handler.h"
#include "kp/request/url_request_factory.h"
#include "kp/service/encryption.h"
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

HttpRequest::HttpRequest(Url url)
    : handler_(std::make_shared<HttpRequestHandler>()),
      cacheConfig_(std::make_shared<RequestCacheConfig>()),
      httpConfig_(std::make_shared<HttpRequestConfig>()),
      url_(std::move(url)),
      completionDispatchQueue_(MainQueue::shared()) {}

Url HttpRequest::completeUrl() const {
  if (!httpConfig_) return url_;
  return UrlRequestFactory::append(httpConfig_->queryParameters, url_);
}

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
