// UTF-8 validation (RFC 3629: no overlongs, no surrogates, nothing above U+10FFFF).
// Internal; not installed. Thread safety: a pure function.
#pragma once

#include <string_view>

namespace kp::internal {

[[nodiscard]] bool isValidUtf8(std::string_view bytes) noexcept;

}  // namespace kp::internal
