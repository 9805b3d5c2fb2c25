// Delivery: one delegate callback on its way to the delegate queue. A request makes several,
// and std::function puts every closure that holds a shared pointer on the heap; a Delivery
// keeps a closure of up to kInlineSize bytes (four shared pointers, or two and a body) inside
// itself and boxes only larger ones. Move-only. Internal to the session layer; not installed.
//
// Thread safety: a value; one thread at a time uses a given Delivery.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "kp/request/url_session.h"

namespace kp::internal {

class Delivery {
 public:
  static constexpr std::size_t kInlineSize = 64;

  Delivery() noexcept = default;
  // Implicit, as std::function's, so that a lambda goes wherever a Delivery is asked for.
  template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, Delivery>>>
  Delivery(F&& call) {  // NOLINT(google-explicit-constructor)
    using Fn = std::decay_t<F>;
    if constexpr (fitsInline<Fn>()) {
      emplace<Fn>(std::forward<F>(call));
    } else {
      emplace<Boxed<Fn>>(Boxed<Fn>{std::make_unique<Fn>(std::forward<F>(call))});
    }
  }
  Delivery(Delivery&& other) noexcept { take(other); }
  Delivery& operator=(Delivery&& other) noexcept {
    if (this != &other) {
      reset();
      take(other);
    }
    return *this;
  }
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;
  ~Delivery() { reset(); }

  explicit operator bool() const noexcept { return ops_ != nullptr; }
  // Runs the callback; const as std::function's call is, the closure itself may change.
  void operator()(UrlSession& session, UrlSessionDelegate& delegate) const {
    ops_->invoke(storage_, session, delegate);
  }

 private:
  struct Ops {
    void (*invoke)(void* closure, UrlSession&, UrlSessionDelegate&);
    void (*moveTo)(void* to, void* from) noexcept;
    void (*destroy)(void* closure) noexcept;
  };

  template <class Fn>
  struct Boxed {
    std::unique_ptr<Fn> call;
    void operator()(UrlSession& session, UrlSessionDelegate& delegate) { (*call)(session, delegate); }
  };

  template <class Fn>
  static constexpr bool fitsInline() {
    return sizeof(Fn) <= kInlineSize && alignof(Fn) <= alignof(std::max_align_t) &&
           std::is_nothrow_move_constructible_v<Fn>;
  }

  template <class Fn>
  static constexpr Ops kOps = {
      [](void* closure, UrlSession& session, UrlSessionDelegate& delegate) {
        (*static_cast<Fn*>(closure))(session, delegate);
      },
      [](void* to, void* from) noexcept { ::new (to) Fn(std::move(*static_cast<Fn*>(from))); },
      [](void* closure) noexcept { static_cast<Fn*>(closure)->~Fn(); },
  };

  template <class Fn, class Arg>
  void emplace(Arg&& call) {
    ::new (static_cast<void*>(storage_)) Fn(std::forward<Arg>(call));
    ops_ = &kOps<Fn>;
  }
  // Takes the closure of `other`, which is left empty.
  void take(Delivery& other) noexcept {
    if (other.ops_ == nullptr) return;
    other.ops_->moveTo(storage_, other.storage_);
    ops_ = std::exchange(other.ops_, nullptr);
    ops_->destroy(other.storage_);
  }
  void reset() noexcept {
    if (ops_ != nullptr) std::exchange(ops_, nullptr)->destroy(storage_);
  }

  alignas(std::max_align_t) mutable unsigned char storage_[kInlineSize];
  const Ops* ops_ = nullptr;
};

}  // namespace kp::internal
