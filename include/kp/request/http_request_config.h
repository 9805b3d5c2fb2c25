// kp::HttpRequestConfig: the per-request transfer settings (parameters, body, headers, verb,
// timeout, certificate trust, entity tag). One per request; configure it before execution.
//
// Thread safety: not locked; configure on one thread.
//
// Example:
//   auto config = std::make_shared<kp::HttpRequestConfig>();
//   config->method = kp::HttpRequestMethod::post;
//   config->addQuery("52.5", "lat");
//   config->addBody(kp::HttpRequestParameter{"units", "metric"});
//   config->setHeader("application/x-www-form-urlencoded", "Content-Type");
#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kp/platform/data.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"
#include "kp/request/http_request_method.h"
#include "kp/request/http_request_parameter.h"

namespace kp {

// What goes on the wire for a request: parameters, body, headers, method and timeout.
class KP_EXPORT HttpRequestConfig {
 public:
  // Encoded in this order; duplicates are kept.
  std::vector<HttpRequestParameter> queryParameters;
  // When non-empty, the body is these parameters and bodyData is ignored.
  std::vector<HttpRequestParameter> bodyParameters;
  std::optional<Data> bodyData;                       // the body as bytes
  std::map<std::string, std::string> headers;         // by field name; see setHeader()
  HttpRequestMethod method = HttpRequestMethod::get;  // the HTTP method
  TimeInterval timeoutInterval = 10.0;                // seconds the transfer may stay idle
  // Does NOT make an untrusted certificate acceptable. When set, the handler answers every
  // server-trust challenge with "cancel" together with a credential made from the trust (a
  // deliberate pairing, kept for compatibility): the TLS handshake is cancelled and the
  // request ends cancelled without calling its completion at all, whether the certificate is
  // trusted or not. Left unset, certificates are verified as usual. To accept an untrusted
  // certificate, answer the challenge with useCredential from a handler subclass.
  bool acceptUntrustedSSLCertificate = false;
  // Sent as "If-None-Match" when present and non-empty.
  std::optional<std::string> etag;

  // Appends `parameter` to the query.
  void addQuery(HttpRequestParameter parameter) { queryParameters.push_back(std::move(parameter)); }
  // Appends `parameters` to the query, in order.
  void addQuery(std::span<const HttpRequestParameter> parameters) {
    queryParameters.insert(queryParameters.end(), parameters.begin(), parameters.end());
  }
  // Appends `name`, with `value` when there is one, to the query.
  void addQuery(std::optional<std::string> value, std::string name) {
    queryParameters.emplace_back(std::move(name), std::move(value));
  }
  // Appends `parameter` to the body.
  void addBody(HttpRequestParameter parameter) { bodyParameters.push_back(std::move(parameter)); }
  // Appends `parameters` to the body, in order.
  void addBody(std::span<const HttpRequestParameter> parameters) {
    bodyParameters.insert(bodyParameters.end(), parameters.begin(), parameters.end());
  }
  // Appends `name`, with `value` when there is one, to the body.
  void addBody(std::optional<std::string> value, std::string name) {
    bodyParameters.emplace_back(std::move(name), std::move(value));
  }
  // Replaces an earlier value of the same field (field names compare exactly here).
  void setHeader(std::string value, const std::string& field) { headers[field] = std::move(value); }
};

}  // namespace kp
