// kp::Outcome<T>: a success-or-failure value: either a T or the error that kept it from being
// made. Typed results offer their payload this way (asResult()), so that a caller handles the
// two cases in one place.
//
// Thread safety: a plain value.
//
// Example:
//   kp::Outcome<Forecast> outcome = result.asResult();
//   if (const Forecast* forecast = outcome.value()) show(*forecast);
//   else report(outcome.error()->localizedDescription());
#pragma once

#include <utility>
#include <variant>

#include "kp/platform/error.h"

namespace kp {

template <class T>
class Outcome {
 public:
  [[nodiscard]] static Outcome success(T value) { return Outcome(std::in_place_index<0>, std::move(value)); }
  // REQUIRES: `error` is not null.
  [[nodiscard]] static Outcome failure(ErrorPtr error) { return Outcome(std::in_place_index<1>, std::move(error)); }

  [[nodiscard]] bool isSuccess() const noexcept { return state_.index() == 0; }
  // The value of a success; null for a failure.
  [[nodiscard]] const T* value() const noexcept { return std::get_if<0>(&state_); }
  [[nodiscard]] T* value() noexcept { return std::get_if<0>(&state_); }
  // The error of a failure; null for a success.
  [[nodiscard]] ErrorPtr error() const noexcept {
    const ErrorPtr* e = std::get_if<1>(&state_);
    return e ? *e : nullptr;
  }

 private:
  template <std::size_t I, class V>
  Outcome(std::in_place_index_t<I> index, V&& v) : state_(index, std::forward<V>(v)) {}
  std::variant<T, ErrorPtr> state_;
};

}  // namespace kp
