// kp::StringMap<T>: a hash map from text to T that finds entries by std::string_view without
// making a std::string first (heterogeneous lookup).
//
// Thread safety: as std::unordered_map.
//
// Example:
//   kp::StringMap<int> counts;
//   counts.emplace("units", 1);
//   auto it = counts.find(std::string_view("units"));
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "kp/platform/export.h"

namespace kp {

// Hashes keys of any string type alike, so that lookups take string views.
struct KP_EXPORT StringHash {
  // Lookups with other key types.
  using is_transparent = void;
  // The key's hash.
  std::size_t operator()(std::string_view key) const noexcept { return std::hash<std::string_view>{}(key); }
};

// A map with string keys that string views look up.
template <class T>
using StringMap = std::unordered_map<std::string, T, StringHash, std::equal_to<>>;

}  // namespace kp
