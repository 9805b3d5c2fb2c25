// The service result's JSON view of its payload, copies and archived form.
#include "kp/service/tarvix_service_request_result.h"

namespace kp {
namespace {

const ArchiveRegistration<TarvixServiceRequestResult> registration{
    std::string(TarvixServiceRequestResult::kArchiveClassName),
    {std::string(HttpRequestResult::kArchiveClassName), std::string(RequestResult::kArchiveClassName)}};

}  // namespace

std::optional<JsonValue> TarvixServiceRequestResult::dataAsJson() const {
  if (const auto* json = std::any_cast<JsonValue>(&data)) return *json;
  // What the cache gives back: collections as archive values, scalars as themselves.
  if (const auto* archived = std::any_cast<ArchiveValue>(&data)) return JsonValue::fromArchiveValue(*archived);
  if (const auto* text = std::any_cast<std::string>(&data)) return JsonValue(std::string_view(*text));
  if (const auto* integer = std::any_cast<std::int64_t>(&data)) return JsonValue(*integer);
  if (const auto* real = std::any_cast<double>(&data)) return JsonValue(*real);
  if (const auto* flag = std::any_cast<bool>(&data)) return JsonValue(*flag);
  return std::nullopt;
}

std::shared_ptr<RequestResult> TarvixServiceRequestResult::copy() const {
  auto out = std::make_shared<TarvixServiceRequestResult>(*this);
  if (response) out->response = std::make_shared<HttpResponse>(*response);
  if (contentInfo) out->contentInfo = std::make_shared<TarvixServiceContentInfo>(*contentInfo);
  return out;
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
  HttpRequestResult::decodeInto(*result, coder);
  if (auto stored = coder.decodeObject(kArchiveKeyContentInfo)) {
    auto info = stored->object<TarvixServiceContentInfo>();
    if (!info) coder.fail("the content info is not a content info");
    result->contentInfo = std::make_shared<TarvixServiceContentInfo>(*info);
  }
  result->contentIsNotModified = coder.decodeBool(kArchiveKeyContentIsNotModified);
  return result;
}

}  // namespace kp
