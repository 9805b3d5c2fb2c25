// kp::NonFatalException and kp::nonFatalException(): how the library reports a programming or
// data error that it survives. nonFatalException() hands the exception to the
// NonFatalExceptionReporter that the host registered (through Services::default_(), so a
// withDependencies override is asked first), then raises tarvix::AssertionCoordinator with its
// assertionFailureMessage, which stops a debug build at once and is ignored in a release build
// by the default hook. Without a reporter the report is lost, but the assertion still fires.
// The hook is told the file of nonFatalException() and line 68, whoever called.
//
// assertionFailureMessage is made of blocks separated by an empty line, without a final line
// feed; absent parts leave out their block, an empty reason or suggestion that is present does
// not, and an empty userInfo adds none:
//   Description:\n  - <description>
//   Failure Reason:\n  - <failureReason>
//   Recovery Suggestion:\n  - <recoverySuggestion>
//   UserInfo:\n  - key: value\n  - key: value        (in key order)
//
// Thread safety: values; nonFatalException() may be called from any thread and calls the
// reporter and the assertion hook on that thread. It never throws.
//
// Example:
//   kp::nonFatalException("Cache item has no key", "The item was stored before keys were required.",
//                         std::nullopt, kp::NonFatalException::UserInfo{{"table", "cache"}});
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/export.h"
#include "tarvix/service.h"

namespace kp {

// Text fixed when the program is built: only a string literal converts to it.
class KP_EXPORT StaticText {
 public:
  // The literal, without its terminator.
  template <std::size_t N>
  consteval StaticText(const char (&literal)[N]) noexcept  // NOLINT: implicit, for literals
      : text_(literal, N - 1) {}
  [[nodiscard]] constexpr std::string_view view() const noexcept { return text_; }  // the text

 private:
  std::string_view text_;
};

// An error the library survives (see the top of this file).
class KP_EXPORT NonFatalException {
 public:
  using UserInfo = std::map<std::string, std::string>;  // details, by key

  // An exception with these parts.
  explicit NonFatalException(StaticText description, std::optional<std::string> failureReason = std::nullopt,
                             std::optional<std::string> recoverySuggestion = std::nullopt,
                             std::optional<UserInfo> userInfo = std::nullopt);

  [[nodiscard]] std::string_view description() const noexcept { return description_.view(); }  // what happened
  // Why it happened, when known.
  [[nodiscard]] const std::optional<std::string>& failureReason() const noexcept { return failureReason_; }
  // What to do about it, when known.
  [[nodiscard]] const std::optional<std::string>& recoverySuggestion() const noexcept { return recoverySuggestion_; }
  // Further details, when given.
  [[nodiscard]] const std::optional<UserInfo>& userInfo() const noexcept { return userInfo_; }
  // The parts as the message the assertion hook gets (see the top of this file).
  [[nodiscard]] std::string assertionFailureMessage() const;

 private:
  StaticText description_;
  std::optional<std::string> failureReason_;
  std::optional<std::string> recoverySuggestion_;
  std::optional<UserInfo> userInfo_;
};

// Implemented by the host (e.g. to forward reports to its crash reporter) and registered in
// its service container.
class KP_EXPORT NonFatalExceptionReporter : public virtual tarvix::Service {
 public:
  // Takes one report, on the reporting thread.
  virtual void report(const NonFatalException& exception) = 0;
};

// Reports an error the library survives (see the top of this file).
KP_EXPORT void nonFatalException(StaticText description, std::optional<std::string> failureReason = std::nullopt,
                                 std::optional<std::string> recoverySuggestion = std::nullopt,
                                 std::optional<NonFatalException::UserInfo> userInfo = std::nullopt) noexcept;

}  // namespace kp
