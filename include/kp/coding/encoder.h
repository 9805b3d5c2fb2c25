// kp::Encoder and its containers: they write one value of a coding run into a kp::Value tree,
// as a dictionary of keys (KeyedEncoder), a list (UnkeyedEncoder) or a single value. What a
// type writes is its kp::Coding<T>; include kp/coding/coding.h, which brings the library's
// codings, to encode.
//
// Containers borrow from the encoder that made them: use them within the encode call.
//
// Thread safety: an encoder and its containers are used by one thread at a time; the user info
// is read-only while coding runs.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kp/coding/coding_context.h"
#include "kp/coding/value.h"
#include "kp/platform/export.h"

namespace kp {

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

}  // namespace kp
