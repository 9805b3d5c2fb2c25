// The cookies of each hop: the stored ones that match go out in one "Cookie" field, and the
// "Set-Cookie" fields of every response head, redirects included, go to the session's store
// before the next hop is configured.
#include "request/session/session_state.h"

namespace kp {

std::optional<std::string> UrlSession::Impl::cookieField(const UrlRequest& request) const {
  const auto& storage = configuration.httpCookieStorage;
  if (!request.httpShouldHandleCookies || !storage) return std::nullopt;
  const auto cookies = storage->cookies(request.url);
  if (cookies.empty() || request.value("Cookie")) return std::nullopt;
  for (const auto& [name, value] : configuration.httpAdditionalHeaders) {
    if (internal::equalsIgnoringCase(name, "Cookie")) return std::nullopt;
  }
  std::string field = "Cookie: ";
  for (const auto& cookie : cookies) {
    if (field.size() > 8) field += "; ";
    field.append(cookie.name()).append("=").append(cookie.value());
  }
  return field;
}

void UrlSession::Impl::keepCookies(const UrlRequest& request, const HttpUrlResponse& response) const {
  const auto& storage = configuration.httpCookieStorage;
  if (!request.httpShouldHandleCookies || !storage) return;
  const auto cookies = HttpCookie::cookies(response.allHeaderFields(), request.url);
  storage->setCookies(cookies, request.url, request.mainDocumentURL);
}

}  // namespace kp
