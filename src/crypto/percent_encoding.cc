// Percent-encoding over a byte set, its decoder, and the query-value set of the service
// protocol.
#include "kp/crypto/percent_encoding.h"

#include <array>

#include "platform/hex_digits.h"
#include "platform/utf8.h"

namespace kp {
namespace {

constexpr char kUpperHex[] = "0123456789ABCDEF";

int hexValue(char c) noexcept { return platform::hexDigitValue(c); }

// The query-value encoding leaves every byte alone but these; "%" appears twice in the list.
constexpr ByteSet kQueryValueAllowed = ~ByteSet("{}!*'\"();:@&=+$,/?%#[]%<> ");

}  // namespace

void appendPercentEncoded(std::string& out, std::string_view text, const ByteSet& allowed) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (allowed.contains(byte)) {
      out.push_back(c);
    } else {
      const char escape[3] = {'%', kUpperHex[byte >> 4], kUpperHex[byte & 0x0f]};
      out.append(escape, 3);
    }
  }
}

std::string addingPercentEncoding(std::string_view text, const ByteSet& allowed) {
  std::string out;
  out.reserve(text.size() + text.size() / 4);
  appendPercentEncoded(out, text, allowed);
  return out;
}

std::optional<std::string> removingPercentEncoding(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (text.size() - i < 3) return std::nullopt;
    const int hi = hexValue(text[i + 1]);
    const int lo = hexValue(text[i + 2]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out.push_back(static_cast<char>(hi << 4 | lo));
    i += 2;
  }
  if (!internal::isValidUtf8(out)) return std::nullopt;
  return out;
}

void appendUrlEncodedQueryParameter(std::string& out, std::string_view text) {
  appendPercentEncoded(out, text, kQueryValueAllowed);
}

std::string urlEncodeQueryParameter(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 4);
  appendUrlEncodedQueryParameter(out, text);
  return out;
}

}  // namespace kp
