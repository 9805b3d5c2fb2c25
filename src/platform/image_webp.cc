// WebP decoding over libwebp: still images through its decoder, and the first frame of an
// animation through its demuxer, which composes frames on a canvas.
//
// libwebp allocates with the C library's allocator, which a decode cannot count against a
// budget; so the dimensions are checked from the header first, and the pixels go straight into
// memory of our own. What libwebp holds beside them grows with those dimensions (rows of the
// lossy decoder, the whole image as 32-bit pixels for a lossless one, two canvases for an
// animation).
#include <webp/decode.h>
#include <webp/demux.h>

#include <cstring>
#include <memory>

#include "platform/image_codec.h"

namespace kp::internal {
namespace {

bool decodeStill(std::span<const std::uint8_t> bytes, WebPDecoderConfig& config, DecodedPixels& out) {
  config.output.colorspace = MODE_RGBA;
  config.output.is_external_memory = 1;
  config.output.u.RGBA.rgba = out.rgba.data();
  config.output.u.RGBA.stride = static_cast<int>(out.width * 4);
  config.output.u.RGBA.size = out.rgba.size();
  const VP8StatusCode status = WebPDecode(bytes.data(), bytes.size(), &config);
  // The header and the bitstream must agree on the size; anything else is not to be trusted.
  const bool whole = status == VP8_STATUS_OK && config.output.width == static_cast<int>(out.width) &&
                     config.output.height == static_cast<int>(out.height);
  WebPFreeDecBuffer(&config.output);
  return whole;
}

bool decodeFirstFrame(std::span<const std::uint8_t> bytes, DecodedPixels& out) {
  WebPAnimDecoderOptions options;
  if (!WebPAnimDecoderOptionsInit(&options)) return false;
  options.color_mode = MODE_RGBA;
  options.use_threads = 0;
  const WebPData data{bytes.data(), bytes.size()};
  const std::unique_ptr<WebPAnimDecoder, decltype(&WebPAnimDecoderDelete)> decoder(WebPAnimDecoderNew(&data, &options),
                                                                                   &WebPAnimDecoderDelete);
  if (!decoder) return false;
  WebPAnimInfo info;
  if (!WebPAnimDecoderGetInfo(decoder.get(), &info) || info.canvas_width != out.width ||
      info.canvas_height != out.height) {
    return false;
  }
  std::uint8_t* canvas = nullptr;
  int timestamp = 0;
  if (!WebPAnimDecoderGetNext(decoder.get(), &canvas, &timestamp) || canvas == nullptr) return false;
  std::memcpy(out.rgba.data(), canvas, out.rgba.size());
  return true;
}

}  // namespace

bool isWebp(std::span<const std::uint8_t> bytes) {
  return bytes.size() >= 12 && std::memcmp(bytes.data(), "RIFF", 4) == 0 &&
         std::memcmp(bytes.data() + 8, "WEBP", 4) == 0;
}

std::optional<DecodedPixels> decodeWebp(std::span<const std::uint8_t> bytes, const DecodeLimits& limits) {
  WebPDecoderConfig config;
  if (!isWebp(bytes) || !WebPInitDecoderConfig(&config)) return std::nullopt;
  if (WebPGetFeatures(bytes.data(), bytes.size(), &config.input) != VP8_STATUS_OK) return std::nullopt;
  // An animation's size is that of its canvas.
  const WebPBitstreamFeatures& features = config.input;
  if (!limits.admit(features.width, features.height)) return std::nullopt;
  const auto w = static_cast<std::uint64_t>(features.width);
  const auto h = static_cast<std::uint64_t>(features.height);

  DecodedPixels decoded;
  decoded.width = static_cast<std::uint32_t>(w);
  decoded.height = static_cast<std::uint32_t>(h);
  decoded.rgba.resize(w * h * 4);
  const bool ok = features.has_animation ? decodeFirstFrame(bytes, decoded) : decodeStill(bytes, config, decoded);
  if (!ok) return std::nullopt;
  return decoded;
}

}  // namespace kp::internal
