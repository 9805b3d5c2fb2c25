// The service result's copies, cache payload and archived form.
#include "kp/service/tarvix_service_request_result.h"

namespace kp {
namespace {

const ArchiveRegistration<TarvixServiceRequestResult> registration{
    std::string(TarvixServiceRequestResult::kArchiveClassName),
    {std::string(HttpRequestResult::kArchiveClassName), std::string(RequestResult::kArchiveClassName)}};

}  // namespace

// Out of line, so that every program using the class links its archive registration.
TarvixServiceRequestResult::~TarvixServiceRequestResult() = default;

std::shared_ptr<RequestResult> TarvixServiceRequestResult::copyWithoutData() const {
  auto out = std::static_pointer_cast<TarvixServiceRequestResult>(TypedRequestResult::copyWithoutData());
  if (contentInfo) out->contentInfo = std::make_shared<TarvixServiceContentInfo>(*contentInfo);
  out->contentIsNotModified = contentIsNotModified;
  return out;
}

std::optional<ArchiveValue> TarvixServiceRequestResult::cachePayload(CacheItemType type) const {
  // Text for JSON and bytes for a raw body, so that reading back cannot take one for the other.
  if (const JsonValue* json = dataAsJson()) return ArchiveValue(json->serialize());
  return TypedRequestResult::cachePayload(type);
}

void TarvixServiceRequestResult::restorePayload(const ArchiveValue& payload) {
  data.reset();
  if (const auto* text = payload.get<std::string>()) {
    if (auto parsed = JsonValue::parse(*text)) data = std::move(*parsed);
  } else if (const auto* bytes = payload.get<Data>()) {
    data = *bytes;
  }
}

void TarvixServiceRequestResult::encode(ArchiveEncoder& coder) const {
  HttpRequestResult::encode(coder);
  if (contentInfo) {
    coder.encodeObject(kArchiveKeyContentInfo, ArchiveValue(std::static_pointer_cast<const Archivable>(contentInfo)));
  }
  coder.encodeBool(kArchiveKeyContentIsNotModified, contentIsNotModified);
}

std::shared_ptr<TarvixServiceRequestResult> TarvixServiceRequestResult::decode(ArchiveDecoder& coder) {
  auto result = std::make_shared<TarvixServiceRequestResult>();
  decodeInto(*result, coder);
  if (auto stored = coder.decodeObject(kArchiveKeyContentInfo)) {
    auto info = stored->object<TarvixServiceContentInfo>();
    if (!info) coder.fail("the content info is not a content info");
    result->contentInfo = std::make_shared<TarvixServiceContentInfo>(*info);
  }
  result->contentIsNotModified = coder.decodeBool(kArchiveKeyContentIsNotModified);
  return result;
}

}  // namespace kp
