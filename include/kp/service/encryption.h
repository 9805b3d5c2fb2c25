// The payload cipher of the service protocol and the text encodings around it.
//
// The cipher is AES-256-CBC with a zero IV and PKCS#7 padding. The key is the key string's
// UTF-8 bytes, cut at the first NUL byte and right-padded with zero bytes to 32; a key of more
// than 32 bytes is refused (nothing comes back), never truncated. This construction is the
// wire contract with the servers and must not change.
//
// Decrypting bytes that are not ciphertext for the key (not a whole number of blocks, or
// padding that does not check out, as with a wrong key or a plain body) gives nothing, so
// any bytes from outside may be handed to the decrypting functions. Every other cipher
// failure (an encryption that fails, a key the cipher refuses) can only be a fault in this
// program and stops it (std::abort, with the status on standard error).
//
// Thread safety: every function here is a pure function of its arguments.
//
// Example:
//   std::optional<kp::Data> sealed = kp::aes256Encrypt(kp::Data::fromString("hi").bytes(), key);
//   std::optional<std::string> text = kp::aes256EncryptString("a=1&b=2", key);  // Base64
//   std::optional<kp::Url> url = kp::TarvixServiceEncryptionHelper::encrypt(plainUrl, key);
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kp/coding/json.h"
#include "kp/platform/base64.h"
#include "kp/platform/data.h"
#include "kp/platform/url.h"

namespace kp {

// ---- Byte-buffer cipher -------------------------------------------------------------------

// Ciphertext of `bytes` (always a whole number of 16-byte blocks, at least one), or nothing
// when the key is longer than 32 bytes.
[[nodiscard]] std::optional<Data> aes256Encrypt(std::span<const std::uint8_t> bytes, std::string_view key);
// Plaintext of `bytes`, or nothing when the key is longer than 32 bytes or `bytes` is not
// ciphertext for the key.
[[nodiscard]] std::optional<Data> aes256Decrypt(std::span<const std::uint8_t> bytes, std::string_view key);

// ---- String helpers -----------------------------------------------------------------------

// Base64 (no line breaks) of the ciphertext of the UTF-8 text; nothing when the key is refused.
[[nodiscard]] std::optional<std::string> aes256EncryptString(std::string_view text, std::string_view key);

// The query-value encoding: percent-encodes (upper-case %XX) exactly the characters
//   { } ! * ' " ( ) ; : @ & = + $ , / ? % # [ ] < > and space
// and leaves every other byte as it is, non-ASCII and control characters included.
[[nodiscard]] std::string urlEncodeQueryParameter(std::string_view text);
// Appends the encoding of `text` to `out`.
void appendUrlEncodedQueryParameter(std::string& out, std::string_view text);

// ---- Hashes -------------------------------------------------------------------------------

// SHA-1 of the bytes as 40 lower-case hex digits.
[[nodiscard]] std::string hashSha1(std::span<const std::uint8_t> bytes);
// SHA-1 of the text's UTF-8 bytes as 40 lower-case hex digits.
[[nodiscard]] std::string hashSha1(std::string_view text);
// Two lower-case hex digits per byte; empty for no bytes.
[[nodiscard]] inline std::string hexadecimalString(std::span<const std::uint8_t> bytes) { return hexString(bytes); }

// ---- Service payloads ---------------------------------------------------------------------

// Applies the cipher to the four places of the service protocol. All operations are static.
class TarvixServiceEncryptionHelper {
 public:
  TarvixServiceEncryptionHelper() = delete;

  // scheme://host[path]?data=<encoded Base64 of the ciphertext of the percent-decoded query>.
  // A URL with an explicit port gets the authority "host:<port>" (the literal word "host").
  // An empty or undecodable query is dropped; user, password and fragment never survive.
  // A URL without scheme, host or path comes back unchanged.
  [[nodiscard]] static std::optional<Url> encrypt(const Url& url, std::string_view key);
  // "data=" + encoded Base64 of the ciphertext of the string as given; the string itself when
  // the key or the string is empty, or when the key is refused.
  [[nodiscard]] static std::string encryptParameterString(std::string_view parameterString, std::string_view key);
  // Base64 of the ciphertext in 64-character lines joined by CR LF; nothing when the key is
  // refused.
  [[nodiscard]] static std::optional<Data> encryptData(std::span<const std::uint8_t> data, std::string_view key);
  // Base64-decodes skipping unknown characters, then decrypts; nothing when either fails.
  [[nodiscard]] static std::optional<Data> decryptRawData(std::span<const std::uint8_t> data, std::string_view key);
  // decryptRawData, then the plaintext parsed as a JSON object or array (nothing if it is not
  // JSON). When decoding or decryption yields nothing, the body itself is parsed as JSON
  // instead, so that a plain JSON answer is accepted.
  [[nodiscard]] static std::optional<JsonValue> decryptData(std::span<const std::uint8_t> data, std::string_view key);
};

}  // namespace kp
