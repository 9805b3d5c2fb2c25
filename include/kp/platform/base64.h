// Base64 (RFC 4648 alphabet, with padding) with the two options the service protocol needs:
// 64-character lines joined by CR LF when encoding, and skipping characters outside the
// alphabet when decoding.
//
// Thread safety: pure functions.
//
// Example:
//   std::string text = kp::base64Encode(bytes.bytes(), kp::Base64EncodingOptions::lineLength64Characters);
//   std::optional<kp::Data> back = kp::base64Decode(text, kp::Base64DecodingOptions::ignoreUnknownCharacters);
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kp/platform/data.h"

namespace kp {

enum class Base64EncodingOptions : unsigned {
  none = 0,
  // Lines of 64 characters joined by CR LF, no line break after the last line.
  lineLength64Characters = 1,
};
enum class Base64DecodingOptions : unsigned {
  none = 0,
  // Characters outside the alphabet (line breaks among them) are skipped.
  ignoreUnknownCharacters = 1,
};

[[nodiscard]] std::string base64Encode(std::span<const std::uint8_t> bytes,
                                       Base64EncodingOptions options = Base64EncodingOptions::none);
// The same text as bytes.
[[nodiscard]] Data base64EncodedData(std::span<const std::uint8_t> bytes,
                                     Base64EncodingOptions options = Base64EncodingOptions::none);
// Nothing when the text is not Base64: an unknown character without the option, an alphabet
// character after "=" padding, or a count of alphabet and padding characters that is not a
// multiple of four.
[[nodiscard]] std::optional<Data> base64Decode(std::string_view text,
                                               Base64DecodingOptions options = Base64DecodingOptions::none);

}  // namespace kp
