// The JSON kind: kp::JsonRequest, kp::JsonRequestHandler and kp::JsonRequestResult. The
// payload is the body parsed as JSON (kp::JsonValue, any JSON value at the top); a body that
// is not JSON, or none, gives no payload and no error. Results may be cached: the cache keeps
// the JSON text.
//
// Thread safety: as BasicHttpRequest and HttpRequestHandler; a JsonValue may be shared.
//
// Example:
//   auto request = kp::JsonRequest::make(*kp::Url::parse("https://api.example.com/now.json"));
//   auto result = request->executeSynchronously();
//   if (result && result->dataAsJson()) show((*result->dataAsJson())["temperature"].doubleValue());
#pragma once

#include <optional>
#include <string_view>

#include "kp/coding/json.h"
#include "kp/platform/export.h"
#include "kp/request/request_handler.h"
#include "kp/request/typed_http_request.h"

namespace kp {

// The result of a JSON request.
class KP_EXPORT JsonRequestResult : public TypedRequestResult<JsonRequestResult> {
 public:
  // The class name of the archived form.
  static constexpr std::string_view kArchiveClassName = "KPJsonRequestResult";
  // The parsed body; null when there was none or it was not JSON.
  [[nodiscard]] const JsonValue* dataAsJson() const noexcept { return std::any_cast<JsonValue>(&data); }

  // The compact JSON text, as bytes.
  [[nodiscard]] std::optional<ArchiveValue> cachePayload(CacheItemType type) const override;
  void restorePayload(const ArchiveValue& payload) override;
};

// The handler of JSON requests.
class KP_EXPORT JsonRequestHandler : public TypedRequestHandler<JsonRequestResult> {
 public:
  [[nodiscard]] std::any processReceivedData() override;
};

class KP_EXPORT JsonRequest : public TypedHttpRequest<JsonRequest, JsonRequestHandler, JsonRequestResult> {
 public:
  using TypedHttpRequest::TypedHttpRequest;
};

}  // namespace kp
