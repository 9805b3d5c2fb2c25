// kp::OrderedSet: unique elements kept in the order they were inserted, with constant-time
// membership, position lookup and index access. Each element lives in a node of its own that
// records its position; a vector of the nodes gives the order and an open-addressing hash
// table over them the lookup. Elements are immutable in place, as in any set; replaceAt()
// swaps one for another.
//
// Costs: insert, contains, indexOf and elementAt are O(1) (insert amortised); erasing or
// inserting anywhere but at the end shifts the positions after it, O(n).
//
// Validity: a pointer or reference to an element (from elementAt, first, last, operator[] or an
// iterator) stays valid until that element is erased or replaced, whatever else changes.
// Iterators are a vector's: an insertion or erasure invalidates them.
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
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "kp/foundation/safe_access.h"

namespace kp {

template <class T, class Hash = std::hash<T>, class Equal = std::equal_to<T>>
class OrderedSet {
  // An element in a node of its own, so that its address outlives any reordering.
  struct Node {
    Node(T v, std::size_t h) : value(std::move(v)), hash(h) {}
    T value;
    std::size_t hash;          // of value, kept for growing the table
    std::size_t position = 0;  // where it stands in order_
  };
  // A place in the hash table: empty when `node` is null.
  struct Slot {
    std::size_t hash = 0;
    Node* node = nullptr;
  };
  using Order = std::vector<std::unique_ptr<Node>>;
  static constexpr bool kNothrowCopyFunctions =
      std::is_nothrow_copy_constructible_v<Hash> && std::is_nothrow_copy_constructible_v<Equal> &&
      std::is_nothrow_copy_assignable_v<Hash> && std::is_nothrow_copy_assignable_v<Equal>;

 public:
  using value_type = T;                    // an element
  using size_type = std::size_t;           // a count or an index
  using difference_type = std::ptrdiff_t;  // a distance between positions
  using reference = const T&;              // elements are read-only
  using const_reference = const T&;        // elements are read-only

  // Walks the elements in order; random access.
  class const_iterator {
   public:
    using iterator_concept = std::random_access_iterator_tag;   // random access
    using iterator_category = std::random_access_iterator_tag;  // random access
    using value_type = T;                                       // an element
    using difference_type = std::ptrdiff_t;                     // a distance between positions
    using pointer = const T*;                                   // to a read-only element
    using reference = const T&;                                 // a read-only element

    const_iterator() = default;
    reference operator*() const noexcept { return (*at_)->value; }                    // the element
    pointer operator->() const noexcept { return &(*at_)->value; }                    // the element
    reference operator[](difference_type n) const noexcept { return at_[n]->value; }  // `n` further on
    const_iterator& operator++() noexcept {                                           // the next element
      ++at_;
      return *this;
    }
    const_iterator operator++(int) noexcept {  // the next element; returns this one
      const_iterator before = *this;
      ++at_;
      return before;
    }
    const_iterator& operator--() noexcept {  // the element before
      --at_;
      return *this;
    }
    const_iterator operator--(int) noexcept {  // the element before; returns this one
      const_iterator before = *this;
      --at_;
      return before;
    }
    const_iterator& operator+=(difference_type n) noexcept {  // `n` elements on
      at_ += n;
      return *this;
    }
    const_iterator& operator-=(difference_type n) noexcept {  // `n` elements back
      at_ -= n;
      return *this;
    }
    // `n` elements after `i`.
    friend const_iterator operator+(const_iterator i, difference_type n) noexcept { return i += n; }
    // `n` elements after `i`.
    friend const_iterator operator+(difference_type n, const_iterator i) noexcept { return i += n; }
    // `n` elements before `i`.
    friend const_iterator operator-(const_iterator i, difference_type n) noexcept { return i -= n; }
    // How many elements lie from `b` to `a`.
    friend difference_type operator-(const const_iterator& a, const const_iterator& b) noexcept {
      return a.at_ - b.at_;
    }
    // The same position.
    friend bool operator==(const const_iterator& a, const const_iterator& b) noexcept { return a.at_ == b.at_; }
    // Positions in order.
    friend std::strong_ordering operator<=>(const const_iterator& a, const const_iterator& b) noexcept {
      return a.at_ <=> b.at_;
    }

   private:
    friend class OrderedSet;
    explicit const_iterator(typename Order::const_iterator at) noexcept : at_(at) {}
    typename Order::const_iterator at_{};
  };
  using iterator = const_iterator;  // elements are read-only

  OrderedSet() = default;
  // Later duplicates are dropped.
  OrderedSet(std::initializer_list<T> values) { insert(values.begin(), values.end()); }
  // The elements from `first` to `last`; later duplicates are dropped.
  template <std::input_iterator It, std::sentinel_for<It> S>
  OrderedSet(It first, S last) {
    insert(std::move(first), std::move(last));
  }
  // A copy, in the same order.
  OrderedSet(const OrderedSet& other) : hash_(other.hash_), equal_(other.equal_) {
    reserve(other.size());
    for (const auto& node : other.order_) add(order_.size(), T(node->value), node->hash);
  }
  // The elements of `other`, which is left empty.
  OrderedSet(OrderedSet&& other) noexcept(kNothrowCopyFunctions)
      : order_(std::move(other.order_)),
        slots_(std::move(other.slots_)),
        shift_(other.shift_),
        hash_(other.hash_),
        equal_(other.equal_) {
    other.forget();
  }
  // A copy of `other`, in the same order.
  OrderedSet& operator=(const OrderedSet& other) {
    if (this != &other) *this = OrderedSet(other);
    return *this;
  }
  // The elements of `other`, which is left empty.
  OrderedSet& operator=(OrderedSet&& other) noexcept(kNothrowCopyFunctions) {
    if (this != &other) {
      // The nodes stay where they are, so the table's pointers to them stay right.
      order_ = std::move(other.order_);
      slots_ = std::move(other.slots_);
      shift_ = other.shift_;
      hash_ = other.hash_;
      equal_ = other.equal_;
      other.forget();
    }
    return *this;
  }
  ~OrderedSet() = default;

  // Appends `value` unless it is already present; true when it was added.
  bool insert(T value) { return insertAt(size(), std::move(value)); }
  // Appends each element from `first` to `last` that is not present yet.
  template <std::input_iterator It, std::sentinel_for<It> S>
  void insert(It first, S last) {
    for (; first != last; ++first) insert(T(*first));
  }
  // Puts `value` before the element at `index` (at the end for index == size()) unless it is
  // already present or `index` is past the end; true when it was added.
  bool insertAt(size_type index, T value) {
    if (index > size()) return false;
    const std::size_t hash = hash_(value);
    if (find(value, hash) != nullptr) return false;
    add(index, std::move(value), hash);
    return true;
  }
  // Replaces the element at `index` by `value`; false (and no change) when `index` is past the
  // end or `value` is present at another index. A value equal to the element there leaves
  // that element in place.
  bool replaceAt(size_type index, T value) {
    if (index >= size()) return false;
    const std::size_t hash = hash_(value);
    if (const Node* present = find(value, hash)) return present->position == index;
    auto node = std::make_unique<Node>(std::move(value), hash);
    // Nothing below throws: the table keeps its size.
    unlink(order_[index].get());
    node->position = index;
    link(node.get());
    order_[index] = std::move(node);
    return true;
  }

  // Removes `value`; true when it was present.
  bool erase(const T& value) {
    const Node* node = find(value, hash_(value));
    if (node == nullptr) return false;
    return eraseAt(node->position);
  }
  // Removes the element at `index`; false when there is none.
  bool eraseAt(size_type index) {
    if (index >= size()) return false;
    unlink(order_[index].get());
    order_.erase(order_.begin() + static_cast<difference_type>(index));
    renumberFrom(index);
    return true;
  }
  // Removes every element.
  void clear() noexcept {
    order_.clear();
    std::fill(slots_.begin(), slots_.end(), Slot{});
  }
  // Room for `count` elements.
  void reserve(size_type count) {
    order_.reserve(count);
    if (count > capacity()) grow(count);
  }

  // True when `value` is present.
  [[nodiscard]] bool contains(const T& value) const { return find(value, hash_(value)) != nullptr; }
  // The position of `value`, or nothing.
  [[nodiscard]] std::optional<size_type> indexOf(const T& value) const {
    const Node* node = find(value, hash_(value));
    if (node == nullptr) return std::nullopt;
    return node->position;
  }
  // The element at `index`, or null for a negative index or one past the end.
  template <std::integral I>
  [[nodiscard]] const T* elementAt(I index) const noexcept {
    return detail::indexInRange(index, size()) ? &order_[static_cast<size_type>(index)]->value : nullptr;
  }
  // The element at `index`, which must be below size().
  [[nodiscard]] const T& operator[](size_type index) const noexcept { return order_[index]->value; }
  // The first element; null when empty.
  [[nodiscard]] const T* first() const noexcept { return empty() ? nullptr : &order_.front()->value; }
  // The last element; null when empty.
  [[nodiscard]] const T* last() const noexcept { return empty() ? nullptr : &order_.back()->value; }

  [[nodiscard]] size_type size() const noexcept { return order_.size(); }  // the number of elements
  [[nodiscard]] bool empty() const noexcept { return order_.empty(); }     // no elements
  // The first element.
  [[nodiscard]] const_iterator begin() const noexcept { return const_iterator(order_.begin()); }
  // Past the last element.
  [[nodiscard]] const_iterator end() const noexcept { return const_iterator(order_.end()); }

  // Equal when they hold the same elements in the same order.
  friend bool operator==(const OrderedSet& a, const OrderedSet& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), Equal());
  }

 private:
  // The table is open addressing with linear probing, at most half full, its size a power of two.
  static constexpr std::size_t kFirstSlots = 8;

  // How many elements the table takes before it grows.
  [[nodiscard]] std::size_t capacity() const noexcept { return slots_.size() / 2; }
  // Where the search for `hash` starts: its top bits after mixing, which spreads weak hashes
  // (std::hash of an integer is the integer) over the table.
  [[nodiscard]] std::size_t home(std::size_t hash) const noexcept {
    return static_cast<std::size_t>((static_cast<std::uint64_t>(hash) * 0x9E3779B97F4A7C15ULL) >> shift_);
  }
  [[nodiscard]] std::size_t next(std::size_t slot) const noexcept { return (slot + 1) & (slots_.size() - 1); }

  [[nodiscard]] const Node* find(const T& value, std::size_t hash) const {
    if (slots_.empty()) return nullptr;
    for (std::size_t slot = home(hash);; slot = next(slot)) {
      const Slot& at = slots_[slot];
      if (at.node == nullptr) return nullptr;
      if (at.hash == hash && equal_(at.node->value, value)) return at.node;
    }
  }
  // Adds a new element at `index`. Whatever throws leaves the set as it was.
  void add(size_type index, T value, std::size_t hash) {
    if (size() + 1 > capacity()) grow(size() + 1);
    auto node = std::make_unique<Node>(std::move(value), hash);
    Node* added = node.get();
    order_.insert(order_.begin() + static_cast<difference_type>(index), std::move(node));
    link(added);
    renumberFrom(index);
  }
  // A table for `count` elements, with the present ones in it.
  void grow(std::size_t count) {
    std::size_t slots = kFirstSlots;
    while (slots / 2 < count) slots *= 2;
    std::vector<Slot> fresh(slots);
    slots_.swap(fresh);
    shift_ = 64;
    for (std::size_t s = slots; s > 1; s /= 2) --shift_;
    for (const auto& node : order_) link(node.get());
  }
  // Puts `node` into the first free slot from its home; the table has room.
  void link(Node* node) noexcept {
    std::size_t slot = home(node->hash);
    while (slots_[slot].node != nullptr) slot = next(slot);
    slots_[slot] = Slot{node->hash, node};
  }
  // Takes `node` out of the table and moves later entries of its run back, so that no search
  // stops early at the gap.
  void unlink(const Node* node) noexcept {
    std::size_t gap = home(node->hash);
    while (slots_[gap].node != node) gap = next(gap);
    for (std::size_t slot = next(gap); slots_[slot].node != nullptr; slot = next(slot)) {
      const std::size_t wanted = home(slots_[slot].hash);
      // An entry may fill the gap unless its home lies after the gap, up to where it is.
      const bool homeAfterGap = gap <= slot ? (gap < wanted && wanted <= slot) : (gap < wanted || wanted <= slot);
      if (homeAfterGap) continue;
      slots_[gap] = slots_[slot];
      gap = slot;
    }
    slots_[gap] = Slot{};
  }
  // Gives the elements from `index` on their positions again, after a change before them.
  void renumberFrom(size_type index) noexcept {
    for (; index < order_.size(); ++index) order_[index]->position = index;
  }
  // Empty, after the elements moved to another set.
  void forget() noexcept {
    order_.clear();
    slots_.clear();
    shift_ = 64;
  }

  Order order_;
  std::vector<Slot> slots_;
  int shift_ = 64;  // 64 - log2(slots_.size())
  [[no_unique_address]] Hash hash_;
  [[no_unique_address]] Equal equal_;
};

}  // namespace kp
