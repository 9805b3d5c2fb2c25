// kp::Error: the platform error object: a domain, a numeric code and user info that holds
// the localized description among other texts. Errors have identity: they travel as
// ErrorPtr, and an error that the library defines once is the same object every time.
//
// Thread safety: immutable once made; share freely between threads.
//
// Example:
//   kp::ErrorPtr e = kp::Error::make("KPRequest", 100, "The request failed.");
//   e->localizedDescription();   // "The request failed."
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/export.h"

namespace kp {

class Error;
// How errors travel; null means no error.
using ErrorPtr = std::shared_ptr<const Error>;

// A failure (see the top of this file).
class KP_EXPORT Error {
 public:
  // Texts about the error by key.
  using UserInfo = std::map<std::string, std::string>;

  // User-info keys with the platform's spellings.
  static constexpr std::string_view kLocalizedDescriptionKey = "NSLocalizedDescription";
  static constexpr std::string_view kLocalizedFailureReasonKey = "NSLocalizedFailureReason";  // why it failed
  // What to do about it.
  static constexpr std::string_view kLocalizedRecoverySuggestionKey = "NSLocalizedRecoverySuggestion";
  static constexpr std::string_view kFailingURLStringKey = "NSErrorFailingURLStringKey";  // the URL that failed
  // Domain of transfer failures (the URL loading service's codes, such as -1001).
  static constexpr std::string_view kURLErrorDomain = "NSURLErrorDomain";

  // An error of `domain` with `code`, its texts, and the error that caused it, if any.
  Error(std::string domain, std::int64_t code, UserInfo userInfo = {}, ErrorPtr underlying = nullptr);

  // The same as a shared error.
  [[nodiscard]] static ErrorPtr make(std::string domain, std::int64_t code, UserInfo userInfo = {},
                                     ErrorPtr underlying = nullptr);
  // Shorthand for an error whose user info holds only the localized description.
  [[nodiscard]] static ErrorPtr make(std::string domain, std::int64_t code, std::string localizedDescription);

  [[nodiscard]] const std::string& domain() const noexcept { return domain_; }   // who defines the code
  [[nodiscard]] std::int64_t code() const noexcept { return code_; }             // what failed, in the domain
  [[nodiscard]] const UserInfo& userInfo() const noexcept { return userInfo_; }  // the texts
  // The error that caused this one; null when none is known.
  [[nodiscard]] const ErrorPtr& underlyingError() const noexcept { return underlying_; }

  // The user info's description, or the platform's generic sentence naming domain and code.
  [[nodiscard]] std::string localizedDescription() const;
  // The user info's failure reason; nothing without one.
  [[nodiscard]] std::optional<std::string> localizedFailureReason() const;
  // The user info's recovery suggestion; nothing without one.
  [[nodiscard]] std::optional<std::string> localizedRecoverySuggestion() const;
  // The user info's text under `key`; nothing without one.
  [[nodiscard]] std::optional<std::string> userInfoValue(std::string_view key) const;

  // Equal domain, code and user info (identity is compared on the pointers instead).
  friend bool operator==(const Error& a, const Error& b) {
    return a.code_ == b.code_ && a.domain_ == b.domain_ && a.userInfo_ == b.userInfo_;
  }

 private:
  std::string domain_;
  std::int64_t code_;
  UserInfo userInfo_;
  ErrorPtr underlying_;
};

}  // namespace kp
