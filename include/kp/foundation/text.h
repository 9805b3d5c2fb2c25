// Text helpers for UTF-8 text: trimming, case mapping and case-insensitive comparison by the
// Unicode rules of a locale, length and truncation in user-perceived characters (grapheme
// clusters: a flag, a family emoji or a letter with its combining marks is one), splitting and
// joining, number reading that ignores the process locale, hex, Base64 and percent-encoding.
//
// Locales are ICU or BCP 47 identifiers ("tr", "de-CH", "az_Latn"); the empty identifier means
// the language-neutral rules, never the process locale. Only Turkish and Azeri (dotted and
// dotless i), Lithuanian and Greek map case differently from the neutral rules.
//
// Bytes that are not UTF-8 are kept as they are (case mapping, trimming and truncation never
// split or change them) and each ill-formed sequence counts as one character.
//
// Thread safety: pure functions; they may run on any number of threads at once.
//
// Example:
//   kp::uppercased("istanbul", "tr");                     // "İSTANBUL"
//   kp::equalsIgnoringCase("STRASSE", "Straße");          // true
//   kp::truncated("Grüße aus 🇨🇭 und 👨‍👩‍👧", 12);          // "Grüße aus 🇨🇭…"
//   std::optional<double> t = kp::readNumber<double>("-3.5");
#pragma once

#include <charconv>
#include <cmath>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <vector>

#include "kp/crypto/percent_encoding.h"
#include "kp/platform/data.h"
#include "kp/platform/export.h"

namespace kp {

// ---- UTF-8 ---------------------------------------------------------------------------------

// True when `text` is well-formed UTF-8: no stray or missing continuation bytes, no overlong
// forms, no surrogates, nothing above U+10FFFF.
[[nodiscard]] KP_EXPORT bool isValidUtf8(std::string_view text) noexcept;
// `text` with every ill-formed sequence replaced by U+FFFD (one for each byte that starts
// none), as text bound for JSON or a terminal must be.
[[nodiscard]] KP_EXPORT std::string validUtf8(std::string_view text);

// ---- Trimming and case ----------------------------------------------------------------------

// `text` without the Unicode white space (spaces, tabs, line breaks, no-break spaces ...) at
// either end.
[[nodiscard]] KP_EXPORT std::string_view trimmed(std::string_view text) noexcept;

// `text` in upper case by the locale's rules (empty: the environment's).
[[nodiscard]] KP_EXPORT std::string uppercased(std::string_view text, std::string_view locale = {});
// `text` in lower case by the locale's rules (empty: the environment's).
[[nodiscard]] KP_EXPORT std::string lowercased(std::string_view text, std::string_view locale = {});
// The first letter of every word in title case, the rest in lower case.
[[nodiscard]] KP_EXPORT std::string capitalized(std::string_view text, std::string_view locale = {});

// Orders the texts by their full case folding (so "ß" matches "ss" and "SS"), code point by
// code point. In Turkish and Azeri "I" matches "ı" and "İ" matches "i".
[[nodiscard]] KP_EXPORT std::weak_ordering compareIgnoringCase(std::string_view a, std::string_view b,
                                                               std::string_view locale = {});
// Whether `a` and `b` are equal once case is folded by the locale's rules.
[[nodiscard]] KP_EXPORT bool equalsIgnoringCase(std::string_view a, std::string_view b, std::string_view locale = {});

// ---- User-perceived characters --------------------------------------------------------------

[[nodiscard]] KP_EXPORT std::size_t characterCount(std::string_view text);
// `text` when it has at most `maxCharacters` characters; otherwise its first characters, less
// the white space before the cut, followed by `ellipsis`, together `maxCharacters` characters
// at most (the ellipsis alone is dropped when it does not fit).
[[nodiscard]] KP_EXPORT std::string truncated(std::string_view text, std::size_t maxCharacters,
                                              std::string_view ellipsis = "\u2026");

// ---- Splitting and joining ------------------------------------------------------------------

enum class SplitOptions : std::uint8_t { keepEmpty, omitEmpty };

// The pieces of `text` between occurrences of `separator`. With keepEmpty an empty text is one
// empty piece and adjacent separators give empty pieces; an empty separator leaves `text`
// whole.
[[nodiscard]] KP_EXPORT std::vector<std::string_view> split(std::string_view text, std::string_view separator,
                                                            SplitOptions options = SplitOptions::keepEmpty);

// The pieces joined with `separator` between them.
template <std::ranges::input_range R>
requires std::convertible_to<std::ranges::range_reference_t<R>, std::string_view>
[[nodiscard]] std::string join(R&& pieces, std::string_view separator) {
  std::string out;
  bool first = true;
  for (auto&& piece : pieces) {
    if (!first) out.append(separator);
    first = false;
    out.append(std::string_view(piece));
  }
  return out;
}

// ---- Numbers --------------------------------------------------------------------------------

// The number that all of `text` spells, in the C locale's form whatever the process locale:
// an optional sign ("+" too), decimal digits, and for floating-point types a fraction and an
// exponent. Nothing for anything else, for a value outside T's range, and for infinities and
// NaN.
template <class T>
requires(std::integral<T> && !std::same_as<T, bool>) ||
    std::floating_point<T> [[nodiscard]] std::optional<T> readNumber(std::string_view text) noexcept {
  const char* first = text.data();
  const char* last = text.data() + text.size();
  if (first != last && *first == '+') {
    ++first;
    if (first != last && *first == '-') return std::nullopt;
  }
  if (first == last) return std::nullopt;
  T value{};
  if constexpr (std::floating_point<T>) {
    // from_chars also reads "inf" and "nan"; a number starts with a digit, a point or a sign.
    const char lead = *first == '-' && first + 1 != last ? first[1] : *first;
    if (!((lead >= '0' && lead <= '9') || lead == '.')) return std::nullopt;
  }
  const auto [end, error] = std::from_chars(first, last, value);
  if (error != std::errc() || end != last) return std::nullopt;
  if constexpr (std::floating_point<T>) {
    if (!std::isfinite(value)) return std::nullopt;
  }
  return value;
}

// ---- Hex, Base64 and percent-encoding -------------------------------------------------------

enum class LetterCase : std::uint8_t { lower, upper };

// Two hex digits per byte.
[[nodiscard]] KP_EXPORT std::string hexEncoded(std::span<const std::uint8_t> bytes,
                                               LetterCase letters = LetterCase::lower);
// The bytes of pairs of hex digits (either case, nothing else); nothing for other text.
[[nodiscard]] KP_EXPORT std::optional<Data> hexDecoded(std::string_view text);

// The Base64 text (no line breaks) of the bytes of `text`.
[[nodiscard]] KP_EXPORT std::string base64EncodedString(std::string_view text);
// The UTF-8 text that `base64` encodes; nothing when it is not Base64 or not UTF-8.
[[nodiscard]] KP_EXPORT std::optional<std::string> base64DecodedString(std::string_view base64);

// Percent-encoding (ByteSet, addingPercentEncoding, appendPercentEncoded,
// removingPercentEncoding) comes with kp/crypto/percent_encoding.h, included above.

}  // namespace kp
