// Header fields of the wire request.
#include "kp/request/url_request.h"

#include <algorithm>

#include "request/header_text.h"

namespace kp {
namespace {
using internal::equalsIgnoringCase;
}  // namespace

std::vector<UrlRequest::HeaderField>::iterator UrlRequest::find(std::string_view field) {
  return std::find_if(headers_.begin(), headers_.end(),
                      [field](const HeaderField& h) { return equalsIgnoringCase(h.first, field); });
}

void UrlRequest::setAllHTTPHeaderFields(const std::map<std::string, std::string>& fields) {
  headers_.clear();
  headers_.reserve(fields.size());
  for (const auto& [name, value] : fields) setValue(value, name);
}

void UrlRequest::setValue(std::optional<std::string> value, std::string_view field) {
  auto it = find(field);
  if (!value) {
    if (it != headers_.end()) headers_.erase(it);
  } else if (it != headers_.end()) {
    it->second = std::move(*value);
  } else {
    headers_.emplace_back(std::string(field), std::move(*value));
  }
}

void UrlRequest::addValue(std::string_view value, std::string_view field) {
  auto it = find(field);
  if (it == headers_.end()) {
    headers_.emplace_back(std::string(field), std::string(value));
  } else {
    it->second += ", ";
    it->second += value;
  }
}

std::optional<std::string> UrlRequest::value(std::string_view field) const {
  for (const auto& [name, value] : headers_) {
    if (equalsIgnoringCase(name, field)) return value;
  }
  return std::nullopt;
}

}  // namespace kp
