// kp::HttpCookieStorage: the cookies that sessions send and keep. A session stores the cookies
// of every response it receives (redirects included) and sends the stored cookies that match
// each request's URL: its host (a host-only cookie goes to its host alone, a domain cookie to
// the domain and its subdomains), its path, its scheme (a secure cookie only over https) and
// the time (an expired cookie is gone). The process has one shared store, which every
// session uses unless its configuration names another.
//
// What a store accepts:
//   - nothing under the policy `never`; under `onlyFromMainDocumentDomain` (the default)
//     only cookies of responses whose host is of the same site (registrable domain, such as
//     "example.co.uk") as the request's main document URL. A request without a main document
//     URL is its own main document, so its responses' cookies are accepted as under `always`.
//   - cookies whose domain covers the responding host and is not a public suffix ("com",
//     "co.uk"); a Domain attribute naming an IP address or a public suffix that is the host
//     itself makes a host-only cookie, as browsers do.
//   - secure cookies (and names starting "__Secure-" or "__Host-") only from https.
//   - at most 4096 bytes of name and value, a domain of 255 and a path of 1024 bytes, no
//     control characters, and a lifetime of at most 400 days (longer ones are cut).
// A store keeps at most 50 cookies per site and 3000 in all; beyond that the expired ones go
// first, then the oldest.
//
// Persistence: the shared store lives in dataDirectory()/Cookies (made private, 0700 folder
// and 0600 file), read on first use, so the host sets the application information before its
// first request. Cookies with an expiry date are written there atomically about a second
// after a change and when the process exits normally; session cookies stay in memory. Each
// write first takes in what other processes wrote since (cookies this process removed stay
// removed). A file that is not what a store writes is moved aside ("Cookies.damaged-<ms>")
// and the store starts empty; a file that cannot be read at the moment is never written over.
//
// Thread safety: every member may be called from any thread.
//
// Example:
//   auto storage = kp::HttpCookieStorage::shared();
//   for (const auto& cookie : storage->cookies(*kp::Url::parse("https://api.example.com/v1")))
//     std::cout << cookie.name() << "\n";
//   storage->deleteAllCookies();
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "kp/platform/export.h"
#include "kp/platform/url.h"
#include "kp/request/http_cookie.h"

namespace kp {

// Which responses' cookies are kept.
enum class HttpCookieAcceptPolicy : int { always = 0, never = 1, onlyFromMainDocumentDomain = 2 };

class KP_EXPORT HttpCookieStorage : public std::enable_shared_from_this<HttpCookieStorage> {
 public:
  // The process's store, kept in dataDirectory()/Cookies.
  [[nodiscard]] static std::shared_ptr<HttpCookieStorage> shared();
  // A store of its own, kept in `file`, or in memory only when `file` is empty.
  [[nodiscard]] static std::shared_ptr<HttpCookieStorage> make(std::filesystem::path file = {});
  ~HttpCookieStorage();
  HttpCookieStorage(const HttpCookieStorage&) = delete;
  HttpCookieStorage& operator=(const HttpCookieStorage&) = delete;

  // Which cookies are kept.
  [[nodiscard]] HttpCookieAcceptPolicy cookieAcceptPolicy() const;
  // Changes which cookies are kept.
  void setCookieAcceptPolicy(HttpCookieAcceptPolicy policy);

  // Every cookie that has not expired, oldest first.
  [[nodiscard]] std::vector<HttpCookie> cookies() const;
  // The cookies a request to `url` sends, in the order it sends them (longer paths first,
  // then older ones first).
  [[nodiscard]] std::vector<HttpCookie> cookies(const Url& url) const;
  // Keeps `cookie`, replacing the one of the same name, domain and path; an expired cookie
  // removes that one instead. Ignored under the policy `never`, and when the cookie breaks
  // the rules above that do not need a URL.
  void setCookie(const HttpCookie& cookie);
  // Keeps the cookies a response from `url` set, under the accept policy and the rules above.
  void setCookies(const std::vector<HttpCookie>& cookies, const Url& url,
                  const std::optional<Url>& mainDocumentURL = std::nullopt);
  // Removes the cookie of the same name, domain and path.
  void deleteCookie(const HttpCookie& cookie);
  // Removes every cookie.
  void deleteAllCookies();

  // Writes pending changes now; false when the file could not be written (the store then
  // tries again later). True at once for a store kept in memory.
  bool synchronize();

  struct Impl;

 private:
  // `shared`: the file is found in the data folder on first use.
  HttpCookieStorage(std::filesystem::path file, bool shared);
  void scheduleWrite(std::chrono::milliseconds delay);
  std::unique_ptr<Impl> impl_;
};

}  // namespace kp
