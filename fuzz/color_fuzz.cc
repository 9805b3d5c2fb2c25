// Colour reader: any text gives a colour or nothing, never a crash; a colour read back from its
// own hex text is the same colour, and white space around a text changes nothing.
#include <cstdlib>
#include <string>

#include "kp/foundation/color.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto color = kp::Color::parse(text);
  if (kp::Color::parse(" " + std::string(text) + "\t") != color) std::abort();
  if (!color) return 0;
  if (kp::Color::parse(color->hexString()) != color) std::abort();
  if (kp::Color::parse(color->hexString(kp::Color::HexAlpha::always)) != color) std::abort();
  return 0;
}
