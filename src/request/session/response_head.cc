// Response heads: the parser of the lines libcurl hands over, and HttpUrlResponse, the head
// as the delegate sees it.
#include "request/session/response_head.h"

#include <algorithm>
#include <charconv>

#include "request/header_text.h"

namespace kp {

namespace internal {

namespace {

// Names whose usual spelling is not simply each word capitalised.
constexpr std::string_view kIrregularNames[] = {
    "Content-ID",
    "Content-MD5",
    "DNT",
    "ETag",
    "Expect-CT",
    "NEL",
    "Sec-WebSocket-Accept",
    "Sec-WebSocket-Extensions",
    "Sec-WebSocket-Key",
    "Sec-WebSocket-Protocol",
    "Sec-WebSocket-Version",
    "TE",
    "WWW-Authenticate",
    "X-DNS-Prefetch-Control",
    "X-UA-Compatible",
    "X-XSS-Protection",
};

}  // namespace

void canonicalizeHeaderName(std::string& name) {
  for (std::string_view irregular : kIrregularNames) {
    if (name.size() == irregular.size() && equalsIgnoringCase(name, irregular)) {
      name.assign(irregular);
      return;
    }
  }
  bool wordStart = true;
  for (char& c : name) {
    c = wordStart ? asciiUpper(c) : asciiLower(c);
    wordStart = c == '-';
  }
}

std::string canonicalHeaderName(std::string_view name) {
  std::string out(name);
  canonicalizeHeaderName(out);
  return out;
}

std::optional<std::int64_t> statedContentLength(std::span<const HttpUrlResponse::HeaderField> fields) {
  std::int64_t stated = -1;
  bool unreadable = false;
  for (const auto& [name, value] : fields) {
    if (!equalsIgnoringCase(name, "Content-Length")) continue;
    std::string_view rest = value;
    for (;;) {
      const auto comma = rest.find(',');
      const std::string_view text = trimSpaces(rest.substr(0, comma));
      std::int64_t parsed = -1;
      auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), parsed);
      if (ec != std::errc() || end != text.data() + text.size() || parsed < 0) {
        unreadable = true;
      } else if (stated >= 0 && parsed != stated) {
        return std::nullopt;
      } else {
        stated = parsed;
      }
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
  }
  return unreadable ? -1 : stated;
}

ResponseHeadParser::Step ResponseHeadParser::feed(std::string_view line) {
  size_ += line.size();
  if (size_ > kMaximumHeadSize) return Step::tooLarge;
  const std::size_t length = line.size();
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.starts_with("HTTP/")) {
    // A new head: the one before was interim, or belonged to a proxy.
    size_ = length;
    fields_.clear();
    statusCode_ = 0;
    const auto space = line.find(' ');
    if (space != std::string_view::npos) {
      std::string_view code = line.substr(space + 1, 3);
      std::from_chars(code.data(), code.data() + code.size(), statusCode_);
    }
    return Step::more;
  }
  if (line.empty()) {
    if (statusCode_ >= 100 && statusCode_ < 200) return Step::more;
    // Which of two lengths frames the body cannot be known; a reader that picks one may
    // take part of the next response as this one's body.
    if (!statedContentLength(fields_)) return Step::malformed;
    return Step::complete;
  }
  if ((line.front() == ' ' || line.front() == '\t') && !fields_.empty()) {
    fields_.back().second += ' ';
    fields_.back().second += trimSpaces(line);
    return Step::more;
  }
  const auto colon = line.find(':');
  const std::string_view name = trimSpaces(line.substr(0, colon));
  // A line without a name is no field; what a server means by it cannot be known.
  if (colon == std::string_view::npos || name.empty()) return Step::more;
  // Room for a usual head at once, rather than growing through 1, 2, 4 and 8 fields.
  if (fields_.empty()) fields_.reserve(kUsualFieldCount);
  fields_.emplace_back(std::string(name), std::string(trimSpaces(line.substr(colon + 1))));
  return Step::more;
}

void ResponseHeadParser::reset() {
  statusCode_ = 0;
  size_ = 0;
  fields_.clear();
}

std::vector<HttpUrlResponse::HeaderField> ResponseHeadParser::takeFields() { return std::exchange(fields_, {}); }

}  // namespace internal

// MARK: - Responses

HttpUrlResponse::HttpUrlResponse(Url url, int statusCode, std::vector<HeaderField> headerFields)
    : url_(std::move(url)), statusCode_(statusCode), headerFields_(std::move(headerFields)) {
  for (auto& [name, value] : headerFields_) {
    internal::canonicalizeHeaderName(name);
    auto [it, added] = allHeaderFields_.try_emplace(name, value);
    if (!added) {
      it->second += ", ";
      it->second += value;
    }
  }
  expectedContentLength_ = internal::statedContentLength(headerFields_).value_or(-1);
}

std::optional<std::string> HttpUrlResponse::value(std::string_view field) const {
  auto it = allHeaderFields_.find(internal::canonicalHeaderName(field));
  if (it == allHeaderFields_.end()) return std::nullopt;
  return it->second;
}

std::optional<std::string> HttpUrlResponse::mimeType() const {
  auto type = value("Content-Type");
  if (!type) return std::nullopt;
  std::string_view text = internal::trimSpaces(std::string_view(*type).substr(0, type->find(';')));
  std::string out(text);
  for (auto& c : out) c = internal::asciiLower(c);
  return out;
}

}  // namespace kp
