// SHA-1 as the service protocol and the cache's file names use it: the digest as 40
// lower-case hex digits.
//
// Thread safety: pure functions.
//
// Example:
//   kp::hashSha1(std::string_view(""));  // "da39a3ee5e6b4b0d3255bfef95601890afd80709"
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "kp/platform/data.h"
#include "kp/platform/export.h"

namespace kp {

// SHA-1 of the bytes as 40 lower-case hex digits.
[[nodiscard]] KP_EXPORT std::string hashSha1(std::span<const std::uint8_t> bytes);
// SHA-1 of the text's UTF-8 bytes as 40 lower-case hex digits.
[[nodiscard]] KP_EXPORT std::string hashSha1(std::string_view text);
// Two lower-case hex digits per byte; empty for no bytes.
[[nodiscard]] inline std::string hexadecimalString(std::span<const std::uint8_t> bytes) { return hexString(bytes); }

}  // namespace kp
