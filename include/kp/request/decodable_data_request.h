// The decodable kind: kp::DecodableDataRequest<T>, kp::DecodableDataRequestHandler<T> and
// kp::DecodableDataRequestResult<T>. The payload is a T decoded from the body with the
// request's decoder (JSON unless changed); a body that does not decode fails the result with
// the decoder's error, and no body gives no payload. The decoder's user info carries a
// DecodableDataRequestContext with the HTTP response, for types whose decoding needs it.
//
// With a query or body encryption key the wire request carries the query, or the body,
// encrypted as the service protocol does; with a response decryption key the body is Base64
// text of ciphertext, and a body that does not decrypt gives no payload. Results are never
// cached.
//
// Thread safety: as BasicHttpRequest and HttpRequestHandler; the decoder is shared, read-only.
//
// Example:
//   struct Now { double temperature = 0; };   // with a kp::Coding<Now> specialisation
//   auto request = kp::DecodableDataRequest<Now>::make(*kp::Url::parse("https://api.example.com/now"));
//   (void)request->execute([](const std::shared_ptr<kp::DecodableDataRequestResult<Now>>& result) {
//     kp::Result<Now> now = result->asResult();   // the value, the error, or "No data available."
//   });
#pragma once

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kp/coding/decoder_type.h"
#include "kp/coding/json.h"
#include "kp/platform/export.h"
#include "kp/platform/result.h"
#include "kp/request/request_errors.h"
#include "kp/request/request_handler.h"
#include "kp/request/typed_http_request.h"

namespace kp {

// Handed to the decoder in its user info under kUserInfoKey.
struct KP_EXPORT DecodableDataRequestContext {
  // The key of the context in the decoder's user info.
  static constexpr std::string_view kUserInfoKey = "DecodableDataRequestContext";
  std::shared_ptr<const DecoderType> decoder;  // the decoder running
  std::shared_ptr<HttpResponse> httpResponse;  // the answer being decoded
};

// What a decodable data request delivers: the body decoded into a T, or the error.
template <class T>
class DecodableDataRequestResult : public TypedRequestResult<DecodableDataRequestResult<T>> {
 public:
  // The class name its archived form (in the cache) carries.
  static constexpr std::string_view kArchiveClassName = "KPDecodableDataRequestResult";

  // The decoded value; null when there is none.
  [[nodiscard]] const T* value() const noexcept { return std::any_cast<T>(&this->data); }
  // The HTTP response; null when no answer arrived.
  [[nodiscard]] const std::shared_ptr<HttpResponse>& httpResponse() const noexcept { return this->response; }
  // The error when there is one, else the value, else a failure "No data available.".
  [[nodiscard]] Result<T> asResult() const {
    if (this->error) return Result<T>::failure(this->error);
    if (const T* decoded = value()) return Result<T>::success(*decoded);
    return Result<T>::failure(CustomError::make("No data available."));
  }
};

namespace internal {
// The URL request with the query and body encrypted under the keys that are given and not
// empty; stored in `handler.urlRequest`.
KP_EXPORT void prepareEncryptedUrlRequest(HttpRequestHandler& handler, const HttpRequestType& request,
                                          const std::optional<std::string>& queryKey,
                                          const std::optional<std::string>& bodyKey);
// The body to decode: as received without a key; decrypted from Base64 text with one, and
// nothing when that fails.
[[nodiscard]] KP_EXPORT std::optional<Data> decodableBody(const std::optional<Data>& received,
                                                          const std::optional<std::string>& decryptionKey);
}  // namespace internal

template <class T>
class DecodableDataRequest;

// The handler of decodable data requests: encrypts what the request's keys say and decodes the
// body with the request's decoder.
template <class T>
class DecodableDataRequestHandler : public TypedRequestHandler<DecodableDataRequestResult<T>> {
 public:
  // The request's decoder, taken in canHandle().
  std::shared_ptr<const DecoderType> decoder;

  [[nodiscard]] ErrorPtr canHandle(const std::shared_ptr<RequestType>& candidate) override {
    if (auto error = HttpRequestHandler::canHandle(candidate)) return error;
    auto decodable = std::dynamic_pointer_cast<DecodableDataRequest<T>>(candidate);
    if (!decodable) return RequestErrors::invalidRequestProtocolError();
    internal::prepareEncryptedUrlRequest(*this, *decodable, decodable->requestQueryEncryptionKey,
                                         decodable->requestBodyEncryptionKey);
    decoder = decodable->decoder ? decodable->decoder : std::make_shared<JsonDecoder>();
    decryptionKey_ = decodable->responseBodyDecryptionKey;
    return nullptr;
  }

  [[nodiscard]] std::any processReceivedData() override {
    auto body = internal::decodableBody(this->receivedData, decryptionKey_);
    if (!body || !decoder) return {};
    UserInfo context;
    context.emplace(DecodableDataRequestContext::kUserInfoKey,
                    DecodableDataRequestContext{decoder, this->result->response});
    try {
      return decoder->template decode<T>(*body, context);
    } catch (const CodingError& error) {
      this->result->error = error.toError();
    } catch (const std::exception& error) {
      this->result->error = RequestErrors::errorWith(error.what());
    }
    return {};
  }

 private:
  std::optional<std::string> decryptionKey_;
};

template <class T>
class DecodableDataRequest : public TypedHttpRequest<DecodableDataRequest<T>, DecodableDataRequestHandler<T>,
                                                     DecodableDataRequestResult<T>, BasicHttpRequest> {
 public:
  using TypedHttpRequest<DecodableDataRequest<T>, DecodableDataRequestHandler<T>, DecodableDataRequestResult<T>,
                         BasicHttpRequest>::TypedHttpRequest;

  // Encrypts the query with this key, when given and not empty.
  std::optional<std::string> requestQueryEncryptionKey;
  // Encrypts the body with this key, when given and not empty.
  std::optional<std::string> requestBodyEncryptionKey;
  // The body arrives as Base64 ciphertext under this key; without one (or with an empty one)
  // it is read as it is.
  std::optional<std::string> responseBodyDecryptionKey;
  // Decodes the body into a T; JSON by default.
  std::shared_ptr<const DecoderType> decoder = std::make_shared<JsonDecoder>();
};

}  // namespace kp
