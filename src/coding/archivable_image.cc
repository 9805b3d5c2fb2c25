// The archived form of images.
#include "kp/coding/archivable_image.h"

#include <stdexcept>

namespace kp {
namespace {

const ArchiveRegistration<ArchivableImage> registration{std::string(ArchivableImage::kArchiveClassName)};

}  // namespace

void ArchivableImage::encode(ArchiveEncoder& coder) const {
  auto png = image_.pngData();
  if (!png) throw std::runtime_error("the image has no PNG form");
  coder.encodeObject(kArchiveKeyPng, ArchiveValue(std::move(*png)));
  coder.encodeDouble(kArchiveKeyScale, image_.scale());
}

std::shared_ptr<ArchivableImage> ArchivableImage::decode(ArchiveDecoder& coder) {
  auto png = coder.decodeObject(kArchiveKeyPng);
  const Data* bytes = png ? png->get<Data>() : nullptr;
  if (bytes == nullptr) coder.fail("an image without PNG data");
  const double scale = coder.decodeDouble(kArchiveKeyScale);
  auto image = Image::decode(*bytes, scale > 0 ? std::optional<double>(scale) : std::nullopt);
  if (!image) coder.fail("the image data is not a readable image");
  return std::make_shared<ArchivableImage>(std::move(*image));
}

bool ArchivableImage::isEqual(const Archivable& other) const {
  const auto* image = dynamic_cast<const ArchivableImage*>(&other);
  return image != nullptr && image->image_ == image_;
}

}  // namespace kp
