// JSON coding: kp::JsonValue, the dynamic value of untyped JSON payloads, and the JSON
// encoder and decoder of codable types.
//
// JsonValue is an immutable view into a parsed document that it shares: copying one, or
// taking a member or element, copies two pointers and never the document. Missing members,
// elements out of range and values of another type read as null or nothing, so that payload
// code can walk a document without checks at every step.
//
// Dates in JSON are numbers or text as the coder's DateStrategy says; byte buffers are Base64
// text; the decoder hands its user info to every nested decoder.
//
// Thread safety: JsonValue is immutable and may be shared between threads. Encoders and
// decoders may be shared as long as nobody changes their settings meanwhile.
//
// Example:
//   std::optional<kp::JsonValue> payload = kp::JsonValue::parse(body.view());
//   if (payload) {
//     double t = (*payload)["current"]["temperature"].doubleValue().value_or(0);
//   }
//   kp::JsonDecoder decoder;
//   decoder.dateStrategy = kp::DateStrategy::secondsSince1970;
//   auto forecast = decoder.decode<Forecast>(body);   // throws kp::CodingError
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kp/coding/coding.h"
#include "kp/coding/decoder_type.h"
#include "kp/coding/value.h"
#include "kp/platform/data.h"
#include "kp/platform/error.h"
#include "kp/platform/export.h"

namespace kp {

namespace internal {
struct JsonAccess;
}  // namespace internal

class KP_EXPORT JsonValue {
 public:
  // What a value is.
  enum class Type : std::uint8_t { null, boolean, integer, real, string, array, object };

  JsonValue() noexcept = default;  // null
  // The value given; implicit, so that values are written as they are.
  JsonValue(std::nullptr_t) noexcept {}  // NOLINT
  // A boolean.
  JsonValue(bool b);  // NOLINT
  // An integer.
  JsonValue(std::int64_t i);  // NOLINT
  // An integer.
  JsonValue(int i) : JsonValue(static_cast<std::int64_t>(i)) {}  // NOLINT
  // A number; null for a non-finite one, which JSON has no form for.
  JsonValue(double d);  // NOLINT
  // A string (a copy).
  JsonValue(std::string_view s);  // NOLINT
  // A string (a copy).
  JsonValue(const char* s) : JsonValue(std::string_view(s)) {}  // NOLINT
  // An array of `items`, in order.
  [[nodiscard]] static JsonValue array(const std::vector<JsonValue>& items);
  // An object of `members`, in order.
  [[nodiscard]] static JsonValue object(const std::vector<std::pair<std::string, JsonValue>>& members);

  // Parses one JSON text; nothing (and `error`, when given) for anything else. A number
  // beyond the range of a double (1e400) reads as null.
  [[nodiscard]] static std::optional<JsonValue> parse(std::string_view text, ErrorPtr* error = nullptr);

  [[nodiscard]] Type type() const noexcept;                                    // what the value is
  [[nodiscard]] bool isNull() const noexcept { return type() == Type::null; }  // null, or missing

  // The boolean; nothing for any other type.
  [[nodiscard]] std::optional<bool> boolValue() const noexcept;
  // Integers, and reals with an integral value that fits.
  [[nodiscard]] std::optional<std::int64_t> intValue() const noexcept;
  // Any number.
  [[nodiscard]] std::optional<double> doubleValue() const noexcept;
  // Valid while any JsonValue of this document lives.
  [[nodiscard]] std::optional<std::string_view> stringValue() const noexcept;

  // Members of an object or elements of an array; 0 for anything else.
  [[nodiscard]] std::size_t size() const noexcept;
  // True for an object with a member `key`.
  [[nodiscard]] bool contains(std::string_view key) const noexcept;
  // The member `key` of an object; null when there is none or this is not an object.
  [[nodiscard]] JsonValue operator[](std::string_view key) const noexcept;
  // The member `key`, as above.
  [[nodiscard]] JsonValue operator[](const char* key) const noexcept { return (*this)[std::string_view(key)]; }
  // The element at `index` of an array; null out of range or when this is not an array.
  [[nodiscard]] JsonValue operator[](std::size_t index) const noexcept;
  // The element at `index`, as above; null for a negative index.
  [[nodiscard]] JsonValue operator[](int index) const noexcept {
    return index < 0 ? JsonValue() : (*this)[static_cast<std::size_t>(index)];
  }
  // The elements of an array, in order; empty for anything else.
  [[nodiscard]] std::vector<JsonValue> elements() const;
  // The members of an object, in order; empty for anything else.
  [[nodiscard]] std::vector<std::pair<std::string_view, JsonValue>> members() const;

  // Compact JSON text.
  [[nodiscard]] std::string serialize() const;
  // Indented JSON text: one member or element a line, two spaces a level, `"key" : value`.
  [[nodiscard]] std::string prettySerialize() const;
  // The same content as a coding tree (numbers stay integers or reals).
  [[nodiscard]] Value toValue() const;
  // A tree as JSON; dates and data as the strategy and Base64 say. Throws CodingError for
  // non-finite reals.
  [[nodiscard]] static JsonValue fromValue(const Value& value,
                                           DateStrategy dates = DateStrategy::secondsSinceReferenceDate);

  // Equal content; numbers compare by value (12 equals 12.0).
  friend KP_EXPORT bool operator==(const JsonValue& a, const JsonValue& b) noexcept;

 private:
  struct Document;
  friend struct internal::JsonAccess;
  JsonValue(std::shared_ptr<const Document> doc, const void* node) noexcept : doc_(std::move(doc)), node_(node) {}
  std::shared_ptr<const Document> doc_;  // null for JSON null
  const void* node_ = nullptr;           // a boost::json::value inside doc_
};

// JSON values inside codable types: coded as the tree they hold.
template <>
struct KP_EXPORT Coding<JsonValue> {
  // Writes the value's tree.
  static void encode(Encoder& e, const JsonValue& v) { e.encodeValue(v.toValue()); }
  // Reads a tree back as a value.
  static JsonValue decode(const Decoder& d) { return JsonValue::fromValue(d.value(), d.dateStrategy()); }
};

// Writes a tree as JSON text with the given date handling.
[[nodiscard]] KP_EXPORT std::string writeJson(const Value& value, DateStrategy dates, bool pretty = false);
// Reads JSON text as a tree. Throws CodingError (dataCorrupted), also for a number beyond
// the range of a double.
[[nodiscard]] KP_EXPORT Value readJson(std::string_view text);

// Writes codable values as JSON text.
class KP_EXPORT JsonEncoder {
 public:
  DateStrategy dateStrategy = DateStrategy::secondsSinceReferenceDate;  // how dates are written
  bool prettyPrinted = false;                                           // indented text instead of compact
  UserInfo userInfo;                                                    // handed to every encoder of a run

  // `value` as JSON text. Throws CodingError.
  template <class T>
  [[nodiscard]] Data encode(const T& value) const {
    return Data::fromString(writeJson(encodeToValue(value, userInfo), dateStrategy, prettyPrinted));
  }
};

// Reads codable values from JSON text.
class KP_EXPORT JsonDecoder : public DecoderType {
 public:
  DateStrategy dateStrategy = DateStrategy::secondsSinceReferenceDate;  // how dates are read
  UserInfo userInfo;                                                    // handed to every decoder of a run

  using DecoderType::decode;

  // Throws CodingError.
  template <class T>
  [[nodiscard]] T decode(std::string_view text) const {
    const Value root = readJson(text);
    return decodeFromValue<T>(root, userInfo, dateStrategy);
  }
  // The same, from bytes.
  template <class T>
  [[nodiscard]] T decode(const Data& data) const {
    return decode<T>(data.view());
  }

 protected:
  [[nodiscard]] Value readTree(const Data& data) const override { return readJson(data.view()); }
  [[nodiscard]] const UserInfo& decodingUserInfo() const override { return userInfo; }       // `userInfo`
  [[nodiscard]] DateStrategy decodingDateStrategy() const override { return dateStrategy; }  // `dateStrategy`
};

}  // namespace kp
