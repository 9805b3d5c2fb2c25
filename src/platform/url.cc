// URL parsing over Boost.URL. Only this file includes Boost.URL; the value keeps its parts
// as plain strings so that users of the header pay nothing for the parser.
#include "kp/platform/url.h"

#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>
#include <boost/url/url_view.hpp>

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

}  // namespace

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
