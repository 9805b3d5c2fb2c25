// kp::HttpCookie: a cookie as a server set it, read from the "Set-Cookie" fields of a
// response for the URL it came from.
//
// Defaults from the URL: without a Domain attribute the cookie belongs to the URL's host
// only; without a Path attribute its path is the directory of the URL's path ("/" when that
// has none). A Domain attribute that does not cover the host drops the cookie. Max-Age wins
// over Expires; a cookie with neither lasts for the session.
//
// Thread safety: a value type.
//
// Example:
//   auto cookies = kp::HttpCookie::cookies({{"Set-Cookie", "id=7; Path=/; Secure"}}, url);
//   cookies[0].name();   // "id"
//   kp::HttpCookie session("sid", "7", "api.example.com", "/", {.secure = true});
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kp/platform/date.h"
#include "kp/platform/export.h"
#include "kp/platform/url.h"

namespace kp {

// One cookie as a response set it and the cookie store keeps it.
class KP_EXPORT HttpCookie {
 public:
  // What a cookie carries besides its name, value, domain and path.
  struct Attributes {
    std::optional<Date> expiresDate;            // none: the cookie lasts for the session
    bool secure = false;                        // sent over HTTPS only
    bool httpOnly = false;                      // not for scripts
    std::optional<std::string> sameSitePolicy;  // "Lax", "Strict" or "None" as sent
  };

  // `domain` is a host, or "." followed by a domain whose subdomains the cookie also covers.
  HttpCookie(std::string name, std::string value, std::string domain, std::string path)
      : name_(std::move(name)), value_(std::move(value)), domain_(std::move(domain)), path_(std::move(path)) {}
  // The same, with `attributes`.
  HttpCookie(std::string name, std::string value, std::string domain, std::string path, Attributes attributes)
      : name_(std::move(name)),
        value_(std::move(value)),
        domain_(std::move(domain)),
        path_(std::move(path)),
        expiresDate_(std::move(attributes.expiresDate)),
        secure_(attributes.secure),
        httpOnly_(attributes.httpOnly),
        sameSite_(std::move(attributes.sameSitePolicy)) {}

  // Every valid cookie in the "Set-Cookie" fields of `headerFields` (the name compared
  // without regard to case; several cookies in one field are separated by commas).
  [[nodiscard]] static std::vector<HttpCookie> cookies(const std::map<std::string, std::string>& headerFields,
                                                       const Url& url);

  [[nodiscard]] const std::string& name() const noexcept { return name_; }    // the name
  [[nodiscard]] const std::string& value() const noexcept { return value_; }  // the value
  // The host, or "." followed by the Domain attribute (which then covers subdomains).
  [[nodiscard]] const std::string& domain() const noexcept { return domain_; }
  [[nodiscard]] const std::string& path() const noexcept { return path_; }  // the path it covers
  // When it expires; nothing for a session cookie.
  [[nodiscard]] const std::optional<Date>& expiresDate() const noexcept { return expiresDate_; }
  [[nodiscard]] bool isSessionOnly() const noexcept { return !expiresDate_; }  // lasts for the session
  [[nodiscard]] bool isSecure() const noexcept { return secure_; }             // sent over HTTPS only
  [[nodiscard]] bool isHTTPOnly() const noexcept { return httpOnly_; }         // not for scripts
  // "Lax", "Strict" or "None" as sent.
  [[nodiscard]] const std::optional<std::string>& sameSitePolicy() const noexcept { return sameSite_; }

  // Everything besides name, value, domain and path.
  [[nodiscard]] Attributes attributes() const { return {expiresDate_, secure_, httpOnly_, sameSite_}; }

  friend bool operator==(const HttpCookie&, const HttpCookie&) = default;  // equal in every part

 private:
  std::string name_;
  std::string value_;
  std::string domain_;
  std::string path_;
  std::optional<Date> expiresDate_;
  bool secure_ = false;
  bool httpOnly_ = false;
  std::optional<std::string> sameSite_;
};

}  // namespace kp
