// Building the wire request and the cache key of a request.
#include "kp/request/url_request_factory.h"

#include "crypto/service_payload.h"
#include "kp/crypto/hash.h"

namespace kp {
namespace {

bool isUsableKey(const std::optional<std::string_view>& key) { return key && !key->empty(); }

}  // namespace

Url UrlRequestFactory::append(std::span<const HttpRequestParameter> queryParameters, const Url& url) {
  if (queryParameters.empty()) return url;
  std::string text;
  text.reserve(url.absoluteString().size() + 1 + queryParameters.size() * 24);
  text = url.absoluteString();
  text.push_back(text.find('?') == std::string::npos ? '?' : '&');
  HttpRequestParameter::appendParameterString(text, queryParameters, true);
  // The query-value encoding leaves letters outside ASCII and a few symbols ("|", "^", backslash)
  // as they are; the URL encodes them as any URL parser of the platform would, so that no
  // parameter a caller added is ever dropped from the wire, the encrypted query or the key.
  auto parsed = Url::parseEncodingInvalidCharacters(text);
  return parsed ? std::move(*parsed) : url;
}

UrlRequest UrlRequestFactory::createUrlRequest(const HttpRequestType& request,
                                               std::optional<std::string_view> queryEncryptionKey,
                                               std::optional<std::string_view> bodyEncryptionKey) {
  const HttpRequestConfig& config = request.httpConfigOrDefault();
  Url url = append(config.queryParameters, request.url());
  std::optional<UrlRequest::ConnectTarget> connectTo;
  if (isUsableKey(queryEncryptionKey)) {
    if (auto encrypted = internal::sealedUrl(url, *queryEncryptionKey)) {
      // The sealed URL's authority is "host:PORT"; the connection still goes where the caller
      // meant it to.
      if (url.port() && encrypted->host() != url.host()) connectTo = UrlRequest::ConnectTarget{url.host(), *url.port()};
      url = std::move(*encrypted);
    }
  }

  UrlRequest wire(std::move(url));
  wire.connectTo = std::move(connectTo);
  wire.httpMethod = httpVerb(config.method);
  wire.timeoutInterval = config.timeoutInterval;

  const bool bodyKeyGiven = isUsableKey(bodyEncryptionKey);
  if (!config.bodyParameters.empty()) {
    std::string body = HttpRequestParameter::makeParameterString(config.bodyParameters, true);
    if (bodyKeyGiven) body = internal::sealedParameterString(body, *bodyEncryptionKey);
    wire.httpBody = Data::fromString(body);
  } else if (config.bodyData) {
    if (bodyKeyGiven) {
      wire.httpBody = internal::sealedData(config.bodyData->bytes(), *bodyEncryptionKey);
    } else {
      wire.httpBody = config.bodyData;
    }
  }

  wire.setAllHTTPHeaderFields(config.headers);
  if (config.etag && !config.etag->empty()) wire.setValue(*config.etag, "If-None-Match");
  return wire;
}

std::string HttpRequestTypeCacheKeyGenerator::generate(const HttpRequestType& request) {
  const HttpRequestConfig& config = request.httpConfigOrDefault();
  std::string key = request.completeUrl().absoluteString();
  if (config.bodyData) {
    key += "bodyDataHash=";
    key += hashSha1(config.bodyData->bytes());
    return key;
  }
  for (const HttpRequestParameter& parameter : config.bodyParameters) {
    if (!parameter.value()) continue;
    key += parameter.name();
    key.push_back('=');
    key += *parameter.value();
  }
  return key;
}

}  // namespace kp
