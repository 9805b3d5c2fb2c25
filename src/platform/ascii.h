// Internal: ASCII text helpers for protocol tokens (header names and values, host names),
// whose case and white space follow the protocol, not the locale.
#pragma once

#include <string>
#include <string_view>

namespace kp::internal {

[[nodiscard]] constexpr char asciiLower(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

[[nodiscard]] inline std::string asciiLowercased(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = asciiLower(c);
  return out;
}

// Without leading and trailing spaces and tabs.
[[nodiscard]] constexpr std::string_view trimmedSpaces(std::string_view text) noexcept {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

}  // namespace kp::internal
