// Base64 (RFC 4648 alphabet, with padding): one encoder with the 64-character line option of
// the service protocol, and one decoder whose options say how much it forgives.
//
// Decoding without options is strict: alphabet characters only, padding that completes the
// last group of four, nothing after it. The options relax that one rule at a time:
//   ignoreUnknownCharacters  every character outside the alphabet (line breaks, stray
//                            punctuation) is skipped; what the service protocol's bodies use
//   ignoreWhitespace         spaces, tabs and line breaks are skipped, anything else outside
//                            the alphabet is refused
//   allowMissingPadding      the last group may lack some or all of its "=" padding, as JSON
//                            producers often write it
//
// Thread safety: pure functions.
//
// Example:
//   std::string text = kp::base64Encode(bytes.bytes(), kp::Base64EncodingOptions::lineLength64Characters);
//   std::optional<kp::Data> back = kp::base64Decode(text, kp::Base64DecodingOptions::ignoreUnknownCharacters);
//   auto json = kp::base64Decode("QUI", kp::Base64DecodingOptions::ignoreWhitespace |
//                                           kp::Base64DecodingOptions::allowMissingPadding);  // "AB"
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kp/platform/data.h"
#include "kp/platform/export.h"

namespace kp {

// How base64Encode() lays out its text.
enum class Base64EncodingOptions : unsigned {
  none = 0,
  // Lines of 64 characters joined by CR LF, no line break after the last line.
  lineLength64Characters = 1,
};
// What base64Decode() lets pass; combine them with |.
enum class Base64DecodingOptions : unsigned {
  none = 0,
  ignoreUnknownCharacters = 1,
  ignoreWhitespace = 2,
  allowMissingPadding = 4,
};
// Both options.
[[nodiscard]] constexpr Base64DecodingOptions operator|(Base64DecodingOptions a, Base64DecodingOptions b) noexcept {
  return static_cast<Base64DecodingOptions>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}

// `bytes` as Base64 text.
[[nodiscard]] KP_EXPORT std::string base64Encode(std::span<const std::uint8_t> bytes,
                                                 Base64EncodingOptions options = Base64EncodingOptions::none);
// The same text as bytes.
[[nodiscard]] KP_EXPORT Data base64EncodedData(std::span<const std::uint8_t> bytes,
                                               Base64EncodingOptions options = Base64EncodingOptions::none);
// Nothing when the text is not Base64 under the options: a character outside the alphabet
// that no option skips, an alphabet character after "=" padding, a last group of one
// character, or padding that does not complete the last group (short or missing padding
// passes with allowMissingPadding; too much padding never does).
[[nodiscard]] KP_EXPORT std::optional<Data> base64Decode(std::string_view text,
                                                         Base64DecodingOptions options = Base64DecodingOptions::none);

}  // namespace kp
