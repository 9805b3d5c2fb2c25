// Image decoding (PNG, JPEG, GIF, WebP): any input gives an image or nothing, within the
// decoder's memory budget, and an image decoded once survives its PNG unchanged. The round
// trip is left out for images of more than a quarter megapixel, a few bytes of GIF or WebP
// header away, whose PNG takes the instrumented encoder seconds (16 s for 2 megapixels) and
// shows nothing new. The
// markers of the formats are in image.dict (-dict=fuzz/image.dict); small files of each
// format make a good start for the corpus.
#include <cstdlib>

#include "kp/platform/image.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto image = kp::Image::decode(std::span<const std::uint8_t>(data, size));
  if (!image || std::uint64_t{image->pixelWidth()} * image->pixelHeight() > (1u << 18)) return 0;
  const auto png = image->pngData();
  if (!png) std::abort();
  const auto back = kp::Image::decode(*png);
  if (!back || !(*back == *image)) std::abort();
  return 0;
}
