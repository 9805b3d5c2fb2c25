// The cookies of one store in memory, grouped by site: which cookies a request sends, which
// cookies a response may set, and the bounds on how many are kept. Internal to the request
// layer; not installed.
//
// Thread safety: the helper functions may be called from any thread. A CookieJar has none of
// its own: the store that owns it guards it with its lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kp/platform/url.h"
#include "kp/request/http_cookie.h"

namespace kp::internal {

inline constexpr std::size_t kMaxCookiesPerSite = 50;
inline constexpr std::size_t kMaxCookies = 3000;
inline constexpr std::size_t kMaxCookieNameAndValueBytes = 4096;
inline constexpr std::size_t kMaxCookieDomainBytes = 255;
inline constexpr std::size_t kMaxCookiePathBytes = 1024;
// Longer lifetimes are cut to this, as browsers do.
inline constexpr TimeInterval kMaxCookieLifetime = 400 * 24 * 3600.0;

// What names one cookie in a store: a cookie of the same name, domain and path replaces it.
struct CookieKey {
  std::string name;
  std::string domain;
  std::string path;
  friend auto operator<=>(const CookieKey&, const CookieKey&) = default;
};

[[nodiscard]] inline CookieKey keyOf(const HttpCookie& cookie) {
  return {cookie.name(), cookie.domain(), cookie.path()};
}

struct StoredCookie {
  HttpCookie cookie;
  std::int64_t createdMilliseconds = 0;  // since 1970
  std::uint64_t sequence = 0;            // the order in which the jar took cookies
};

// Whether `host` is an IPv4 address (every label a number) or a bracketed IPv6 one.
[[nodiscard]] bool isIpAddressHost(std::string_view host);
// The registrable domain of `host` ("example.co.uk" for "www.example.co.uk"); the host itself
// for IP addresses and hosts that are public suffixes (such as "localhost").
[[nodiscard]] std::string siteOf(std::string_view host);
// Whether name, value, domain and path are within the bounds and carry no character that a
// Cookie field or the store's file cannot hold.
[[nodiscard]] bool isStorable(const HttpCookie& cookie);
// `cookie` as a store keeps it when the response of `url` set it (no URL: the host set it),
// or nothing when it may not be kept: its domain made host-only where it names an IP address
// or a public suffix that is the host itself, its lifetime cut, and the checks of domain,
// secure origin and name prefixes applied.
[[nodiscard]] std::optional<HttpCookie> acceptableCookie(const HttpCookie& cookie, const std::optional<Url>& url,
                                                         Date now);

class CookieJar {
 public:
  // Keeps `cookie` (which acceptableCookie() passed), or removes the one it names when it
  // has expired. Makes room as the bounds require. The keys of cookies with an expiry date
  // that left the jar go to `removed`. True when a cookie with an expiry date came, went or
  // changed (what the store's file holds).
  bool insert(HttpCookie cookie, std::int64_t createdMilliseconds, Date now, std::vector<CookieKey>& removed);
  // True when a cookie with an expiry date went.
  bool remove(const CookieKey& key);
  void clear();

  // Whether `insecure`, set over plain HTTP, would shadow a secure cookie of the same name
  // (whose domain covers its domain or the other way round, and whose path covers its path),
  // which such a response must leave alone.
  [[nodiscard]] bool shadowsSecureCookie(const HttpCookie& insecure) const;
  [[nodiscard]] bool contains(const CookieKey& key) const;
  // Oldest first; expired cookies left out.
  [[nodiscard]] std::vector<StoredCookie> all(Date now) const;
  // What a request to `url` sends, in sending order.
  [[nodiscard]] std::vector<HttpCookie> matching(const Url& url, Date now) const;
  [[nodiscard]] std::size_t size() const noexcept { return count_; }

 private:
  using Site = std::vector<StoredCookie>;
  Site::iterator drop(Site& site, Site::iterator it, std::vector<CookieKey>& removed, bool& changed);
  // Room for one more cookie of `site`: its expired cookies go, then its oldest while it is full.
  bool makeRoom(Site& site, Date now, std::vector<CookieKey>& removed);
  // Back within kMaxCookies: expired cookies go, then the oldest of all.
  bool makeRoomOverall(Date now, std::vector<CookieKey>& removed);

  std::unordered_map<std::string, Site> sites_;
  std::size_t count_ = 0;
  std::uint64_t nextSequence_ = 0;
};

}  // namespace kp::internal
