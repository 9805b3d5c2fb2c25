// kp::Value: the format-neutral tree that the encoders write and the decoders read. It holds
// exactly what a property list can hold (booleans, integers and reals kept apart, strings,
// byte buffers, dates, arrays, dictionaries) plus null, which JSON needs.
//
// Integers are signed 64-bit values, except those above INT64_MAX, which only an unsigned
// 64-bit source can give: they are `unsignedInteger`, so that every unsigned value survives.
// An unsigned value within the signed range is an ordinary `integer`.
//
// Dictionaries keep their keys in insertion order, so that what a type writes first comes
// first in the output. Arrays and dictionaries live on the heap: moving a Value, or growing
// the container that holds it, never moves the elements themselves.
//
// Thread safety: a value type; distinct objects may be used from any threads.
//
// Example:
//   kp::Value v = kp::Value::Dictionary{};
//   v.set("name", "Zurich");
//   v.set("temperature", 21.5);
//   if (const kp::Value* t = v.find("temperature")) t->realValue();
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "kp/platform/data.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"

namespace kp {

// A property-list object reference, as the keyed archiver writes them.
struct KP_EXPORT Uid {
  std::uint64_t value = 0;                     // the object's index in the archive
  friend bool operator==(Uid, Uid) = default;  // the same index
};

// The tree every coder writes and reads: null, scalars, text, bytes, dates, object references,
// arrays and dictionaries (whose entries keep their order).
class KP_EXPORT Value {
 public:
  // What a value holds.
  enum class Type : std::uint8_t {
    null,
    boolean,
    integer,
    unsignedInteger,  // above INT64_MAX only
    real,
    string,
    data,
    date,
    uid,
    array,
    dictionary
  };
  using Array = std::vector<Value>;                               // elements in order
  using Dictionary = std::vector<std::pair<std::string, Value>>;  // entries in order

  Value() noexcept = default;
  // The values below are implicit, so that trees are written as they read.
  Value(std::nullptr_t) noexcept {}  // NOLINT: implicit by design
  // A boolean.
  Value(bool b) noexcept : v_(b) {}  // NOLINT
  // An integer; an unsigned one above INT64_MAX stays unsigned.
  template <class I, std::enable_if_t<std::is_integral_v<I> && !std::is_same_v<I, bool>, int> = 0>
  Value(I i) noexcept {  // NOLINT
    if constexpr (std::is_unsigned_v<I> && sizeof(I) >= sizeof(std::int64_t)) {
      if (i > static_cast<I>(INT64_MAX)) {
        v_ = static_cast<std::uint64_t>(i);
        return;
      }
    }
    v_ = static_cast<std::int64_t>(i);
  }
  // A real number.
  Value(double d) noexcept : v_(d) {}  // NOLINT
  // A string.
  Value(std::string s) noexcept : v_(std::move(s)) {}  // NOLINT
  // A string (a copy).
  Value(std::string_view s) : v_(std::string(s)) {}  // NOLINT
  // A string (a copy).
  Value(const char* s) : v_(std::string(s)) {}  // NOLINT
  // Bytes.
  Value(Data d) noexcept : v_(std::move(d)) {}  // NOLINT
  // A date.
  Value(Date d) noexcept : v_(d) {}  // NOLINT
  // An object reference.
  Value(Uid u) noexcept : v_(u) {}  // NOLINT
  // An array.
  Value(Array a) : v_(std::make_unique<Array>(std::move(a))) {}  // NOLINT
  // A dictionary.
  Value(Dictionary d) : v_(std::make_unique<Dictionary>(std::move(d))) {}  // NOLINT

  Value(const Value& other);                     // a deep copy
  Value& operator=(const Value& other);          // a deep copy
  Value(Value&&) noexcept = default;             // takes the tree
  Value& operator=(Value&&) noexcept = default;  // takes the tree
  ~Value() = default;

  [[nodiscard]] Type type() const noexcept { return static_cast<Type>(v_.index()); }  // what it holds
  [[nodiscard]] bool isNull() const noexcept { return type() == Type::null; }         // null

  // Each returns nothing when the value holds another type (no conversions).
  [[nodiscard]] const bool* ifBoolean() const noexcept { return std::get_if<bool>(&v_); }
  // The integer, when it is one (see ifBoolean()).
  [[nodiscard]] const std::int64_t* ifInteger() const noexcept { return std::get_if<std::int64_t>(&v_); }
  // An integer above INT64_MAX.
  [[nodiscard]] const std::uint64_t* ifUnsignedInteger() const noexcept { return std::get_if<std::uint64_t>(&v_); }
  // The real number, when it is one.
  [[nodiscard]] const double* ifReal() const noexcept { return std::get_if<double>(&v_); }
  // The string, when it is one.
  [[nodiscard]] const std::string* ifString() const noexcept { return std::get_if<std::string>(&v_); }
  // The bytes, when it is bytes.
  [[nodiscard]] const Data* ifData() const noexcept { return std::get_if<Data>(&v_); }
  // The date, when it is one.
  [[nodiscard]] const Date* ifDate() const noexcept { return std::get_if<Date>(&v_); }
  // The object reference, when it is one.
  [[nodiscard]] const Uid* ifUid() const noexcept { return std::get_if<Uid>(&v_); }
  // The array, when it is one.
  [[nodiscard]] const Array* ifArray() const noexcept;
  // The dictionary, when it is one.
  [[nodiscard]] const Dictionary* ifDictionary() const noexcept;
  // The array, when it is one, to change.
  [[nodiscard]] Array* ifArray() noexcept;
  // The dictionary, when it is one, to change.
  [[nodiscard]] Dictionary* ifDictionary() noexcept;
  // The string, when it is one, to change.
  [[nodiscard]] std::string* ifString() noexcept { return std::get_if<std::string>(&v_); }
  // The bytes, when it is bytes, to change.
  [[nodiscard]] Data* ifData() noexcept { return std::get_if<Data>(&v_); }

  // The first entry under `key` of a dictionary; nothing for a missing key or a non-dictionary.
  [[nodiscard]] const Value* find(std::string_view key) const noexcept;
  // REQUIRES: a dictionary (a null value becomes one). Replaces an existing entry.
  void set(std::string_view key, Value value);
  // REQUIRES: an array (a null value becomes one).
  void append(Value value);

  // Whether this is null or the text "$null", which stands for null in property lists.
  [[nodiscard]] bool isNil() const noexcept {
    const std::string* s = ifString();
    return isNull() || (s && *s == "$null");
  }

  // Name of the type for messages: "integer", "dictionary", ...
  [[nodiscard]] static std::string_view typeName(Type type) noexcept;

  // The same type and content, in the same order.
  friend KP_EXPORT bool operator==(const Value& a, const Value& b);

 private:
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, Data, Date, Uid,
               std::unique_ptr<Array>, std::unique_ptr<Dictionary>>
      v_;
};

}  // namespace kp
