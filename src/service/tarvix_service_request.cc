// Service requests: the sealed wire request, and opening the answer's envelope.
#include "kp/service/tarvix_service_request.h"

#include <cmath>

#include "kp/foundation/json.h"
#include "kp/request/decodable_data_request.h"
#include "kp/request/request_errors.h"
#include "kp/service/encryption.h"

namespace kp {
namespace {

constexpr std::string_view kUnknownFailure = "Service failed for unknown reasons.";

std::optional<std::string_view> keyOf(const std::optional<std::string>& key) {
  if (!key || key->empty()) return std::nullopt;
  return std::string_view(*key);
}

// The service's own text, or the default for a missing, empty or non-text message.
std::string failureText(const JsonValue& message) {
  const auto text = message.stringValue();
  return std::string(text && !text->empty() ? *text : kUnknownFailure);
}

// A status as the error's code; statuses beyond the integers are cut to them.
std::int64_t statusCodeOf(double status) {
  if (status >= 9.2e18) return INT64_MAX;
  return static_cast<std::int64_t>(status);
}

// Copies what "meta"/"contentInfo" holds with the right type; other keys and types are ignored,
// and so are numbers beyond a double's range, which the JSON reader turns into null.
void copyContentInfo(const JsonValue& from, TarvixServiceContentInfo& into) {
  if (auto format = from[TarvixServiceContentInfo::kFormatVersionKey].intValue()) into.formatVersion = format;
  if (auto interval = from[TarvixServiceContentInfo::kExpiryIntervalKey].doubleValue()) into.expiryInterval = interval;
  if (auto created = from[TarvixServiceContentInfo::kCreatedTimestampKey].doubleValue()) {
    into.remoteCreatedAt = Date::fromTimeIntervalSince1970(*created);
  }
}

std::any payloadOf(const JsonValue& envelope) {
  JsonValue data = envelope["data"];
  if (data.isNull()) return {};
  return data;
}

}  // namespace

namespace internal {

ErrorPtr prepareSealedUrlRequest(HttpRequestHandler& handler, const std::shared_ptr<RequestType>& candidate) {
  if (auto error = handler.HttpRequestHandler::canHandle(candidate)) return error;
  const auto* keys = dynamic_cast<const EncryptionRequestType*>(candidate.get());
  if (!keys) return RequestErrors::invalidRequestProtocolError();
  prepareEncryptedUrlRequest(handler, dynamic_cast<const HttpRequestType&>(*candidate), keys->requestQueryEncryptionKey,
                             keys->requestBodyEncryptionKey);
  return nullptr;
}

}  // namespace internal

TarvixServiceRequest::TarvixServiceRequest(Url url) : TypedHttpRequest(std::move(url)) {
  httpConfig()->method = HttpRequestMethod::post;
  httpConfig()->setHeader("application/json", "Content-Type");
}

TarvixServiceRequestHandler::TarvixServiceRequestHandler() { useSharedURLSession = true; }

ErrorPtr TarvixServiceRequestHandler::canHandle(const std::shared_ptr<RequestType>& candidate) {
  return internal::prepareSealedUrlRequest(*this, candidate);
}

std::any TarvixServiceRequestHandler::processReceivedData() {
  TarvixServiceRequestResult& out = *tarvixServiceRequestResult;
  if (out.response && out.response->statusCode == 304 && out.contentInfo) {
    out.contentInfo->applyContentHeaders(*out.response);
    out.contentIsNotModified = true;
    return {};
  }
  const auto current = request.lock();
  const auto* service = dynamic_cast<const TarvixServiceRequest*>(current.get());
  if (service && service->skipResponseParsing) return HttpRequestHandler::processReceivedData();
  if (!receivedData) return {};

  std::optional<JsonValue> envelope;
  const auto* keys = dynamic_cast<const EncryptionRequestType*>(current.get());
  if (auto key = keys ? keyOf(keys->responseBodyDecryptionKey) : std::nullopt) {
    envelope = TarvixServiceEncryptionHelper::decryptData(receivedData->bytes(), *key);
  } else {
    envelope = objectFromJSONData(*receivedData);
  }
  if (!envelope || envelope->type() != JsonValue::Type::object) return {};

  if ((*envelope)["success"].boolValue() == false) {
    out.error = RequestErrors::errorWith(failureText((*envelope)["message"]));
    return {};
  }
  const JsonValue meta = (*envelope)["meta"];
  if (meta.type() != JsonValue::Type::object) return payloadOf(*envelope);

  if (auto status = meta["statusCode"].doubleValue(); status && *status >= 400) {
    out.error = RequestErrors::errorWith(failureText(meta["message"]), statusCodeOf(*status));
    return {};
  }
  if (!out.contentInfo) return {};
  copyContentInfo(meta["contentInfo"], *out.contentInfo);
  if (out.response) out.contentInfo->applyContentHeaders(*out.response);

  std::any payload = payloadOf(*envelope);
  if (service && service->tarvixServiceProcessReceivedDataHandler && out.response) {
    const auto* json = std::any_cast<JsonValue>(&payload);
    auto replaced = service->tarvixServiceProcessReceivedDataHandler(
        json ? std::optional<JsonValue>(*json) : std::nullopt, out.response, out.contentInfo, cancelledFlag);
    payload = replaced ? std::any(std::move(*replaced)) : std::any();
  }
  return payload;
}

}  // namespace kp
