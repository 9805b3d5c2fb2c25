// The data kind: kp::DataRequest, kp::DataRequestHandler and kp::DataRequestResult. The
// payload is the body as received; a response without a body has none. Results may be cached.
//
// Thread safety: as BasicHttpRequest and HttpRequestHandler.
//
// Example:
//   auto request = kp::DataRequest::make(*kp::Url::parse("https://tiles.example.com/4/8/5.png"));
//   (void)request->execute([](const std::shared_ptr<kp::DataRequestResult>& result) {
//     if (const kp::Data* bytes = result->dataAsData()) store(*bytes);
//   });
#pragma once

#include <string_view>

#include "kp/platform/data.h"
#include "kp/platform/export.h"
#include "kp/request/request_handler.h"
#include "kp/request/typed_http_request.h"

namespace kp {

// The result of a data request: the body as bytes.
class KP_EXPORT DataRequestResult : public TypedRequestResult<DataRequestResult> {
 public:
  // The class name its archived form (in the cache) carries.
  static constexpr std::string_view kArchiveClassName = "KPDataRequestResult";
  DataRequestResult() = default;
  // A copy with its own copy of the body.
  DataRequestResult(const DataRequestResult&) = default;
  // Takes a copy of `other`'s fields, the body included.
  DataRequestResult& operator=(const DataRequestResult&) = default;
  ~DataRequestResult() override;
  // The body; null when there was none.
  [[nodiscard]] const Data* dataAsData() const noexcept { return std::any_cast<Data>(&data); }
};

class DataRequestHandler : public TypedRequestHandler<DataRequestResult> {};

class KP_EXPORT DataRequest : public TypedHttpRequest<DataRequest, DataRequestHandler, DataRequestResult> {
 public:
  using TypedHttpRequest::TypedHttpRequest;
};

}  // namespace kp
