// The JSON helpers walk the Boost.JSON nodes behind a JsonValue directly, so that a typed read
// by path costs the lookups themselves and makes no JsonValue (and no reference count
// change) on the way.
#include "kp/foundation/json.h"

#include <bit>
#include <boost/json.hpp>
#include <cmath>
#include <cstring>
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

// Inlined into the walks: a call per component is a measurable part of a read.
[[gnu::always_inline]] inline const json::value* child(const json::value& parent, std::string_view component) noexcept {
  if (const json::object* object = parent.if_object()) {
    // find() itself rather than if_contains(), which only wraps it in another call.
    const auto found = object->find(component);
    return found == object->end() ? nullptr : &found->value();
  }
  if (const json::array* array = parent.if_array()) {
    const auto index = arrayIndex(component);
    return index && *index < array->size() ? &(*array)[*index] : nullptr;
  }
  return nullptr;
}

const json::value* atKeyPathScanning(const json::value* node, std::string_view path) noexcept {
  std::size_t start = 0;
  while (true) {
    const std::size_t dot = path.find('.', start);
    node = child(*node, path.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start));
    if (!node || dot == std::string_view::npos) return node;
    start = dot + 1;
  }
}

// One bit for each byte of `word` (little-endian) that is a dot, in the low eight bits.
std::uint64_t dotBits(std::uint64_t word) noexcept {
  constexpr std::uint64_t kLow7 = 0x7f7f7f7f7f7f7f7fULL;
  const std::uint64_t x = word ^ 0x2e2e2e2e2e2e2e2eULL;              // zero bytes where the dots are
  const std::uint64_t zeros = ~(((x & kLow7) + kLow7) | x | kLow7);  // exact: 0x80 per zero byte
  return ((zeros >> 7) * 0x0102040810204080ULL) >> 56;
}

// The dots of a path of at most 64 bytes as a bit mask, eight bytes at a time where it can.
std::uint64_t dotMask(std::string_view path) noexcept {
  std::uint64_t mask = 0;
  if constexpr (std::endian::native == std::endian::little) {
    if (path.size() >= 8) {
      std::size_t i = 0;
      std::uint64_t word = 0;
      for (; i + 8 <= path.size(); i += 8) {
        std::memcpy(&word, path.data() + i, 8);
        mask |= dotBits(word) << i;
      }
      if (i < path.size()) {  // the last bytes, read with the ones before them
        const std::size_t last = path.size() - 8;
        std::memcpy(&word, path.data() + last, 8);
        mask |= dotBits(word) << last;
      }
      return mask;
    }
  }
  for (std::size_t i = 0; i < path.size(); ++i) mask |= static_cast<std::uint64_t>(path[i] == '.') << i;
  return mask;
}

const json::value* atKeyPath(const json::value* node, std::string_view path) noexcept {
  if (!node || path.empty()) return node;
  if (path.size() > 64) return atKeyPathScanning(node, path);
  // The dots of a short path as one bit mask, made in a loop whose length is known: finding
  // each component's end then costs no mispredicted branch, which would cost as much as the
  // member lookup itself.
  std::uint64_t dots = dotMask(path);
  std::size_t start = 0;
  while (true) {
    const std::size_t end = dots == 0 ? path.size() : static_cast<std::size_t>(std::countr_zero(dots));
    node = child(*node, path.substr(start, end - start));
    if (!node || dots == 0) return node;
    dots &= dots - 1;
    start = end + 1;
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

// The value of `node` as a T in `out`; false when there is no node or it is of another type.
bool as(const JsonValue&, const json::value& node, bool& out) noexcept {
  if (!node.is_bool()) return false;
  out = node.get_bool();
  return true;
}

bool as(const JsonValue&, const json::value& node, std::int64_t& out) noexcept {
  const auto wide = asInt64(node);
  if (wide) out = *wide;
  return wide.has_value();
}

bool as(const JsonValue&, const json::value& node, int& out) noexcept {
  const auto wide = asInt64(node);
  if (!wide || *wide < std::numeric_limits<int>::min() || *wide > std::numeric_limits<int>::max()) return false;
  out = static_cast<int>(*wide);
  return true;
}

bool as(const JsonValue&, const json::value& node, double& out) noexcept {
  if (node.is_double()) {
    out = node.get_double();
  } else if (node.is_int64()) {
    out = static_cast<double>(node.get_int64());
  } else if (node.is_uint64()) {
    out = static_cast<double>(node.get_uint64());
  } else {
    return false;
  }
  return true;
}

bool as(const JsonValue&, const json::value& node, std::string_view& out) noexcept {
  if (!node.is_string()) return false;
  out = node.get_string();
  return true;
}

bool as(const JsonValue&, const json::value& node, std::string& out) noexcept {
  if (!node.is_string()) return false;
  try {
    out = node.get_string();
    return true;
  } catch (const std::exception&) {
    return false;  // a copy that cannot be allocated reads as nothing rather than throwing
  }
}

bool as(const JsonValue& root, const json::value& node, JsonValue& out) noexcept {
  out = JsonAccess::share(root, &node);
  return true;
}

template <class T>
bool readAt(const JsonValue& root, std::string_view where, detail::JsonLocation how, T& out) noexcept {
  const json::value* top = JsonAccess::node(root);
  if constexpr (std::is_same_v<T, JsonValue>) {
    // A default-made JsonValue is JSON null without a node; its empty path still names it.
    if (!top && where.empty()) {
      out = root;
      return true;
    }
  }
  const json::value* node = how == detail::JsonLocation::keyPath ? atKeyPath(top, where) : atPointer(top, where);
  return node && as(root, *node, out);
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

namespace detail {

bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, bool& out) noexcept {
  return readAt(root, where, how, out);
}
bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, int& out) noexcept {
  return readAt(root, where, how, out);
}
bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, std::int64_t& out) noexcept {
  return readAt(root, where, how, out);
}
bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, double& out) noexcept {
  return readAt(root, where, how, out);
}
bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, std::string_view& out) noexcept {
  return readAt(root, where, how, out);
}
bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, std::string& out) noexcept {
  return readAt(root, where, how, out);
}
bool readJson(const JsonValue& root, std::string_view where, JsonLocation how, JsonValue& out) noexcept {
  return readAt(root, where, how, out);
}

}  // namespace detail

}  // namespace kp
