// Cookies from response header fields, the parsed response, the request errors and the
// status-code set.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include "kp/platform/http_date.h"
#include "kp/request/http_cookie.h"
#include "kp/request/http_response.h"
#include "kp/request/request_errors.h"
#include "platform/no_destructor.h"
#include "request/header_text.h"

namespace kp {

namespace {

using internal::equalsIgnoringCase;

std::string lowercased(std::string_view text) {
  std::string out(text);
  for (auto& c : out) c = internal::asciiLower(c);
  return out;
}

constexpr std::array<std::string_view, 12> kMonths = {"jan", "feb", "mar", "apr", "may", "jun",
                                                      "jul", "aug", "sep", "oct", "nov", "dec"};

// Days since 1970-01-01 of a proleptic Gregorian date.
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

bool validDate(int year, int month, int day, int hour, int minute, int second) {
  static constexpr int kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12 || day < 1 || day > kDays[month - 1]) return false;
  if (month == 2 && day == 29 && !(year % 4 == 0 && (year % 100 != 0 || year % 400 == 0))) return false;
  return hour <= 23 && minute <= 59 && second <= 59;
}

Date makeDate(int year, int month, int day, int hour, int minute, int second, int offsetSeconds) {
  const std::int64_t days = daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
  return Date::fromTimeIntervalSince1970(static_cast<double>(days * 86400 + std::int64_t{hour} * 3600 +
                                                             std::int64_t{minute} * 60 + second - offsetSeconds));
}

// Reads exactly `count` digits (or 1...`count` when `atLeastOne`).
bool readNumber(std::string_view& text, std::size_t minimum, std::size_t maximum, int& out) {
  std::size_t n = 0;
  while (n < text.size() && n < maximum && std::isdigit(static_cast<unsigned char>(text[n]))) ++n;
  if (n < minimum) return false;
  std::from_chars(text.data(), text.data() + n, out);
  text.remove_prefix(n);
  return true;
}

bool readLiteral(std::string_view& text, std::string_view literal) {
  if (!text.starts_with(literal)) return false;
  text.remove_prefix(literal.size());
  return true;
}

// The cookie date algorithm: the first time, day, month and year tokens in any order.
std::optional<Date> parseCookieDate(std::string_view text) {
  std::optional<int> hour, minute, second, day, month, year;
  auto isDelimiter = [](char c) {
    return c == 0x09 || (c >= 0x20 && c <= 0x2F) || (c >= 0x3B && c <= 0x40) || (c >= 0x5B && c <= 0x60) ||
           (c >= 0x7B && c <= 0x7E);
  };
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && isDelimiter(text[i])) ++i;
    std::size_t end = i;
    while (end < text.size() && !isDelimiter(text[end])) ++end;
    std::string_view token = text.substr(i, end - i);
    i = end;
    if (token.empty()) continue;
    int h = 0, m = 0, s = 0, n = 0;
    std::string_view rest = token;
    if (!hour && readNumber(rest, 1, 2, h) && readLiteral(rest, ":") && readNumber(rest, 1, 2, m) &&
        readLiteral(rest, ":") && readNumber(rest, 1, 2, s)) {
      hour = h, minute = m, second = s;
      continue;
    }
    rest = token;
    if (!day && readNumber(rest, 1, 2, n) && (rest.empty() || !std::isdigit(static_cast<unsigned char>(rest[0])))) {
      day = n;
      continue;
    }
    if (!month && token.size() >= 3) {
      const auto name = lowercased(token.substr(0, 3));
      auto it = std::find(kMonths.begin(), kMonths.end(), name);
      if (it != kMonths.end()) {
        month = static_cast<int>(it - kMonths.begin()) + 1;
        continue;
      }
    }
    rest = token;
    if (!year && readNumber(rest, 2, 4, n)) {
      if (n >= 70 && n <= 99) n += 1900;
      if (n >= 0 && n <= 69) n += 2000;
      year = n;
    }
  }
  if (!hour || !day || !month || !year || *year < 1601) return std::nullopt;
  if (!validDate(*year, *month, *day, *hour, *minute, *second)) return std::nullopt;
  return makeDate(*year, *month, *day, *hour, *minute, *second, 0);
}

// Splits a "Set-Cookie" value that may hold several cookies joined by commas; a comma right
// after the weekday of an Expires date does not split.
std::vector<std::string_view> splitCookies(std::string_view field) {
  std::vector<std::string_view> out;
  std::size_t start = 0;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] != ',') continue;
    std::string_view current = field.substr(start, i - start);
    const auto attribute = current.rfind(';');
    std::string_view last =
        internal::trimSpaces(attribute == std::string_view::npos ? current : current.substr(attribute + 1));
    const auto eq = last.find('=');
    if (eq != std::string_view::npos && equalsIgnoringCase(internal::trimSpaces(last.substr(0, eq)), "expires") &&
        internal::trimSpaces(last.substr(eq + 1)).size() <= 9) {
      continue;
    }
    out.push_back(current);
    start = i + 1;
  }
  out.push_back(field.substr(start));
  return out;
}

bool domainMatches(const std::string& host, const std::string& domain) {
  if (host == domain) return true;
  return host.size() > domain.size() && host.ends_with(domain) && host[host.size() - domain.size() - 1] == '.';
}

}  // namespace

std::vector<HttpCookie> HttpCookie::cookies(const std::map<std::string, std::string>& headerFields, const Url& url) {
  std::vector<HttpCookie> out;
  const std::string host = lowercased(url.host());
  std::string defaultPath = url.path();
  const auto slash = defaultPath.rfind('/');
  defaultPath = slash == std::string::npos || slash == 0 ? "/" : defaultPath.substr(0, slash);
  for (const auto& [fieldName, fieldValue] : headerFields) {
    if (!equalsIgnoringCase(fieldName, "Set-Cookie")) continue;
    for (std::string_view text : splitCookies(fieldValue)) {
      const auto firstSemicolon = text.find(';');
      const std::string_view pair = internal::trimSpaces(text.substr(0, firstSemicolon));
      const auto eq = pair.find('=');
      if (eq == std::string_view::npos) continue;
      const std::string_view name = internal::trimSpaces(pair.substr(0, eq));
      if (name.empty()) continue;
      HttpCookie cookie{std::string(name), std::string(internal::trimSpaces(pair.substr(eq + 1))), host, defaultPath};
      std::optional<Date> expires;
      std::optional<Date> maxAge;
      bool rejected = false;
      std::string_view attributes = firstSemicolon == std::string_view::npos ? "" : text.substr(firstSemicolon + 1);
      while (!attributes.empty() && !rejected) {
        const auto next = attributes.find(';');
        const std::string_view attribute = internal::trimSpaces(attributes.substr(0, next));
        attributes = next == std::string_view::npos ? "" : attributes.substr(next + 1);
        const auto aeq = attribute.find('=');
        const std::string key = lowercased(internal::trimSpaces(attribute.substr(0, aeq)));
        const std::string_view value =
            aeq == std::string_view::npos ? "" : internal::trimSpaces(attribute.substr(aeq + 1));
        if (key == "expires") {
          if (auto date = parseCookieDate(value)) expires = date;
        } else if (key == "max-age") {
          std::int64_t seconds = 0;
          auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), seconds);
          if (ec == std::errc() && end == value.data() + value.size() && !value.empty()) {
            maxAge = seconds <= 0 ? Date::distantPast() : Date::now().addingTimeInterval(static_cast<double>(seconds));
          }
        } else if (key == "domain" && !value.empty()) {
          std::string domain = lowercased(value);
          if (domain.front() == '.') domain.erase(0, 1);
          if (!domainMatches(host, domain)) {
            rejected = true;
          } else {
            cookie.domain_ = "." + domain;
          }
        } else if (key == "path" && value.starts_with("/")) {
          cookie.path_ = std::string(value);
        } else if (key == "secure") {
          cookie.secure_ = true;
        } else if (key == "httponly") {
          cookie.httpOnly_ = true;
        } else if (key == "samesite" && !value.empty()) {
          cookie.sameSite_ = std::string(value);
        }
      }
      if (rejected) continue;
      cookie.expiresDate_ = maxAge ? maxAge : expires;
      out.push_back(std::move(cookie));
    }
  }
  return out;
}

// MARK: - Response

namespace {
std::optional<std::string> field(const std::map<std::string, std::string>& headers, const char* name) {
  auto it = headers.find(name);
  if (it == headers.end()) return std::nullopt;
  return it->second;
}
std::optional<Date> dateField(const std::map<std::string, std::string>& headers, const char* name) {
  auto value = field(headers, name);
  if (!value || value->empty()) return std::nullopt;
  return parseHttpDate(*value);
}
}  // namespace

std::optional<HttpCookie> HttpResponse::getCookieByName(std::string_view name) const {
  for (const auto& cookie : cookies) {
    if (cookie.name() == name) return cookie;
  }
  return std::nullopt;
}

std::optional<std::string> HttpResponse::etag() const {
  if (auto value = field(headers, "ETag")) return value;
  return field(headers, "Etag");
}
std::optional<std::string> HttpResponse::contentType() const { return field(headers, "Content-Type"); }
std::optional<Date> HttpResponse::lastModifiedDate() const { return dateField(headers, "Last-Modified"); }
std::optional<Date> HttpResponse::expiresDate() const { return dateField(headers, "Expires"); }
std::optional<Date> HttpResponse::sentDate() const { return dateField(headers, "Date"); }

std::string_view headerName(ResponseHeader header) noexcept {
  switch (header) {
    case ResponseHeader::etag:
      return "ETag";
    case ResponseHeader::contentType:
      return "Content-Type";
    case ResponseHeader::lastModified:
      return "Last-Modified";
    case ResponseHeader::expires:
      return "Expires";
    case ResponseHeader::date:
      return "Date";
  }
  return "";
}

std::string MimeContentType::headerValue() const {
  if (boundary_) return "multipart/form-data; boundary=\"" + *boundary_ + "\"";
  return "application/json";
}

std::optional<HttpStatusCode> httpStatusCodeFromRawValue(int raw) noexcept {
  auto in = [raw](int low, int high) { return raw >= low && raw <= high; };
  const bool known = in(1, 5) || in(100, 102) || in(200, 209) || in(300, 308) || in(400, 420) || in(422, 426) ||
                     raw == 428 || raw == 429 || raw == 431 || raw == 444 || raw == 449 || raw == 450 || raw == 451 ||
                     in(494, 497) || raw == 499 || in(500, 511) || raw == 522 || raw == 598 || raw == 599 ||
                     raw == 4200 || raw == 4240 || raw == 4510;
  if (!known) return std::nullopt;
  return static_cast<HttpStatusCode>(raw);
}

// MARK: - Errors

namespace {
ErrorPtr makeRequestError(std::int64_t code, std::string text) {
  return Error::make(std::string(RequestErrors::domain), code, std::move(text));
}

// Fixed errors live for the whole process and are made on first use.
#define KP_FIXED_ERROR(function, code, text)                                                                \
  const ErrorPtr& RequestErrors::function() {                                                               \
    static internal::NoDestructor<ErrorPtr> error(makeRequestError(static_cast<std::int64_t>(code), text)); \
    return *error;                                                                                          \
  }
}  // namespace

KP_FIXED_ERROR(invalidRequestProtocolError, RequestErrorCode::invalidRequestProtocol,
               "The request cannot be handled because the protocol is incorrect.")
KP_FIXED_ERROR(invalidUrlError, RequestErrorCode::invalidUrl,
               "The request cannot be handled because the URL is invalid or nil.")
KP_FIXED_ERROR(couldNotCreateUrlRequestError, RequestErrorCode::couldNotCreateUrlRequest,
               "Unable to create a url request with provided data.")
KP_FIXED_ERROR(invalidFileTargetPathError, RequestErrorCode::invalidFileTargetPath,
               "The request cannot be handled because the target file path is invalid or nil.")
KP_FIXED_ERROR(noConnectionError, RequestErrorCode::noConnection, "No connection available.")
KP_FIXED_ERROR(alreadyExecutedError, RequestErrorCode::alreadyExecuted, "This request was already executed.")
KP_FIXED_ERROR(incompleteRequestError, RequestErrorCode::incompleteRequest,
               "The request is missing essential information.")
KP_FIXED_ERROR(invalidResponseError, RequestErrorCode::invalidResponse, "The response is nil or invalid.")
#undef KP_FIXED_ERROR

ErrorPtr RequestErrors::statusCodeErrorWith(int statusCode) {
  return makeRequestError(static_cast<std::int64_t>(RequestErrorCode::statusCode),
                          "Request failed with status code: " + std::to_string(statusCode) + ".");
}
ErrorPtr RequestErrors::errorWith(std::string message) { return makeRequestError(0, std::move(message)); }
ErrorPtr RequestErrors::errorWith(std::string message, std::int64_t code) {
  return makeRequestError(code, std::move(message));
}

}  // namespace kp
