// kp::DecodableTarvixServiceRequest<T>: a service request whose payload is decoded into a
// codable type T, with its handler and its result, kp::DecodableTarvixServiceResult<T>.
//
// The answer is the service envelope, read with the JSON decoder (dates as seconds since
// 1970). Unlike the untyped envelope, the status lives under "meta"/"code":
//   {"meta": {"code": 200, "message": text, "contentInfo": {...}}, "data": T}
// A "code" of 400 and above fails the call with "meta"/"message" (or "Service failed for
// unknown reasons." when it is empty; when it cannot be read, a text that names why). A
// missing or non-integer "code" counts as success. With a response key the body must be
// Base64 ciphertext; a body that does not open gives no result data, never a plain reading.
// A body that does not decode (not JSON, not an envelope, "data" not a T) fails with the
// decoder's error, which names the path that failed. A 304 answer gives a result with the
// content info read from the content headers and no data.
//
// The service's failure is also the error of the underlying HTTP result, so that the
// request's ticket fails with it.
//
// Ownership: the request owns its handler; the handler holds the request weakly.
// Thread safety: configure a request on one thread before execution; the handler runs on the
// session's delegate queue.
//
// Example:
//   struct Now { double temperature; std::string condition; };
//   BOOST_DESCRIBE_STRUCT(Now, (), (temperature, condition))
//   auto request = service.createRequest<Now>("now");     // kp::DecodableTarvixWebService
//   request->execute([](const kp::DecodableTarvixServiceResult<Now>& result) {
//     if (const Now* now = result.asResult().value()) show(now->temperature);
//   });
#pragma once

#include <any>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "kp/coding/json.h"
#include "kp/platform/export.h"
#include "kp/platform/result.h"
#include "kp/request/encryption_request_type.h"
#include "kp/request/http_request.h"
#include "kp/request/http_response.h"
#include "kp/request/request_errors.h"
#include "kp/request/request_handler.h"
#include "kp/request/request_ticket.h"
#include "kp/service/tarvix_service_content_info.h"
#include "kp/service/tarvix_service_request.h"

namespace kp {

// Reaches the decoding of a service result through the decoder's user info, so that the
// result, and any type inside it, can see the HTTP response.
struct KP_EXPORT DecodableTarvixServiceContext {
  // The key of the context in the decoder's user info.
  static constexpr std::string_view kUserInfoKey = "DecodableTarvixServiceContext";

  const JsonDecoder* decoder = nullptr;        // the decoder running, for the length of its run
  std::shared_ptr<HttpResponse> httpResponse;  // the answer being decoded

  // The context in `userInfo`, if any.
  [[nodiscard]] static const DecodableTarvixServiceContext* in(const UserInfo& userInfo);
};

namespace internal {

// What "meta" of a decodable envelope says: a failure, or the content info.
struct KP_EXPORT DecodableEnvelopeMeta {
  ErrorPtr error;
  TarvixServiceContentInfo contentInfo;
};
// Throws CodingError when "meta" is there but not an object, or its content info is unreadable.
[[nodiscard]] KP_EXPORT DecodableEnvelopeMeta decodeEnvelopeMeta(const KeyedDecoder& envelope);
// The received body, opened with the request's response key when it has one; nothing when
// there is no body or it does not open.
[[nodiscard]] KP_EXPORT std::optional<Data> openSealedBody(const HttpRequestHandler& handler);
// Sets `decoder` up for service answers: dates as seconds since 1970, and a context naming
// `decoder` and `response` in its user info.
KP_EXPORT void prepareServiceDecoder(JsonDecoder& decoder, const std::shared_ptr<HttpResponse>& response);
// The error of a decoding that threw.
[[nodiscard]] KP_EXPORT ErrorPtr decodingError(const std::exception& thrown);

}  // namespace internal

// What a typed service call delivers: the decoded data, or the error, with the content info
// and the HTTP response.
template <class T>
class DecodableTarvixServiceResult {
 public:
  // The envelope's key of the status and content info.
  static constexpr std::string_view kMetaKey = "meta";
  // The envelope's key of the payload.
  static constexpr std::string_view kDataKey = "data";

  TarvixServiceContentInfo contentInfo;        // how fresh the content is
  std::shared_ptr<HttpResponse> httpResponse;  // null when no answer arrived
  std::optional<T> data;                       // the payload; nothing on failure and for a 304
  ErrorPtr error;                              // the service's or the transfer's failure

  // The error when there is one; otherwise the data; otherwise a failure "No data available.".
  [[nodiscard]] Result<T> asResult() const {
    if (error) return Result<T>::failure(error);
    if (data) return Result<T>::success(*data);
    return Result<T>::failure(CustomError::make("No data available."));
  }

  // The result a request delivers from what its handler made: the decoded result, or one
  // carrying the transfer's response and error.
  [[nodiscard]] static DecodableTarvixServiceResult from(const HttpRequestResult& delivered) {
    if (const auto* decoded = std::any_cast<DecodableTarvixServiceResult>(&delivered.data)) {
      DecodableTarvixServiceResult out = *decoded;
      if (!out.error) out.error = delivered.error;
      return out;
    }
    DecodableTarvixServiceResult out;
    out.httpResponse = delivered.response;
    out.error = delivered.error;
    return out;
  }

  // The envelope as the file comment describes it.
  [[nodiscard]] static DecodableTarvixServiceResult decode(const Decoder& decoder) {
    const KeyedDecoder envelope = decoder.keyed();
    DecodableTarvixServiceResult out;
    if (const auto* context = DecodableTarvixServiceContext::in(decoder.userInfo())) {
      out.httpResponse = context->httpResponse;
    }
    internal::DecodableEnvelopeMeta meta = internal::decodeEnvelopeMeta(envelope);
    out.contentInfo = std::move(meta.contentInfo);
    if (meta.error) {
      out.error = std::move(meta.error);
      return out;
    }
    out.data = envelope.template decode<std::optional<T>>(kDataKey);
    return out;
  }
};

// Decodes only: the envelope is what services send.
template <class T>
struct Coding<DecodableTarvixServiceResult<T>> {
  // The result from the envelope in `d`.
  static DecodableTarvixServiceResult<T> decode(const Decoder& d) { return DecodableTarvixServiceResult<T>::decode(d); }
};

// The handler of typed service requests: seals the wire request and decodes the envelope.
template <class T>
class DecodableTarvixServiceRequestHandler : public HttpRequestHandler {
 public:
  // The request must carry keys (EncryptionRequestType); builds the sealed wire request.
  [[nodiscard]] ErrorPtr canHandle(const std::shared_ptr<RequestType>& candidate) override {
    return internal::prepareSealedUrlRequest(*this, candidate);
  }

  // A DecodableTarvixServiceResult<T>, or nothing (see the file comment).
  [[nodiscard]] std::any processReceivedData() override {
    if (result->response && result->response->statusCode == 304) {
      DecodableTarvixServiceResult<T> notModified;
      notModified.contentInfo.applyContentHeaders(*result->response);
      notModified.httpResponse = result->response;
      return notModified;
    }
    const std::optional<Data> body = internal::openSealedBody(*this);
    if (!body) return {};
    try {
      JsonDecoder decoder;
      internal::prepareServiceDecoder(decoder, result->response);
      auto decoded = decoder.decode<DecodableTarvixServiceResult<T>>(*body);
      if (decoded.error) result->error = decoded.error;
      return decoded;
    } catch (const std::exception& thrown) {
      result->error = internal::decodingError(thrown);
      return {};
    }
  }
};

template <class T>
class DecodableTarvixServiceRequest : public BasicHttpRequest, public EncryptionRequestType {
 public:
  // What the request delivers.
  using Result = DecodableTarvixServiceResult<T>;
  // Receives the typed result.
  using CompletionHandler = std::function<void(const Result&)>;

  // A new DecodableTarvixServiceRequestHandler<T>; method POST with the content type's
  // "Content-Type" ("application/json", or multipart form data with its quoted boundary).
  explicit DecodableTarvixServiceRequest(Url url,
                                         const MimeContentType& contentType = MimeContentType::applicationJson())
      : BasicHttpRequest(std::move(url), std::make_shared<DecodableTarvixServiceRequestHandler<T>>()) {
    httpConfig()->method = HttpRequestMethod::post;
    httpConfig()->setHeader(contentType.headerValue(), "Content-Type");
  }
  // A new request, as the constructor makes it.
  [[nodiscard]] static std::shared_ptr<DecodableTarvixServiceRequest> make(
      Url url, const MimeContentType& contentType = MimeContentType::applicationJson()) {
    return std::make_shared<DecodableTarvixServiceRequest>(std::move(url), contentType);
  }

  [[nodiscard]] std::shared_ptr<RequestTicketType> execute() override { return BasicHttpRequest::execute(); }
  // The completion receives the typed result; as BasicHttpRequest::execute(completion).
  std::shared_ptr<RequestTicketType> execute(CompletionHandler completion) {
    return BasicHttpRequest::execute(typed(std::move(completion)));
  }
  // The typed result, once it is there; nothing when none was delivered.
  // REQUIRES: not called on a session's delegate queue.
  [[nodiscard]] std::optional<Result> executeSynchronously() {
    auto delivered = std::dynamic_pointer_cast<HttpRequestResult>(BasicHttpRequest::executeSynchronously());
    if (!delivered) return std::nullopt;
    return Result::from(*delivered);
  }

 private:
  static RequestCompletionHandler typed(CompletionHandler completion) {
    if (!completion) return {};
    return [completion = std::move(completion)](const std::shared_ptr<HttpRequestResultType>& delivered) {
      if (const auto* http = dynamic_cast<const HttpRequestResult*>(delivered.get())) completion(Result::from(*http));
    };
  }
};

}  // namespace kp
