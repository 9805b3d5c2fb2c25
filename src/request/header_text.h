// Text helpers for header field names and values, which are ASCII by protocol: case-blind
// comparison and trimming of the spaces and tabs around a value. Internal; not installed.
//
// Thread safety: pure functions.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace kp::internal {

// Only ASCII letters change: a header name's bytes beyond ASCII are not letters of any case.
[[nodiscard]] constexpr char asciiLower(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
[[nodiscard]] constexpr char asciiUpper(char c) noexcept {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

[[nodiscard]] inline std::string asciiLowercased(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = asciiLower(c);
  return out;
}

[[nodiscard]] constexpr bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return asciiLower(x) == asciiLower(y); });
}

// Without the spaces and tabs at either end.
[[nodiscard]] constexpr std::string_view trimSpaces(std::string_view text) noexcept {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

}  // namespace kp::internal
