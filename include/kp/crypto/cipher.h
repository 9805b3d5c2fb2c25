// The payload cipher of the service protocol: AES-256-CBC with a zero IV and PKCS#7 padding.
// The key is the key string's UTF-8 bytes, cut at the first NUL byte and right-padded with
// zero bytes to 32; a key of more than 32 bytes is refused (nothing comes back), never
// truncated. This construction is the wire contract with the servers and must not change.
//
// Decrypting bytes that are not ciphertext for the key (not a whole number of blocks, or
// padding that does not check out, as with a wrong key or a plain body) gives nothing, so
// any bytes from outside may be handed to the decrypting functions. Every other cipher
// failure (an encryption that fails, a key the cipher refuses) can only be a fault in this
// program and stops it (std::abort, with the status on standard error).
//
// Thread safety: pure functions of their arguments.
//
// Example:
//   std::optional<kp::Data> sealed = kp::aes256Encrypt(kp::Data::fromString("hi").bytes(), key);
//   std::optional<std::string> text = kp::aes256EncryptString("a=1&b=2", key);  // Base64
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kp/platform/data.h"
#include "kp/platform/export.h"

namespace kp {

// Ciphertext of `bytes` (always a whole number of 16-byte blocks, at least one), or nothing
// when the key is longer than 32 bytes.
[[nodiscard]] KP_EXPORT std::optional<Data> aes256Encrypt(std::span<const std::uint8_t> bytes, std::string_view key);
// Plaintext of `bytes`, or nothing when the key is longer than 32 bytes or `bytes` is not
// ciphertext for the key.
[[nodiscard]] KP_EXPORT std::optional<Data> aes256Decrypt(std::span<const std::uint8_t> bytes, std::string_view key);
// Base64 (no line breaks) of the ciphertext of the UTF-8 text; nothing when the key is refused.
[[nodiscard]] KP_EXPORT std::optional<std::string> aes256EncryptString(std::string_view text, std::string_view key);

}  // namespace kp
