// JPEG decoding over libjpeg-turbo's TurboJPEG interface: the distribution's maintained decoder,
// which reports damage through return codes (no long jumps through our frames).
//
// Like libwebp, libjpeg-turbo allocates with the C library's allocator, which a decode cannot
// count against a budget; so the dimensions are checked from the header first, progressive
// files are held to a bounded number of scans, the pixels go straight into memory of our own,
// and any warning (a file cut short, damaged data) ends the decode.
//
// CMYK and YCCK files (print-ready photos, what some image services pass on unchanged) come
// out of the decoder as CMYK, which is turned into RGB in place. They are taken as stored
// inverted, as the tools that write them (Adobe's first) store them.
#include <turbojpeg.h>

#include <memory>

#include "platform/image_codec.h"

namespace kp::internal {

bool isJpeg(std::span<const std::uint8_t> bytes) {
  return bytes.size() >= 2 && bytes[0] == 0xff && bytes[1] == 0xd8;  // start of image
}

std::optional<DecodedPixels> decodeJpeg(std::span<const std::uint8_t> bytes, const DecodeLimits& limits) {
  const std::unique_ptr<void, decltype(&tjDestroy)> handle(tjInitDecompress(), &tjDestroy);
  if (!handle) return std::nullopt;
  int width = 0;
  int height = 0;
  int subsampling = 0;
  int colorspace = 0;
  if (tjDecompressHeader3(handle.get(), bytes.data(), bytes.size(), &width, &height, &subsampling, &colorspace) != 0) {
    return std::nullopt;
  }
  if (!limits.admit(width, height)) return std::nullopt;
  const auto w = static_cast<std::uint64_t>(width);
  const auto h = static_cast<std::uint64_t>(height);

  DecodedPixels out;
  out.width = static_cast<std::uint32_t>(w);
  out.height = static_cast<std::uint32_t>(h);
  out.rgba.resize(w * h * 4);
  const int flags = TJFLAG_STOPONWARNING | TJFLAG_LIMITSCANS;
  // The decoder converts neither of these to RGB; both have four bytes a pixel, as RGBA has.
  const bool cmyk = colorspace == TJCS_CMYK || colorspace == TJCS_YCCK;
  if (tjDecompress2(handle.get(), bytes.data(), bytes.size(), out.rgba.data(), width, 0, height,
                    cmyk ? TJPF_CMYK : TJPF_RGBA, flags) != 0) {
    return std::nullopt;
  }
  if (cmyk) {
    for (std::size_t i = 0; i < out.rgba.size(); i += 4) {
      // Inverted: each ink byte is 255 where there is none, so black (k) darkens by product.
      const unsigned k = out.rgba[i + 3];
      for (std::size_t c = 0; c < 3; ++c)
        out.rgba[i + c] = static_cast<std::uint8_t>((out.rgba[i + c] * k + 127) / 255);
      out.rgba[i + 3] = 255;
    }
  }
  return out;
}

}  // namespace kp::internal
