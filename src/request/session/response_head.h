// ResponseHeadParser: reads a response head line by line as libcurl hands it over (the
// status line, the fields, folded continuation lines and the blank line that ends the head),
// within a size limit, since the head comes from a server. Internal to the session layer;
// not installed.
//
// Thread safety: one parser per transfer, used by one thread at a time.
//
// Example:
//   ResponseHeadParser head;
//   head.feed("HTTP/1.1 200 OK\r\n");
//   head.feed("Content-Type: text/plain\r\n");
//   if (head.feed("\r\n") == ResponseHeadParser::Step::complete) use(head.statusCode(), head.takeFields());
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kp/request/url_session.h"

namespace kp::internal {

// The one spelling of a header name that responses use, whatever the server sent (HTTP/2
// sends every name in lower case): the usual spelling of well-known names such as "ETag" and
// "WWW-Authenticate", and otherwise each hyphen-separated word capitalised
// ("content-type" -> "Content-Type").
[[nodiscard]] std::string canonicalHeaderName(std::string_view name);
// The same, in place: a head's names are spelled anew without a string each.
void canonicalizeHeaderName(std::string& name);

// The body length that a head's Content-Length fields state: -1 when they state none (or
// one that is not a length), and nothing when they contradict each other ("5" and "10", in
// two fields or as a list in one). The same value repeated is that value.
[[nodiscard]] std::optional<std::int64_t> statedContentLength(std::span<const HttpUrlResponse::HeaderField> fields);

class ResponseHeadParser {
 public:
  // A response head beyond this size is refused.
  static constexpr std::size_t kMaximumHeadSize = 100 * 1024;

  enum class Step {
    more,       // the head goes on (an interim 1xx head counts as part of it)
    complete,   // the blank line after a final head: statusCode() and takeFields() are ready
    tooLarge,   // the head passed kMaximumHeadSize; the transfer must end
    malformed,  // the final head contradicts itself (two body lengths); the transfer must end
  };

  // One line as received, with its line ending.
  [[nodiscard]] Step feed(std::string_view line);
  // Forgets everything, for the next hop.
  void reset();

  // 0 until a status line with a code was read.
  [[nodiscard]] int statusCode() const noexcept { return statusCode_; }
  // The fields of the current head, in order; leaves the parser without them.
  [[nodiscard]] std::vector<HttpUrlResponse::HeaderField> takeFields();

 private:
  static constexpr std::size_t kUsualFieldCount = 12;

  int statusCode_ = 0;
  std::size_t size_ = 0;
  std::vector<HttpUrlResponse::HeaderField> fields_;
};

}  // namespace kp::internal
