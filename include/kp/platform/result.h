// kp::Result<T>: a value, or the error that took its place (the platform's success-or-failure
// value), and kp::CustomError, the framework's plain message error.
//
// Thread safety: value types.
//
// Example:
//   kp::Result<Forecast> outcome = result->asResult();
//   if (const Forecast* forecast = outcome.value()) show(*forecast);
//   else report(outcome.error()->localizedDescription());   // e.g. "No data available."
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "kp/platform/error.h"
#include "kp/platform/export.h"

namespace kp {

template <class T>
class Result {
 public:
  // A success holding `value`.
  [[nodiscard]] static Result success(T value) { return Result(std::in_place_index<0>, std::move(value)); }
  // REQUIRES: `error` is not null.
  [[nodiscard]] static Result failure(ErrorPtr error) { return Result(std::in_place_index<1>, std::move(error)); }

  // True for a success.
  [[nodiscard]] bool isSuccess() const noexcept { return storage_.index() == 0; }
  // The value of a success; null for a failure.
  [[nodiscard]] const T* value() const noexcept { return std::get_if<0>(&storage_); }
  // The error of a failure; null for a success.
  [[nodiscard]] ErrorPtr error() const {
    const ErrorPtr* error = std::get_if<1>(&storage_);
    return error ? *error : nullptr;
  }

 private:
  template <std::size_t I, class V>
  Result(std::in_place_index_t<I> index, V&& value) : storage_(index, std::forward<V>(value)) {}
  std::variant<T, ErrorPtr> storage_;
};

// An error that is only a message: domain kDomain, code 0, the message as its description.
class KP_EXPORT CustomError {
 public:
  // Its domain.
  static constexpr std::string_view kDomain = "KPFrameworkCoreLogic.CustomError";
  // An error with `message` as its description.
  [[nodiscard]] static ErrorPtr make(std::string message) {
    return Error::make(std::string(kDomain), 0, std::move(message));
  }
  CustomError() = delete;
};

}  // namespace kp
