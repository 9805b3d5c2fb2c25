// kp::Decoder and its containers: they read one value of a coding run back from a kp::Value
// tree, as a dictionary of keys (KeyedDecoder), a list (UnkeyedDecoder) or a single value.
// What a type reads is its kp::Coding<T>; include kp/coding/coding.h, which brings the
// library's codings, to decode.
//
// Containers borrow from the decoder that made them: use them within the decode call.
//
// Thread safety: a decoder and its containers are used by one thread at a time; the user info
// is read-only while coding runs.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kp/coding/coding_context.h"
#include "kp/coding/value.h"
#include "kp/platform/export.h"

namespace kp {

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

}  // namespace kp
