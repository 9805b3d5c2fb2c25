// The encodable/decodable mechanism: an Encoder writes a value into a kp::Value tree through
// keyed, unkeyed and single-value containers; a Decoder reads one back the same way. The
// property-list and JSON coders (property_list.h, json.h) turn that tree into bytes.
//
// A type becomes codable in one of three ways:
//   - a plain record describes its members once with BOOST_DESCRIBE_STRUCT; each member is
//     written under its own name, and an absent std::optional member writes no key;
//   - a type with other keys writes its own coding:
//       void encode(kp::Encoder& e) const;   static T decode(const kp::Decoder& d);
//   - anything else specialises kp::Coding<T> with the same two static functions.
// Scalars, strings, kp::Data, kp::Date, kp::Url, enums, std::optional, std::vector,
// string-keyed maps and kp::Value work out of the box.
//
// Failures throw kp::CodingError, whose message names the coding path ("items[3].name") and
// the reason. Containers borrow from the encoder or decoder that made them: use them within
// the encode or decode call.
//
// Thread safety: encoders and decoders are used by one thread at a time; the user info is
// read-only while coding runs.
//
// Example:
//   struct City { std::string name; std::optional<double> temperature; kp::Date updated; };
//   BOOST_DESCRIBE_STRUCT(City, (), (name, temperature, updated))
//
//   struct Reading {
//     double value;
//     void encode(kp::Encoder& e) const { e.keyed().encode("v_celsius", value); }
//     static Reading decode(const kp::Decoder& d) { return {d.keyed().decode<double>("v_celsius")}; }
//   };
#pragma once

#include <any>
#include <boost/describe/class.hpp>
#include <boost/describe/members.hpp>
#include <boost/mp11/algorithm.hpp>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kp/coding/value.h"
#include "kp/platform/data.h"
#include "kp/platform/date.h"
#include "kp/platform/error.h"
#include "kp/platform/export.h"
#include "kp/platform/url.h"

namespace kp {

// Extra information handed to every encoder and decoder of one coding run, by key.
using UserInfo = std::map<std::string, std::any, std::less<>>;

// How dates are read from and written to formats without a native date (JSON).
enum class DateStrategy {
  secondsSinceReferenceDate,  // a number of seconds since 2001-01-01 (the platform default)
  secondsSince1970,
  millisecondsSince1970,
  iso8601,  // text as kp::Date::iso8601 writes it
};

// A failure of an encoding or decoding run, with the path of the value that failed.
class KP_EXPORT CodingError : public std::runtime_error {
 public:
  // What failed: a value of another type, a null or missing value, damaged input, or a value
  // the format cannot hold.
  enum class Kind { typeMismatch, valueNotFound, keyNotFound, dataCorrupted, invalidValue };
  static constexpr std::string_view kDomain = "KPCoding";  // the domain of toError()

  // The failure `kind` at `codingPath`, with `reason`.
  CodingError(Kind kind, std::string codingPath, std::string reason);

  [[nodiscard]] Kind kind() const noexcept { return kind_; }  // what failed
  // Dotted path to the failing value, such as "items[3].name"; empty for the top level.
  [[nodiscard]] const std::string& codingPath() const noexcept { return path_; }
  [[nodiscard]] const std::string& reason() const noexcept { return reason_; }  // why, in words
  // The same failure as a platform error (domain kDomain, code = the kind's number).
  [[nodiscard]] ErrorPtr toError() const;

 private:
  Kind kind_;
  std::string path_;
  std::string reason_;
};

template <class T, class Enable = void>
struct Coding;

namespace coding_detail {

// One step of a coding path; frames live on the stack of the containers that made them.
struct KP_EXPORT PathFrame {
  const PathFrame* parent = nullptr;
  std::string_view key;
  std::size_t index = 0;
  enum : std::uint8_t { none, byKey, byIndex } kind = none;
};
KP_EXPORT std::string formatPath(const PathFrame* frame);
[[noreturn]] KP_EXPORT void fail(CodingError::Kind kind, const PathFrame* frame, std::string reason);
[[noreturn]] KP_EXPORT void typeMismatch(const PathFrame* frame, std::string_view expected, const Value& found);

struct KP_EXPORT EncodingContext {
  const UserInfo* userInfo;
};
struct KP_EXPORT DecodingContext {
  const UserInfo* userInfo;
  DateStrategy dates;
};

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

}  // namespace coding_detail

class KeyedEncoder;
class UnkeyedEncoder;

// Writes one value of a coding run (see the top of this file).
class KP_EXPORT Encoder {
 public:
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;

  // The value as a dictionary of keys (continuing one that this encoder already started).
  [[nodiscard]] KeyedEncoder keyed();
  // The value as a list (continuing one that this encoder already started).
  [[nodiscard]] UnkeyedEncoder unkeyed();
  // The value as a single value.
  template <class T>
  void encode(const T& value) {
    Coding<T>::encode(*this, value);
  }
  void encodeNil() { *slot_ = Value(); }  // the value as null
  // Writes a finished tree as this value.
  void encodeValue(Value value) { *slot_ = std::move(value); }

  [[nodiscard]] const UserInfo& userInfo() const noexcept { return *ctx_->userInfo; }  // the run's user info
  // Where this value is, such as "items[3].name".
  [[nodiscard]] std::string codingPath() const { return coding_detail::formatPath(&frame_); }
  // Throws CodingError (invalidValue) for this value.
  [[noreturn]] void fail(std::string reason) const {
    coding_detail::fail(CodingError::Kind::invalidValue, &frame_, std::move(reason));
  }

  // Starts a coding run that writes into `root`.
  Encoder(Value* root, const coding_detail::EncodingContext* ctx) : slot_(root), ctx_(ctx) {}

 private:
  friend class KeyedEncoder;
  friend class UnkeyedEncoder;
  Encoder(Value* slot, coding_detail::PathFrame frame, const coding_detail::EncodingContext* ctx)
      : slot_(slot), frame_(frame), ctx_(ctx) {}
  Value* slot_;
  coding_detail::PathFrame frame_;
  const coding_detail::EncodingContext* ctx_;
};

// Writes the entries of a dictionary value.
class KP_EXPORT KeyedEncoder {
 public:
  KeyedEncoder(const KeyedEncoder&) = delete;
  KeyedEncoder& operator=(const KeyedEncoder&) = delete;

  // Writes `value` under `key`; an absent std::optional writes no key at all.
  template <class T>
  void encode(std::string_view key, const T& value) {
    if constexpr (coding_detail::IsOptional<T>::value) {
      if (!value) return;
      encode(key, *value);
    } else {
      Encoder child = encoderForKey(key);
      Coding<T>::encode(child, value);
    }
  }
  // Writes `value` under `key` when there is one; nothing otherwise.
  template <class T>
  void encodeIfPresent(std::string_view key, const std::optional<T>& value) {
    if (value) encode(key, *value);
  }
  void encodeNil(std::string_view key) { slot(key) = Value(); }      // null under `key`
  [[nodiscard]] KeyedEncoder nestedKeyed(std::string_view key);      // a dictionary under `key`
  [[nodiscard]] UnkeyedEncoder nestedUnkeyed(std::string_view key);  // a list under `key`
  // An encoder for the value under `key`, for types that write themselves. Finish writing
  // through it before the next key is written.
  [[nodiscard]] Encoder encoderForKey(std::string_view key);
  // As encoderForKey, without looking for an earlier entry under `key`.
  // REQUIRES: `key` was not written yet.
  [[nodiscard]] Encoder encoderForNewKey(std::string_view key);

  [[nodiscard]] const UserInfo& userInfo() const noexcept { return *ctx_->userInfo; }  // the run's user info

 private:
  friend class Encoder;
  friend class UnkeyedEncoder;
  KeyedEncoder(Value::Dictionary* dict, coding_detail::PathFrame frame, const coding_detail::EncodingContext* ctx)
      : dict_(dict), frame_(frame), ctx_(ctx) {}
  Value& slot(std::string_view key);
  Value::Dictionary* dict_;
  coding_detail::PathFrame frame_;
  const coding_detail::EncodingContext* ctx_;
};

// Writes the elements of a list value, in order.
class KP_EXPORT UnkeyedEncoder {
 public:
  UnkeyedEncoder(const UnkeyedEncoder&) = delete;
  UnkeyedEncoder& operator=(const UnkeyedEncoder&) = delete;

  // Appends `value`.
  template <class T>
  void encode(const T& value) {
    Encoder child = nextEncoder();
    Coding<T>::encode(child, value);
  }
  void encodeNil() { array_->emplace_back(); }                                 // appends null
  [[nodiscard]] KeyedEncoder nestedKeyed();                                    // appends a dictionary
  [[nodiscard]] UnkeyedEncoder nestedUnkeyed();                                // appends a list
  [[nodiscard]] Encoder nextEncoder();                                         // appends a value to write
  [[nodiscard]] std::size_t count() const noexcept { return array_->size(); }  // elements so far
  void reserve(std::size_t n) { array_->reserve(n); }                          // room for `n` elements

 private:
  friend class Encoder;
  friend class KeyedEncoder;
  UnkeyedEncoder(Value::Array* array, coding_detail::PathFrame frame, const coding_detail::EncodingContext* ctx)
      : array_(array), frame_(frame), ctx_(ctx) {}
  Value::Array* array_;
  coding_detail::PathFrame frame_;
  const coding_detail::EncodingContext* ctx_;
};

class KeyedDecoder;
class UnkeyedDecoder;

// Reads one value of a coding run (see the top of this file).
class KP_EXPORT Decoder {
 public:
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  // The value as a dictionary. Throws CodingError when it is something else.
  [[nodiscard]] KeyedDecoder keyed() const;
  // The value as a list. Throws CodingError when it is something else.
  [[nodiscard]] UnkeyedDecoder unkeyed() const;
  // The value as a single value of type T.
  template <class T>
  [[nodiscard]] T decode() const {
    return Coding<T>::decode(*this);
  }
  [[nodiscard]] bool decodeNil() const noexcept { return node_->isNil(); }  // true for null
  // The raw tree of this value.
  [[nodiscard]] const Value& value() const noexcept { return *node_; }

  [[nodiscard]] const UserInfo& userInfo() const noexcept { return *ctx_->userInfo; }  // the run's user info
  [[nodiscard]] DateStrategy dateStrategy() const noexcept { return ctx_->dates; }     // how dates are read
  // Where this value is, such as "items[3].name".
  [[nodiscard]] std::string codingPath() const { return coding_detail::formatPath(&frame_); }
  // Throws CodingError (dataCorrupted) for this value.
  [[noreturn]] void fail(std::string reason) const {
    coding_detail::fail(CodingError::Kind::dataCorrupted, &frame_, std::move(reason));
  }
  // Throws CodingError (typeMismatch): `expected` was wanted, something else is there.
  [[noreturn]] void typeMismatch(std::string_view expected) const {
    coding_detail::typeMismatch(&frame_, expected, *node_);
  }

  // Starts a coding run that reads `root`.
  Decoder(const Value* root, const coding_detail::DecodingContext* ctx) : node_(root), ctx_(ctx) {}

 private:
  friend class KeyedDecoder;
  friend class UnkeyedDecoder;
  Decoder(const Value* node, coding_detail::PathFrame frame, const coding_detail::DecodingContext* ctx)
      : node_(node), frame_(frame), ctx_(ctx) {}
  const Value* node_;
  coding_detail::PathFrame frame_;
  const coding_detail::DecodingContext* ctx_;
};

// Reads the entries of a dictionary value.
class KP_EXPORT KeyedDecoder {
 public:
  KeyedDecoder(const KeyedDecoder&) = delete;
  KeyedDecoder& operator=(const KeyedDecoder&) = delete;

  // True when `key` is there, null or not.
  [[nodiscard]] bool contains(std::string_view key) const noexcept { return find(key) != nullptr; }
  [[nodiscard]] std::vector<std::string_view> allKeys() const;  // the keys, in order
  // The value under `key`. Fails with keyNotFound when it is missing, unless T is a
  // std::optional: then a missing key or a null value gives nothing.
  template <class T>
  [[nodiscard]] T decode(std::string_view key) const {
    if constexpr (coding_detail::IsOptional<T>::value) {
      return decodeIfPresent<typename T::value_type>(key);
    } else {
      const Value* v = find(key);
      if (!v) missingKey(key);
      Decoder child(v, frameFor(key), ctx_);
      return Coding<T>::decode(child);
    }
  }
  // The value under `key`; nothing when the key is missing or holds null.
  template <class T>
  [[nodiscard]] std::optional<T> decodeIfPresent(std::string_view key) const {
    const Value* v = find(key);
    if (!v || v->isNil()) return std::nullopt;
    Decoder child(v, frameFor(key), ctx_);
    return Coding<T>::decode(child);
  }
  // True when the key is missing or holds null.
  [[nodiscard]] bool decodeNil(std::string_view key) const noexcept {
    const Value* v = find(key);
    return !v || v->isNil();
  }
  // Decodes every entry as a T, in order, and hands it to `sink(std::string_view key, T)`.
  template <class T, class F>
  void decodeEach(F&& sink) const {
    for (const auto& [k, v] : *dict_) {
      Decoder child(&v, frameFor(k), ctx_);
      sink(std::string_view(k), Coding<T>::decode(child));
    }
  }
  [[nodiscard]] KeyedDecoder nestedKeyed(std::string_view key) const;      // the dictionary under `key`
  [[nodiscard]] UnkeyedDecoder nestedUnkeyed(std::string_view key) const;  // the list under `key`
  // A decoder for the value under `key` (fails when the key is missing).
  [[nodiscard]] Decoder decoderForKey(std::string_view key) const;

  [[nodiscard]] const UserInfo& userInfo() const noexcept { return *ctx_->userInfo; }  // the run's user info

 private:
  friend class Decoder;
  friend class UnkeyedDecoder;
  KeyedDecoder(const Value::Dictionary* dict, coding_detail::PathFrame frame, const coding_detail::DecodingContext* ctx)
      : dict_(dict), frame_(frame), ctx_(ctx) {}
  [[nodiscard]] const Value* find(std::string_view key) const noexcept;
  [[nodiscard]] coding_detail::PathFrame frameFor(std::string_view key) const noexcept {
    return {&frame_, key, 0, coding_detail::PathFrame::byKey};
  }
  [[noreturn]] void missingKey(std::string_view key) const;
  const Value::Dictionary* dict_;
  coding_detail::PathFrame frame_;
  const coding_detail::DecodingContext* ctx_;
};

// Reads the elements of a list value, in order.
class KP_EXPORT UnkeyedDecoder {
 public:
  UnkeyedDecoder(const UnkeyedDecoder&) = delete;
  UnkeyedDecoder& operator=(const UnkeyedDecoder&) = delete;

  [[nodiscard]] std::size_t count() const noexcept { return array_->size(); }       // all elements
  [[nodiscard]] bool isAtEnd() const noexcept { return index_ >= array_->size(); }  // none left
  [[nodiscard]] std::size_t currentIndex() const noexcept { return index_; }        // the next one's index
  // Decodes the next element and moves past it.
  template <class T>
  [[nodiscard]] T decode() {
    if constexpr (coding_detail::IsOptional<T>::value) {
      if (!isAtEnd() && (*array_)[index_].isNil()) {
        ++index_;
        return std::nullopt;
      }
      return decode<typename T::value_type>();
    } else {
      const Value* v = next();
      Decoder child(v, frameFor(index_ - 1), ctx_);
      return Coding<T>::decode(child);
    }
  }
  // Moves past a null element and tells whether there was one.
  bool decodeNil() noexcept {
    if (isAtEnd() || !(*array_)[index_].isNil()) return false;
    ++index_;
    return true;
  }
  [[nodiscard]] KeyedDecoder nestedKeyed();      // the next element, a dictionary; moves past it
  [[nodiscard]] UnkeyedDecoder nestedUnkeyed();  // the next element, a list; moves past it
  // Calls `body(const Decoder&)` for the next element and moves past it.
  template <class F>
  auto withNext(F&& body) {
    const Value* v = next();
    Decoder child(v, frameFor(index_ - 1), ctx_);
    return body(static_cast<const Decoder&>(child));
  }

  [[nodiscard]] const UserInfo& userInfo() const noexcept { return *ctx_->userInfo; }  // the run's user info

 private:
  friend class Decoder;
  friend class KeyedDecoder;
  UnkeyedDecoder(const Value::Array* array, coding_detail::PathFrame frame, const coding_detail::DecodingContext* ctx)
      : array_(array), frame_(frame), ctx_(ctx) {}
  const Value* next();
  [[nodiscard]] coding_detail::PathFrame frameFor(std::size_t i) const noexcept {
    return {&frame_, {}, i, coding_detail::PathFrame::byIndex};
  }
  const Value::Array* array_;
  std::size_t index_ = 0;
  coding_detail::PathFrame frame_;
  const coding_detail::DecodingContext* ctx_;
};

// ---- Built-in codings ----

namespace coding_detail {

template <class T>
concept SelfCoding = requires(const T& t, Encoder& e, const Decoder& d) {
  t.encode(e);
  { T::decode(d) } -> std::same_as<T>;
};

template <class T>
concept Described = boost::describe::has_describe_members<T>::value && !SelfCoding<T>;

// An integer within [min, max], from an integer or an integral real.
KP_EXPORT std::int64_t decodeInteger(const Decoder& d, std::int64_t min, std::int64_t max);
KP_EXPORT std::uint64_t decodeUnsigned(const Decoder& d, std::uint64_t max);
KP_EXPORT double decodeReal(const Decoder& d);
KP_EXPORT Date decodeDate(const Decoder& d);
KP_EXPORT Data decodeData(const Decoder& d);
KP_EXPORT const std::string& decodeString(const Decoder& d);

}  // namespace coding_detail

template <class T>
struct Coding<T, std::enable_if_t<coding_detail::SelfCoding<T>>> {
  static void encode(Encoder& e, const T& v) { v.encode(e); }
  static T decode(const Decoder& d) { return T::decode(d); }
};

// Booleans, as booleans.
template <>
struct KP_EXPORT Coding<bool> {
  static void encode(Encoder& e, bool v) { e.encodeValue(Value(v)); }  // writes `v`
  // Reads a boolean; anything else is a type mismatch.
  static bool decode(const Decoder& d) {
    if (const bool* b = d.value().ifBoolean()) return *b;
    d.typeMismatch("boolean");
  }
};

template <class I>
struct Coding<I, std::enable_if_t<std::is_integral_v<I> && !std::is_same_v<I, bool>>> {
  static void encode(Encoder& e, I v) { e.encodeValue(Value(v)); }
  static I decode(const Decoder& d) {
    if constexpr (std::is_unsigned_v<I>) {
      return static_cast<I>(coding_detail::decodeUnsigned(d, std::numeric_limits<I>::max()));
    } else {
      return static_cast<I>(
          coding_detail::decodeInteger(d, std::numeric_limits<I>::min(), std::numeric_limits<I>::max()));
    }
  }
};

template <class F>
struct Coding<F, std::enable_if_t<std::is_floating_point_v<F>>> {
  static void encode(Encoder& e, F v) { e.encodeValue(Value(static_cast<double>(v))); }
  static F decode(const Decoder& d) { return static_cast<F>(coding_detail::decodeReal(d)); }
};

template <class E>
struct Coding<E, std::enable_if_t<std::is_enum_v<E>>> {
  using U = std::underlying_type_t<E>;
  static void encode(Encoder& e, E v) { Coding<U>::encode(e, static_cast<U>(v)); }
  static E decode(const Decoder& d) { return static_cast<E>(Coding<U>::decode(d)); }
};

template <>
struct KP_EXPORT Coding<std::string> {
  static void encode(Encoder& e, const std::string& v) { e.encodeValue(Value(v)); }
  static std::string decode(const Decoder& d) { return coding_detail::decodeString(d); }
};

// Byte buffers, as bytes (Base64 text in JSON).
template <>
struct KP_EXPORT Coding<Data> {
  static void encode(Encoder& e, const Data& v) { e.encodeValue(Value(v)); }     // writes `v`
  static Data decode(const Decoder& d) { return coding_detail::decodeData(d); }  // reads bytes
};

// Dates, as dates (as the date strategy says in JSON).
template <>
struct KP_EXPORT Coding<Date> {
  static void encode(Encoder& e, Date v) { e.encodeValue(Value(v)); }            // writes `v`
  static Date decode(const Decoder& d) { return coding_detail::decodeDate(d); }  // reads a date
};

// URLs travel as their text.
template <>
struct KP_EXPORT Coding<Url> {
  static void encode(Encoder& e, const Url& v) { e.encodeValue(Value(v.absoluteString())); }  // writes the text
  static Url decode(const Decoder& d);  // reads the text; fails when it is no URL
};

// Trees, as they are.
template <>
struct KP_EXPORT Coding<Value> {
  static void encode(Encoder& e, const Value& v) { e.encodeValue(v); }  // writes `v`
  static Value decode(const Decoder& d) { return d.value(); }           // a copy of the tree
};

template <class T>
struct Coding<std::optional<T>> {
  static void encode(Encoder& e, const std::optional<T>& v) {
    if (v) {
      Coding<T>::encode(e, *v);
    } else {
      e.encodeNil();
    }
  }
  static std::optional<T> decode(const Decoder& d) {
    if (d.decodeNil()) return std::nullopt;
    return Coding<T>::decode(d);
  }
};

template <class T, class A>
struct Coding<std::vector<T, A>> {
  static void encode(Encoder& e, const std::vector<T, A>& v) {
    UnkeyedEncoder list = e.unkeyed();
    list.reserve(v.size());
    for (const auto& item : v) list.encode(item);
  }
  static std::vector<T, A> decode(const Decoder& d) {
    UnkeyedDecoder list = d.unkeyed();
    std::vector<T, A> out;
    out.reserve(list.count());
    while (!list.isAtEnd()) out.push_back(list.template decode<T>());
    return out;
  }
};

namespace coding_detail {
template <class M>
struct MapCoding {
  static void encode(Encoder& e, const M& m) {
    KeyedEncoder keyed = e.keyed();
    for (const auto& [k, v] : m) {
      Encoder child = keyed.encoderForNewKey(k);
      Coding<typename M::mapped_type>::encode(child, v);
    }
  }
  static M decode(const Decoder& d) {
    KeyedDecoder keyed = d.keyed();
    M out;
    keyed.template decodeEach<typename M::mapped_type>(
        [&](std::string_view k, auto&& v) { out.insert_or_assign(std::string(k), std::forward<decltype(v)>(v)); });
    return out;
  }
};
}  // namespace coding_detail

template <class T, class C, class A>
struct Coding<std::map<std::string, T, C, A>> : coding_detail::MapCoding<std::map<std::string, T, C, A>> {};
template <class T, class H, class Q, class A>
struct Coding<std::unordered_map<std::string, T, H, Q, A>>
    : coding_detail::MapCoding<std::unordered_map<std::string, T, H, Q, A>> {};

// Records that describe their members: each member under its own name, in declaration order.
template <class T>
struct Coding<T, std::enable_if_t<coding_detail::Described<T>>> {
  using Members = boost::describe::describe_members<T, boost::describe::mod_any_access>;
  static void encode(Encoder& e, const T& v) {
    KeyedEncoder keyed = e.keyed();
    boost::mp11::mp_for_each<Members>([&](auto m) { keyed.encode(m.name, v.*m.pointer); });
  }
  static T decode(const Decoder& d) {
    KeyedDecoder keyed = d.keyed();
    T out{};
    boost::mp11::mp_for_each<Members>([&](auto m) {
      using M = std::remove_cvref_t<decltype(out.*m.pointer)>;
      out.*m.pointer = keyed.template decode<M>(m.name);
    });
    return out;
  }
};

// Whether T encodes as a bare scalar (a property list cannot hold one at its top level).
template <class T>
inline constexpr bool kIsScalarCodable =
    std::is_arithmetic_v<T> || std::is_enum_v<T> || std::is_same_v<T, std::string> || std::is_same_v<T, Data> ||
    std::is_same_v<T, Date> || std::is_same_v<T, Url>;

// Runs an encoding of `value` into a tree.
template <class T>
Value encodeToValue(const T& value, const UserInfo& userInfo = {}) {
  Value root;
  const coding_detail::EncodingContext ctx{&userInfo};
  Encoder e(&root, &ctx);
  Coding<T>::encode(e, value);
  return root;
}

// Decodes a T from a tree.
template <class T>
T decodeFromValue(const Value& root, const UserInfo& userInfo = {},
                  DateStrategy dates = DateStrategy::secondsSinceReferenceDate) {
  const coding_detail::DecodingContext ctx{&userInfo, dates};
  const Decoder d(&root, &ctx);
  return Coding<T>::decode(d);
}

}  // namespace kp
