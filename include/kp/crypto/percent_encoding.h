// Percent-encoding: a byte set that says which bytes stay as they are, the general encoder
// and decoder over it, and the service protocol's query-value encoding.
//
// Thread safety: pure functions; ByteSet is a constexpr value type.
//
// Example:
//   kp::addingPercentEncoding("a b/c", kp::ByteSet::urlUnreserved());  // "a%20b%2Fc"
//   kp::urlEncodeQueryParameter("x+y=z");                               // "x%2By%3Dz"
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/export.h"

namespace kp {

// A set of bytes, for saying which ones percent-encoding leaves as they are.
class KP_EXPORT ByteSet {
 public:
  constexpr ByteSet() noexcept = default;
  // The bytes of `members`.
  constexpr explicit ByteSet(std::string_view members) noexcept {
    for (const char c : members) add(static_cast<unsigned char>(c));
  }
  // The unreserved characters of URLs (RFC 3986): letters, digits and - . _ ~
  [[nodiscard]] static constexpr ByteSet urlUnreserved() noexcept {
    return ByteSet("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~");
  }
  // Whether `byte` is in the set.
  [[nodiscard]] constexpr bool contains(unsigned char byte) const noexcept {
    return (bits_[byte / 64] >> (byte % 64)) & 1u;
  }
  // Every byte not in the set.
  [[nodiscard]] constexpr ByteSet operator~() const noexcept {
    ByteSet out;
    for (std::size_t i = 0; i < 4; ++i) out.bits_[i] = ~bits_[i];
    return out;
  }
  // Every byte in either set.
  [[nodiscard]] constexpr ByteSet operator|(const ByteSet& other) const noexcept {
    ByteSet out;
    for (std::size_t i = 0; i < 4; ++i) out.bits_[i] = bits_[i] | other.bits_[i];
    return out;
  }

 private:
  constexpr void add(unsigned char byte) noexcept { bits_[byte / 64] |= std::uint64_t{1} << (byte % 64); }
  std::uint64_t bits_[4] = {};
};

// `text` with every byte outside `allowed` written as "%XX" (upper-case hex digits).
[[nodiscard]] KP_EXPORT std::string addingPercentEncoding(std::string_view text, const ByteSet& allowed);
// Appends `text` to `out` with every byte outside `allowed` as %XX.
KP_EXPORT void appendPercentEncoded(std::string& out, std::string_view text, const ByteSet& allowed);
// `text` with its "%XX" escapes decoded; nothing for a "%" not followed by two hex digits or a
// result that is not UTF-8.
[[nodiscard]] KP_EXPORT std::optional<std::string> removingPercentEncoding(std::string_view text);

// The query-value encoding: percent-encodes (upper-case %XX) exactly the characters
//   { } ! * ' " ( ) ; : @ & = + $ , / ? % # [ ] < > and space
// and leaves every other byte as it is, non-ASCII and control characters included.
[[nodiscard]] KP_EXPORT std::string urlEncodeQueryParameter(std::string_view text);
// Appends the encoding of `text` to `out`.
KP_EXPORT void appendUrlEncodedQueryParameter(std::string& out, std::string_view text);

}  // namespace kp
