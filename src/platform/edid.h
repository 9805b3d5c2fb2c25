// platform::readEdidPhysicalSize: the physical size of a display's picture as its EDID block
// (the VESA Extended Display Identification Data that a monitor hands its graphics card)
// states it. The bytes come from the display, so anything may be in them.
//
// Thread safety: a pure function.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kp::platform {

struct PhysicalSize {
  int widthMillimetres = 0;
  int heightMillimetres = 0;
};

// The size of the picture from the base block: the detailed timing's millimetres when they
// agree with the centimetres of the basic display parameters (within a centimetre), else those
// centimetres. Nothing when the bytes are no EDID base block (short, wrong header, wrong
// checksum) or when the display states no size (a projector, or an aspect ratio in place of
// the size).
[[nodiscard]] std::optional<PhysicalSize> readEdidPhysicalSize(std::span<const std::uint8_t> bytes) noexcept;

}  // namespace kp::platform
