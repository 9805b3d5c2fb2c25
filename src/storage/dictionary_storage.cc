// Keyed storage in a synchronised map.
#include "kp/storage/dictionary_storage.h"

#include <limits>
#include <type_traits>

namespace kp {
namespace {

// Text literals arrive as pointers; keep the text, not a pointer that may dangle.
std::any normalised(std::any value) {
  if (const auto* s = std::any_cast<const char*>(&value); s && *s) return std::string(*s);
  if (const auto* s = std::any_cast<char*>(&value); s && *s) return std::string(*s);
  if (const auto* s = std::any_cast<std::string_view>(&value)) return std::string(*s);
  return value;
}

template <class I>
bool readInteger(const std::any& value, std::int64_t& out) {
  const I* i = std::any_cast<I>(&value);
  if (!i) return false;
  if constexpr (std::is_unsigned_v<I> && sizeof(I) >= sizeof(std::int64_t)) {
    if (*i > static_cast<I>(std::numeric_limits<std::int64_t>::max())) return false;
  }
  out = static_cast<std::int64_t>(*i);
  return true;
}

// Any integer type counts as an integer; booleans, reals and text do not.
std::int64_t integerOf(const std::any& value) {
  std::int64_t out = 0;
  (readInteger<std::int64_t>(value, out) || readInteger<int>(value, out) || readInteger<long>(value, out) ||
   readInteger<long long>(value, out) || readInteger<unsigned>(value, out) || readInteger<unsigned long>(value, out) ||
   readInteger<unsigned long long>(value, out) || readInteger<short>(value, out) ||
   readInteger<unsigned short>(value, out));
  return out;
}

template <class T>
T exactly(const std::any* value, T fallback) {
  if (value == nullptr) return fallback;
  const T* v = std::any_cast<T>(value);
  return v ? *v : fallback;
}

}  // namespace

DictionaryStorage::DictionaryStorage(Content content)
    : content_(std::move(content), "com.kp.storage.DictionaryStorage") {}

void DictionaryStorage::setObject(std::optional<std::any> value, std::string_view key) {
  if (!value || !value->has_value()) return removeObject(key);
  std::any stored = normalised(std::move(*value));
  content_.modify([&](Content& map) { map.insert_or_assign(std::string(key), std::move(stored)); });
}

void DictionaryStorage::setInteger(std::int64_t value, std::string_view key) { setObject(std::any(value), key); }
void DictionaryStorage::setFloat(float value, std::string_view key) { setObject(std::any(value), key); }
void DictionaryStorage::setDouble(double value, std::string_view key) { setObject(std::any(value), key); }
void DictionaryStorage::setBool(bool value, std::string_view key) { setObject(std::any(value), key); }

void DictionaryStorage::removeObject(std::string_view key) {
  content_.modify([&](Content& map) {
    if (auto it = map.find(key); it != map.end()) map.erase(it);
  });
}

std::optional<std::any> DictionaryStorage::object(std::string_view key) const {
  return content_.read([&](const Content& map) -> std::optional<std::any> {
    auto it = map.find(key);
    if (it == map.end()) return std::nullopt;
    return it->second;
  });
}

std::optional<std::string> DictionaryStorage::string(std::string_view key) const {
  return content_.read([&](const Content& map) -> std::optional<std::string> {
    auto it = map.find(key);
    if (it == map.end()) return std::nullopt;
    if (const auto* s = std::any_cast<std::string>(&it->second)) return *s;
    return std::nullopt;
  });
}

std::int64_t DictionaryStorage::integer(std::string_view key) const {
  return content_.read([&](const Content& map) -> std::int64_t {
    auto it = map.find(key);
    return it == map.end() ? 0 : integerOf(it->second);
  });
}

float DictionaryStorage::float_(std::string_view key) const {
  return content_.read([&](const Content& map) {
    auto it = map.find(key);
    return exactly<float>(it == map.end() ? nullptr : &it->second, 0.0F);
  });
}

double DictionaryStorage::double_(std::string_view key) const {
  return content_.read([&](const Content& map) {
    auto it = map.find(key);
    return exactly<double>(it == map.end() ? nullptr : &it->second, 0.0);
  });
}

bool DictionaryStorage::bool_(std::string_view key) const {
  return content_.read([&](const Content& map) {
    auto it = map.find(key);
    return exactly<bool>(it == map.end() ? nullptr : &it->second, false);
  });
}

}  // namespace kp
