// kp::HttpRequestParameter: one name/value pair of a query or a form body, and the parameter
// string ("a=1&b=2") built from a list of them.
//
// A parameter is an immutable value. Its coded form has the keys "name" and "value"; the
// value is written only when present.
//
// Thread safety: a value type.
//
// Example:
//   std::vector<kp::HttpRequestParameter> list{{"q", "a b"}, {"flag", std::nullopt}};
//   kp::HttpRequestParameter::makeParameterString(list);   // "q=a%20b&flag="
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "kp/platform/export.h"

namespace kp {

class Encoder;
class Decoder;

class KP_EXPORT HttpRequestParameter {
 public:
  // Keys of the coded form.
  static constexpr std::string_view kNameKey = "name";
  // The key of the value in the coded form.
  static constexpr std::string_view kValueKey = "value";

  // `name`, with `value` when there is one.
  HttpRequestParameter(std::string name, std::optional<std::string> value)
      : name_(std::move(name)), value_(std::move(value)) {}
  // The same as a value.
  [[nodiscard]] static HttpRequestParameter parameter(std::string name, std::optional<std::string> value) {
    return HttpRequestParameter(std::move(name), std::move(value));
  }

  // The name.
  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  // The value; nothing for a name alone.
  [[nodiscard]] const std::optional<std::string>& value() const noexcept { return value_; }

  // "name=value" pairs joined by "&", in order. Parameters with an empty name are skipped; an
  // absent value counts as empty. With `urlEncode`, values (never names) go through
  // urlEncodeQueryParameter.
  [[nodiscard]] static std::string makeParameterString(std::span<const HttpRequestParameter> parameters,
                                                       bool urlEncode = true);
  // The same, appended to `out`.
  static void appendParameterString(std::string& out, std::span<const HttpRequestParameter> parameters,
                                    bool urlEncode = true);

  // The coded form (see kp/coding/coding.h): "name", and "value" only when present.
  void encode(Encoder& encoder) const;
  // Reads back what encode() wrote.
  [[nodiscard]] static HttpRequestParameter decode(const Decoder& decoder);

  // The same name and value.
  friend bool operator==(const HttpRequestParameter&, const HttpRequestParameter&) = default;

 private:
  std::string name_;
  std::optional<std::string> value_;
};

}  // namespace kp

template <>
struct std::hash<kp::HttpRequestParameter> {
  std::size_t operator()(const kp::HttpRequestParameter& p) const noexcept {
    std::size_t h = std::hash<std::string>{}(p.name());
    const std::size_t v = p.value() ? std::hash<std::string>{}(*p.value()) : 0x9e3779b97f4a7c15ULL;
    return h ^ (v + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2));
  }
};
