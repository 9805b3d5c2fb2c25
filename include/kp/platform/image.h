// kp::Image: a bitmap image (the platform's image value): RGBA pixels with 8 bits per channel,
// and a scale that relates pixels to points (2 for a screen with two pixels per point).
//
// Images are decoded from PNG, JPEG, GIF and WebP bytes (the first frame of an animation) and
// written as PNG, which is lossless: decoding the PNG of an image gives the same pixels. The
// PNG records the scale in its pHYs chunk as a resolution of 72 dots per inch per unit of
// scale (144 for 2), the convention of the platform's @2x artwork; reading keeps scales to
// two decimal places.
//
// Bytes to decode are untrusted: images wider or taller than kMaxDimension pixels, or with
// more than kMaxPixelCount pixels, are refused from their header before any pixel memory is
// taken, and a damaged, truncated or decompression-bomb file gives nothing, within bounded
// memory.
//
// Thread safety: an immutable value; copies share their pixels and may be used from any
// thread.
//
// Example:
//   std::optional<kp::Image> icon = kp::Image::decode(bytes);   // scale from the file, else 1
//   if (icon) {
//     kp::ImageSize points = icon->size();                         // pixels / scale
//     std::optional<kp::Data> png = icon->withScale(2).pngData();
//   }
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "kp/platform/data.h"
#include "kp/platform/export.h"

namespace kp {

// A size in points.
struct KP_EXPORT ImageSize {
  double width = 0;                                                      // points
  double height = 0;                                                     // points
  friend bool operator==(const ImageSize&, const ImageSize&) = default;  // equal sides
};

// A decoded image (see the top of this file).
class KP_EXPORT Image {
 public:
  static constexpr std::uint32_t kMaxDimension = 16384;       // the widest and highest image taken
  static constexpr std::uint64_t kMaxPixelCount = 32u << 20;  // 128 MiB of pixels

  // REQUIRES: both dimensions between 1 and kMaxDimension, at most kMaxPixelCount pixels,
  // rgba.size() == 4 * width * height, and a finite scale > 0; throws std::invalid_argument
  // otherwise.
  Image(std::uint32_t pixelWidth, std::uint32_t pixelHeight, std::vector<std::uint8_t> rgba, double scale = 1);

  // The first frame of PNG, JPEG, GIF or WebP bytes. The image takes `scale` when given, else the
  // scale a PNG records, else 1. Nothing for other or damaged bytes and for images beyond the
  // limits.
  [[nodiscard]] static std::optional<Image> decode(std::span<const std::uint8_t> bytes,
                                                   std::optional<double> scale = std::nullopt);
  // The same, from a buffer.
  [[nodiscard]] static std::optional<Image> decode(const Data& bytes, std::optional<double> scale = std::nullopt) {
    return decode(bytes.bytes(), scale);
  }

  // The image as PNG with its scale recorded; nothing only when the encoder fails.
  [[nodiscard]] std::optional<Data> pngData() const;

  [[nodiscard]] std::uint32_t pixelWidth() const noexcept { return width_; }    // pixels
  [[nodiscard]] std::uint32_t pixelHeight() const noexcept { return height_; }  // pixels
  [[nodiscard]] double scale() const noexcept { return scale_; }                // pixels per point
  // The size in points: pixels divided by the scale.
  [[nodiscard]] ImageSize size() const noexcept { return {width_ / scale_, height_ / scale_}; }
  // 4 bytes per pixel (red, green, blue, alpha, not premultiplied), rows top to bottom.
  [[nodiscard]] std::span<const std::uint8_t> pixels() const noexcept { return *pixels_; }
  // The same pixels at another scale. REQUIRES: a finite scale > 0.
  [[nodiscard]] Image withScale(double scale) const;

  // Same dimensions, scale and pixels.
  friend KP_EXPORT bool operator==(const Image& a, const Image& b);

 private:
  Image(std::uint32_t width, std::uint32_t height, std::shared_ptr<const std::vector<std::uint8_t>> pixels,
        double scale);

  std::uint32_t width_;
  std::uint32_t height_;
  std::shared_ptr<const std::vector<std::uint8_t>> pixels_;
  double scale_;
};

}  // namespace kp
