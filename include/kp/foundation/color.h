// kp::Color: a colour as 8-bit red, green, blue and alpha, read from the colour texts that
// servers and style sheets use and written back as hex.
//
// Read: "#RGB", "#RGBA", "#RRGGBB", "#RRGGBBAA" (hex digits in either case);
// "rgb(…)" and "rgba(…)" with three channels and an optional alpha, either separated by commas
// ("rgb(255, 128, 0)", "rgba(100%, 50%, 0%, 0.5)"; channels all numbers or all percentages)
// or by spaces with the alpha after a slash ("rgb(255 128 0 / 50%)"); numbers may have a
// fraction and an exponent, channels are clamped to 0–255 (0%–100%) and alpha to 0–1 and
// rounded to the nearest step; the CSS named colours and "transparent", in any letter case.
// White space around the text is ignored. Anything else reads as nothing.
//
// Thread safety: a value type; the functions are pure.
//
// Example:
//   std::optional<kp::Color> c = kp::Color::parse("rgba(255, 128, 0, 0.5)");
//   c->hexString();                            // "#ff800080"
//   kp::Color::parse("RebeccaPurple")->red;    // 0x66
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/export.h"

namespace kp {

// A colour with 8-bit components (see the top of this file).
struct KP_EXPORT Color {
  std::uint8_t red = 0;      // 0 to 255
  std::uint8_t green = 0;    // 0 to 255
  std::uint8_t blue = 0;     // 0 to 255
  std::uint8_t alpha = 255;  // 0 transparent to 255 opaque

  // Whether hexString() writes the alpha.
  enum class HexAlpha : std::uint8_t {
    // "#rrggbb" for an opaque colour, "#rrggbbaa" otherwise.
    whenTranslucent,
    always,
    // "#rrggbb" whatever the alpha.
    never,
  };

  // The colour `text` names (see the top of this file); nothing for other text.
  [[nodiscard]] static std::optional<Color> parse(std::string_view text) noexcept;
  // Lower-case hex digits after "#".
  [[nodiscard]] std::string hexString(HexAlpha alpha = HexAlpha::whenTranslucent) const;

  // The components as fractions from 0 to 1, as graphics APIs take them.
  [[nodiscard]] constexpr double redComponent() const noexcept { return red / 255.0; }
  [[nodiscard]] constexpr double greenComponent() const noexcept { return green / 255.0; }  // see redComponent()
  [[nodiscard]] constexpr double blueComponent() const noexcept { return blue / 255.0; }    // see redComponent()
  [[nodiscard]] constexpr double alphaComponent() const noexcept { return alpha / 255.0; }  // see redComponent()

  friend constexpr bool operator==(const Color&, const Color&) noexcept = default;  // equal components
};

// The conventional name of the colour category's reader.
[[nodiscard]] inline std::optional<Color> colorFromString(std::string_view text) noexcept { return Color::parse(text); }

}  // namespace kp
