// kp::UrlRequest: the wire request handed to the session layer: URL, verb, timeout, cache
// policy, header fields and an optional body. A plain value.
//
// Header fields keep their order of first setting; their names compare without regard to
// case, and setting a field that exists replaces its value in place (keeping the first
// spelling of the name).
//
// Thread safety: a value type.
//
// Example:
//   kp::UrlRequest request(*kp::Url::parse("https://example.com/a"));
//   request.httpMethod = "POST";
//   request.setValue("text/plain", "Content-Type");
//   request.value("content-type");   // "text/plain"
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kp/platform/data.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"
#include "kp/platform/url.h"

namespace kp {

// The platform's cache policies; sessions keep no response cache, so the policy is carried,
// not acted on.
enum class UrlRequestCachePolicy : int {
  useProtocolCachePolicy = 0,
  reloadIgnoringLocalCacheData = 1,
  returnCacheDataElseLoad = 2,
  returnCacheDataDontLoad = 3,
};

// What a session sends: URL, method, header fields, body and timeout.
class KP_EXPORT UrlRequest {
 public:
  using HeaderField = std::pair<std::string, std::string>;  // a field's name and value

  static constexpr TimeInterval kDefaultTimeoutInterval = 60.0;  // seconds

  // A GET of `requestUrl`.
  explicit UrlRequest(Url requestUrl) : url(std::move(requestUrl)) {}

  Url url;                                                 // where the request goes
  std::string httpMethod = "GET";                          // the method
  TimeInterval timeoutInterval = kDefaultTimeoutInterval;  // seconds the transfer may stay idle
  UrlRequestCachePolicy cachePolicy = UrlRequestCachePolicy::useProtocolCachePolicy;  // carried
  // Sent with any method, GET included; a HEAD with a body is refused (its task fails with
  // UrlError::dataLengthExceedsMaximum), since a HEAD answer cannot be read after one.
  std::optional<Data> httpBody;
  // Whether the session sends the stored cookies that match the URL and keeps the cookies the
  // responses set (on every hop). A request that sets its own "Cookie" field sends that one.
  bool httpShouldHandleCookies = true;
  // The page this request loads for, whose site decides under the accept policy
  // onlyFromMainDocumentDomain whether the responses' cookies are kept; none: the request's
  // own URL.
  std::optional<Url> mainDocumentURL;

  // Where connections to the URL's own host and port really go. The service protocol's
  // sealed URLs name their authority "host:PORT", which resolves nowhere; the request factory
  // records the host the caller meant here, and the session connects there while URL and
  // Host header stay as they are. Applies only to hops whose authority is still the URL's.
  struct ConnectTarget {
    std::string host;        // as in a URL (IPv6 literals in brackets)
    std::uint16_t port = 0;  // the port
    friend bool operator==(const ConnectTarget&, const ConnectTarget&) = default;  // same host and port
  };
  std::optional<ConnectTarget> connectTo;  // see ConnectTarget; none connects as the URL says

  // The header fields, in order.
  [[nodiscard]] const std::vector<HeaderField>& allHTTPHeaderFields() const noexcept { return headers_; }
  // Replaces every header field by `fields`.
  void setAllHTTPHeaderFields(const std::map<std::string, std::string>& fields);
  // Sets (or, with nothing, removes) one field.
  void setValue(std::optional<std::string> value, std::string_view field);
  // Appends to an existing field as ", value", or adds the field.
  void addValue(std::string_view value, std::string_view field);
  // The field's value, its name compared without regard to case; nothing without one.
  [[nodiscard]] std::optional<std::string> value(std::string_view field) const;

  friend bool operator==(const UrlRequest&, const UrlRequest&) = default;  // equal fields

 private:
  std::vector<HeaderField>::iterator find(std::string_view field);
  std::vector<HeaderField> headers_;
};

}  // namespace kp
