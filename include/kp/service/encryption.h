// The payload cipher of the service protocol and the text encodings around it: the byte
// and string cipher, SHA-1 and the query-value encoding (declared with the byte primitives in
// kp/crypto/, included here), and kp::TarvixServiceEncryptionHelper, which applies the cipher
// to the four places of the protocol.
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
#include "kp/crypto/base64.h"
#include "kp/crypto/cipher.h"
#include "kp/crypto/hash.h"
#include "kp/crypto/percent_encoding.h"
#include "kp/platform/data.h"
#include "kp/platform/export.h"
#include "kp/platform/url.h"

namespace kp {

// Applies the cipher to the four places of the service protocol. All operations are static.
class KP_EXPORT TarvixServiceEncryptionHelper {
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
