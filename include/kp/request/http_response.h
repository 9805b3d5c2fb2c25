// The parsed response of a finished request, and the small HTTP enumerations.
//
// HttpResponse keeps the status, every header field with the server's spelling, the cookies
// and the redirect hops. Its derived headers use exact field spellings ("ETag", then
// "Etag"; "Content-Type"; ...), and its dates are parsed with the single pattern
// "EEE, dd MMM yyyy HH:mm:ss z" in English and GMT (anything else gives nothing).
//
// Thread safety: not locked; filled by the transfer, then read.
//
// Example:
//   kp::HttpResponse response;
//   response.statusCode = 304;
//   response.headers["ETag"] = "\"v2\"";
//   response.isNotModified();   // true
//   response.etag();            // "\"v2\""
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kp/coding/keyed_archiver.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"
#include "kp/platform/url.h"
#include "kp/request/http_cookie.h"

namespace kp {

// What the rest of the library reads from a response.
class KP_EXPORT HttpResponseType {
 public:
  virtual ~HttpResponseType() = default;
  // The status code; nothing when none was received.
  [[nodiscard]] virtual std::optional<int> statusCodeValue() const = 0;
  // The header fields by canonical name; repeated fields joined with ", ".
  [[nodiscard]] virtual const std::map<std::string, std::string>& headerFields() const = 0;
  // The cookies the response set.
  [[nodiscard]] virtual const std::vector<HttpCookie>& cookieList() const = 0;
  // The URLs the request was redirected to, in order.
  [[nodiscard]] virtual const std::vector<Url>& redirectList() const = 0;
  // The "ETag" field; nothing without one.
  [[nodiscard]] virtual std::optional<std::string> etag() const = 0;
  // The "Content-Type" field; nothing without one.
  [[nodiscard]] virtual std::optional<std::string> contentType() const = 0;
  // The "Last-Modified" field as a date; nothing without one or when it is not an HTTP date.
  [[nodiscard]] virtual std::optional<Date> lastModifiedDate() const = 0;
  // The "Expires" field as a date; nothing without one or when it is not an HTTP date.
  [[nodiscard]] virtual std::optional<Date> expiresDate() const = 0;
  // The "Date" field as a date; nothing without one or when it is not an HTTP date.
  [[nodiscard]] virtual std::optional<Date> sentDate() const = 0;
  // True for status 304.
  [[nodiscard]] virtual bool isNotModified() const = 0;
};

// A received response, as the library keeps it and archives it with cached results.
class KP_EXPORT HttpResponse : public HttpResponseType, public Archivable {
 public:
  // The class name of the archived form.
  static constexpr std::string_view kArchiveClassName = "KPHttpResponse";
  // Keys of the archived form; cookies are not archived.
  static constexpr std::string_view kArchiveKeyStatusCode = "_statusCode";
  static constexpr std::string_view kArchiveKeyHeaders = "_headers";      // see kArchiveKeyStatusCode
  static constexpr std::string_view kArchiveKeyRedirects = "_redirects";  // see kArchiveKeyStatusCode
  // The archived form may be read back with the class checked (secure coding).
  static constexpr bool supportsSecureCoding = true;

  std::optional<int> statusCode;               // see statusCodeValue()
  std::map<std::string, std::string> headers;  // see headerFields()
  std::vector<HttpCookie> cookies;             // see cookieList()
  std::vector<Url> redirects;                  // see redirectList()

  // Appends `url` to the redirects.
  void addRedirect(Url url) { redirects.push_back(std::move(url)); }
  // The first cookie named exactly `name`.
  [[nodiscard]] std::optional<HttpCookie> getCookieByName(std::string_view name) const;

  [[nodiscard]] std::optional<int> statusCodeValue() const override { return statusCode; }
  [[nodiscard]] const std::map<std::string, std::string>& headerFields() const override { return headers; }
  [[nodiscard]] const std::vector<HttpCookie>& cookieList() const override { return cookies; }
  [[nodiscard]] const std::vector<Url>& redirectList() const override { return redirects; }
  [[nodiscard]] std::optional<std::string> etag() const override;
  [[nodiscard]] std::optional<std::string> contentType() const override;
  [[nodiscard]] std::optional<Date> lastModifiedDate() const override;
  [[nodiscard]] std::optional<Date> expiresDate() const override;
  [[nodiscard]] std::optional<Date> sentDate() const override;
  [[nodiscard]] bool isNotModified() const override { return statusCode == 304; }

  // Archived as "KPHttpResponse" with the status, the headers and the redirects.
  [[nodiscard]] std::string archiveClassName() const override { return std::string(kArchiveClassName); }
  // Writes the archived form described at archiveClassName().
  void encode(ArchiveEncoder& coder) const override;
  // Reads back what encode() wrote.
  [[nodiscard]] static std::shared_ptr<HttpResponse> decode(ArchiveDecoder& coder);
  // Equal status, headers and redirects (what survives archiving).
  [[nodiscard]] bool isEqual(const Archivable& other) const override;
};

// The header fields HttpResponseType reads.
enum class ResponseHeader { etag, contentType, lastModified, expires, date };
// The field's name as the response's headers spell it ("ETag", "Content-Type", ...).
[[nodiscard]] KP_EXPORT std::string_view headerName(ResponseHeader header) noexcept;

// A Content-Type value that requests may set.
class KP_EXPORT MimeContentType {
 public:
  // Multipart form data whose parts are separated by `boundary`.
  [[nodiscard]] static MimeContentType multipartFormData(std::string boundary) {
    return MimeContentType(std::move(boundary));
  }
  // JSON.
  [[nodiscard]] static MimeContentType applicationJson() { return MimeContentType(std::nullopt); }
  // True for multipart form data.
  [[nodiscard]] bool isMultipartFormData() const noexcept { return boundary_.has_value(); }
  // The boundary of multipart form data; nothing for JSON.
  [[nodiscard]] const std::optional<std::string>& boundary() const noexcept { return boundary_; }
  // multipart/form-data; boundary="B"   or   application/json
  [[nodiscard]] std::string headerValue() const;
  // Equal kind and boundary.
  friend bool operator==(const MimeContentType&, const MimeContentType&) = default;

 private:
  explicit MimeContentType(std::optional<std::string> boundary) : boundary_(std::move(boundary)) {}
  std::optional<std::string> boundary_;
};

// HTTP status codes, including a few non-standard ones that servers send.
enum class HttpStatusCode : int {
  // Non-standard low values some services use as result markers.
  custom1 = 1,
  custom2 = 2,
  custom3 = 3,
  custom4 = 4,
  custom5 = 5,
  continue_ = 100,
  switchingProtocols = 101,
  processing = 102,
  ok = 200,
  created = 201,
  accepted = 202,
  nonAuthoritativeInformation = 203,
  noContent = 204,
  resetContent = 205,
  partialContent = 206,
  multiStatus = 207,
  alreadyReported = 208,
  imUsed209 = 209,
  multipleChoices = 300,
  movedPermanently = 301,
  found = 302,
  seeOther = 303,
  notModified = 304,
  useProxy = 305,
  switchProxy = 306,
  temporaryRedirect = 307,
  permanentRedirect = 308,
  badRequest = 400,
  unauthorized = 401,
  paymentRequired = 402,
  forbidden = 403,
  notFound = 404,
  methodNotAllowed = 405,
  notAcceptable = 406,
  proxyAuthenticationRequired = 407,
  requestTimeout = 408,
  conflict = 409,
  gone = 410,
  lengthRequired = 411,
  preconditionFailed = 412,
  payloadTooLarge = 413,
  uriTooLong = 414,
  unsupportedMediaType = 415,
  rangeNotSatisfiable = 416,
  expectationFailed = 417,
  imATeapot = 418,
  authenticationTimeout = 419,
  enhanceYourCalm = 420,
  unprocessableEntity = 422,
  locked = 423,
  failedDependency = 424,
  tooEarly = 425,
  upgradeRequired = 426,
  preconditionRequired = 428,
  tooManyRequests = 429,
  requestHeaderFieldsTooLarge = 431,
  noResponse = 444,
  retryWith = 449,
  blockedByParentalControls = 450,
  unavailableForLegalReasons = 451,
  requestHeaderTooLarge = 494,
  certError = 495,
  noCert = 496,
  httpToHttps = 497,
  clientClosedRequest = 499,
  internalServerError = 500,
  notImplemented = 501,
  badGateway = 502,
  serviceUnavailable = 503,
  gatewayTimeout = 504,
  httpVersionNotSupported = 505,
  variantAlsoNegotiates = 506,
  insufficientStorage = 507,
  loopDetected = 508,
  bandwidthLimitExceeded = 509,
  notExtended = 510,
  networkAuthenticationRequired = 511,
  originConnectionTimedOut = 522,
  networkReadTimeout = 598,
  networkConnectTimeout = 599,
  // Non-standard service result markers.
  custom4200 = 4200,
  custom4240 = 4240,
  custom4510 = 4510,
};

// Nothing for values outside the set above.
[[nodiscard]] KP_EXPORT std::optional<HttpStatusCode> httpStatusCodeFromRawValue(int raw) noexcept;

}  // namespace kp
