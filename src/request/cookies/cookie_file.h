// The text a cookie store keeps its cookies in: a first line naming the format, then one
// cookie per line, its fields separated by tabs:
//   domain  path  secure  httpOnly  sameSite  expires  created  name  value
// secure and httpOnly are TRUE or FALSE, sameSite may be empty, expires is in seconds and
// created in milliseconds since 1970. Cookies carry no control character, so neither a tab
// nor a line end can occur inside a field. Internal to the request layer; not installed.
//
// Thread safety: pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "request/cookies/cookie_jar.h"

namespace kp::internal {

inline constexpr std::string_view kCookieFileFormat = "# KPFrameworkCoreLogic cookies 1";
// The most a file of kMaxCookies cookies of the largest size takes; a longer one is damaged.
inline constexpr std::uint64_t kMaxCookieFileBytes =
    kCookieFileFormat.size() + 1 +
    kMaxCookies * (kMaxCookieDomainBytes + kMaxCookiePathBytes + kMaxCookieNameAndValueBytes + 16 + 64);

// `cookies` (with expiry dates) as the file's text.
[[nodiscard]] std::string writeCookieFile(const std::vector<StoredCookie>& cookies);
// The cookies of a file's text in their order, expired ones included; nothing when the text
// is not what writeCookieFile() makes (`problem` then says where). Empty text holds none.
[[nodiscard]] std::optional<std::vector<StoredCookie>> readCookieFile(std::string_view text, std::string* problem);

}  // namespace kp::internal
