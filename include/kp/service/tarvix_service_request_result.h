// kp::TarvixServiceRequestResult: what a service request hands back: the payload of the
// answer's envelope ("data", as parsed JSON), the HTTP response, a service or transfer error,
// and how fresh the content is (contentInfo). A 304 answer carries no payload and sets
// contentIsNotModified, so that the caller keeps the payload it has and takes the refreshed
// content info.
//
// The result is archived as "KPTarvixServiceRequestResult" (the fields of the HTTP result,
// then "contentInfo" and the boolean "contentIsNotModified"), so that a result served from
// the cache still says how old its content is.
//
// Thread safety: not locked; filled on one thread and then handed over.
//
// Example:
//   request->execute([](const std::shared_ptr<kp::TarvixServiceRequestResult>& result) {
//     if (result->failed()) return show(result->error->localizedDescription());
//     if (const kp::JsonValue* payload = result->dataAsJson()) render((*payload)["current"]);
//     if (result->contentInfo->isLocalExpired()) scheduleReload();
//   });
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "kp/coding/json.h"
#include "kp/platform/export.h"
#include "kp/request/request_result.h"
#include "kp/service/tarvix_service_content_info.h"

namespace kp {

class KP_EXPORT TarvixServiceRequestResult : public TypedRequestResult<TarvixServiceRequestResult> {
 public:
  // The class name its archived form (in the cache) carries.
  static constexpr std::string_view kArchiveClassName = "KPTarvixServiceRequestResult";
  // The archive key of contentInfo.
  static constexpr std::string_view kArchiveKeyContentInfo = "contentInfo";
  // The archive key of contentIsNotModified.
  static constexpr std::string_view kArchiveKeyContentIsNotModified = "contentIsNotModified";

  TarvixServiceRequestResult() = default;
  ~TarvixServiceRequestResult() override;
  // A copy that shares the content info record with the original.
  TarvixServiceRequestResult(const TarvixServiceRequestResult&) = default;
  // Takes `other`'s fields; the content info record is then shared.
  TarvixServiceRequestResult& operator=(const TarvixServiceRequestResult&) = default;

  // A new record with every result; the handler fills it from the envelope and the headers.
  std::shared_ptr<TarvixServiceContentInfo> contentInfo = std::make_shared<TarvixServiceContentInfo>();
  // True for a 304 answer: keep the payload you have, take the refreshed content info.
  bool contentIsNotModified = false;

  // The payload as parsed JSON; null when there is none, or when it is the raw body of a
  // request that skipped parsing (a kp::Data).
  [[nodiscard]] const JsonValue* dataAsJson() const noexcept { return std::any_cast<JsonValue>(&data); }

  // The copy shares nothing mutable with this result.
  [[nodiscard]] std::shared_ptr<RequestResult> copyWithoutData() const override;
  // JSON payloads are kept as their compact text, raw bodies as bytes.
  [[nodiscard]] std::optional<ArchiveValue> cachePayload(CacheItemType type) const override;
  void restorePayload(const ArchiveValue& payload) override;

  // What HttpRequestResult writes, then "contentInfo" and the boolean "contentIsNotModified".
  void encode(ArchiveEncoder& coder) const override;
  // Reads back what encode() wrote.
  [[nodiscard]] static std::shared_ptr<TarvixServiceRequestResult> decode(ArchiveDecoder& coder);
};

}  // namespace kp
