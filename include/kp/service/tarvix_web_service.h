// The web-service facades: kp::TarvixWebService builds service requests whose payload is
// JSON, kp::DecodableTarvixWebService builds requests whose payload is decoded into a type.
//
// A facade knows a service's base URL, an optional API version, the common parameters every
// call carries (kp::TarvixWebServiceParameters) and the keys (kp::TarvixWebServiceEncryptionDetails).
// A method's URL is baseUrl + "/" + (version + "/" when set) + method; the request POSTs, and
// carries the common parameters first in its query, then "skipcrypt=1" when the facade skips
// encryption (and copies no key), then whatever the caller adds. A body given at creation
// is the request's body data.
//
// A facade given a urlSession hands it to every request it makes, so that they share its
// connections; its delegate must be an HttpRequestURLSessionDelegateHandler (or subclass),
// which routes each task to its request's handler. Without one, each request gets a session
// of its own from its handler.
//
// Thread safety: a facade is configured on one thread; making requests is const and may run
// on any thread once configured.
//
// Example:
//   kp::DecodableTarvixWebService forecasts("https://api.example.com");
//   forecasts.version = "v2";
//   auto request = forecasts.createRequest<Forecast>("forecast");   // .../v2/forecast
//   request->httpConfig()->addQuery("52.37", "latitude");
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "kp/coding/json.h"
#include "kp/platform/data.h"
#include "kp/platform/export.h"
#include "kp/platform/url.h"
#include "kp/request/http_response.h"
#include "kp/request/request_ticket.h"
#include "kp/request/url_session.h"
#include "kp/service/decodable_tarvix_service_request.h"
#include "kp/service/tarvix_service_request.h"
#include "kp/service/tarvix_web_service_encryption_details.h"
#include "kp/service/tarvix_web_service_parameters.h"

namespace kp {

namespace internal {
template <class T>
inline constexpr bool isOptional = false;
template <class T>
inline constexpr bool isOptional<std::optional<T>> = true;

// What both facades share: base URL, version, common parameters, keys and session.
struct KP_EXPORT WebServiceSettings {
  std::string baseUrl;
  std::optional<std::string> version;
  TarvixWebServiceEncryptionDetails encryptionDetails;
  TarvixWebServiceParameters requestParameters;
  std::shared_ptr<UrlSession> urlSession;

  // baseUrl + "/" + (version + "/") + method, with what a URL cannot carry encoded
  // (Url::parseEncodingInvalidCharacters); nothing when that is still not an absolute URL.
  [[nodiscard]] std::optional<Url> createUrl(std::string_view method) const;
  // Adds the common parameters, the keys (or "skipcrypt=1"), the body and the session.
  void prepare(BasicHttpRequest& request, EncryptionRequestType& keys, std::optional<Data> content) const;
};
}  // namespace internal

class KP_EXPORT TarvixWebService : public internal::WebServiceSettings {
 public:
  // REQUIRES: `baseUrl` is an absolute URL; a trailing "/" is dropped.
  explicit TarvixWebService(std::string baseUrl);

  // A request for `method` with `content` as its body; nothing when the URL cannot be formed.
  [[nodiscard]] std::shared_ptr<TarvixServiceRequest> createRequestFor(
      std::string_view method, std::optional<Data> content = std::nullopt) const;
  // Runs `request` through its executor and returns the ticket.
  std::shared_ptr<RequestTicketType> execute(const std::shared_ptr<TarvixServiceRequest>& request) const {
    return request->execute();
  }
};

// The facade for typed calls: makes requests whose payload decodes into a type of the caller's.
class KP_EXPORT DecodableTarvixWebService : public internal::WebServiceSettings {
 public:
  // REQUIRES: `baseUrl` is an absolute URL; a trailing "/" is dropped.
  explicit DecodableTarvixWebService(std::string baseUrl);

  // A request for `method` with raw body bytes; nothing when the URL cannot be formed.
  template <class T>
  [[nodiscard]] std::shared_ptr<DecodableTarvixServiceRequest<T>> createRequest(
      std::string_view method, std::optional<Data> bodyData = std::nullopt,
      const MimeContentType& contentType = MimeContentType::applicationJson()) const {
    auto url = createUrl(method);
    if (!url) return nullptr;
    auto request = DecodableTarvixServiceRequest<T>::make(std::move(*url), contentType);
    prepare(*request, *request, std::move(bodyData));
    return request;
  }

  // A request for `method` whose body is `content` encoded as JSON (dates as seconds since
  // 1970). Content may be optional: absent content (or std::nullopt) gives a request without
  // body. Content that cannot be encoded (a non-finite number, say) gives nothing, reported to
  // TarvixLoggers::CL(); nothing is thrown.
  template <class T, class Content>
  [[nodiscard]] std::shared_ptr<DecodableTarvixServiceRequest<T>> createRequestWithContent(
      std::string_view method, const Content& content,
      const MimeContentType& contentType = MimeContentType::applicationJson()) const {
    if constexpr (std::is_same_v<Content, std::nullopt_t>) {
      return createRequest<T>(method, std::nullopt, contentType);
    } else if constexpr (internal::isOptional<Content>) {
      if (!content) return createRequest<T>(method, std::nullopt, contentType);
      return createRequestWithContent<T>(method, *content, contentType);
    } else {
      auto body = encodeContent(method, [&content] {
        JsonEncoder encoder;
        encoder.dateStrategy = DateStrategy::secondsSince1970;
        return encoder.encode(content);
      });
      if (!body) return nullptr;
      return createRequest<T>(method, std::move(*body), contentType);
    }
  }

 private:
  // What `encode` gives; nothing, reported, when it throws.
  static std::optional<Data> encodeContent(std::string_view method, const std::function<Data()>& encode);
};

}  // namespace kp
