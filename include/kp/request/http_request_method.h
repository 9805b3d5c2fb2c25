// kp::HttpRequestMethod: the HTTP verb of a request, stored and bridged by its raw value.
//
// Thread safety: plain values and pure functions.
//
// Example:
//   auto method = kp::httpRequestMethodFromRawValue(1);   // HttpRequestMethod::post
//   kp::httpVerb(kp::HttpRequestMethod::put);             // "PUT"
#pragma once

#include <optional>
#include <string_view>

namespace kp {

// The HTTP methods a request may use.
enum class HttpRequestMethod : int { get = 0, post = 1, delete_ = 2, put = 3, head = 4 };

// Nothing for a raw value outside 0...4.
[[nodiscard]] constexpr std::optional<HttpRequestMethod> httpRequestMethodFromRawValue(int raw) {
  if (raw < 0 || raw > 4) return std::nullopt;
  return static_cast<HttpRequestMethod>(raw);
}

// The verb sent on the wire. A stored value that is not a known verb is sent as "GET".
[[nodiscard]] constexpr std::string_view httpVerb(HttpRequestMethod method) {
  switch (method) {
    case HttpRequestMethod::post:
      return "POST";
    case HttpRequestMethod::delete_:
      return "DELETE";
    case HttpRequestMethod::put:
      return "PUT";
    case HttpRequestMethod::head:
      return "HEAD";
    case HttpRequestMethod::get:
      break;
  }
  return "GET";
}

}  // namespace kp
