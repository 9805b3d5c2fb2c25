// The codings the library brings (scalars, strings, kp::Data, kp::Date, kp::Url, enums,
// std::optional, std::vector, string-keyed maps, kp::Value, types that write their own coding
// and records described with BOOST_DESCRIBE_STRUCT), and the runs that encode a value into a
// tree and decode one from it. kp/coding/coding.h says how a type becomes codable.
//
// Thread safety: the codings keep no state; a run is used by one thread.
#pragma once

#include <boost/describe/class.hpp>
#include <boost/describe/members.hpp>
#include <concepts>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kp/coding/coding_context.h"
#include "kp/coding/decoder.h"
#include "kp/coding/encoder.h"
#include "kp/coding/value.h"
#include "kp/platform/data.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"
#include "kp/platform/url.h"

namespace kp {

namespace coding_detail {

template <class T>
concept SelfCoding = requires(const T& t, Encoder& e, const Decoder& d) {
  t.encode(e);
  { T::decode(d) } -> std::same_as<T>;
};

template <class T>
concept Described = boost::describe::has_describe_members<T>::value && !SelfCoding<T>;

// Calls `f` with each member descriptor of a list from boost::describe::describe_members, in
// order. The list is a class template over the descriptors, whichever template Describe uses.
template <class List>
struct EachMember;
template <template <class...> class List, class... Descriptor>
struct EachMember<List<Descriptor...>> {
  template <class F>
  static void run(F&& f) {
    (f(Descriptor{}), ...);
  }
};

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
    coding_detail::EachMember<Members>::run([&](auto m) { keyed.encode(m.name, v.*m.pointer); });
  }
  static T decode(const Decoder& d) {
    KeyedDecoder keyed = d.keyed();
    T out{};
    coding_detail::EachMember<Members>::run([&](auto m) {
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
