// URL parsing over Boost.URL, and host names in IDNA over libidn2. Only this file includes
// either; the value keeps its parts as plain strings so that users of the header pay nothing
// for the parser.
#include "kp/platform/url.h"

#include <idn2.h>

#include <algorithm>
#include <array>
#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>
#include <boost/url/url_view.hpp>
#include <cctype>

namespace kp {
namespace {

std::optional<std::uint16_t> portOf(const boost::urls::url_view& view) {
  if (!view.has_port()) return std::nullopt;
  const auto text = view.port();
  if (text.empty() || text.size() > 5) return std::nullopt;
  unsigned value = 0;
  for (char c : text) value = value * 10 + static_cast<unsigned>(c - '0');
  if (value > 65535) return std::nullopt;
  return static_cast<std::uint16_t>(value);
}

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// Characters a path, query or fragment may hold as they are (RFC 3986 pchar, "/" and "?"),
// apart from "%", which is allowed only as the start of an escape.
constexpr std::array<bool, 256> makeAllowedTable(std::string_view symbols) {
  std::array<bool, 256> table{};
  for (int c = 'a'; c <= 'z'; ++c) table[static_cast<std::size_t>(c)] = true;
  for (int c = 'A'; c <= 'Z'; ++c) table[static_cast<std::size_t>(c)] = true;
  for (int c = '0'; c <= '9'; ++c) table[static_cast<std::size_t>(c)] = true;
  for (char c : symbols) table[static_cast<unsigned char>(c)] = true;
  return table;
}
constexpr auto kAllowed = makeAllowedTable("-._~!$&'()*+,;=:@/?");
// The same for the user name and password before "@".
constexpr auto kUserInfoAllowed = makeAllowedTable("-._~!$&'()*+,;=:");

bool isEscape(std::string_view text, std::size_t i) {
  return text[i] == '%' && i + 2 < text.size() && isHexDigit(text[i + 1]) && isHexDigit(text[i + 2]);
}

void appendEscaped(std::string& out, unsigned char byte) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  out.push_back('%');
  out.push_back(kHex[byte >> 4]);
  out.push_back(kHex[byte & 15]);
}

// The ASCII form of a host name written in Unicode: its labels in IDNA (UTS #46 processing
// without the transitional mappings, as browsers do); nothing for text that is not UTF-8 or
// that no host name can hold.
std::optional<std::string> idnaHost(std::string_view host) {
  if (host.find('\0') != std::string_view::npos) return std::nullopt;
  const std::string input(host);
  char* output = nullptr;
  if (idn2_to_ascii_8z(input.c_str(), &output, IDN2_NFC_INPUT | IDN2_NONTRANSITIONAL) != IDN2_OK) {
    return std::nullopt;
  }
  std::string ascii(output);
  idn2_free(output);
  return ascii;
}

// The authority (between "//" and the path) with its user information percent-encoded and a
// host name outside ASCII in IDNA; nothing when the host cannot be converted. Anything else
// stays as written, for the parser to judge.
std::optional<std::string> encodingAuthority(std::string_view authority) {
  std::string out;
  const std::size_t at = authority.rfind('@');
  if (at != std::string_view::npos) {
    for (std::size_t i = 0; i < at; ++i) {
      const auto byte = static_cast<unsigned char>(authority[i]);
      if (kUserInfoAllowed[byte] || isEscape(authority, i)) {
        out.push_back(authority[i]);
      } else {
        appendEscaped(out, byte);
      }
    }
    out.push_back('@');
    authority.remove_prefix(at + 1);
  }
  // A bracketed IP literal is never a name.
  const std::size_t colon = authority.starts_with('[') ? std::string_view::npos : authority.rfind(':');
  const std::string_view host = authority.substr(0, colon);
  const bool ascii = std::all_of(host.begin(), host.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii) {
    out += host;
  } else if (auto converted = idnaHost(host)) {
    out += *converted;
  } else {
    return std::nullopt;
  }
  if (colon != std::string_view::npos) out += authority.substr(colon);
  return out;
}

// The scheme with its ":" ("https:"), or nothing when `text` starts with none (a relative
// reference).
std::string_view schemeOf(std::string_view text) {
  if (text.empty() || std::isalpha(static_cast<unsigned char>(text[0])) == 0) return {};
  const std::size_t end = text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+-.");
  if (end == std::string_view::npos || text[end] != ':') return {};
  return text.substr(0, end + 1);
}

std::optional<std::string> encodingInvalidCharacters(std::string_view text) {
  std::string out(schemeOf(text));
  out.reserve(text.size() + 16);
  std::size_t i = out.size();
  if (text.substr(i, 2) == "//") {
    const std::size_t end = std::min(text.find_first_of("/?#", i + 2), text.size());
    auto authority = encodingAuthority(text.substr(i + 2, end - i - 2));
    if (!authority) return std::nullopt;
    out += "//";
    out += *authority;
    i = end;
  }
  bool inFragment = false;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    const auto byte = static_cast<unsigned char>(c);
    bool plain = kAllowed[byte] || isEscape(text, i);
    if (c == '#') {
      plain = !inFragment;  // the first one starts the fragment
      inFragment = true;
    }
    if (plain) {
      out.push_back(c);
    } else {
      appendEscaped(out, byte);
    }
  }
  return out;
}

}  // namespace

std::optional<Url> Url::parseEncodingInvalidCharacters(std::string_view text) {
  if (auto url = parse(text)) return url;
  auto encoded = encodingInvalidCharacters(text);
  return encoded ? parse(*encoded) : std::nullopt;
}

std::optional<Url> Url::parse(std::string_view text) {
  auto parsed = boost::urls::parse_uri_reference(text);
  if (!parsed) return std::nullopt;
  const boost::urls::url_view& view = *parsed;
  Url url;
  url.text_ = std::string(text);
  url.scheme_ = std::string(view.scheme());
  if (view.has_userinfo()) {
    url.user_ = std::string(view.encoded_user());
    if (view.has_password()) url.password_ = std::string(view.encoded_password());
  }
  url.host_ = std::string(view.encoded_host_and_port());
  if (view.has_port()) {
    // encoded_host_and_port() keeps the port; strip it so host() is the host alone.
    url.host_.resize(url.host_.size() - view.port().size() - 1);
    url.port_ = portOf(view);
    if (!url.port_ && !view.port().empty()) return std::nullopt;
  }
  url.path_ = std::string(view.encoded_path());
  if (view.has_query()) url.query_ = std::string(view.encoded_query());
  if (view.has_fragment()) url.fragment_ = std::string(view.encoded_fragment());
  return url;
}

std::optional<Url> Url::resolvedAgainst(const Url& base) const {
  auto baseView = boost::urls::parse_uri(base.text_);
  auto refView = boost::urls::parse_uri_reference(text_);
  if (!baseView || !refView) return std::nullopt;
  boost::urls::url out;
  if (!boost::urls::resolve(*baseView, *refView, out)) return std::nullopt;
  return parse(out.buffer());
}

Url Url::withQuery(std::optional<std::string_view> query) const {
  boost::urls::url out(text_);
  if (query) {
    // Text that is not validly encoded is encoded here rather than rejected.
    if (auto encoded = boost::urls::make_pct_string_view(*query)) {
      out.set_encoded_query(*encoded);
    } else {
      out.set_query(*query);
    }
  } else {
    out.remove_query();
  }
  return *parse(out.buffer());
}

}  // namespace kp
