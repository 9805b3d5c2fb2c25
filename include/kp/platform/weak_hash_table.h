// kp::WeakHashTable<T>: a lock-guarded set of weak references in insertion order, used for
// delegate and observer lists. An element that goes away simply drops out.
//
// Thread safety: every member may be called from any thread. Iteration works on a snapshot
// of the live elements, so callbacks may add or remove elements while it runs.
//
// Example:
//   kp::WeakHashTable<Delegate> delegates;
//   delegates.add(delegate);            // a std::shared_ptr<Delegate>
//   for (auto& d : delegates.allObjects()) d->changed();
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace kp {

template <class T>
class WeakHashTable {
 public:
  // Drops the entries whose element is gone, then appends `element` unless the identical
  // object is already present.
  void add(const std::shared_ptr<T>& element) {
    if (!element) return;
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [](const Entry& e) { return e.weak.expired(); });
    for (const Entry& e : entries_) {
      if (e.address == element.get()) return;
    }
    entries_.push_back(Entry{element, element.get()});
  }

  // Removes the entry that refers to the identical object.
  void remove(const T* element) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [element](const Entry& e) { return e.address == element; });
  }
  // Removes `element`, if present.
  void remove(const std::shared_ptr<T>& element) { remove(element.get()); }

  // The live elements, in insertion order.
  [[nodiscard]] std::vector<std::shared_ptr<T>> allObjects() const {
    std::vector<std::shared_ptr<T>> live;
    std::lock_guard lock(mutex_);
    live.reserve(entries_.size());
    for (const Entry& e : entries_) {
      if (auto strong = e.weak.lock()) live.push_back(std::move(strong));
    }
    return live;
  }

  // Calls `f` with each live element.
  template <class F>
  void forEach(F&& f) const {
    for (const auto& element : allObjects()) f(element);
  }

  // The number of live elements.
  [[nodiscard]] std::size_t count() const { return allObjects().size(); }
  // Whether `element` is present and alive.
  [[nodiscard]] bool contains(const T* element) const {
    std::lock_guard lock(mutex_);
    return std::any_of(entries_.begin(), entries_.end(),
                       [element](const Entry& e) { return e.address == element && !e.weak.expired(); });
  }

 private:
  struct Entry {
    std::weak_ptr<T> weak;
    // Identity of the element: compared, never dereferenced.
    const T* address;
  };
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;  // guarded by mutex_
};

}  // namespace kp
