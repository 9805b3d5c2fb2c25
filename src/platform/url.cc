// URL parsing over Boost.URL. Only this file includes Boost.URL; the value keeps its parts
// as plain strings so that users of the header pay nothing for the parser.
#include "kp/platform/url.h"

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
constexpr std::array<bool, 256> makeAllowedTable() {
  std::array<bool, 256> table{};
  for (int c = 'a'; c <= 'z'; ++c) table[static_cast<std::size_t>(c)] = true;
  for (int c = 'A'; c <= 'Z'; ++c) table[static_cast<std::size_t>(c)] = true;
  for (int c = '0'; c <= '9'; ++c) table[static_cast<std::size_t>(c)] = true;
  for (char c : std::string_view("-._~!$&'()*+,;=:@/?")) table[static_cast<unsigned char>(c)] = true;
  return table;
}
constexpr auto kAllowed = makeAllowedTable();

// Length of the scheme and authority at the start of `text` ("https://h:1", "mailto:"), or 0.
std::size_t schemeAndAuthorityLength(std::string_view text) {
  std::size_t i = 0;
  if (!text.empty() && std::isalpha(static_cast<unsigned char>(text[0])) != 0) {
    i = text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+-.");
    if (i == std::string_view::npos || text[i] != ':') return 0;
    ++i;
  }
  if (text.substr(i, 2) == "//") {
    const std::size_t end = text.find_first_of("/?#", i + 2);
    return end == std::string_view::npos ? text.size() : end;
  }
  return i;
}

std::string encodingInvalidCharacters(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  const std::size_t head = schemeAndAuthorityLength(text);
  std::string out(text.substr(0, head));
  out.reserve(text.size() + 16);
  bool inFragment = false;
  for (std::size_t i = head; i < text.size(); ++i) {
    const char c = text[i];
    const auto byte = static_cast<unsigned char>(c);
    bool plain = kAllowed[byte];
    if (c == '%') plain = i + 2 < text.size() && isHexDigit(text[i + 1]) && isHexDigit(text[i + 2]);
    if (c == '#') {
      plain = !inFragment;  // the first one starts the fragment
      inFragment = true;
    }
    if (plain) {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(kHex[byte >> 4]);
      out.push_back(kHex[byte & 15]);
    }
  }
  return out;
}

}  // namespace

std::optional<Url> Url::parseEncodingInvalidCharacters(std::string_view text) {
  if (auto url = parse(text)) return url;
  return parse(encodingInvalidCharacters(text));
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
