// kp::OrderedSet: unique elements kept in the order they were inserted, with constant-time
// membership, position lookup and index access (a random-access sequence and a hash index over
// the same nodes, from Boost.MultiIndex). Elements are immutable in place, as in any set;
// replace() swaps one for another.
//
// Costs: insert, contains, indexOf and elementAt are O(1) (insert amortised); erasing or
// inserting anywhere but at the end shifts the positions after it, O(n).
//
// Thread safety: a value type; concurrent const use is safe, any change needs external
// synchronisation.
//
// Example:
//   kp::OrderedSet<std::string> places{"Bern", "Oslo"};
//   places.insert("Bern");                                      // false: already there
//   places.insert("Lima");                                      // true, now at index 2
//   if (const std::string* p = places.elementAt(row)) show(*p); // nothing for row -1 or 3
//   std::optional<std::size_t> i = places.indexOf("Oslo");      // 1
#pragma once

#include <algorithm>
#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/identity.hpp>
#include <boost/multi_index/random_access_index.hpp>
#include <boost/multi_index_container.hpp>
#include <concepts>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <utility>

#include "kp/foundation/safe_access.h"

namespace kp {

template <class T, class Hash = std::hash<T>, class Equal = std::equal_to<T>>
class OrderedSet {
  struct InOrder {};
  struct ByValue {};
  using Container = boost::multi_index_container<
      T,
      boost::multi_index::indexed_by<boost::multi_index::random_access<boost::multi_index::tag<InOrder>>,
                                     boost::multi_index::hashed_unique<boost::multi_index::tag<ByValue>,
                                                                       boost::multi_index::identity<T>, Hash, Equal>>>;
  using Sequence = typename Container::template index<InOrder>::type;

 public:
  using value_type = T;                                      // an element
  using size_type = std::size_t;                             // a count or an index
  using difference_type = std::ptrdiff_t;                    // a distance between positions
  using reference = const T&;                                // elements are read-only
  using const_reference = const T&;                          // elements are read-only
  using const_iterator = typename Sequence::const_iterator;  // in order
  using iterator = const_iterator;                           // elements are read-only

  OrderedSet() = default;
  // Later duplicates are dropped.
  OrderedSet(std::initializer_list<T> values) { insert(values.begin(), values.end()); }
  // The elements from `first` to `last`; later duplicates are dropped.
  template <std::input_iterator It, std::sentinel_for<It> S>
  OrderedSet(It first, S last) {
    insert(std::move(first), std::move(last));
  }

  // Appends `value` unless it is already present; true when it was added.
  bool insert(T value) { return sequence().push_back(std::move(value)).second; }
  // Appends each element from `first` to `last` that is not present yet.
  template <std::input_iterator It, std::sentinel_for<It> S>
  void insert(It first, S last) {
    for (; first != last; ++first) insert(T(*first));
  }
  // Puts `value` before the element at `index` (at the end for index == size()) unless it is
  // already present or `index` is past the end; true when it was added.
  bool insertAt(size_type index, T value) {
    if (index > size()) return false;
    return sequence().insert(sequence().begin() + static_cast<difference_type>(index), std::move(value)).second;
  }
  // Replaces the element at `index` by `value`; false (and no change) when `index` is past the
  // end or `value` is present at another index.
  bool replaceAt(size_type index, T value) {
    if (index >= size()) return false;
    return sequence().replace(sequence().begin() + static_cast<difference_type>(index), std::move(value));
  }

  // Removes `value`; true when it was present.
  bool erase(const T& value) { return byValue().erase(value) > 0; }
  // Removes the element at `index`; false when there is none.
  bool eraseAt(size_type index) {
    if (index >= size()) return false;
    sequence().erase(sequence().begin() + static_cast<difference_type>(index));
    return true;
  }
  void clear() noexcept { elements_.clear(); }                  // removes every element
  void reserve(size_type count) { sequence().reserve(count); }  // room for `count` elements

  // True when `value` is present.
  [[nodiscard]] bool contains(const T& value) const { return byValue().find(value) != byValue().end(); }
  // The position of `value`, or nothing.
  [[nodiscard]] std::optional<size_type> indexOf(const T& value) const {
    const auto found = byValue().find(value);
    if (found == byValue().end()) return std::nullopt;
    return static_cast<size_type>(elements_.template project<InOrder>(found) - sequence().begin());
  }
  // The element at `index`, or null for a negative index or one past the end.
  template <std::integral I>
  [[nodiscard]] const T* elementAt(I index) const noexcept {
    return detail::indexInRange(index, size()) ? &sequence()[static_cast<size_type>(index)] : nullptr;
  }
  // The element at `index`, which must be below size().
  [[nodiscard]] const T& operator[](size_type index) const noexcept { return sequence()[index]; }
  // The first element; null when empty.
  [[nodiscard]] const T* first() const noexcept { return empty() ? nullptr : &sequence().front(); }
  // The last element; null when empty.
  [[nodiscard]] const T* last() const noexcept { return empty() ? nullptr : &sequence().back(); }

  [[nodiscard]] size_type size() const noexcept { return elements_.size(); }          // the number of elements
  [[nodiscard]] bool empty() const noexcept { return elements_.empty(); }             // no elements
  [[nodiscard]] const_iterator begin() const noexcept { return sequence().begin(); }  // the first element
  [[nodiscard]] const_iterator end() const noexcept { return sequence().end(); }      // past the last element

  // Equal when they hold the same elements in the same order.
  friend bool operator==(const OrderedSet& a, const OrderedSet& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), Equal());
  }

 private:
  [[nodiscard]] Sequence& sequence() noexcept { return elements_.template get<InOrder>(); }
  [[nodiscard]] const Sequence& sequence() const noexcept { return elements_.template get<InOrder>(); }
  [[nodiscard]] auto& byValue() noexcept { return elements_.template get<ByValue>(); }
  [[nodiscard]] const auto& byValue() const noexcept { return elements_.template get<ByValue>(); }

  Container elements_;
};

}  // namespace kp
