// UTF-8 validation (RFC 3629: no overlongs, no surrogates, nothing above U+10FFFF), and the
// repair of text bound for a log that people read.
// Internal; not installed. Thread safety: pure functions.
#pragma once

#include <string>
#include <string_view>

namespace kp::internal {

[[nodiscard]] bool isValidUtf8(std::string_view bytes) noexcept;

// True when `bytes` is valid UTF-8 without control characters other than tab and line feed.
[[nodiscard]] bool isPrintableUtf8(std::string_view bytes) noexcept;
// Appends `bytes` with every malformed sequence and every control character other than tab
// and line feed replaced by U+FFFD.
void appendPrintableUtf8(std::string& out, std::string_view bytes);
// Appends `bytes` with every malformed sequence replaced by U+FFFD.
void appendValidUtf8(std::string& out, std::string_view bytes);

}  // namespace kp::internal
