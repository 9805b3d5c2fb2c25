// kpcore cookies: the cookies that `kpcore get` (and every session of the library) keeps in
// the application's data folder: list them, those a URL would send, or remove them all.
#include <iostream>

#include "command.h"
#include "kp/request/http_cookie_storage.h"

namespace {

void printText(const kp::HttpCookie& cookie) {
  std::cout << kpcore::printable(cookie.domain()) << "  " << kpcore::printable(cookie.path()) << "  "
            << kpcore::printable(cookie.name()) << "=" << kpcore::printable(cookie.value()) << "  "
            << (cookie.expiresDate() ? "expires " + cookie.expiresDate()->iso8601() : std::string("session"));
  if (cookie.isSecure()) std::cout << "  secure";
  if (cookie.isHTTPOnly()) std::cout << "  httponly";
  std::cout << "\n";
}

void printJson(const kp::HttpCookie& cookie) {
  std::cout << "{\"name\":" << kpcore::jsonQuote(cookie.name()) << ",\"value\":" << kpcore::jsonQuote(cookie.value())
            << ",\"domain\":" << kpcore::jsonQuote(cookie.domain()) << ",\"path\":" << kpcore::jsonQuote(cookie.path())
            << ",\"expires\":"
            << (cookie.expiresDate() ? kpcore::jsonQuote(cookie.expiresDate()->iso8601()) : std::string("null"))
            << ",\"secure\":" << (cookie.isSecure() ? "true" : "false")
            << ",\"httpOnly\":" << (cookie.isHTTPOnly() ? "true" : "false") << ",\"sameSite\":"
            << (cookie.sameSitePolicy() ? kpcore::jsonQuote(*cookie.sameSitePolicy()) : std::string("null")) << "}";
}

int runCookies(kpcore::Args& args) {
  const bool json = args.flag("json");
  const auto action = args.positional();
  auto storage = kp::HttpCookieStorage::shared();
  if (action == "list") {
    const auto urlText = args.positional();
    args.expectEnd();
    std::vector<kp::HttpCookie> cookies;
    if (urlText) {
      const auto url = kp::Url::parse(*urlText);
      if (!url || !url->isAbsolute()) throw kpcore::CommandError("not an absolute URL: " + *urlText, 2);
      cookies = storage->cookies(*url);
    } else {
      cookies = storage->cookies();
    }
    if (json) {
      std::cout << "[";
      for (std::size_t i = 0; i < cookies.size(); ++i) {
        if (i > 0) std::cout << ",";
        printJson(cookies[i]);
      }
      std::cout << "]\n";
    } else {
      for (const auto& cookie : cookies) printText(cookie);
    }
    return 0;
  }
  if (action == "clear") {
    args.expectEnd();
    const std::size_t count = storage->cookies().size();
    storage->deleteAllCookies();
    if (!storage->synchronize()) throw kpcore::CommandError("the cookie file could not be written (see the log)");
    if (json) {
      std::cout << "{\"action\":\"clear\",\"removedCookies\":" << count << "}\n";
    } else {
      std::cout << "removed " << count << (count == 1 ? " cookie\n" : " cookies\n");
    }
    return 0;
  }
  throw kpcore::CommandError(
      action ? "unknown action: " + *action + " (list or clear)" : "missing action (list or clear)", 2);
}

const kpcore::Registration registration{"cookies", "List or clear the cookies that requests keep",
                                        "kpcore cookies list [URL] [--json]\n"
                                        "       kpcore cookies clear [--json]",
                                        runCookies};

}  // namespace
