// kp::TarvixServiceRequest and kp::TarvixServiceRequestHandler: a request to one of the
// maker's web services, and the handler that sends it sealed and opens the answer.
//
// A service request is an HTTP request that POSTs JSON by default and carries the three keys
// of the service protocol: the query travels as one encrypted "data" parameter, the body
// encrypted with the body key, and the answer is a JSON envelope (Base64 ciphertext under
// the response key, or plain JSON):
//   {"success": bool, "message": text,
//    "meta": {"statusCode": number, "message": text,
//             "contentInfo": {"formatVersion", "expiryInterval", "createdTimestamp"}},
//    "data": payload}
// The handler hands back "data" as parsed JSON. A failure the service reports inside a
// successful HTTP answer ("success": false, or "meta"/"statusCode" of 400 and above) becomes
// the result's error, with the service's message or "Service failed for unknown reasons.".
// The content info is filled from "meta"/"contentInfo" and then from the content headers,
// which win. A 304 answer refreshes the content info from the headers and marks the result
// not modified. Anything that is not such an envelope ends without payload and without an
// error of its own.
//
// Each handler makes one session for itself and hands it to its request (see
// HttpRequestHandler::sharedURLSession); a caller that wants several requests to share
// connections gives them one session and turns useSharedURLSession off (the web-service
// facades do so when given a session).
//
// Ownership: the request owns its handler; the handler holds the request weakly.
// Thread safety: configure a request on one thread before execution. The handler runs on the
// session's delegate queue.
//
// Example:
//   auto request = kp::TarvixServiceRequest::make(*kp::Url::parse("https://api.example.com/v1/forecast"));
//   request->httpConfig()->addQuery("52.37", "latitude");
//   request->requestQueryEncryptionKey = std::string(kp::kDefaultQueryStringEncryptionKey);
//   request->responseBodyDecryptionKey = responseKey;
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "kp/coding/json.h"
#include "kp/platform/export.h"
#include "kp/request/encryption_request_type.h"
#include "kp/request/http_request.h"
#include "kp/request/request_handler.h"
#include "kp/request/typed_http_request.h"
#include "kp/service/tarvix_service_content_info.h"
#include "kp/service/tarvix_service_request_result.h"

namespace kp {

// Turns the envelope's payload into what the caller receives; sees the response and the
// content info (which it may change), and checks the flag to stop early. Its answer replaces
// the payload, also when it is nothing.
using TarvixServiceProcessReceivedDataHandler = std::function<std::optional<JsonValue>(
    const std::optional<JsonValue>& payload, const std::shared_ptr<HttpResponseType>& response,
    const std::shared_ptr<TarvixServiceContentInfo>& contentInfo, const std::shared_ptr<CancelledFlag>& cancelled)>;

// The handler of service requests: seals the wire request and opens the answer's envelope.
class KP_EXPORT TarvixServiceRequestHandler : public TypedRequestHandler<TarvixServiceRequestResult> {
 public:
  // Turns useSharedURLSession on.
  TarvixServiceRequestHandler();

  // The request must carry keys (EncryptionRequestType); builds the sealed wire request.
  [[nodiscard]] ErrorPtr canHandle(const std::shared_ptr<RequestType>& candidate) override;
  // Opens the envelope (see the file comment).
  [[nodiscard]] std::any processReceivedData() override;

  // The base result, as its own type.
  const std::shared_ptr<TarvixServiceRequestResult> tarvixServiceRequestResult =
      std::static_pointer_cast<TarvixServiceRequestResult>(result);
};

class KP_EXPORT TarvixServiceRequest
    : public TypedHttpRequest<TarvixServiceRequest, TarvixServiceRequestHandler, TarvixServiceRequestResult>,
      public EncryptionRequestType {
 public:
  // A new TarvixServiceRequestHandler; method POST with "Content-Type: application/json".
  explicit TarvixServiceRequest(Url url);

  // Turns the envelope's payload into what the completion receives; none by default.
  TarvixServiceProcessReceivedDataHandler tarvixServiceProcessReceivedDataHandler;
  // Carried for callers; the library does not read it.
  bool debug = false;
  // The received bytes become the payload as they are (a kp::Data): no decryption, no envelope.
  bool skipResponseParsing = false;
};

namespace internal {
// canHandle of the service handlers: `candidate` must be an HTTP request that carries keys;
// `handler.urlRequest` becomes its sealed wire request.
[[nodiscard]] KP_EXPORT ErrorPtr prepareSealedUrlRequest(HttpRequestHandler& handler,
                                                         const std::shared_ptr<RequestType>& candidate);
}  // namespace internal

}  // namespace kp
