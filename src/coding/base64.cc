#include "coding/base64.h"

#include <array>

namespace kp::coding_detail {

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> makeReverse() {
  std::array<std::int8_t, 256> table{};
  for (auto& t : table) t = -1;
  for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
  return table;
}
constexpr auto kReverse = makeReverse();
}  // namespace

std::optional<Data> base64Decode(std::string_view text) {
  Data out;
  out.reserve(text.size() / 4 * 3);
  std::uint32_t acc = 0;
  int bits = 0;
  int padding = 0;
  for (const char c : text) {
    if (c == ' ' || c == '\n' || c == '\r' || c == '\t') continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const std::int8_t v = kReverse[static_cast<unsigned char>(c)];
    if (v < 0 || padding > 0) return std::nullopt;
    acc = (acc << 6) | static_cast<std::uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<std::uint8_t>((acc >> bits) & 0xff));
    }
  }
  if (padding > 2 || bits >= 6) return std::nullopt;
  return out;
}

}  // namespace kp::coding_detail
