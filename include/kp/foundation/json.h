// JSON helpers over kp::JsonValue: bytes or text to a value or nothing, compact and indented
// text, typed reads by key path and by JSON Pointer, and the names of the value kinds. None of
// them throws for bad input: what is not there, or not of the asked type, reads as nothing.
//
// Key paths are keys joined by dots, "current.temperature"; a component of decimal digits
// indexes an array ("days.0.high") and is an ordinary key in an object. An empty path is the
// value itself. Keys that contain a dot need a JSON Pointer (RFC 6901): "/days/0/high",
// with "~1" for "/" and "~0" for "~" inside a key; "" is the value itself. In both, an array
// index is "0" or digits without a leading zero.
//
// Typed reads convert as JsonValue's own accessors do: `std::int64_t` takes integers and reals
// with an integral value that fits, `int` those that fit an int, `double` any number,
// `std::string_view` and `std::string` text, `JsonValue` anything present (JSON null included).
// A string_view or JsonValue read stays valid while any value of the document lives.
//
// Thread safety: pure functions over immutable values.
//
// Example:
//   std::optional<kp::JsonValue> forecast = kp::parseJson(body);
//   double t = kp::jsonValueAtKeyPath<double>(*forecast, "current.temperature").value_or(0);
//   auto high = kp::jsonValueAtPointer<std::int64_t>(*forecast, "/days/0/high");
//   std::string text = kp::jsonText(*forecast, kp::JsonFormat::pretty);
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kp/coding/json.h"
#include "kp/platform/data.h"
#include "kp/platform/error.h"
#include "kp/platform/export.h"

namespace kp {

// How JSON text is laid out.
enum class JsonFormat : std::uint8_t {
  compact,
  // One member or element a line, indented by two spaces a level.
  pretty,
};

// The JSON value of `text` (any value at the top, nesting at most 512 deep), or nothing; when
// given, `error` says why not.
[[nodiscard]] KP_EXPORT std::optional<JsonValue> parseJson(std::string_view text, ErrorPtr* error = nullptr) noexcept;
// The JSON document in `data`; nothing (and `error`, when given) when it is not one.
[[nodiscard]] KP_EXPORT std::optional<JsonValue> parseJson(const Data& data, ErrorPtr* error = nullptr) noexcept;

// `value` as JSON text.
[[nodiscard]] KP_EXPORT std::string jsonText(const JsonValue& value, JsonFormat format = JsonFormat::compact);
// `value` as JSON bytes.
[[nodiscard]] KP_EXPORT Data jsonData(const JsonValue& value, JsonFormat format = JsonFormat::compact);

// "null", "boolean", "integer", "real", "string", "array" or "object".
[[nodiscard]] KP_EXPORT std::string_view jsonTypeName(JsonValue::Type type) noexcept;

template <class T>
concept JsonReadable =
    std::same_as<T, bool> || std::same_as<T, int> || std::same_as<T, std::int64_t> || std::same_as<T, double> ||
    std::same_as<T, std::string_view> || std::same_as<T, std::string> || std::same_as<T, JsonValue>;

namespace detail {
enum class JsonLocation : std::uint8_t { keyPath, pointer };
// Each stores the value found at `where` in `out` and says whether there was one of the type.
// Out of line behind an out-parameter: returning an optional from a library function costs a
// stalled store-to-load round trip on the way back.
KP_EXPORT bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, bool& out) noexcept;
KP_EXPORT bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, int& out) noexcept;
KP_EXPORT bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, std::int64_t& out) noexcept;
KP_EXPORT bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, double& out) noexcept;
KP_EXPORT bool readJson(const JsonValue& root, std::string_view where, JsonLocation how,
                        std::string_view& out) noexcept;
KP_EXPORT bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, std::string& out) noexcept;
KP_EXPORT bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, JsonValue& out) noexcept;
}  // namespace detail

// The value at `keyPath` below `root` as a T, or nothing.
template <JsonReadable T>
[[nodiscard]] std::optional<T> jsonValueAtKeyPath(const JsonValue& root, std::string_view keyPath) noexcept {
  T out{};
  if (!detail::readJson(root, keyPath, detail::JsonLocation::keyPath, out)) return std::nullopt;
  return std::optional<T>(std::move(out));
}
// The value at the JSON Pointer `pointer` below `root` as a T, or nothing (also for a pointer
// that is not well-formed).
template <JsonReadable T>
[[nodiscard]] std::optional<T> jsonValueAtPointer(const JsonValue& root, std::string_view pointer) noexcept {
  T out{};
  if (!detail::readJson(root, pointer, detail::JsonLocation::pointer, out)) return std::nullopt;
  return std::optional<T>(std::move(out));
}

// ---- The conventional names of the data and text categories ------------------------------

// The parsed JSON of `data`, or nothing when it is not JSON.
[[nodiscard]] inline std::optional<JsonValue> objectFromJSONData(const Data& data, ErrorPtr* error = nullptr) noexcept {
  return parseJson(data, error);
}
// parseJson() of text, under the platform's name.
[[nodiscard]] inline std::optional<JsonValue> objectFromJSONString(std::string_view text,
                                                                   ErrorPtr* error = nullptr) noexcept {
  return parseJson(text, error);
}
// jsonData(), under the platform's name.
[[nodiscard]] inline Data jsonDataFromObject(const JsonValue& value, JsonFormat format = JsonFormat::compact) {
  return jsonData(value, format);
}
// jsonText(), under the platform's name.
[[nodiscard]] inline std::string jsonStringFromObject(const JsonValue& value, JsonFormat format = JsonFormat::compact) {
  return jsonText(value, format);
}

}  // namespace kp
