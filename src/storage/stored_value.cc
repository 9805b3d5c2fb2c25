// Conversions between std::any and property-list trees.
#include "kp/storage/stored_value.h"

#include <cstdint>
#include <map>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kp/platform/url.h"
#include "platform/utf8.h"
#include "tarvix/service.h"

namespace kp {
namespace {

// Each converter returns true when `value` holds its type; `out` then holds the tree, or is
// left empty when the value cannot be stored (with `problem` set).
struct Conversion {
  std::optional<Value> out;
  std::string problem;

  void refuse(std::string why) {
    out.reset();
    if (problem.empty()) problem = std::move(why);
  }
};

void convert(const std::any& value, Conversion& c, std::size_t depth);

std::optional<Value> text(std::string_view s, Conversion& c) {
  if (!internal::isValidUtf8(s)) {
    c.refuse("text is not UTF-8");
    return std::nullopt;
  }
  return Value(s);
}

// Checks a tree that arrived as a kp::Value: no null or object references inside, UTF-8 text.
bool checkTree(const Value& v, Conversion& c, std::size_t depth) {
  if (depth > kMaxPropertyListDepth) {
    c.refuse("nested too deeply");
    return false;
  }
  switch (v.type()) {
    case Value::Type::null:
      c.refuse("null cannot be stored");
      return false;
    case Value::Type::uid:
      c.refuse("object references cannot be stored");
      return false;
    case Value::Type::string:
      if (!internal::isValidUtf8(*v.ifString())) {
        c.refuse("text is not UTF-8");
        return false;
      }
      return true;
    case Value::Type::array:
      for (const Value& e : *v.ifArray()) {
        if (!checkTree(e, c, depth + 1)) return false;
      }
      return true;
    case Value::Type::dictionary:
      for (const auto& [k, e] : *v.ifDictionary()) {
        if (!internal::isValidUtf8(k)) {
          c.refuse("dictionary key is not UTF-8");
          return false;
        }
        if (!checkTree(e, c, depth + 1)) return false;
      }
      return true;
    default:
      return true;
  }
}

template <class I>
bool tryInteger(const std::any& value, Conversion& c) {
  const I* i = std::any_cast<I>(&value);
  if (!i) return false;
  c.out = Value(*i);
  return true;
}

template <class... I>
bool tryIntegers(const std::any& value, Conversion& c) {
  return (tryInteger<I>(value, c) || ...);
}

// One element of a list or map; nothing (and `c` refused) when it cannot be stored.
template <class Element>
std::optional<Value> convertElement(const Element& element, Conversion& c, std::size_t depth) {
  Conversion inner;
  if constexpr (std::is_same_v<Element, std::any>) {
    convert(element, inner, depth + 1);
  } else {
    convert(std::any(element), inner, depth + 1);
  }
  if (!inner.out) c.refuse(inner.problem);
  return std::move(inner.out);
}

// A list whose elements convert one by one.
template <class List>
bool tryList(const std::any& value, Conversion& c, std::size_t depth) {
  const List* list = std::any_cast<List>(&value);
  if (!list) return false;
  Value::Array out;
  out.reserve(list->size());
  for (const auto& element : *list) {
    std::optional<Value> converted = convertElement(element, c, depth);
    if (!converted) return true;
    out.push_back(std::move(*converted));
  }
  c.out = Value(std::move(out));
  return true;
}

template <class Map>
bool tryMap(const std::any& value, Conversion& c, std::size_t depth) {
  const Map* map = std::any_cast<Map>(&value);
  if (!map) return false;
  Value::Dictionary out;
  out.reserve(map->size());
  for (const auto& [key, element] : *map) {
    if (!internal::isValidUtf8(key)) {
      c.refuse("dictionary key is not UTF-8");
      return true;
    }
    std::optional<Value> converted = convertElement(element, c, depth);
    if (!converted) return true;
    out.emplace_back(key, std::move(*converted));
  }
  c.out = Value(std::move(out));
  return true;
}

void convert(const std::any& value, Conversion& c, std::size_t depth) {
  if (depth > kMaxPropertyListDepth) return c.refuse("nested too deeply");
  if (const Value* tree = std::any_cast<Value>(&value)) {
    if (checkTree(*tree, c, depth)) c.out = *tree;
    return;
  }
  if (const auto* s = std::any_cast<std::string>(&value)) {
    c.out = text(*s, c);
    return;
  }
  if (const auto* s = std::any_cast<std::string_view>(&value)) {
    c.out = text(*s, c);
    return;
  }
  if (const auto* s = std::any_cast<const char*>(&value)) {
    if (*s == nullptr) return c.refuse("null text");
    c.out = text(*s, c);
    return;
  }
  if (const auto* s = std::any_cast<char*>(&value)) {
    if (*s == nullptr) return c.refuse("null text");
    c.out = text(*s, c);
    return;
  }
  if (const bool* b = std::any_cast<bool>(&value)) {
    c.out = Value(*b);
    return;
  }
  if (tryIntegers<int, long, long long, unsigned, unsigned long, unsigned long long, short, unsigned short, char,
                  signed char, unsigned char>(value, c)) {
    return;
  }
  if (const double* d = std::any_cast<double>(&value)) {
    c.out = Value(*d);
    return;
  }
  if (const float* f = std::any_cast<float>(&value)) {
    c.out = Value(static_cast<double>(*f));
    return;
  }
  if (const Data* d = std::any_cast<Data>(&value)) {
    c.out = Value(*d);
    return;
  }
  if (const Date* d = std::any_cast<Date>(&value)) {
    c.out = Value(*d);
    return;
  }
  if (const Url* u = std::any_cast<Url>(&value)) {
    c.out = text(u->absoluteString(), c);
    return;
  }
  if (tryList<std::vector<std::any>>(value, c, depth) || tryList<std::vector<std::string>>(value, c, depth) ||
      tryList<std::vector<Value>>(value, c, depth) || tryList<std::vector<std::int64_t>>(value, c, depth) ||
      tryList<std::vector<int>>(value, c, depth) || tryList<std::vector<double>>(value, c, depth) ||
      tryList<std::vector<Data>>(value, c, depth) || tryList<std::vector<Date>>(value, c, depth)) {
    return;
  }
  if (tryMap<std::map<std::string, std::any>>(value, c, depth) ||
      tryMap<std::map<std::string, std::string>>(value, c, depth) ||
      tryMap<std::map<std::string, Value>>(value, c, depth) ||
      tryMap<std::unordered_map<std::string, std::any>>(value, c, depth) ||
      tryMap<std::unordered_map<std::string, std::string>>(value, c, depth) ||
      tryMap<Value::Dictionary>(value, c, depth)) {
    return;
  }
  if (!value.has_value()) return c.refuse("no value");
  c.refuse("a value of type " + tarvix::unqualifiedTypeName(value.type()) + " is not a property-list value");
}

}  // namespace

bool isStorablePropertyListValue(const Value& value, std::string* problem) {
  Conversion c;
  if (checkTree(value, c, 0)) return true;
  if (problem) *problem = c.problem;
  return false;
}

std::optional<Value> propertyListValue(const std::any& value, std::string* problem) {
  Conversion c;
  convert(value, c, 0);
  if (!c.out && problem) *problem = c.problem;
  return std::move(c.out);
}

std::any anyFromPropertyListValue(const Value& value) {
  switch (value.type()) {
    case Value::Type::boolean:
      return *value.ifBoolean();
    case Value::Type::integer:
      return *value.ifInteger();
    case Value::Type::unsignedInteger:
      return *value.ifUnsignedInteger();
    case Value::Type::real:
      return *value.ifReal();
    case Value::Type::string:
      return *value.ifString();
    case Value::Type::data:
      return *value.ifData();
    case Value::Type::date:
      return *value.ifDate();
    default:
      return value;
  }
}

}  // namespace kp
