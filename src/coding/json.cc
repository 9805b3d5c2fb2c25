// The JSON encoder and decoder over Boost.JSON: numbers as people write them, data as Base64
// (read leniently), dates in the chosen form, and errors that name the coding path.
#include "kp/coding/json.h"

#include <boost/json.hpp>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "coding/json_access.h"
#include "kp/crypto/base64.h"

namespace kp {

namespace json = boost::json;

namespace {

constexpr std::size_t kMaxJsonDepth = 512;

json::parse_options parseOptions() {
  json::parse_options options;
  options.max_depth = kMaxJsonDepth;
  return options;
}

const json::value& node(const void* p) { return *static_cast<const json::value*>(p); }

// Boost.JSON reads a number beyond the range of a double (1e400) as an infinity, which no
// server can have meant. A typed decoder refuses such a text; an untyped document holds null
// in its place, as it would for a member the server left out. The walks are bounded by the
// parser's depth limit.
bool numbersAreFinite(const json::value& v) noexcept {
  switch (v.kind()) {
    case json::kind::double_:
      return std::isfinite(v.get_double());
    case json::kind::array:
      for (const json::value& e : v.get_array()) {
        if (!numbersAreFinite(e)) return false;
      }
      return true;
    case json::kind::object:
      for (const auto& kv : v.get_object()) {
        if (!numbersAreFinite(kv.value())) return false;
      }
      return true;
    default:
      return true;
  }
}

void nullOutInfinities(json::value& v) noexcept {
  switch (v.kind()) {
    case json::kind::double_:
      if (!std::isfinite(v.get_double())) v.emplace_null();
      return;
    case json::kind::array:
      for (json::value& e : v.get_array()) nullOutInfinities(e);
      return;
    case json::kind::object:
      for (auto& kv : v.get_object()) nullOutInfinities(kv.value());
      return;
    default:
      return;
  }
}

Value toValueTree(const json::value& v) {
  switch (v.kind()) {
    case json::kind::null:
      return Value();
    case json::kind::bool_:
      return v.get_bool();
    case json::kind::int64:
      return v.get_int64();
    case json::kind::uint64:
      return v.get_uint64();  // above INT64_MAX it stays unsigned
    case json::kind::double_:
      return v.get_double();
    case json::kind::string:
      return std::string_view(v.get_string());
    case json::kind::array: {
      Value::Array items;
      items.reserve(v.get_array().size());
      for (const json::value& e : v.get_array()) items.push_back(toValueTree(e));
      return items;
    }
    case json::kind::object: {
      Value::Dictionary entries;
      entries.reserve(v.get_object().size());
      for (const auto& kv : v.get_object()) entries.emplace_back(std::string(kv.key()), toValueTree(kv.value()));
      return entries;
    }
  }
  return Value();
}

json::value toJson(const Value& v, DateStrategy dates, json::storage_ptr sp) {
  switch (v.type()) {
    case Value::Type::null:
      return json::value(nullptr, sp);
    case Value::Type::boolean:
      return json::value(*v.ifBoolean(), sp);
    case Value::Type::integer:
      return json::value(*v.ifInteger(), sp);
    case Value::Type::unsignedInteger:
      return json::value(*v.ifUnsignedInteger(), sp);
    case Value::Type::real: {
      const double d = *v.ifReal();
      if (!std::isfinite(d))
        throw CodingError(CodingError::Kind::invalidValue, {}, "JSON cannot hold a non-finite number");
      return json::value(d, sp);
    }
    case Value::Type::string:
      // "$null" is how property lists spell null.
      if (v.isNil()) return json::value(nullptr, sp);
      return json::value(json::string_view(*v.ifString()), sp);
    case Value::Type::data:
      return json::value(base64Encode(v.ifData()->bytes()), sp);
    case Value::Type::date: {
      const Date d = *v.ifDate();
      switch (dates) {
        case DateStrategy::secondsSinceReferenceDate:
          return json::value(d.timeIntervalSinceReferenceDate(), sp);
        case DateStrategy::secondsSince1970:
          return json::value(d.timeIntervalSince1970(), sp);
        case DateStrategy::millisecondsSince1970:
          return json::value(d.timeIntervalSince1970() * 1000.0, sp);
        case DateStrategy::iso8601: {
          // Years 1 to 9999 only: ISO 8601 text has four year digits.
          const double t = d.timeIntervalSince1970();
          if (!(t >= -62135596800.0 && t < 253402300800.0)) {
            throw CodingError(CodingError::Kind::invalidValue, {}, "date outside the years 1 to 9999");
          }
          return json::value(d.iso8601(), sp);
        }
      }
      return json::value(nullptr, sp);
    }
    case Value::Type::uid: {
      json::object o(sp);
      o.emplace("CF$UID", v.ifUid()->value);
      return o;
    }
    case Value::Type::array: {
      json::array a(sp);
      a.reserve(v.ifArray()->size());
      for (const Value& e : *v.ifArray()) a.push_back(toJson(e, dates, sp));
      return a;
    }
    case Value::Type::dictionary: {
      json::object o(sp);
      o.reserve(v.ifDictionary()->size());
      for (const auto& [k, e] : *v.ifDictionary()) o.insert_or_assign(k, toJson(e, dates, sp));
      return o;
    }
  }
  return json::value(nullptr, sp);
}

// Numbers as the platform's JSON writer puts them: the shortest digits that read back as the
// same double, in plain decimal for magnitudes from 1e-6 up to below 1e21 ("52.37", "86400",
// "0.000001") and with an exponent beyond ("1e+21", "1.5e-7"). These are the rules of
// JavaScript's number-to-text conversion, which every JSON reader expects.
void appendNumber(std::string& out, double d) {
  // Neither the parser nor the constructors let one in, but a null is JSON whatever comes.
  if (!std::isfinite(d)) {
    out += "null";
    return;
  }
  if (d == 0) {
    out += std::signbit(d) ? "-0" : "0";
    return;
  }
  char buffer[40];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, d, std::chars_format::scientific);
  const std::string_view text(buffer, static_cast<std::size_t>(result.ptr - buffer));  // "-1.2345e+02"
  const std::size_t e = text.find('e');
  std::string_view mantissa = text.substr(0, e);
  if (mantissa.front() == '-') {
    out += '-';
    mantissa.remove_prefix(1);
  }
  std::string digits;
  for (const char c : mantissa) {
    if (c != '.') digits += c;
  }
  // The value is 0.DIGITS times ten to the power n.
  int exponent = 0;
  const std::string_view exponentText = text.substr(e + (text[e + 1] == '+' ? 2 : 1));
  std::from_chars(exponentText.data(), exponentText.data() + exponentText.size(), exponent);
  const int n = exponent + 1;
  const int k = static_cast<int>(digits.size());
  if (k <= n && n <= 21) {
    out += digits;
    out.append(static_cast<std::size_t>(n - k), '0');
  } else if (0 < n && n <= 21) {
    out.append(digits, 0, static_cast<std::size_t>(n));
    out += '.';
    out.append(digits, static_cast<std::size_t>(n));
  } else if (-6 < n && n <= 0) {
    out += "0.";
    out.append(static_cast<std::size_t>(-n), '0');
    out += digits;
  } else {
    out += digits[0];
    if (k > 1) {
      out += '.';
      out.append(digits, 1);
    }
    out += n - 1 < 0 ? "e-" : "e+";
    out += std::to_string(std::abs(n - 1));
  }
}

// JSON text of `v`: compact when `indent` is negative, else pretty-printed at that depth.
void appendJson(std::string& out, const json::value& v, int indent) {
  const bool pretty = indent >= 0;
  const auto newline = [&](int depth) {
    if (!pretty) return;
    out += '\n';
    out.append(static_cast<std::size_t>(depth), ' ');
  };
  switch (v.kind()) {
    case json::kind::object: {
      const json::object& o = v.get_object();
      out += '{';
      bool first = true;
      for (const auto& kv : o) {
        if (!first) out += ',';
        first = false;
        newline(indent + 2);
        out += json::serialize(json::string_view(kv.key()));
        out += pretty ? " : " : ":";
        appendJson(out, kv.value(), pretty ? indent + 2 : -1);
      }
      if (!o.empty()) newline(indent);
      out += '}';
      return;
    }
    case json::kind::array: {
      const json::array& a = v.get_array();
      out += '[';
      bool first = true;
      for (const json::value& e : a) {
        if (!first) out += ',';
        first = false;
        newline(indent + 2);
        appendJson(out, e, pretty ? indent + 2 : -1);
      }
      if (!a.empty()) newline(indent);
      out += ']';
      return;
    }
    case json::kind::double_:
      appendNumber(out, v.get_double());
      return;
    default:
      out += json::serialize(v);
  }
}

}  // namespace

JsonValue::JsonValue(bool b) : JsonValue(std::make_shared<Document>(Document{json::value(b)}), nullptr) {
  node_ = &doc_->root;
}
JsonValue::JsonValue(std::int64_t i) : JsonValue(std::make_shared<Document>(Document{json::value(i)}), nullptr) {
  node_ = &doc_->root;
}
JsonValue::JsonValue(double d) {
  if (!std::isfinite(d)) return;  // null: JSON has no such number
  doc_ = std::make_shared<Document>(Document{json::value(d)});
  node_ = &doc_->root;
}
JsonValue::JsonValue(std::string_view s)
    : JsonValue(std::make_shared<Document>(Document{json::value(json::string_view(s))}), nullptr) {
  node_ = &doc_->root;
}

JsonValue JsonValue::array(const std::vector<JsonValue>& items) {
  json::array a;
  a.reserve(items.size());
  for (const JsonValue& item : items) a.push_back(item.node_ ? node(item.node_) : json::value());
  auto doc = std::make_shared<Document>(Document{std::move(a)});
  const void* root = &doc->root;
  return JsonValue(std::move(doc), root);
}

JsonValue JsonValue::object(const std::vector<std::pair<std::string, JsonValue>>& members) {
  json::object o;
  o.reserve(members.size());
  for (const auto& [k, v] : members) o.insert_or_assign(k, v.node_ ? node(v.node_) : json::value());
  auto doc = std::make_shared<Document>(Document{std::move(o)});
  const void* root = &doc->root;
  return JsonValue(std::move(doc), root);
}

std::optional<JsonValue> JsonValue::parse(std::string_view text, ErrorPtr* error) {
  boost::system::error_code ec;
  json::value parsed = json::parse(json::string_view(text.data(), text.size()), ec, {}, parseOptions());
  if (ec) {
    if (error) {
      *error = CodingError(CodingError::Kind::dataCorrupted, {}, "not JSON: " + ec.message()).toError();
    }
    return std::nullopt;
  }
  nullOutInfinities(parsed);
  auto doc = std::make_shared<Document>(Document{std::move(parsed)});
  const void* root = &doc->root;
  return JsonValue(std::move(doc), root);
}

JsonValue::Type JsonValue::type() const noexcept {
  if (!node_) return Type::null;
  switch (node(node_).kind()) {
    case json::kind::null:
      return Type::null;
    case json::kind::bool_:
      return Type::boolean;
    case json::kind::int64:
    case json::kind::uint64:
      return Type::integer;
    case json::kind::double_:
      return Type::real;
    case json::kind::string:
      return Type::string;
    case json::kind::array:
      return Type::array;
    case json::kind::object:
      return Type::object;
  }
  return Type::null;
}

std::optional<bool> JsonValue::boolValue() const noexcept {
  if (node_ && node(node_).is_bool()) return node(node_).get_bool();
  return std::nullopt;
}

std::optional<std::int64_t> JsonValue::intValue() const noexcept {
  if (!node_) return std::nullopt;
  const json::value& v = node(node_);
  if (v.is_int64()) return v.get_int64();
  if (v.is_uint64() && v.get_uint64() <= static_cast<std::uint64_t>(INT64_MAX)) {
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

std::optional<double> JsonValue::doubleValue() const noexcept {
  if (!node_) return std::nullopt;
  const json::value& v = node(node_);
  if (v.is_number()) return v.to_number<double>();
  return std::nullopt;
}

std::optional<std::string_view> JsonValue::stringValue() const noexcept {
  if (node_ && node(node_).is_string()) return std::string_view(node(node_).get_string());
  return std::nullopt;
}

std::size_t JsonValue::size() const noexcept {
  if (!node_) return 0;
  const json::value& v = node(node_);
  if (v.is_array()) return v.get_array().size();
  if (v.is_object()) return v.get_object().size();
  return 0;
}

bool JsonValue::contains(std::string_view key) const noexcept {
  return node_ && node(node_).is_object() && node(node_).get_object().contains(key);
}

JsonValue JsonValue::operator[](std::string_view key) const noexcept {
  if (!node_ || !node(node_).is_object()) return {};
  const json::value* found = node(node_).get_object().if_contains(key);
  return found ? JsonValue(doc_, found) : JsonValue();
}

JsonValue JsonValue::operator[](std::size_t index) const noexcept {
  if (!node_ || !node(node_).is_array()) return {};
  const json::array& a = node(node_).get_array();
  return index < a.size() ? JsonValue(doc_, &a[index]) : JsonValue();
}

std::vector<JsonValue> JsonValue::elements() const {
  std::vector<JsonValue> out;
  if (node_ && node(node_).is_array()) {
    for (const json::value& e : node(node_).get_array()) out.push_back(JsonValue(doc_, &e));
  }
  return out;
}

std::vector<std::pair<std::string_view, JsonValue>> JsonValue::members() const {
  std::vector<std::pair<std::string_view, JsonValue>> out;
  if (node_ && node(node_).is_object()) {
    for (const auto& kv : node(node_).get_object()) out.emplace_back(kv.key(), JsonValue(doc_, &kv.value()));
  }
  return out;
}

std::string JsonValue::serialize() const {
  if (!node_) return "null";
  std::string out;
  appendJson(out, node(node_), -1);
  return out;
}

std::string JsonValue::prettySerialize() const {
  if (!node_) return "null";
  std::string out;
  appendJson(out, node(node_), 0);
  return out;
}

Value JsonValue::toValue() const { return node_ ? toValueTree(node(node_)) : Value(); }

JsonValue JsonValue::fromValue(const Value& value, DateStrategy dates) {
  auto doc = std::make_shared<Document>(Document{toJson(value, dates, {})});
  const void* root = &doc->root;
  return JsonValue(std::move(doc), root);
}

namespace {

// JSON has one kind of number: 12 and 12.0 are the same value, as they are to the platform's
// JSON reader, even though the parser keeps integers and fractions apart.
bool sameNumber(const json::value& a, const json::value& b) noexcept {
  if (a.is_double() || b.is_double()) {
    if (a.is_double() && b.is_double()) return a.get_double() == b.get_double();
    const double d = a.is_double() ? a.get_double() : b.get_double();
    const json::value& i = a.is_double() ? b : a;
    // Compare exactly: only a double with an integral value inside the integer's range can match.
    if (!(d >= -9223372036854775808.0 && d < 18446744073709551616.0) || d != std::trunc(d)) return false;
    if (i.is_int64()) return d < 9223372036854775808.0 && static_cast<std::int64_t>(d) == i.get_int64();
    return d >= 0 && static_cast<std::uint64_t>(d) == i.get_uint64();
  }
  return a == b;
}

bool sameJson(const json::value& a, const json::value& b) noexcept {
  if (a.is_number() && b.is_number()) return sameNumber(a, b);
  if (a.kind() != b.kind()) return false;
  if (a.is_array()) {
    const json::array& x = a.get_array();
    const json::array& y = b.get_array();
    if (x.size() != y.size()) return false;
    for (std::size_t i = 0; i < x.size(); ++i) {
      if (!sameJson(x[i], y[i])) return false;
    }
    return true;
  }
  if (a.is_object()) {
    const json::object& x = a.get_object();
    const json::object& y = b.get_object();
    if (x.size() != y.size()) return false;
    for (const auto& kv : x) {
      const json::value* other = y.if_contains(kv.key());
      if (!other || !sameJson(kv.value(), *other)) return false;
    }
    return true;
  }
  return a == b;
}

}  // namespace

bool operator==(const JsonValue& a, const JsonValue& b) noexcept {
  const json::value null;
  return sameJson(a.node_ ? node(a.node_) : null, b.node_ ? node(b.node_) : null);
}

std::string writeJson(const Value& value, DateStrategy dates, bool pretty) {
  json::monotonic_resource mr;
  const json::value v = toJson(value, dates, &mr);
  std::string out;
  appendJson(out, v, pretty ? 0 : -1);
  return out;
}

Value readJson(std::string_view text) {
  json::monotonic_resource mr;
  boost::system::error_code ec;
  const json::value v = json::parse(json::string_view(text.data(), text.size()), ec, &mr, parseOptions());
  if (ec) throw CodingError(CodingError::Kind::dataCorrupted, {}, "not JSON: " + ec.message());
  if (!numbersAreFinite(v)) {
    throw CodingError(CodingError::Kind::dataCorrupted, {}, "a number in the JSON is beyond the range of a double");
  }
  return toValueTree(v);
}

}  // namespace kp
