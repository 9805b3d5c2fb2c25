// What reaches a cookie store from outside: a file on disk that anything may have written, and
// the "Set-Cookie" fields of responses. A file reads as cookies that the store writes back
// the same, or as damaged; response cookies are kept within the store's rules and bounds.
#include <cstdlib>
#include <string_view>

#include "kp/request/http_cookie_storage.h"
#include "request/cookies/cookie_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  if (auto cookies = kp::internal::readCookieFile(text, nullptr)) {
    const std::string written = kp::internal::writeCookieFile(*cookies);
    const auto again = kp::internal::readCookieFile(written, nullptr);
    if (!again || again->size() != cookies->size() || kp::internal::writeCookieFile(*again) != written) std::abort();
  }

  static const kp::Url urls[] = {*kp::Url::parse("https://www.example.co.uk/a/b"), *kp::Url::parse("http://127.0.0.1/"),
                                 *kp::Url::parse("http://localhost:8080/x")};
  auto storage = kp::HttpCookieStorage::make();
  for (const auto& url : urls) {
    storage->setCookies(kp::HttpCookie::cookies({{"Set-Cookie", std::string(text)}}, url), url);
  }
  for (const auto& url : urls) {
    for (const auto& cookie : storage->cookies(url)) {
      if (cookie.name().empty() || (cookie.isSecure() && url.scheme() != "https")) std::abort();
    }
  }
  if (storage->cookies().size() > kp::internal::kMaxCookies) std::abort();
  return 0;
}
