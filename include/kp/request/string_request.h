// The string kind: kp::StringRequest, kp::StringRequestHandler and kp::StringRequestResult.
// The payload is the body as text when it is valid UTF-8 (strictly: no overlong forms, no
// surrogates); other bytes, or none, give no payload and no error. Results may be cached.
//
// Thread safety: as BasicHttpRequest and HttpRequestHandler.
//
// Example:
//   auto request = kp::StringRequest::make(*kp::Url::parse("https://api.example.com/motd.txt"));
//   (void)request->execute([](const std::shared_ptr<kp::StringRequestResult>& result) {
//     if (const std::string* text = result->dataAsString()) show(*text);
//   });
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/export.h"
#include "kp/request/request_handler.h"
#include "kp/request/typed_http_request.h"

namespace kp {

// The result of a string request.
class KP_EXPORT StringRequestResult : public TypedRequestResult<StringRequestResult> {
 public:
  // The class name of the archived form.
  static constexpr std::string_view kArchiveClassName = "KPStringRequestResult";
  // The body as text; null when there was none or it was not UTF-8.
  [[nodiscard]] const std::string* dataAsString() const noexcept { return std::any_cast<std::string>(&data); }

  // The text's bytes, so that the cache may keep them in a file too.
  [[nodiscard]] std::optional<ArchiveValue> cachePayload(CacheItemType type) const override;
  void restorePayload(const ArchiveValue& payload) override;
};

// The handler of string requests.
class KP_EXPORT StringRequestHandler : public TypedRequestHandler<StringRequestResult> {
 public:
  [[nodiscard]] std::any processReceivedData() override;
};

class KP_EXPORT StringRequest : public TypedHttpRequest<StringRequest, StringRequestHandler, StringRequestResult> {
 public:
  using TypedHttpRequest::TypedHttpRequest;
};

}  // namespace kp
