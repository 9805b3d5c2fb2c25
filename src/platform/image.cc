// Images: validation, decoding through the codecs, and the scale kept in a PNG's pHYs chunk.
#include "kp/platform/image.h"

#include <array>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "platform/image_codec.h"

namespace kp {
namespace {

// Pixels per metre at 72 dots per inch: one unit of scale.
constexpr double kPixelsPerMetrePerScale = 72.0 / 0.0254;
constexpr std::size_t kSignatureSize = 8;
constexpr std::size_t kChunkOverhead = 12;  // length, type, CRC

bool validScale(double scale) { return std::isfinite(scale) && scale > 0; }

std::uint32_t readBigEndian(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}

void writeBigEndian(std::uint8_t* p, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
}

std::uint32_t crc32(std::span<const std::uint8_t> bytes) {
  static const auto table = [] {
    std::array<std::uint32_t, 256> t{};
    for (std::uint32_t n = 0; n < 256; ++n) {
      std::uint32_t c = n;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xedb88320u ^ (c >> 1) : c >> 1;
      t[n] = c;
    }
    return t;
  }();
  std::uint32_t c = 0xffffffffu;
  for (std::uint8_t b : bytes) c = table[(c ^ b) & 0xff] ^ (c >> 8);
  return c ^ 0xffffffffu;
}

bool isPng(std::span<const std::uint8_t> bytes) {
  static constexpr std::uint8_t kSignature[kSignatureSize] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  return bytes.size() >= kSignatureSize && std::memcmp(bytes.data(), kSignature, kSignatureSize) == 0;
}

// The scale a PNG records: square pixels measured per metre, before the image data.
std::optional<double> recordedScale(std::span<const std::uint8_t> bytes) {
  if (!isPng(bytes)) return std::nullopt;
  std::size_t offset = kSignatureSize;
  while (bytes.size() - offset >= kChunkOverhead) {
    const std::uint32_t length = readBigEndian(bytes.data() + offset);
    if (length > bytes.size() - offset - kChunkOverhead) return std::nullopt;
    const std::string_view type(reinterpret_cast<const char*>(bytes.data() + offset + 4), 4);
    const std::uint8_t* data = bytes.data() + offset + 8;
    if (type == "IDAT" || type == "IEND") return std::nullopt;
    if (type == "pHYs" && length == 9) {
      const std::uint32_t x = readBigEndian(data);
      const std::uint32_t y = readBigEndian(data + 4);
      if (data[8] != 1 || x != y || x == 0) return std::nullopt;
      const double scale = std::round(x / kPixelsPerMetrePerScale * 100.0) / 100.0;
      return scale > 0 ? std::optional<double>(scale) : std::nullopt;
    }
    offset += kChunkOverhead + length;
  }
  return std::nullopt;
}

// A pHYs chunk for `scale`, placed after IHDR (which a PNG always starts with).
std::vector<std::uint8_t> withScaleChunk(const std::vector<std::uint8_t>& png, double scale) {
  constexpr std::size_t kAfterHeader = kSignatureSize + kChunkOverhead + 13;
  const double perMetre = std::round(scale * kPixelsPerMetrePerScale);
  if (png.size() < kAfterHeader || !(perMetre >= 1 && perMetre <= 0x7fffffff)) return png;
  // Length, type, pixels per unit on both axes, the unit (the metre), CRC of type and data.
  std::array<std::uint8_t, kChunkOverhead + 9> chunk{};
  writeBigEndian(chunk.data(), 9);
  std::memcpy(chunk.data() + 4, "pHYs", 4);
  writeBigEndian(chunk.data() + 8, static_cast<std::uint32_t>(perMetre));
  writeBigEndian(chunk.data() + 12, static_cast<std::uint32_t>(perMetre));
  chunk[16] = 1;
  writeBigEndian(chunk.data() + 17, crc32(std::span(chunk).subspan(4, 13)));
  std::vector<std::uint8_t> out;
  out.reserve(png.size() + chunk.size());
  out.insert(out.end(), png.begin(), png.begin() + static_cast<std::ptrdiff_t>(kAfterHeader));
  out.insert(out.end(), chunk.begin(), chunk.end());
  out.insert(out.end(), png.begin() + static_cast<std::ptrdiff_t>(kAfterHeader), png.end());
  return out;
}

}  // namespace

Image::Image(std::uint32_t pixelWidth, std::uint32_t pixelHeight, std::vector<std::uint8_t> rgba, double scale)
    : width_(pixelWidth), height_(pixelHeight), scale_(scale) {
  const std::uint64_t count = std::uint64_t{pixelWidth} * pixelHeight;
  if (pixelWidth == 0 || pixelHeight == 0 || pixelWidth > kMaxDimension || pixelHeight > kMaxDimension ||
      count > kMaxPixelCount) {
    throw std::invalid_argument("image dimensions out of range");
  }
  if (rgba.size() != count * 4) throw std::invalid_argument("image pixels do not match its dimensions");
  if (!validScale(scale)) throw std::invalid_argument("image scale must be finite and positive");
  pixels_ = std::make_shared<const std::vector<std::uint8_t>>(std::move(rgba));
}

Image::Image(std::uint32_t width, std::uint32_t height, std::shared_ptr<const std::vector<std::uint8_t>> pixels,
             double scale)
    : width_(width), height_(height), pixels_(std::move(pixels)), scale_(scale) {}

std::optional<Image> Image::decode(std::span<const std::uint8_t> bytes, std::optional<double> scale) {
  if (scale && !validScale(*scale)) return std::nullopt;
  auto decoded = internal::decodeImage(bytes, {kMaxDimension, kMaxPixelCount});
  if (!decoded) return std::nullopt;
  const double chosen = scale ? *scale : recordedScale(bytes).value_or(1.0);
  return Image(decoded->width, decoded->height, std::move(decoded->rgba), chosen);
}

std::optional<Data> Image::pngData() const {
  auto png = internal::encodePng(*pixels_, width_, height_);
  if (!png) return std::nullopt;
  return Data(withScaleChunk(*png, scale_));
}

Image Image::withScale(double scale) const {
  if (!validScale(scale)) throw std::invalid_argument("image scale must be finite and positive");
  return Image(width_, height_, pixels_, scale);
}

bool operator==(const Image& a, const Image& b) {
  return a.width_ == b.width_ && a.height_ == b.height_ && a.scale_ == b.scale_ &&
         (a.pixels_ == b.pixels_ || *a.pixels_ == *b.pixels_);
}

}  // namespace kp
