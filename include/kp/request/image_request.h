// The image kind: kp::ImageRequest, kp::ImageRequestHandler and kp::ImageRequestResult. The
// payload is the image decoded from the body (PNG, JPEG, GIF, WebP; within kp::Image's limits);
// other bytes, or none, give no payload and no error. Results may be cached: as an image
// entry (or a serialized one) the cache keeps the image, as a raw-data entry its PNG.
//
// Thread safety: as BasicHttpRequest and HttpRequestHandler; images may be shared.
//
// Example:
//   auto request = kp::ImageRequest::make(*kp::Url::parse("https://maps.example.com/radar.png"));
//   request->generateCacheKey();
//   request->cacheConfig()->itemType = kp::CacheItemType::image;
//   (void)request->execute([](const std::shared_ptr<kp::ImageRequestResult>& result) {
//     if (const kp::Image* image = result->dataAsImage()) draw(*image);
//   });
#pragma once

#include <optional>
#include <string_view>

#include "kp/coding/archivable_image.h"
#include "kp/platform/export.h"
#include "kp/request/request_handler.h"
#include "kp/request/typed_http_request.h"

namespace kp {

// The result of an image request.
class KP_EXPORT ImageRequestResult : public TypedRequestResult<ImageRequestResult> {
 public:
  // The class name of the archived form.
  static constexpr std::string_view kArchiveClassName = "KPImageRequestResult";
  // The decoded image; null when there was none. Held as an ArchivableImage object in `data`.
  [[nodiscard]] const Image* dataAsImage() const noexcept;

  [[nodiscard]] std::optional<ArchiveValue> cachePayload(CacheItemType type) const override;
  void restorePayload(const ArchiveValue& payload) override;
};

// The handler of image requests.
class KP_EXPORT ImageRequestHandler : public TypedRequestHandler<ImageRequestResult> {
 public:
  [[nodiscard]] std::any processReceivedData() override;
};

class KP_EXPORT ImageRequest : public TypedHttpRequest<ImageRequest, ImageRequestHandler, ImageRequestResult> {
 public:
  using TypedHttpRequest::TypedHttpRequest;
};

}  // namespace kp
