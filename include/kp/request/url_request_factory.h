// kp::UrlRequestFactory turns a request into the wire request; kp::HttpRequestTypeCacheKeyGenerator
// derives a request's cache key. Both are stateless.
//
// With a query key the whole query travels encrypted as one parameter "data"; with a body key
// the form body travels as "data=<encrypted>" and raw body data as Base64 of its ciphertext in
// 64-character lines. An absent or empty key means that part travels in plain. Nothing is
// added to the headers except "If-None-Match" for a non-empty entity tag.
//
// Thread safety: pure functions of their arguments.
//
// Example:
//   kp::UrlRequest wire = kp::UrlRequestFactory::createUrlRequest(*request, queryKey, bodyKey);
//   std::string key = kp::HttpRequestTypeCacheKeyGenerator::generate(*request);
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kp/platform/export.h"
#include "kp/platform/url.h"
#include "kp/request/http_request.h"
#include "kp/request/http_request_parameter.h"
#include "kp/request/url_request.h"

namespace kp {

class KP_EXPORT UrlRequestFactory {
 public:
  UrlRequestFactory() = delete;

  // `url` + ("?" or "&") + the URL-encoded parameter string, in which the characters a URL
  // cannot carry (letters outside ASCII, "|", "^", "`", backslash ...) are then percent-encoded as
  // UTF-8. The URL itself when the list is empty. Parameters that all have empty names leave a
  // bare "?" or "&".
  [[nodiscard]] static Url append(std::span<const HttpRequestParameter> queryParameters, const Url& url);

  // The wire request of `request`, with its query and body encrypted under the keys given.
  [[nodiscard]] static UrlRequest createUrlRequest(const HttpRequestType& request,
                                                   std::optional<std::string_view> queryEncryptionKey = std::nullopt,
                                                   std::optional<std::string_view> bodyEncryptionKey = std::nullopt);
};

// Makes the cache keys of requests.
class KP_EXPORT HttpRequestTypeCacheKeyGenerator {
 public:
  HttpRequestTypeCacheKeyGenerator() = delete;

  // The complete URL, then either "bodyDataHash=<SHA-1 of the body data>" or, without body
  // data, "name=value" for each body parameter that has a value, unseparated and unencoded.
  [[nodiscard]] static std::string generate(const HttpRequestType& request);
};

}  // namespace kp
