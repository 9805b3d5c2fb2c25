// The JSON helpers walk the Boost.JSON nodes behind a JsonValue directly, so that a typed read
// by path costs the lookups themselves and makes no JsonValue (and no reference count
// change) on the way.
#include "kp/foundation/json.h"

#include <boost/json.hpp>
#include <cmath>
#include <exception>
#include <limits>

#include "coding/json_access.h"

namespace kp {

namespace json = boost::json;
using internal::JsonAccess;

namespace {

// A key-path component as an array index: decimal digits without a leading zero (but "0"),
// small enough for any array.
std::optional<std::size_t> arrayIndex(std::string_view component) noexcept {
  if (component.empty() || component.size() > 18) return std::nullopt;
  if (component.size() > 1 && component[0] == '0') return std::nullopt;
  std::size_t index = 0;
  for (const char c : component) {
    if (c < '0' || c > '9') return std::nullopt;
    index = index * 10 + static_cast<std::size_t>(c - '0');
  }
  return index;
}

const json::value* child(const json::value& parent, std::string_view component) noexcept {
  if (const json::object* object = parent.if_object()) return object->if_contains(component);
  if (const json::array* array = parent.if_array()) {
    const auto index = arrayIndex(component);
    return index && *index < array->size() ? &(*array)[*index] : nullptr;
  }
  return nullptr;
}

const json::value* atKeyPath(const json::value* node, std::string_view path) noexcept {
  if (!node || path.empty()) return node;
  std::size_t start = 0;
  while (true) {
    const std::size_t dot = path.find('.', start);
    node = child(*node, path.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start));
    if (!node || dot == std::string_view::npos) return node;
    start = dot + 1;
  }
}

// A reference token of a JSON Pointer with "~1" and "~0" undone; nothing for another "~".
std::optional<std::string> unescapedToken(std::string_view token) {
  std::string out;
  out.reserve(token.size());
  for (std::size_t i = 0; i < token.size(); ++i) {
    if (token[i] != '~') {
      out.push_back(token[i]);
    } else if (i + 1 < token.size() && (token[i + 1] == '0' || token[i + 1] == '1')) {
      out.push_back(token[++i] == '0' ? '~' : '/');
    } else {
      return std::nullopt;
    }
  }
  return out;
}

// RFC 6901, walked here rather than by Boost.JSON 1.81's find_pointer, which takes an empty
// token for index 0 of an array. Array indexes follow the same rule as in key paths ("-",
// the place after the last element, names nothing to read).
const json::value* atPointer(const json::value* node, std::string_view pointer) noexcept {
  if (!node || pointer.empty()) return node;
  if (pointer.front() != '/') return nullptr;
  try {
    std::size_t start = 1;
    while (node) {
      const std::size_t slash = pointer.find('/', start);
      const std::string_view token =
          pointer.substr(start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
      if (token.find('~') == std::string_view::npos) {
        node = child(*node, token);
      } else {
        const auto key = unescapedToken(token);
        node = key ? child(*node, *key) : nullptr;
      }
      if (slash == std::string_view::npos) return node;
      start = slash + 1;
    }
    return nullptr;
  } catch (const std::exception&) {
    return nullptr;  // a token too large to copy
  }
}

std::optional<std::int64_t> asInt64(const json::value& v) noexcept {
  if (v.is_int64()) return v.get_int64();
  if (v.is_uint64()) {
    if (v.get_uint64() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return std::nullopt;
    return static_cast<std::int64_t>(v.get_uint64());
  }
  if (v.is_double()) {
    const double d = v.get_double();
    if (std::trunc(d) == d && d >= -9223372036854775808.0 && d < 9223372036854775808.0) {
      return static_cast<std::int64_t>(d);
    }
  }
  return std::nullopt;
}

template <class T>
std::optional<T> as(const JsonValue& root, const json::value* node) noexcept {
  if (!node) return std::nullopt;
  if constexpr (std::is_same_v<T, bool>) {
    if (node->is_bool()) return node->get_bool();
    return std::nullopt;
  } else if constexpr (std::is_same_v<T, std::int64_t>) {
    return asInt64(*node);
  } else if constexpr (std::is_same_v<T, int>) {
    const auto wide = asInt64(*node);
    if (!wide || *wide < std::numeric_limits<int>::min() || *wide > std::numeric_limits<int>::max()) {
      return std::nullopt;
    }
    return static_cast<int>(*wide);
  } else if constexpr (std::is_same_v<T, double>) {
    if (node->is_double()) return node->get_double();
    if (node->is_int64()) return static_cast<double>(node->get_int64());
    if (node->is_uint64()) return static_cast<double>(node->get_uint64());
    return std::nullopt;
  } else if constexpr (std::is_same_v<T, std::string_view>) {
    if (node->is_string()) return std::string_view(node->get_string());
    return std::nullopt;
  } else if constexpr (std::is_same_v<T, std::string>) {
    // A copy may fail to allocate; the read then gives nothing rather than throwing.
    if (!node->is_string()) return std::nullopt;
    try {
      return std::string(node->get_string());
    } catch (const std::exception&) {
      return std::nullopt;
    }
  } else {
    return JsonAccess::share(root, node);
  }
}

// A default-made JsonValue is JSON null without a node; its empty path still names it.
template <class T>
std::optional<T> read(const JsonValue& root, const json::value* node, bool wholeValue) noexcept {
  if constexpr (std::is_same_v<T, JsonValue>) {
    if (!JsonAccess::node(root) && wholeValue) return root;
  }
  return as<T>(root, node);
}

}  // namespace

std::optional<JsonValue> parseJson(std::string_view text, ErrorPtr* error) noexcept {
  try {
    return JsonValue::parse(text, error);
  } catch (const std::exception&) {
    // Only allocation can fail here; a host that asked for "or nothing" gets nothing.
    if (error) *error = nullptr;
    return std::nullopt;
  }
}

std::optional<JsonValue> parseJson(const Data& data, ErrorPtr* error) noexcept { return parseJson(data.view(), error); }

std::string jsonText(const JsonValue& value, JsonFormat format) {
  return format == JsonFormat::pretty ? value.prettySerialize() : value.serialize();
}

Data jsonData(const JsonValue& value, JsonFormat format) { return Data::fromString(jsonText(value, format)); }

std::string_view jsonTypeName(JsonValue::Type type) noexcept {
  switch (type) {
    case JsonValue::Type::null:
      return "null";
    case JsonValue::Type::boolean:
      return "boolean";
    case JsonValue::Type::integer:
      return "integer";
    case JsonValue::Type::real:
      return "real";
    case JsonValue::Type::string:
      return "string";
    case JsonValue::Type::array:
      return "array";
    case JsonValue::Type::object:
      return "object";
  }
  return "null";
}

template <JsonReadable T>
std::optional<T> jsonValueAtKeyPath(const JsonValue& root, std::string_view keyPath) noexcept {
  return read<T>(root, atKeyPath(JsonAccess::node(root), keyPath), keyPath.empty());
}

template <JsonReadable T>
std::optional<T> jsonValueAtPointer(const JsonValue& root, std::string_view pointer) noexcept {
  return read<T>(root, atPointer(JsonAccess::node(root), pointer), pointer.empty());
}

#define KP_JSON_READ_DEFINE(T)                                                                  \
  template std::optional<T> jsonValueAtKeyPath<T>(const JsonValue&, std::string_view) noexcept; \
  template std::optional<T> jsonValueAtPointer<T>(const JsonValue&, std::string_view) noexcept;
KP_JSON_READ_DEFINE(bool)
KP_JSON_READ_DEFINE(int)
KP_JSON_READ_DEFINE(std::int64_t)
KP_JSON_READ_DEFINE(double)
KP_JSON_READ_DEFINE(std::string_view)
KP_JSON_READ_DEFINE(std::string)
KP_JSON_READ_DEFINE(JsonValue)
#undef KP_JSON_READ_DEFINE

}  // namespace kp
