// Internal: the cipher applied where the service protocol puts it: the URL query, the form
// body, a raw body, and a response body. The request layer seals with these as it builds the
// wire request; kp::TarvixServiceEncryptionHelper (the service layer's public face of the same
// operations) calls them too.
//
// Thread safety: pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kp/platform/data.h"
#include "kp/platform/url.h"

namespace kp::internal {

// scheme://host[path]?data=<encoded Base64 of the ciphertext of the percent-decoded query>.
// A URL with an explicit port gets the authority "host:<port>" (the literal word "host").
// An empty or undecodable query is dropped; user, password and fragment never survive.
// A URL without scheme or host comes back unchanged.
[[nodiscard]] std::optional<Url> sealedUrl(const Url& url, std::string_view key);
// "data=" + encoded Base64 of the ciphertext of the string as given; the string itself when
// the key or the string is empty, or when the key is refused.
[[nodiscard]] std::string sealedParameterString(std::string_view parameterString, std::string_view key);
// Base64 of the ciphertext in 64-character lines joined by CR LF; nothing when the key is
// refused.
[[nodiscard]] std::optional<Data> sealedData(std::span<const std::uint8_t> data, std::string_view key);
// Base64-decodes skipping unknown characters, then decrypts; nothing when either fails.
[[nodiscard]] std::optional<Data> openedData(std::span<const std::uint8_t> data, std::string_view key);

}  // namespace kp::internal
