// Task-local values: a value bound for the duration of one operation on the current thread,
// and carried by the library's executors into work posted while the binding holds.
//
// Work posted with DispatchQueue::async() captures the poster's bindings (a snapshot) and
// runs under them; work handed to threads the library does not manage sees no binding.
//
// Thread safety: a TaskLocal may be read and bound from any thread; each thread sees its
// own binding. Snapshots are immutable and may be shared between threads.
//
// Example:
//   kp::TaskLocal<Config> currentConfig([] { return std::make_shared<Config>(); });
//   currentConfig.withValue(std::make_shared<Config>(test), [&] {
//     queue->async([&] { currentConfig.get(); /* sees `test` */ });
//   });
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

#include "kp/platform/export.h"

namespace kp {

// An immutable chain of bindings; the innermost binding of a key wins.
class KP_EXPORT TaskLocalBindings {
 public:
  // Binds `value` to `key` in front of `outer`.
  TaskLocalBindings(const void* key, std::shared_ptr<void> value, std::shared_ptr<const TaskLocalBindings> outer)
      : key_(key), value_(std::move(value)), outer_(std::move(outer)) {}
  // The innermost value bound to `key`; null when there is none.
  [[nodiscard]] const std::shared_ptr<void>* find(const void* key) const noexcept {
    for (const TaskLocalBindings* b = this; b != nullptr; b = b->outer_.get()) {
      if (b->key_ == key) return &b->value_;
    }
    return nullptr;
  }

 private:
  const void* key_;
  std::shared_ptr<void> value_;
  std::shared_ptr<const TaskLocalBindings> outer_;
};

// The bindings of a task at one moment.
using TaskLocalSnapshot = std::shared_ptr<const TaskLocalBindings>;

// The calling thread's current bindings (null when nothing is bound).
[[nodiscard]] KP_EXPORT const TaskLocalSnapshot& currentTaskLocalBindings() noexcept;

// Installs `snapshot` as the calling thread's bindings until destruction, then restores the
// previous ones. Executors use it around each work item.
class KP_EXPORT ScopedTaskLocalBindings {
 public:
  // Makes `snapshot` the calling thread's bindings until the end of the scope.
  explicit ScopedTaskLocalBindings(TaskLocalSnapshot snapshot) noexcept;
  ~ScopedTaskLocalBindings();
  ScopedTaskLocalBindings(const ScopedTaskLocalBindings&) = delete;
  ScopedTaskLocalBindings& operator=(const ScopedTaskLocalBindings&) = delete;

 private:
  TaskLocalSnapshot previous_;
};

// A value bound for a task and the work it posts (see the top of this file).
template <class T>
class TaskLocal {
 public:
  // `makeDefault` runs once, on the first read that finds no binding.
  explicit TaskLocal(std::function<std::shared_ptr<T>()> makeDefault) : makeDefault_(std::move(makeDefault)) {}
  TaskLocal(const TaskLocal&) = delete;
  TaskLocal& operator=(const TaskLocal&) = delete;

  // The innermost bound value, or the default value.
  [[nodiscard]] std::shared_ptr<T> get() const {
    if (const auto& bindings = currentTaskLocalBindings()) {
      if (const auto* value = bindings->find(this)) return std::static_pointer_cast<T>(*value);
    }
    return defaultValue();
  }

  // True when a value is bound on this thread (the default does not count).
  [[nodiscard]] bool isBound() const noexcept {
    const auto& bindings = currentTaskLocalBindings();
    return bindings && bindings->find(this) != nullptr;
  }

  // The value outside every binding.
  [[nodiscard]] std::shared_ptr<T> defaultValue() const {
    std::call_once(defaultOnce_, [this] { default_ = makeDefault_(); });
    return default_;
  }

  // Binds `value` while `operation` runs on this thread and in the work it posts to the
  // library's executors. Returns what `operation` returns and lets its exceptions through.
  template <class F>
  decltype(auto) withValue(std::shared_ptr<T> value, F&& operation) const {
    ScopedTaskLocalBindings scope(std::make_shared<const TaskLocalBindings>(
        this, std::static_pointer_cast<void>(std::move(value)), currentTaskLocalBindings()));
    return std::invoke(std::forward<F>(operation));
  }

 private:
  std::function<std::shared_ptr<T>()> makeDefault_;
  mutable std::once_flag defaultOnce_;
  mutable std::shared_ptr<T> default_;
};

}  // namespace kp
