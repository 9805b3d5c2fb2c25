// Reading and writing a cookie store's file.
#include "request/cookies/cookie_file.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace kp::internal {

namespace {

// The end of the year 9999: later dates come from no server and fit no calendar.
constexpr std::int64_t kLastSecond = 253402300799;
constexpr std::int64_t kLastMillisecond = kLastSecond * 1000 + 999;
constexpr std::size_t kFields = 9;

bool readInteger(std::string_view text, std::int64_t maximum, std::int64_t& out) {
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && end == text.data() + text.size() && out >= 0 && out <= maximum;
}

bool readFlag(std::string_view text, bool& out) {
  if (text != "TRUE" && text != "FALSE") return false;
  out = text == "TRUE";
  return true;
}

std::optional<StoredCookie> readLine(std::string_view line) {
  std::array<std::string_view, kFields> fields;
  std::size_t count = 0;
  for (std::size_t start = 0;;) {
    if (count == kFields) return std::nullopt;
    const std::size_t tab = line.find('\t', start);
    fields[count++] = line.substr(start, tab == std::string_view::npos ? tab : tab - start);
    if (tab == std::string_view::npos) break;
    start = tab + 1;
  }
  if (count != kFields) return std::nullopt;
  HttpCookie::Attributes attributes;
  std::int64_t expires = 0;
  std::int64_t created = 0;
  if (!readFlag(fields[2], attributes.secure) || !readFlag(fields[3], attributes.httpOnly) ||
      !readInteger(fields[5], kLastSecond, expires) || !readInteger(fields[6], kLastMillisecond, created)) {
    return std::nullopt;
  }
  if (!fields[4].empty()) attributes.sameSitePolicy = std::string(fields[4]);
  attributes.expiresDate = Date::fromTimeIntervalSince1970(static_cast<double>(expires));
  StoredCookie stored{HttpCookie(std::string(fields[7]), std::string(fields[8]), std::string(fields[0]),
                                 std::string(fields[1]), std::move(attributes)),
                      created, 0};
  if (!isStorable(stored.cookie)) return std::nullopt;
  return stored;
}

}  // namespace

std::string writeCookieFile(const std::vector<StoredCookie>& cookies) {
  std::string text(kCookieFileFormat);
  text += '\n';
  for (const auto& [cookie, created, sequence] : cookies) {
    if (!cookie.expiresDate()) continue;
    const double expires = std::floor(cookie.expiresDate()->timeIntervalSince1970());
    const auto seconds = static_cast<std::int64_t>(std::clamp(expires, 0.0, static_cast<double>(kLastSecond)));
    for (const std::string& field : {cookie.domain(), cookie.path()}) text.append(field) += '\t';
    text += cookie.isSecure() ? "TRUE\t" : "FALSE\t";
    text += cookie.isHTTPOnly() ? "TRUE\t" : "FALSE\t";
    text.append(cookie.sameSitePolicy().value_or("")) += '\t';
    text.append(std::to_string(seconds)) += '\t';
    text.append(std::to_string(std::clamp<std::int64_t>(created, 0, kLastMillisecond))) += '\t';
    text.append(cookie.name()) += '\t';
    text.append(cookie.value()) += '\n';
  }
  return text;
}

std::optional<std::vector<StoredCookie>> readCookieFile(std::string_view text, std::string* problem) {
  std::vector<StoredCookie> cookies;
  if (text.empty()) return cookies;
  auto fail = [&](std::string why) {
    if (problem) *problem = std::move(why);
    return std::nullopt;
  };
  std::size_t lineNumber = 0;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos) return fail("its last line is cut off");
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    if (++lineNumber == 1) {
      if (line != kCookieFileFormat) return fail("it does not start with the line naming its format");
      continue;
    }
    if (cookies.size() == kMaxCookies) return fail("it holds more than " + std::to_string(kMaxCookies) + " cookies");
    auto cookie = readLine(line);
    if (!cookie) return fail("line " + std::to_string(lineNumber) + " is not a cookie");
    cookies.push_back(std::move(*cookie));
  }
  return cookies;
}

}  // namespace kp::internal
