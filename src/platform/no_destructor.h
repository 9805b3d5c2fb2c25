// NoDestructor<T>: storage for a process-wide instance that is built on first use and never
// destroyed, so that work still running while static destructors run at exit never meets a
// dead object. Internal; not installed.
//
// Thread safety: construct it as a function-local static (thread-safe initialisation);
// access to T follows T's own contract.
//
// Example:
//   NotificationCenter& defaultCenter() {
//     static NoDestructor<NotificationCenter> center;
//     return *center;
//   }
#pragma once

#include <new>
#include <utility>

namespace kp::internal {

template <class T>
class NoDestructor {
 public:
  template <class... Args>
  explicit NoDestructor(Args&&... args) {
    new (storage_) T(std::forward<Args>(args)...);
  }
  NoDestructor(const NoDestructor&) = delete;
  NoDestructor& operator=(const NoDestructor&) = delete;
  ~NoDestructor() = default;  // deliberately leaves T alive

  T& operator*() noexcept { return *get(); }
  T* operator->() noexcept { return get(); }
  T* get() noexcept { return std::launder(reinterpret_cast<T*>(storage_)); }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace kp::internal
