// Property-list coding: reading and writing property lists (binary "bplist00" and XML) as
// kp::Value trees, the encoder and decoder of codable types over them, and the shared
// helpers that store a value as property-list data (a bare scalar wrapped as {"v": value}).
//
// Binary is the default output. Dates are property-list dates, byte buffers are data,
// integers and reals stay apart, null is written as the text "$null" (and read back as null
// by the decoders). Integers above INT64_MAX are written as the platform writes them (16
// bytes in binary, decimal text in XML) and read back as such. Reading is bounded: nesting
// deeper than kMaxPropertyListDepth, cycles, references out of range and counts larger than
// the input are errors, and shared objects may not make the tree much larger than the input;
// every property list this writer makes is within those bounds.
//
// Thread safety: all functions are reentrant; encoder and decoder objects may be shared
// between threads as long as nobody changes their settings meanwhile.
//
// Example:
//   kp::PropertyListEncoder encoder;                       // binary
//   kp::Data bytes = encoder.encode(city);                  // throws kp::CodingError
//   City back = kp::PropertyListDecoder().decode<City>(bytes);
//   std::optional<kp::Data> stored = kp::encodePropertyListData(42);   // {"v": 42}
//   std::optional<int> n = kp::decodePropertyListData<int>(*stored);
#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <span>

#include "kp/coding/coding.h"
#include "kp/coding/decoder_type.h"
#include "kp/coding/value.h"
#include "kp/platform/data.h"
#include "kp/platform/error.h"
#include "kp/platform/export.h"

namespace kp {

// The two property-list forms.
enum class PropertyListFormat { binary, xml };

// Deeper nesting is refused as damaged input.
inline constexpr std::size_t kMaxPropertyListDepth = 512;

// Writes `value` as a property list. Throws CodingError for text that is not UTF-8.
[[nodiscard]] KP_EXPORT Data writePropertyList(const Value& value,
                                               PropertyListFormat format = PropertyListFormat::binary);
// Reads a binary or XML property list. Throws CodingError (dataCorrupted) for anything else.
[[nodiscard]] KP_EXPORT Value readPropertyList(std::span<const std::uint8_t> bytes,
                                               PropertyListFormat* format = nullptr);

// Writes codable values as property lists.
class KP_EXPORT PropertyListEncoder {
 public:
  PropertyListFormat outputFormat = PropertyListFormat::binary;  // the form written
  UserInfo userInfo;                                             // handed to every encoder of a run

  // `value` as a property list. Throws CodingError.
  template <class T>
  [[nodiscard]] Data encode(const T& value) const {
    return writePropertyList(encodeToValue(value, userInfo), outputFormat);
  }
};

// Reads codable values from binary or XML property lists.
class KP_EXPORT PropertyListDecoder : public DecoderType {
 public:
  UserInfo userInfo;  // handed to every decoder of a run

  using DecoderType::decode;

  // Throws CodingError.
  template <class T>
  [[nodiscard]] T decode(std::span<const std::uint8_t> bytes) const {
    const Value root = readPropertyList(bytes);
    return decodeFromValue<T>(root, userInfo, DateStrategy::secondsSinceReferenceDate);
  }
  // The same, from a buffer.
  template <class T>
  [[nodiscard]] T decode(const Data& data) const {
    return decode<T>(data.bytes());
  }

 protected:
  [[nodiscard]] Value readTree(const Data& data) const override { return readPropertyList(data.bytes()); }
  [[nodiscard]] const UserInfo& decodingUserInfo() const override { return userInfo; }  // `userInfo`
  // Property lists hold dates natively; the strategy only reaches numbers read as dates.
  [[nodiscard]] DateStrategy decodingDateStrategy() const override { return DateStrategy::secondsSinceReferenceDate; }
};

namespace coding_detail {
// A scalar stored as the one-entry dictionary {"v": value}.
template <class T>
struct Wrapped {
  const T* value = nullptr;
  void encode(Encoder& e) const { e.keyed().encode("v", *value); }
  static Wrapped decode(const Decoder&) { return {}; }
};
template <class T>
struct Unwrapped {
  T value;
  void encode(Encoder& e) const { e.keyed().encode("v", value); }
  static Unwrapped decode(const Decoder& d) { return {d.keyed().decode<T>("v")}; }
};
KP_EXPORT void reportEncodingFailure(const std::exception& error);
KP_EXPORT ErrorPtr toError(const std::exception& error);
}  // namespace coding_detail

// The shared encode helper: `value` as binary property-list data; a scalar is wrapped as a
// one-entry dictionary under "v". A failure is reported as "Failed to encode: " + the error
// through the assertion hook and yields nothing.
template <class T>
[[nodiscard]] std::optional<Data> encodePropertyListData(const T& value) {
  try {
    if constexpr (kIsScalarCodable<T>) {
      return writePropertyList(encodeToValue(coding_detail::Wrapped<T>{&value}));
    } else {
      return writePropertyList(encodeToValue(value));
    }
  } catch (const std::exception& e) {
    coding_detail::reportEncodingFailure(e);
    return std::nullopt;
  }
}

// The shared decode helper, the counterpart of encodePropertyListData. Nothing on failure;
// `error` (when given) then receives the reason.
template <class T>
[[nodiscard]] std::optional<T> decodePropertyListData(std::span<const std::uint8_t> bytes, ErrorPtr* error = nullptr) {
  try {
    const Value root = readPropertyList(bytes);
    if constexpr (kIsScalarCodable<T>) {
      return decodeFromValue<coding_detail::Unwrapped<T>>(root).value;
    } else {
      return decodeFromValue<T>(root);
    }
  } catch (const std::exception& e) {
    if (error) *error = coding_detail::toError(e);
    return std::nullopt;
  }
}
// The same, from a buffer.
template <class T>
[[nodiscard]] std::optional<T> decodePropertyListData(const Data& data, ErrorPtr* error = nullptr) {
  return decodePropertyListData<T>(data.bytes(), error);
}

}  // namespace kp
