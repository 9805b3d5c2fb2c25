// kp::Url: an absolute or relative URL reference (RFC 3986), kept exactly as written.
//
// Components come back in their encoded form: the path keeps its percent escapes, so
// "/a%2Fb" stays "/a%2Fb" and is never decoded into a second path segment.
//
// Thread safety: a value type; safe to copy between threads.
//
// Example:
//   auto url = kp::Url::parse("https://api.example.com:8443/v1/forecast?lat=1&lon=2");
//   if (url) { url->host();  /* "api.example.com" */  url->port();  /* 8443 */ }
//   auto city = kp::Url::parseEncodingInvalidCharacters("https://h/v1?city=M\xc3\xbcnchen");
//   city->query();  // "city=M%C3%BCnchen"
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/export.h"

namespace kp {

class KP_EXPORT Url {
 public:
  // Nothing when `text` is not a URI reference.
  [[nodiscard]] static std::optional<Url> parse(std::string_view text);
  // As parse(), for URLs as people write them: every character that a URI cannot carry in
  // the user information, path, query and fragment is percent-encoded (UTF-8 bytes as
  // upper-case %XX): non-ASCII letters, controls, space, " < > [ \ ] ^ ` { | }, a "%" that
  // starts no escape, and "#" inside the fragment. A host name outside ASCII becomes its
  // IDNA form ("b\xc3\xbccher.example" -> "xn--bcher-kva.example"). Escapes and reserved
  // characters stay as written, so text that parses already comes back as it is. Nothing
  // when the host is still not valid: a space in it, or a name that IDNA refuses (text that
  // is not UTF-8, disallowed code points, labels over 63 bytes).
  [[nodiscard]] static std::optional<Url> parseEncodingInvalidCharacters(std::string_view text);

  [[nodiscard]] const std::string& absoluteString() const noexcept { return text_; }  // the whole URL text
  [[nodiscard]] bool isAbsolute() const noexcept { return !scheme_.empty(); }         // it has a scheme
  [[nodiscard]] const std::string& scheme() const noexcept { return scheme_; }        // "https"; empty when none
  // The user information's user; nothing when the URL has none.
  [[nodiscard]] const std::optional<std::string>& user() const noexcept { return user_; }
  // The user information's password; nothing when the URL has none.
  [[nodiscard]] const std::optional<std::string>& password() const noexcept { return password_; }
  // The host as written (brackets kept for IPv6 literals); empty when the URL has none.
  [[nodiscard]] const std::string& host() const noexcept { return host_; }
  [[nodiscard]] std::optional<std::uint16_t> port() const noexcept { return port_; }  // nothing when not written
  // Encoded path, exactly as written; empty when the URL has none.
  [[nodiscard]] const std::string& path() const noexcept { return path_; }
  // Encoded query without "?"; nothing when there is no "?", empty for a bare "?".
  [[nodiscard]] const std::optional<std::string>& query() const noexcept { return query_; }
  // Encoded fragment without "#"; nothing when there is no "#".
  [[nodiscard]] const std::optional<std::string>& fragment() const noexcept { return fragment_; }

  // This reference resolved against `base` (as a browser follows a relative Location).
  [[nodiscard]] std::optional<Url> resolvedAgainst(const Url& base) const;
  // The same URL with the query replaced (`query` is taken as already encoded) or removed.
  [[nodiscard]] Url withQuery(std::optional<std::string_view> query) const;

  friend bool operator==(const Url& a, const Url& b) { return a.text_ == b.text_; }    // the same text
  friend auto operator<=>(const Url& a, const Url& b) { return a.text_ <=> b.text_; }  // by text

 private:
  Url() = default;
  std::string text_;
  std::string scheme_;
  std::optional<std::string> user_;
  std::optional<std::string> password_;
  std::string host_;
  std::optional<std::uint16_t> port_;
  std::string path_;
  std::optional<std::string> query_;
  std::optional<std::string> fragment_;
};

}  // namespace kp
