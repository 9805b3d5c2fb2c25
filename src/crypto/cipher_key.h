// Internal: the payload cipher with the key already prepared as 32 raw bytes. The public
// functions prepare the key from a string; tests use this to run published vectors whose keys
// contain NUL bytes.
//
// Thread safety: pure functions.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "kp/platform/data.h"

namespace kp::detail {

using CipherKey = std::array<std::uint8_t, 32>;

// The key string cut at its first NUL byte and zero-padded; nothing when longer than 32 bytes.
[[nodiscard]] std::optional<CipherKey> prepareKey(std::string_view key);

// AES-256-CBC, zero IV, PKCS#7. Decrypting bytes that are not ciphertext for the key gives
// nothing; any other cipher failure stops the program.
[[nodiscard]] std::optional<Data> aes256Crypt(bool encrypt, std::span<const std::uint8_t> bytes, const CipherKey& key);

}  // namespace kp::detail
