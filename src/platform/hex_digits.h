// The value of a hexadecimal digit, for the layers that read percent-escapes and hex text.
// Thread safety: a constant table; safe from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kp::platform {

namespace hex_detail {
constexpr std::array<std::int8_t, 256> makeHexValues() {
  std::array<std::int8_t, 256> values{};
  values.fill(-1);
  for (int i = 0; i < 10; ++i) values[static_cast<std::size_t>('0' + i)] = static_cast<std::int8_t>(i);
  for (int i = 0; i < 6; ++i) {
    values[static_cast<std::size_t>('a' + i)] = static_cast<std::int8_t>(10 + i);
    values[static_cast<std::size_t>('A' + i)] = static_cast<std::int8_t>(10 + i);
  }
  return values;
}
inline constexpr auto kHexValues = makeHexValues();
}  // namespace hex_detail

// 0-15 for a hexadecimal digit in either case, -1 for any other byte.
[[nodiscard]] inline int hexDigitValue(char c) noexcept {
  return hex_detail::kHexValues[static_cast<unsigned char>(c)];
}

}  // namespace kp::platform
