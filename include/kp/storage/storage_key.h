// Keys of keyed storage.
//
//   kp::StorageKey<K>: an application-defined key type that supplies the text it is stored
//     under, either as a member `key()` or as a free `storageKey(k)` found next to the type
//     (the form enums need). Equal keys must give equal text; nothing is prefixed to it.
//   kp::StorageKeyHash<K>: hashes a key by that text, for maps keyed by StorageKey types.
//   kp::DescribableKey<K> and describeKey(): any value with a textual description (text,
//     numbers, a `description()` member, or a stream operator) used as a key.
//
// Thread safety: pure functions of the key.
//
// Example:
//   enum class Setting { units, launchCount };
//   std::string_view storageKey(Setting s) { return s == Setting::units ? "units" : "launchCount"; }
//   static_assert(kp::StorageKey<Setting>);
//   kp::describeKey(42);   // "42"
#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

namespace kp {

namespace storage_detail {
template <class K>
concept HasKeyMember = requires(const K& k) {
  { k.key() } -> std::convertible_to<std::string_view>;
};
template <class K>
concept HasKeyFunction = requires(const K& k) {
  { storageKey(k) } -> std::convertible_to<std::string_view>;
};
}  // namespace storage_detail

template <class K>
concept StorageKey = std::equality_comparable<K> &&
    (storage_detail::HasKeyMember<K> || storage_detail::HasKeyFunction<K>);

// The stored text of `key`, as the key type returns it (bind it to a const reference, or use
// it within the expression, when the type returns a temporary).
template <StorageKey K>
[[nodiscard]] decltype(auto) storageKeyText(const K& key) {
  if constexpr (storage_detail::HasKeyMember<K>) {
    return key.key();
  } else {
    return storageKey(key);
  }
}

// Hashes storage keys by their text.
template <StorageKey K>
struct StorageKeyHash {
  // The hash of the key's text.
  std::size_t operator()(const K& key) const {
    const auto& text = storageKeyText(key);
    return std::hash<std::string_view>{}(std::string_view(text));
  }
};

namespace storage_detail {
template <class K>
concept HasDescription = requires(const K& k) {
  { k.description() } -> std::convertible_to<std::string>;
};
template <class K>
concept Streamable = requires(std::ostream& out, const K& k) {
  out << k;
};
}  // namespace storage_detail

template <class K>
concept DescribableKey = std::convertible_to<const K&, std::string_view> || std::is_arithmetic_v<K> ||
    storage_detail::HasDescription<K> || storage_detail::Streamable<K>;

// The textual description of `key`: text as it is, numbers in decimal ("true"/"false" for
// booleans), else its description() or what its stream operator writes.
template <DescribableKey K>
[[nodiscard]] std::string describeKey(const K& key) {
  if constexpr (std::convertible_to<const K&, std::string_view>) {
    return std::string(std::string_view(key));
  } else if constexpr (std::is_same_v<K, bool>) {
    return key ? "true" : "false";
  } else if constexpr (std::is_arithmetic_v<K>) {
    std::ostringstream out;
    out << +key;
    return out.str();
  } else if constexpr (storage_detail::HasDescription<K>) {
    return std::string(key.description());
  } else {
    std::ostringstream out;
    out << key;
    return out.str();
  }
}

}  // namespace kp
