// What keyed storage holds: values handed over as std::any, and their property-list form.
//
//   propertyListValue(any): the property-list tree of a value, for stores that persist. It
//     accepts text (std::string, std::string_view, C strings; UTF-8 only), booleans, every
//     integer type, float and double, kp::Data, kp::Date, kp::Url (kept as its text),
//     kp::Value trees, and lists and string-keyed maps of those (std::vector<std::any>,
//     std::vector<std::string>, std::map<std::string, std::any>, ...).
//     Anything else, null inside a tree, and text that is not UTF-8 give nothing.
//   anyFromPropertyListValue(tree): the value a caller gets back: text as std::string,
//     integers as std::int64_t (those above INT64_MAX as std::uint64_t), reals as double,
//     bool, kp::Data, kp::Date; lists and dictionaries stay kp::Value trees.
//   storedValueAs<T>(any): a stored value as T, or nothing: the value itself when it holds
//     exactly a T, else its property-list form decoded as T with the coding layer's strict
//     rules (an integer reads as any integer type it fits, a real as float or double, a list
//     of text as std::vector<std::string>; text never reads as a number nor a number as text).
//
// Thread safety: pure functions.
//
// Example:
//   std::any stored = std::int64_t{3};
//   std::optional<int> n = kp::storedValueAs<int>(stored);            // 3
//   std::optional<std::string> s = kp::storedValueAs<std::string>(stored);  // nothing
#pragma once

#include <any>
#include <exception>
#include <optional>
#include <string>
#include <type_traits>

#include "kp/coding/coding.h"
#include "kp/coding/property_list.h"
#include "kp/coding/value.h"
#include "kp/platform/export.h"

namespace kp {

// The property-list tree of `value`, or nothing; `problem` (when given) then says why.
[[nodiscard]] KP_EXPORT std::optional<Value> propertyListValue(const std::any& value, std::string* problem = nullptr);

// Whether a tree can be written to a property list as it is: no null or object reference
// inside, all text and keys UTF-8, nesting within kMaxPropertyListDepth.
[[nodiscard]] KP_EXPORT bool isStorablePropertyListValue(const Value& value, std::string* problem = nullptr);

// REQUIRES: `value` is not null (property lists have no null).
[[nodiscard]] KP_EXPORT std::any anyFromPropertyListValue(const Value& value);

namespace storage_detail {
template <class T>
concept Decodable = requires(const Decoder& d) {
  { Coding<T>::decode(d) } -> std::same_as<T>;
};
}  // namespace storage_detail

template <class T>
[[nodiscard]] std::optional<T> storedValueAs(const std::any& value) {
  if constexpr (std::is_same_v<T, std::any>) {
    return value;
  } else {
    if (const T* exact = std::any_cast<T>(&value)) return *exact;
    if constexpr (std::is_same_v<T, Value>) {
      return propertyListValue(value);
    } else if constexpr (storage_detail::Decodable<T>) {
      std::optional<Value> tree = propertyListValue(value);
      if (!tree) return std::nullopt;
      try {
        return decodeFromValue<T>(*tree);
      } catch (const std::exception&) {
        return std::nullopt;
      }
    } else {
      return std::nullopt;
    }
  }
}

}  // namespace kp
