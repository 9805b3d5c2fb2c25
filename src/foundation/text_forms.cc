// The byte-level text helpers: UTF-8 validity, splitting, hex and Base64 text.
#include <array>

#include "kp/crypto/base64.h"
#include "kp/foundation/text.h"
#include "platform/hex_digits.h"
#include "platform/utf8.h"

namespace kp {
namespace {

int hexValue(char c) noexcept { return platform::hexDigitValue(c); }

constexpr char kLowerHex[] = "0123456789abcdef";
constexpr char kUpperHex[] = "0123456789ABCDEF";

}  // namespace

bool isValidUtf8(std::string_view text) noexcept { return internal::isValidUtf8(text); }

std::string validUtf8(std::string_view text) {
  if (internal::isValidUtf8(text)) return std::string(text);
  std::string out;
  out.reserve(text.size() + 8);
  internal::appendValidUtf8(out, text);
  return out;
}

std::vector<std::string_view> split(std::string_view text, std::string_view separator, SplitOptions options) {
  std::vector<std::string_view> pieces;
  const auto add = [&](std::string_view piece) {
    if (!piece.empty() || options == SplitOptions::keepEmpty) pieces.push_back(piece);
  };
  if (separator.empty()) {
    add(text);
    return pieces;
  }
  std::size_t start = 0;
  while (true) {
    const std::size_t found = text.find(separator, start);
    if (found == std::string_view::npos) break;
    add(text.substr(start, found - start));
    start = found + separator.size();
  }
  add(text.substr(start));
  return pieces;
}

std::string hexEncoded(std::span<const std::uint8_t> bytes, LetterCase letters) {
  const char* digits = letters == LetterCase::upper ? kUpperHex : kLowerHex;
  std::string out(bytes.size() * 2, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    out[2 * i] = digits[bytes[i] >> 4];
    out[2 * i + 1] = digits[bytes[i] & 0x0f];
  }
  return out;
}

std::optional<Data> hexDecoded(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::vector<std::uint8_t> bytes(text.size() / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const int hi = hexValue(text[2 * i]);
    const int lo = hexValue(text[2 * i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    bytes[i] = static_cast<std::uint8_t>(hi << 4 | lo);
  }
  return Data(std::move(bytes));
}

std::string base64EncodedString(std::string_view text) {
  return base64Encode({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

std::optional<std::string> base64DecodedString(std::string_view base64) {
  auto bytes = base64Decode(base64);
  if (!bytes || !internal::isValidUtf8(bytes->view())) return std::nullopt;
  return std::string(bytes->view());
}

}  // namespace kp
