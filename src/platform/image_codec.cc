// The PNG and GIF decoders and the PNG encoder over stb (from the distribution's headers,
// compiled into this file only, with internal linkage so they never clash with a host's own
// copy); JPEG and WebP have decoders of their own (image_jpeg.cc, image_webp.cc).
#include "platform/image_codec.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <vector>

namespace kp::internal {
namespace {

// The bytes the decode running on this thread may still allocate; unlimited outside one.
thread_local bool tBudgeted = false;
thread_local std::size_t tBudget = 0;

// Every block carries its size in front, so that frees and reallocations give it back.
constexpr std::size_t kHeader = 16;

void* budgetedMalloc(std::size_t size) {
  if (tBudgeted) {
    if (size > tBudget) return nullptr;
    tBudget -= size;
  }
  auto* block = static_cast<unsigned char*>(std::malloc(size + kHeader));
  if (block == nullptr) {
    if (tBudgeted) tBudget += size;
    return nullptr;
  }
  std::memcpy(block, &size, sizeof size);
  return block + kHeader;
}

void budgetedFree(void* pointer) {
  if (pointer == nullptr) return;
  auto* block = static_cast<unsigned char*>(pointer) - kHeader;
  std::size_t size = 0;
  std::memcpy(&size, block, sizeof size);
  if (tBudgeted) tBudget += size;
  std::free(block);
}

void* budgetedRealloc(void* pointer, std::size_t size) {
  if (pointer == nullptr) return budgetedMalloc(size);
  auto* block = static_cast<unsigned char*>(pointer) - kHeader;
  std::size_t old = 0;
  std::memcpy(&old, block, sizeof old);
  if (tBudgeted && size > old && size - old > tBudget) return nullptr;
  auto* moved = static_cast<unsigned char*>(std::realloc(block, size + kHeader));
  if (moved == nullptr) return nullptr;
  if (tBudgeted) tBudget = tBudget + old - size;  // within range: checked above
  std::memcpy(moved, &size, sizeof size);
  return moved + kHeader;
}

// Sets the allocation budget of this thread for one decode.
class DecodeBudget {
 public:
  explicit DecodeBudget(std::size_t bytes) {
    tBudgeted = true;
    tBudget = bytes;
  }
  ~DecodeBudget() { tBudgeted = false; }
  DecodeBudget(const DecodeBudget&) = delete;
  DecodeBudget& operator=(const DecodeBudget&) = delete;
};

// The PNG decoder of the distribution's stb copies each image-data chunk into a buffer it
// allocates on the first chunk that has bytes, so an empty first chunk is copied to a null
// pointer (undefined, if harmless in practice). Empty image-data chunks add nothing to the
// compressed stream, so they are left out: the bytes without them when the file is a PNG
// that has some, nothing otherwise (the usual case, which copies nothing). A chunk structure
// that does not add up stops the walk, and the rest goes on as it is, for the decoder to judge.
std::optional<std::vector<std::uint8_t>> withoutEmptyPngData(std::span<const std::uint8_t> bytes) {
  static constexpr std::uint8_t kSignature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  if (bytes.size() < sizeof kSignature || !std::equal(kSignature, kSignature + sizeof kSignature, bytes.begin())) {
    return std::nullopt;
  }
  std::optional<std::vector<std::uint8_t>> out;
  std::size_t kept = 0;  // bytes up to here are in `out` (once there is one)
  std::size_t at = sizeof kSignature;
  while (bytes.size() - at >= 12) {
    const std::uint64_t length = (std::uint64_t{bytes[at]} << 24) | (std::uint64_t{bytes[at + 1]} << 16) |
                                 (std::uint64_t{bytes[at + 2]} << 8) | bytes[at + 3];
    if (length > bytes.size() - at - 12) break;
    const bool emptyData = length == 0 && std::memcmp(bytes.data() + at + 4, "IDAT", 4) == 0;
    if (emptyData) {
      if (!out) out.emplace().reserve(bytes.size());
      out->insert(out->end(), bytes.begin() + static_cast<std::ptrdiff_t>(kept),
                  bytes.begin() + static_cast<std::ptrdiff_t>(at));
      kept = at + 12;
    }
    at += 12 + static_cast<std::size_t>(length);
  }
  if (out) out->insert(out->end(), bytes.begin() + static_cast<std::ptrdiff_t>(kept), bytes.end());
  return out;
}

}  // namespace
}  // namespace kp::internal

#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_PNG
#define STBI_ONLY_GIF
#define STBI_NO_STDIO
#define STBI_NO_FAILURE_STRINGS
#define STBI_MAX_DIMENSIONS 16384
#define STBI_MALLOC(size) kp::internal::budgetedMalloc(size)
#define STBI_REALLOC(pointer, size) kp::internal::budgetedRealloc(pointer, size)
#define STBI_FREE(pointer) kp::internal::budgetedFree(pointer)
#include <stb/stb_image.h>

#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STBI_WRITE_NO_STDIO
#include <stb/stb_image_write.h>

namespace kp::internal {

std::optional<DecodedPixels> decodeImage(std::span<const std::uint8_t> bytes, const DecodeLimits& limits) {
  if (bytes.empty() || bytes.size() > static_cast<std::size_t>(INT_MAX)) return std::nullopt;
  if (isWebp(bytes)) return decodeWebp(bytes, limits);
  // stb's JPEG decoder trusts the tables a file brings (symbol counts, code lengths) and reads
  // past them on damaged ones; libjpeg-turbo checks them.
  if (isJpeg(bytes)) return decodeJpeg(bytes, limits);
  const auto compacted = withoutEmptyPngData(bytes);
  if (compacted) bytes = *compacted;
  const int length = static_cast<int>(bytes.size());
  int width = 0;
  int height = 0;
  int channels = 0;
  if (stbi_info_from_memory(bytes.data(), length, &width, &height, &channels) == 0) return std::nullopt;
  if (!limits.admit(width, height)) return std::nullopt;
  const auto w = static_cast<std::uint64_t>(width);
  const auto h = static_cast<std::uint64_t>(height);

  // Room for the decoders' working buffers (16-bit samples, interlacing, progressive
  // coefficients, GIF history) beside the result, and for the compressed input.
  const std::uint64_t budget = w * h * 24 + 2 * bytes.size() + (4u << 20);
  DecodedPixels decoded;
  {
    DecodeBudget scope(
        static_cast<std::size_t>(std::min<std::uint64_t>(budget, std::numeric_limits<std::size_t>::max())));
    stbi_uc* pixels = stbi_load_from_memory(bytes.data(), length, &width, &height, &channels, 4);
    if (pixels == nullptr) return std::nullopt;
    // The info pass and the decoder agree on the size; anything else is not to be trusted.
    if (static_cast<std::uint64_t>(width) != w || static_cast<std::uint64_t>(height) != h) {
      stbi_image_free(pixels);
      return std::nullopt;
    }
    decoded.rgba.assign(pixels, pixels + w * h * 4);
    stbi_image_free(pixels);
  }
  decoded.width = static_cast<std::uint32_t>(w);
  decoded.height = static_cast<std::uint32_t>(h);
  return decoded;
}

std::optional<std::vector<std::uint8_t>> encodePng(std::span<const std::uint8_t> rgba, std::uint32_t width,
                                                   std::uint32_t height) {
  if (width == 0 || height == 0 || width > static_cast<std::uint32_t>(INT_MAX / 4) ||
      height > static_cast<std::uint32_t>(INT_MAX) || rgba.size() != static_cast<std::uint64_t>(width) * height * 4) {
    return std::nullopt;
  }
  std::vector<std::uint8_t> png;
  auto append = [](void* context, void* data, int size) {
    auto* out = static_cast<std::vector<std::uint8_t>*>(context);
    const auto* begin = static_cast<const std::uint8_t*>(data);
    out->insert(out->end(), begin, begin + size);
  };
  const int ok = stbi_write_png_to_func(append, &png, static_cast<int>(width), static_cast<int>(height), 4, rgba.data(),
                                        static_cast<int>(width * 4));
  if (ok == 0 || png.empty()) return std::nullopt;
  return png;
}

}  // namespace kp::internal
