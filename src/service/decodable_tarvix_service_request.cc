// The parts of decodable service requests that do not depend on the payload type.
#include "kp/service/decodable_tarvix_service_request.h"

#include "kp/request/decodable_data_request.h"

namespace kp {

const DecodableTarvixServiceContext* DecodableTarvixServiceContext::in(const UserInfo& userInfo) {
  auto it = userInfo.find(kUserInfoKey);
  return it == userInfo.end() ? nullptr : std::any_cast<DecodableTarvixServiceContext>(&it->second);
}

namespace internal {

DecodableEnvelopeMeta decodeEnvelopeMeta(const KeyedDecoder& envelope) {
  DecodableEnvelopeMeta out;
  if (envelope.decodeNil("meta")) return out;
  const KeyedDecoder meta = envelope.nestedKeyed("meta");
  std::optional<std::int64_t> code;
  try {
    code = meta.decode<std::optional<std::int64_t>>("code");
  } catch (const CodingError&) {
    // A code that is not an integer says nothing about failure.
  }
  if (code && *code >= 400) {
    std::string message;
    try {
      message = meta.decode<std::string>("message");
    } catch (const CodingError& thrown) {
      message = std::string("Service failed for unknown reasons, could not retrieve error message due to exception: ") +
                thrown.what();
    }
    if (message.empty()) message = "Service failed for unknown reasons.";
    out.error = RequestErrors::errorWith(std::move(message), *code);
    return out;
  }
  if (auto info = meta.decode<std::optional<TarvixServiceContentInfo>>("contentInfo")) {
    out.contentInfo = std::move(*info);
  }
  return out;
}

std::optional<Data> openSealedBody(const HttpRequestHandler& handler) {
  const auto current = handler.request.lock();
  const auto* keys = dynamic_cast<const EncryptionRequestType*>(current.get());
  return decodableBody(handler.receivedData, keys ? keys->responseBodyDecryptionKey : std::nullopt);
}

void prepareServiceDecoder(JsonDecoder& decoder, const std::shared_ptr<HttpResponse>& response) {
  decoder.dateStrategy = DateStrategy::secondsSince1970;
  decoder.userInfo.insert_or_assign(std::string(DecodableTarvixServiceContext::kUserInfoKey),
                                    DecodableTarvixServiceContext{&decoder, response});
}

ErrorPtr decodingError(const std::exception& thrown) {
  if (const auto* coding = dynamic_cast<const CodingError*>(&thrown)) return coding->toError();
  return RequestErrors::errorWith(thrown.what());
}

}  // namespace internal
}  // namespace kp
