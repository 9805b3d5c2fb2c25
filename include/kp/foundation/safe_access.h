// Safe access to containers: an element at an index, the first and last element, a value by
// key and membership, each giving nothing (a null pointer or false) where the plain operation
// would be undefined or throw. A found element comes back as a pointer into the container, so
// the access costs what a bounds-checked operator[] costs and copies nothing; the pointer is
// valid as long as the element is.
//
// Thread safety: as the container's own const (or non-const) operations.
//
// Example:
//   std::vector<Forecast> days = ...;
//   if (const Forecast* today = kp::elementAt(days, row)) show(*today);   // row may be -1
//   std::map<std::string, int, std::less<>> counts = ...;
//   int n = kp::valueOr(counts, "rain", 0);
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <iterator>
#include <memory>
#include <ranges>
#include <type_traits>
#include <utility>

namespace kp {

namespace detail {

// True when `index` names an element of a sequence of `size` elements. Negative indexes never
// do; the comparison is made without converting a negative number to a huge unsigned one.
template <std::integral I>
[[nodiscard]] constexpr bool indexInRange(I index, std::size_t size) noexcept {
  if constexpr (std::is_signed_v<I>) {
    if (index < 0) return false;
  }
  return static_cast<std::make_unsigned_t<I>>(index) < size;
}

// Sequences whose elements are objects of their own (not proxies such as vector<bool>'s), so
// that a pointer to one can be handed out.
template <class R>
concept ElementSequence = std::ranges::random_access_range<R> && std::ranges::sized_range<R> &&
    std::is_lvalue_reference_v<std::ranges::range_reference_t<R>>;

template <class P>
constexpr void assumeNotNull(P pointer) noexcept {
#if defined(__GNUC__) || defined(__clang__)
  if (pointer == nullptr) __builtin_unreachable();
#else
  (void)pointer;
#endif
}

template <class M, class K>
concept FindsKey = requires(M& map, const K& key) {
  map.find(key);
};

}  // namespace detail

// The element at `index`, or null when `index` is negative or not below the size.
template <class Seq, std::integral I>
requires detail::ElementSequence<Seq&>
[[nodiscard]] constexpr auto elementAt(Seq& sequence, I index) noexcept {
  using Pointer = std::add_pointer_t<std::ranges::range_reference_t<Seq&>>;
  if (!detail::indexInRange(index, std::ranges::size(sequence))) [[unlikely]] {
    return Pointer(nullptr);
  }
  Pointer element =
      std::addressof(std::ranges::begin(sequence)[static_cast<std::ranges::range_difference_t<Seq&>>(index)]);
  // An element's address is never null; saying so lets the caller's null test fold into the
  // bounds check, so that the access costs what at() costs.
  detail::assumeNotNull(element);
  return element;
}

// The first element, or null for an empty range.
template <std::ranges::forward_range R>
requires std::is_lvalue_reference_v<std::ranges::range_reference_t<R&>>
[[nodiscard]] constexpr auto firstElement(R& range) noexcept {
  using Pointer = std::add_pointer_t<std::ranges::range_reference_t<R&>>;
  auto it = std::ranges::begin(range);
  return it == std::ranges::end(range) ? Pointer(nullptr) : std::addressof(*it);
}

// The last element, or null for an empty range.
template <std::ranges::bidirectional_range R>
requires std::ranges::common_range<R&> && std::is_lvalue_reference_v<std::ranges::range_reference_t<R&>>
[[nodiscard]] constexpr auto lastElement(R& range) noexcept {
  using Pointer = std::add_pointer_t<std::ranges::range_reference_t<R&>>;
  auto first = std::ranges::begin(range);
  auto end = std::ranges::end(range);
  return first == end ? Pointer(nullptr) : std::addressof(*std::ranges::prev(end));
}

// The value stored under `key` in a map (anything with find() yielding key-value pairs), or
// null. A key of another type is looked up as it is when the map allows that (a transparent
// comparator or hash), otherwise converted to the map's key type first.
template <class Map, class K>
requires detail::FindsKey<Map, K> || std::constructible_from<typename Map::key_type, const K&>
[[nodiscard]] auto valueForKey(Map& map, const K& key) {
  auto found = [&] {
    if constexpr (detail::FindsKey<Map, K>) {
      return map.find(key);
    } else {
      return map.find(typename Map::key_type(key));
    }
  }();
  using Pointer = decltype(std::addressof(found->second));
  return found == map.end() ? Pointer(nullptr) : std::addressof(found->second);
}

// The value under `key`, or `fallback` (a copy either way).
template <class Map, class K, class V>
[[nodiscard]] auto valueOr(const Map& map, const K& key, V&& fallback) {
  using Mapped = std::remove_cvref_t<decltype(*valueForKey(map, key))>;
  const auto* found = valueForKey(map, key);
  return found ? Mapped(*found) : Mapped(std::forward<V>(fallback));
}

// Whether `container` holds `value`: a set's (or map's) own lookup where it has one, else a
// linear search of the range.
template <class C, class V>
[[nodiscard]] constexpr bool contains(const C& container, const V& value) {
  if constexpr (requires { container.contains(value); }) {
    return container.contains(value);
  } else if constexpr (requires { container.find(value) != container.end(); }) {
    return container.find(value) != container.end();
  } else {
    return std::ranges::find(container, value) != std::ranges::end(container);
  }
}

}  // namespace kp
