// Cookie matching and bounds over sites. The public suffixes come from libpsl's built-in list.
#include "request/cookies/cookie_jar.h"

#include <libpsl.h>

#include <algorithm>

#include "request/header_text.h"

namespace kp::internal {

namespace {

const psl_ctx_t* suffixList() {
  // The built-in list needs no file; a library built without one reads the system's list.
  static const psl_ctx_t* const list = psl_builtin() ? psl_builtin() : psl_latest(nullptr);
  return list;
}

bool isPublicSuffix(const std::string& domain) {
  if (const psl_ctx_t* list = suffixList()) return psl_is_public_suffix(list, domain.c_str()) != 0;
  // Without a list, at least no top-level domain takes cookies for all of its sites.
  return domain.find('.') == std::string::npos;
}

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

bool isCleanText(std::string_view text, std::string_view alsoRefused) {
  return std::none_of(text.begin(), text.end(),
                      [&](char c) { return isControl(c) || alsoRefused.find(c) != std::string_view::npos; });
}

bool expired(const HttpCookie& cookie, Date now) { return cookie.expiresDate() && *cookie.expiresDate() <= now; }

// `host` is the domain, or one of its subdomains (never for IP addresses, whose cookies are
// host-only).
bool domainMatches(std::string_view host, const std::string& cookieDomain) {
  if (cookieDomain.empty() || cookieDomain.front() != '.') return host == cookieDomain;
  const std::string_view bare = std::string_view(cookieDomain).substr(1);
  if (host == bare) return true;
  return host.size() > bare.size() + 1 && host.ends_with(bare) && host[host.size() - bare.size() - 1] == '.' &&
         !isIpAddressHost(host);
}

bool pathMatches(std::string_view requestPath, std::string_view cookiePath) {
  if (!requestPath.starts_with(cookiePath)) return false;
  return requestPath.size() == cookiePath.size() || cookiePath.ends_with('/') || requestPath[cookiePath.size()] == '/';
}

std::string_view bareDomain(const std::string& domain) {
  return !domain.empty() && domain.front() == '.' ? std::string_view(domain).substr(1) : std::string_view(domain);
}

bool hasPrefix(std::string_view name, std::string_view prefix) {
  return name.size() >= prefix.size() && equalsIgnoringCase(name.substr(0, prefix.size()), prefix);
}

}  // namespace

bool isIpAddressHost(std::string_view host) {
  if (host.starts_with('[')) return true;
  if (host.empty()) return false;
  std::size_t start = 0;
  for (;;) {
    const std::size_t dot = host.find('.', start);
    const std::string_view label = host.substr(start, dot == std::string_view::npos ? dot : dot - start);
    if (label.empty() || !std::all_of(label.begin(), label.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      return false;
    }
    if (dot == std::string_view::npos) return true;
    start = dot + 1;
  }
}

std::string siteOf(std::string_view host) {
  std::string name(host);
  if (isIpAddressHost(name)) return name;
  const psl_ctx_t* list = suffixList();
  const char* registrable = list ? psl_registrable_domain(list, name.c_str()) : nullptr;
  return registrable ? std::string(registrable) : name;
}

bool isStorable(const HttpCookie& cookie) {
  const std::string& domain = cookie.domain();
  return !cookie.name().empty() && cookie.name().size() + cookie.value().size() <= kMaxCookieNameAndValueBytes &&
         isCleanText(cookie.name(), ";=") && isCleanText(cookie.value(), ";") && !bareDomain(domain).empty() &&
         domain.size() <= kMaxCookieDomainBytes && isCleanText(domain, " ;,/") && cookie.path().starts_with('/') &&
         cookie.path().size() <= kMaxCookiePathBytes && isCleanText(cookie.path(), ";") &&
         (!cookie.sameSitePolicy() ||
          (cookie.sameSitePolicy()->size() <= 16 && isCleanText(*cookie.sameSitePolicy(), ";")));
}

std::optional<HttpCookie> acceptableCookie(const HttpCookie& cookie, const std::optional<Url>& url, Date now) {
  if (!isStorable(cookie)) return std::nullopt;
  std::string domain = asciiLowercased(cookie.domain());
  const bool domainAttribute = domain.front() == '.';
  const std::string bare(bareDomain(domain));
  const std::string host = url ? asciiLowercased(url->host()) : std::string();
  if (url) {
    if (host.empty()) return std::nullopt;
    if (!domainAttribute && bare != host) return std::nullopt;
    if (domainAttribute && bare != host && !domainMatches(host, domain)) return std::nullopt;
  }
  // A domain that is an IP address, or a public suffix named by its own host, covers that
  // host alone; one that is a public suffix of another host would reach every site under it.
  if (domainAttribute && isIpAddressHost(bare)) {
    domain = bare;
  } else if (domainAttribute && isPublicSuffix(bare)) {
    if (!url || bare != host) return std::nullopt;
    domain = bare;
  }
  const bool secureOrigin = !url || equalsIgnoringCase(url->scheme(), "https");
  const bool securePrefix = hasPrefix(cookie.name(), "__Secure-");
  const bool hostPrefix = hasPrefix(cookie.name(), "__Host-");
  if (cookie.isSecure() && !secureOrigin) return std::nullopt;
  if ((securePrefix || hostPrefix) && (!cookie.isSecure() || !secureOrigin)) return std::nullopt;
  if (hostPrefix && (domainAttribute || cookie.path() != "/")) return std::nullopt;

  HttpCookie::Attributes attributes = cookie.attributes();
  if (attributes.expiresDate && *attributes.expiresDate > now.addingTimeInterval(kMaxCookieLifetime)) {
    attributes.expiresDate = now.addingTimeInterval(kMaxCookieLifetime);
  }
  return HttpCookie(cookie.name(), cookie.value(), std::move(domain), cookie.path(), std::move(attributes));
}

// MARK: - The jar

bool CookieJar::insert(HttpCookie cookie, std::int64_t createdMilliseconds, Date now, std::vector<CookieKey>& removed) {
  const std::string site = siteOf(bareDomain(cookie.domain()));
  auto siteIt = sites_.find(site);
  if (siteIt != sites_.end()) {
    Site& stored = siteIt->second;
    auto same = std::find_if(stored.begin(), stored.end(), [&](const StoredCookie& s) {
      return s.cookie.name() == cookie.name() && s.cookie.domain() == cookie.domain() &&
             s.cookie.path() == cookie.path();
    });
    if (same != stored.end()) {
      const bool wasKept = same->cookie.expiresDate().has_value();
      if (expired(cookie, now)) {
        if (wasKept) removed.push_back(keyOf(same->cookie));
        stored.erase(same);
        --count_;
        if (stored.empty()) sites_.erase(siteIt);
        return wasKept;
      }
      // The replacement keeps the place (and creation time) of the cookie it replaces.
      const bool changed = (wasKept || cookie.expiresDate()) && !(same->cookie == cookie);
      same->cookie = std::move(cookie);
      return changed;
    }
  }
  if (expired(cookie, now)) return false;
  if (siteIt == sites_.end()) siteIt = sites_.emplace(site, Site()).first;
  bool changed = makeRoom(siteIt->second, now, removed);
  changed = changed || cookie.expiresDate().has_value();
  siteIt->second.push_back(StoredCookie{std::move(cookie), createdMilliseconds, nextSequence_++});
  ++count_;
  if (count_ > kMaxCookies) changed = makeRoomOverall(now, removed) || changed;
  return changed;
}

CookieJar::Site::iterator CookieJar::drop(Site& site, Site::iterator it, std::vector<CookieKey>& removed,
                                          bool& changed) {
  if (it->cookie.expiresDate()) {
    removed.push_back(keyOf(it->cookie));
    changed = true;
  }
  --count_;
  return site.erase(it);
}

bool CookieJar::makeRoom(Site& site, Date now, std::vector<CookieKey>& removed) {
  if (site.size() < kMaxCookiesPerSite) return false;
  bool changed = false;
  for (auto it = site.begin(); it != site.end();) {
    it = expired(it->cookie, now) ? drop(site, it, removed, changed) : std::next(it);
  }
  // Cookies are appended, so the oldest comes first.
  while (site.size() >= kMaxCookiesPerSite) drop(site, site.begin(), removed, changed);
  return changed;
}

bool CookieJar::makeRoomOverall(Date now, std::vector<CookieKey>& removed) {
  bool changed = false;
  for (auto siteIt = sites_.begin(); siteIt != sites_.end();) {
    Site& site = siteIt->second;
    for (auto it = site.begin(); it != site.end();) {
      it = expired(it->cookie, now) ? drop(site, it, removed, changed) : std::next(it);
    }
    siteIt = site.empty() ? sites_.erase(siteIt) : std::next(siteIt);
  }
  while (count_ > kMaxCookies) {
    auto oldest = sites_.begin();
    for (auto it = sites_.begin(); it != sites_.end(); ++it) {
      if (it->second.front().sequence < oldest->second.front().sequence) oldest = it;
    }
    drop(oldest->second, oldest->second.begin(), removed, changed);
    if (oldest->second.empty()) sites_.erase(oldest);
  }
  return changed;
}

bool CookieJar::remove(const CookieKey& key) {
  auto siteIt = sites_.find(siteOf(bareDomain(key.domain)));
  if (siteIt == sites_.end()) return false;
  Site& stored = siteIt->second;
  auto same = std::find_if(stored.begin(), stored.end(), [&](const StoredCookie& s) { return keyOf(s.cookie) == key; });
  if (same == stored.end()) return false;
  const bool wasKept = same->cookie.expiresDate().has_value();
  stored.erase(same);
  --count_;
  if (stored.empty()) sites_.erase(siteIt);
  return wasKept;
}

void CookieJar::clear() {
  sites_.clear();
  count_ = 0;
}

bool CookieJar::shadowsSecureCookie(const HttpCookie& insecure) const {
  auto siteIt = sites_.find(siteOf(bareDomain(insecure.domain())));
  if (siteIt == sites_.end()) return false;
  const std::string_view bare = bareDomain(insecure.domain());
  return std::any_of(siteIt->second.begin(), siteIt->second.end(), [&](const StoredCookie& s) {
    const HttpCookie& c = s.cookie;
    return c.isSecure() && c.name() == insecure.name() &&
           (domainMatches(bareDomain(c.domain()), insecure.domain()) || domainMatches(bare, c.domain())) &&
           pathMatches(insecure.path(), c.path());
  });
}

bool CookieJar::contains(const CookieKey& key) const {
  auto siteIt = sites_.find(siteOf(bareDomain(key.domain)));
  return siteIt != sites_.end() && std::any_of(siteIt->second.begin(), siteIt->second.end(),
                                               [&](const StoredCookie& s) { return keyOf(s.cookie) == key; });
}

std::vector<StoredCookie> CookieJar::all(Date now) const {
  std::vector<StoredCookie> out;
  out.reserve(count_);
  for (const auto& [name, site] : sites_) {
    for (const auto& stored : site) {
      if (!expired(stored.cookie, now)) out.push_back(stored);
    }
  }
  std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.sequence < b.sequence; });
  return out;
}

std::vector<HttpCookie> CookieJar::matching(const Url& url, Date now) const {
  const std::string host = asciiLowercased(url.host());
  if (host.empty()) return {};
  auto siteIt = sites_.find(siteOf(host));
  if (siteIt == sites_.end()) return {};
  const bool secure = equalsIgnoringCase(url.scheme(), "https");
  const std::string_view path = url.path().empty() ? std::string_view("/") : std::string_view(url.path());
  std::vector<const StoredCookie*> sent;
  for (const auto& stored : siteIt->second) {
    const HttpCookie& c = stored.cookie;
    if ((c.isSecure() && !secure) || expired(c, now) || !domainMatches(host, c.domain()) ||
        !pathMatches(path, c.path())) {
      continue;
    }
    sent.push_back(&stored);
  }
  std::sort(sent.begin(), sent.end(), [](const StoredCookie* a, const StoredCookie* b) {
    if (a->cookie.path().size() != b->cookie.path().size()) return a->cookie.path().size() > b->cookie.path().size();
    return a->sequence < b->sequence;
  });
  std::vector<HttpCookie> out;
  out.reserve(sent.size());
  for (const StoredCookie* stored : sent) out.push_back(stored->cookie);
  return out;
}

}  // namespace kp::internal
