// The coded value tree: copying and comparing its boxed nodes.
#include "kp/coding/value.h"

#include <stdexcept>

namespace kp {

namespace {
template <class T>
std::unique_ptr<T> cloneBox(const std::unique_ptr<T>& box) {
  return box ? std::make_unique<T>(*box) : std::make_unique<T>();
}
}  // namespace

Value::Value(const Value& other) {
  std::visit(
      [this](const auto& held) {
        using T = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<T, std::unique_ptr<Array>> || std::is_same_v<T, std::unique_ptr<Dictionary>>) {
          v_ = cloneBox(held);
        } else {
          v_ = held;
        }
      },
      other.v_);
}

Value& Value::operator=(const Value& other) {
  if (this != &other) *this = Value(other);
  return *this;
}

const Value::Array* Value::ifArray() const noexcept {
  auto* box = std::get_if<std::unique_ptr<Array>>(&v_);
  return box ? box->get() : nullptr;
}
const Value::Dictionary* Value::ifDictionary() const noexcept {
  auto* box = std::get_if<std::unique_ptr<Dictionary>>(&v_);
  return box ? box->get() : nullptr;
}
Value::Array* Value::ifArray() noexcept {
  auto* box = std::get_if<std::unique_ptr<Array>>(&v_);
  return box ? box->get() : nullptr;
}
Value::Dictionary* Value::ifDictionary() noexcept {
  auto* box = std::get_if<std::unique_ptr<Dictionary>>(&v_);
  return box ? box->get() : nullptr;
}

const Value* Value::find(std::string_view key) const noexcept {
  if (const Dictionary* d = ifDictionary()) {
    for (const auto& [k, v] : *d) {
      if (k == key) return &v;
    }
  }
  return nullptr;
}

void Value::set(std::string_view key, Value value) {
  if (isNull()) v_ = std::make_unique<Dictionary>();
  Dictionary* d = ifDictionary();
  if (!d) throw std::logic_error("Value::set on a value that is not a dictionary");
  for (auto& [k, v] : *d) {
    if (k == key) {
      v = std::move(value);
      return;
    }
  }
  d->emplace_back(std::string(key), std::move(value));
}

void Value::append(Value value) {
  if (isNull()) v_ = std::make_unique<Array>();
  Array* a = ifArray();
  if (!a) throw std::logic_error("Value::append on a value that is not an array");
  a->push_back(std::move(value));
}

std::string_view Value::typeName(Type type) noexcept {
  switch (type) {
    case Type::null:
      return "null";
    case Type::boolean:
      return "boolean";
    case Type::integer:
    case Type::unsignedInteger:
      return "integer";
    case Type::real:
      return "real";
    case Type::string:
      return "string";
    case Type::data:
      return "data";
    case Type::date:
      return "date";
    case Type::uid:
      return "uid";
    case Type::array:
      return "array";
    case Type::dictionary:
      return "dictionary";
  }
  return "unknown";
}

bool operator==(const Value& a, const Value& b) {
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case Value::Type::null:
      return true;
    case Value::Type::array:
      return *a.ifArray() == *b.ifArray();
    case Value::Type::dictionary:
      return *a.ifDictionary() == *b.ifDictionary();
    default:
      return a.v_ == b.v_;
  }
}

}  // namespace kp
