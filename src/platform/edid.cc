// The EDID base block's size fields: bytes 21 and 22 hold the picture's width and height in
// centimetres (both zero for a projector; one of them zero makes the other an aspect ratio),
// and the first 18-byte descriptor, when it describes a timing, holds them in millimetres.
#include "platform/edid.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <numeric>

namespace kp::platform {
namespace {

constexpr std::size_t kBlockSize = 128;
constexpr std::array<std::uint8_t, 8> kHeader{0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
constexpr std::size_t kWidthCentimetres = 21;
constexpr std::size_t kHeightCentimetres = 22;
constexpr std::size_t kFirstDescriptor = 54;

}  // namespace

std::optional<PhysicalSize> readEdidPhysicalSize(std::span<const std::uint8_t> bytes) noexcept {
  if (bytes.size() < kBlockSize) return std::nullopt;
  const auto block = bytes.first(kBlockSize);
  if (!std::equal(kHeader.begin(), kHeader.end(), block.begin())) return std::nullopt;
  // The block's bytes add up to a multiple of 256.
  if (std::accumulate(block.begin(), block.end(), 0u) % 256 != 0) return std::nullopt;

  const int widthCm = block[kWidthCentimetres];
  const int heightCm = block[kHeightCentimetres];
  if (widthCm == 0 || heightCm == 0) return std::nullopt;
  PhysicalSize size{widthCm * 10, heightCm * 10};

  // A descriptor with a pixel clock is a detailed timing; bytes 12 to 14 hold its size in
  // millimetres (the low eight bits of each, then their high nibbles). Some displays write
  // their aspect ratio or nothing there, so the finer size counts only when it agrees.
  const auto descriptor = block.subspan(kFirstDescriptor, 18);
  if (descriptor[0] != 0 || descriptor[1] != 0) {
    const int widthMm = descriptor[12] | ((descriptor[14] & 0xF0) << 4);
    const int heightMm = descriptor[13] | ((descriptor[14] & 0x0F) << 8);
    if (widthMm > 0 && heightMm > 0 && std::abs(widthMm - size.widthMillimetres) <= 10 &&
        std::abs(heightMm - size.heightMillimetres) <= 10) {
      size = {widthMm, heightMm};
    }
  }
  return size;
}

}  // namespace kp::platform
