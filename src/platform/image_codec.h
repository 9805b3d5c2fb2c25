// The image codecs behind kp::Image: decoding PNG, JPEG, GIF and WebP bytes to RGBA pixels
// and encoding RGBA pixels as PNG. Internal; not installed.
//
// Decoding is bounded for hostile input: images larger than the limits are refused from their
// header, before any pixel memory is taken, and every allocation the PNG and GIF
// decoders make counts against a budget, so that a compressed bomb ends in a refusal instead
// of exhausting memory (JPEG and WebP: see image_jpeg.cc and image_webp.cc).
//
// Thread safety: every function may be called from any thread at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kp::internal {

struct DecodedPixels {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::vector<std::uint8_t> rgba;  // 4 bytes per pixel, rows top to bottom
};

struct DecodeLimits {
  std::uint32_t maxDimension = 0;
  std::uint64_t maxPixelCount = 0;

  // True for a size a header may announce: not empty, and within both limits.
  [[nodiscard]] bool admit(int width, int height) const noexcept {
    if (width <= 0 || height <= 0) return false;
    const auto w = static_cast<std::uint64_t>(width);
    const auto h = static_cast<std::uint64_t>(height);
    return w <= maxDimension && h <= maxDimension && w * h <= maxPixelCount;
  }
};

// The first frame of a PNG, JPEG, GIF or WebP image; nothing for anything else, for truncated
// or damaged data and for images beyond `limits`.
[[nodiscard]] std::optional<DecodedPixels> decodeImage(std::span<const std::uint8_t> bytes, const DecodeLimits& limits);

// True for bytes that open as a JPEG does (the start-of-image marker).
[[nodiscard]] bool isJpeg(std::span<const std::uint8_t> bytes);
// A JPEG image (baseline or progressive, grey or colour; CMYK files give nothing), as
// decodeImage().
[[nodiscard]] std::optional<DecodedPixels> decodeJpeg(std::span<const std::uint8_t> bytes, const DecodeLimits& limits);

// True for bytes in a WebP container ("RIFF", a size, "WEBP").
[[nodiscard]] bool isWebp(std::span<const std::uint8_t> bytes);
// The first frame of a WebP image, as decodeImage().
[[nodiscard]] std::optional<DecodedPixels> decodeWebp(std::span<const std::uint8_t> bytes, const DecodeLimits& limits);

// A PNG of RGBA pixels; nothing when the encoder fails.
// REQUIRES: rgba.size() == 4 * width * height.
[[nodiscard]] std::optional<std::vector<std::uint8_t>> encodePng(std::span<const std::uint8_t> rgba,
                                                                 std::uint32_t width, std::uint32_t height);

}  // namespace kp::internal
