// kp::ArchivableImage: an image as an archivable object, so that images travel wherever
// archive values do: as the payload of image cache entries and of image request results.
// Archived as "UIImage" with the image's lossless PNG (which records its scale) and its
// scale.
//
// Thread safety: immutable; may be shared between threads.
//
// Example:
//   auto object = std::make_shared<kp::ArchivableImage>(*kp::Image::decode(bytes));
//   kp::ArchiveValue payload(object);
//   auto bytes = kp::KeyedArchiver::archivedData(payload);
//   auto back = kp::KeyedUnarchiver::unarchivedObject<kp::ArchivableImage>(*bytes, {"UIImage"});
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "kp/coding/keyed_archiver.h"
#include "kp/platform/export.h"
#include "kp/platform/image.h"

namespace kp {

class KP_EXPORT ArchivableImage final : public Archivable {
 public:
  // The class name of the archived form.
  static constexpr std::string_view kArchiveClassName = "UIImage";
  // The archive key of the PNG bytes.
  static constexpr std::string_view kArchiveKeyPng = "UIImagePNGData";
  // The archive key of the scale.
  static constexpr std::string_view kArchiveKeyScale = "UIImageScale";

  // Archives `image`.
  explicit ArchivableImage(Image image) : image_(std::move(image)) {}

  // The image.
  [[nodiscard]] const Image& image() const noexcept { return image_; }

  [[nodiscard]] std::string archiveClassName() const override { return std::string(kArchiveClassName); }
  // Throws when the image has no PNG form, which fails the archiving.
  void encode(ArchiveEncoder& coder) const override;
  // Fails the unarchiving for bytes that are not an image within the decoding limits.
  [[nodiscard]] static std::shared_ptr<ArchivableImage> decode(ArchiveDecoder& coder);
  // Equal images (dimensions, scale and pixels).
  [[nodiscard]] bool isEqual(const Archivable& other) const override;

 private:
  Image image_;
};

}  // namespace kp
