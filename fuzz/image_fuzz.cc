// Image decoding: any input gives an image or nothing, within the decoder's memory budget, and
// an image decoded once survives its PNG unchanged.
#include <cstdlib>

#include "kp/platform/image.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto image = kp::Image::decode(std::span<const std::uint8_t>(data, size));
  if (!image) return 0;
  const auto png = image->pngData();
  if (!png) std::abort();
  const auto back = kp::Image::decode(*png);
  if (!back || !(*back == *image)) std::abort();
  return 0;
}
