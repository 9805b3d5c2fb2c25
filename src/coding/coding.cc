// Coding errors, the encoders' and decoders' shared checks, and the Base64 form that data
// takes in the coded values.
#include "kp/coding/coding.h"

#include <cmath>
#include <vector>

#include "kp/crypto/base64.h"

namespace kp {

CodingError::CodingError(Kind kind, std::string codingPath, std::string reason)
    : std::runtime_error(codingPath.empty() ? reason : codingPath + ": " + reason),
      kind_(kind),
      path_(std::move(codingPath)),
      reason_(std::move(reason)) {}

ErrorPtr CodingError::toError() const {
  Error::UserInfo info{{std::string(Error::kLocalizedDescriptionKey), what()}};
  if (!path_.empty()) info.emplace("codingPath", path_);
  return Error::make(std::string(kDomain), static_cast<std::int64_t>(kind_), std::move(info));
}

namespace coding_detail {

std::string formatPath(const PathFrame* frame) {
  std::vector<const PathFrame*> frames;
  for (; frame; frame = frame->parent) {
    if (frame->kind != PathFrame::none) frames.push_back(frame);
  }
  std::string out;
  for (auto it = frames.rbegin(); it != frames.rend(); ++it) {
    if ((*it)->kind == PathFrame::byKey) {
      if (!out.empty()) out += '.';
      out += (*it)->key;
    } else {
      out += '[';
      out += std::to_string((*it)->index);
      out += ']';
    }
  }
  return out;
}

void fail(CodingError::Kind kind, const PathFrame* frame, std::string reason) {
  throw CodingError(kind, formatPath(frame), std::move(reason));
}

void typeMismatch(const PathFrame* frame, std::string_view expected, const Value& found) {
  if (found.isNull()) {
    fail(CodingError::Kind::valueNotFound, frame, "expected " + std::string(expected) + ", found null");
  }
  fail(CodingError::Kind::typeMismatch, frame,
       "expected " + std::string(expected) + ", found " + std::string(Value::typeName(found.type())));
}

namespace {
[[noreturn]] void doesNotFit(const Decoder& d, const std::string& number) {
  d.fail("number " + number + " does not fit the integer type");
}
}  // namespace

std::int64_t decodeInteger(const Decoder& d, std::int64_t min, std::int64_t max) {
  const Value& v = d.value();
  std::int64_t out = 0;
  if (const std::int64_t* i = v.ifInteger()) {
    out = *i;
  } else if (const std::uint64_t* u = v.ifUnsignedInteger()) {
    doesNotFit(d, std::to_string(*u));
  } else if (const double* r = v.ifReal()) {
    // A real with an exact integer value reads as that integer (JSON has one number type).
    if (!(std::trunc(*r) == *r && *r >= -9223372036854775808.0 && *r < 9223372036854775808.0)) {
      d.fail("number " + std::to_string(*r) + " is not an integer");
    }
    out = static_cast<std::int64_t>(*r);
  } else {
    d.typeMismatch("integer");
  }
  if (out < min || out > max) doesNotFit(d, std::to_string(out));
  return out;
}

std::uint64_t decodeUnsigned(const Decoder& d, std::uint64_t max) {
  const Value& v = d.value();
  std::uint64_t out = 0;
  if (const std::int64_t* i = v.ifInteger()) {
    if (*i < 0) doesNotFit(d, std::to_string(*i));
    out = static_cast<std::uint64_t>(*i);
  } else if (const std::uint64_t* u = v.ifUnsignedInteger()) {
    out = *u;
  } else if (const double* r = v.ifReal()) {
    if (!(std::trunc(*r) == *r && *r > -1.0 && *r < 18446744073709551616.0)) {
      d.fail("number " + std::to_string(*r) + " is not an unsigned integer");
    }
    out = static_cast<std::uint64_t>(*r);
  } else {
    d.typeMismatch("integer");
  }
  if (out > max) doesNotFit(d, std::to_string(out));
  return out;
}

double decodeReal(const Decoder& d) {
  const Value& v = d.value();
  if (const double* r = v.ifReal()) return *r;
  if (const std::int64_t* i = v.ifInteger()) return static_cast<double>(*i);
  if (const std::uint64_t* u = v.ifUnsignedInteger()) return static_cast<double>(*u);
  d.typeMismatch("real");
}

Date decodeDate(const Decoder& d) {
  const Value& v = d.value();
  if (const Date* date = v.ifDate()) return *date;
  if (v.ifReal() || v.ifInteger() || v.ifUnsignedInteger()) {
    const double n = decodeReal(d);
    switch (d.dateStrategy()) {
      case DateStrategy::secondsSinceReferenceDate:
        return Date::fromTimeIntervalSinceReferenceDate(n);
      case DateStrategy::secondsSince1970:
        return Date::fromTimeIntervalSince1970(n);
      case DateStrategy::millisecondsSince1970:
        return Date::fromTimeIntervalSince1970(n / 1000.0);
      case DateStrategy::iso8601:
        break;
    }
  }
  if (const std::string* s = v.ifString(); s && d.dateStrategy() == DateStrategy::iso8601) {
    if (auto date = Date::fromIso8601(*s)) return *date;
    d.fail("date text \"" + *s + "\" is not ISO 8601");
  }
  d.typeMismatch("date");
}

Data decodeData(const Decoder& d) {
  const Value& v = d.value();
  if (const Data* data = v.ifData()) return *data;
  if (const std::string* s = v.ifString()) {
    // JSON producers often leave out the padding and break long lines.
    if (auto data =
            base64Decode(*s, Base64DecodingOptions::ignoreWhitespace | Base64DecodingOptions::allowMissingPadding)) {
      return std::move(*data);
    }
    d.fail("text is not Base64");
  }
  d.typeMismatch("data");
}

const std::string& decodeString(const Decoder& d) {
  if (const std::string* s = d.value().ifString()) return *s;
  d.typeMismatch("string");
}

}  // namespace coding_detail

Url Coding<Url>::decode(const Decoder& d) {
  const std::string& text = coding_detail::decodeString(d);
  if (auto url = Url::parse(text)) return *url;
  d.fail("\"" + text + "\" is not a URL");
}

// ---- Encoder containers ----

KeyedEncoder Encoder::keyed() {
  if (!slot_->ifDictionary()) *slot_ = Value::Dictionary{};
  return KeyedEncoder(slot_->ifDictionary(), {&frame_, {}, 0, coding_detail::PathFrame::none}, ctx_);
}

UnkeyedEncoder Encoder::unkeyed() {
  if (!slot_->ifArray()) *slot_ = Value::Array{};
  return UnkeyedEncoder(slot_->ifArray(), {&frame_, {}, 0, coding_detail::PathFrame::none}, ctx_);
}

Value& KeyedEncoder::slot(std::string_view key) {
  for (auto& [k, v] : *dict_) {
    if (k == key) {
      v = Value();
      return v;
    }
  }
  return dict_->emplace_back(std::string(key), Value()).second;
}

Encoder KeyedEncoder::encoderForKey(std::string_view key) {
  Value& v = slot(key);
  return Encoder(&v, {&frame_, key, 0, coding_detail::PathFrame::byKey}, ctx_);
}

Encoder KeyedEncoder::encoderForNewKey(std::string_view key) {
  Value& v = dict_->emplace_back(std::string(key), Value()).second;
  return Encoder(&v, {&frame_, key, 0, coding_detail::PathFrame::byKey}, ctx_);
}

KeyedEncoder KeyedEncoder::nestedKeyed(std::string_view key) {
  Value& v = slot(key);
  v = Value::Dictionary{};
  return KeyedEncoder(v.ifDictionary(), {&frame_, key, 0, coding_detail::PathFrame::byKey}, ctx_);
}

UnkeyedEncoder KeyedEncoder::nestedUnkeyed(std::string_view key) {
  Value& v = slot(key);
  v = Value::Array{};
  return UnkeyedEncoder(v.ifArray(), {&frame_, key, 0, coding_detail::PathFrame::byKey}, ctx_);
}

Encoder UnkeyedEncoder::nextEncoder() {
  const std::size_t i = array_->size();
  Value& v = array_->emplace_back();
  return Encoder(&v, {&frame_, {}, i, coding_detail::PathFrame::byIndex}, ctx_);
}

KeyedEncoder UnkeyedEncoder::nestedKeyed() {
  const std::size_t i = array_->size();
  Value& v = array_->emplace_back(Value::Dictionary{});
  return KeyedEncoder(v.ifDictionary(), {&frame_, {}, i, coding_detail::PathFrame::byIndex}, ctx_);
}

UnkeyedEncoder UnkeyedEncoder::nestedUnkeyed() {
  const std::size_t i = array_->size();
  Value& v = array_->emplace_back(Value::Array{});
  return UnkeyedEncoder(v.ifArray(), {&frame_, {}, i, coding_detail::PathFrame::byIndex}, ctx_);
}

// ---- Decoder containers ----

KeyedDecoder Decoder::keyed() const {
  const Value::Dictionary* dict = node_->ifDictionary();
  if (!dict) typeMismatch("dictionary");
  return KeyedDecoder(dict, {&frame_, {}, 0, coding_detail::PathFrame::none}, ctx_);
}

UnkeyedDecoder Decoder::unkeyed() const {
  const Value::Array* array = node_->ifArray();
  if (!array) typeMismatch("array");
  return UnkeyedDecoder(array, {&frame_, {}, 0, coding_detail::PathFrame::none}, ctx_);
}

std::vector<std::string_view> KeyedDecoder::allKeys() const {
  std::vector<std::string_view> keys;
  keys.reserve(dict_->size());
  for (const auto& entry : *dict_) keys.emplace_back(entry.first);
  return keys;
}

const Value* KeyedDecoder::find(std::string_view key) const noexcept {
  for (const auto& [k, v] : *dict_) {
    if (k == key) return &v;
  }
  return nullptr;
}

void KeyedDecoder::missingKey(std::string_view key) const {
  const coding_detail::PathFrame frame = frameFor(key);
  coding_detail::fail(CodingError::Kind::keyNotFound, &frame, "key not found");
}

KeyedDecoder KeyedDecoder::nestedKeyed(std::string_view key) const {
  const Value* v = find(key);
  if (!v) missingKey(key);
  const coding_detail::PathFrame frame = frameFor(key);
  if (!v->ifDictionary()) coding_detail::typeMismatch(&frame, "dictionary", *v);
  return KeyedDecoder(v->ifDictionary(), frame, ctx_);
}

UnkeyedDecoder KeyedDecoder::nestedUnkeyed(std::string_view key) const {
  const Value* v = find(key);
  if (!v) missingKey(key);
  const coding_detail::PathFrame frame = frameFor(key);
  if (!v->ifArray()) coding_detail::typeMismatch(&frame, "array", *v);
  return UnkeyedDecoder(v->ifArray(), frame, ctx_);
}

Decoder KeyedDecoder::decoderForKey(std::string_view key) const {
  const Value* v = find(key);
  if (!v) missingKey(key);
  return Decoder(v, frameFor(key), ctx_);
}

const Value* UnkeyedDecoder::next() {
  if (isAtEnd()) {
    const coding_detail::PathFrame frame = frameFor(index_);
    coding_detail::fail(CodingError::Kind::valueNotFound, &frame, "unkeyed container is at its end");
  }
  return &(*array_)[index_++];
}

KeyedDecoder UnkeyedDecoder::nestedKeyed() {
  const Value* v = next();
  const coding_detail::PathFrame frame = frameFor(index_ - 1);
  if (!v->ifDictionary()) coding_detail::typeMismatch(&frame, "dictionary", *v);
  return KeyedDecoder(v->ifDictionary(), frame, ctx_);
}

UnkeyedDecoder UnkeyedDecoder::nestedUnkeyed() {
  const Value* v = next();
  const coding_detail::PathFrame frame = frameFor(index_ - 1);
  if (!v->ifArray()) coding_detail::typeMismatch(&frame, "array", *v);
  return UnkeyedDecoder(v->ifArray(), frame, ctx_);
}

}  // namespace kp
