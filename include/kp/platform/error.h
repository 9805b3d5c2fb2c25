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
using ErrorPtr = std::shared_ptr<const Error>;

class KP_EXPORT Error {
 public:
  using UserInfo = std::map<std::string, std::string>;

  // User-info keys with the platform's spellings.
  static constexpr std::string_view kLocalizedDescriptionKey = "NSLocalizedDescription";
  static constexpr std::string_view kLocalizedFailureReasonKey = "NSLocalizedFailureReason";
  static constexpr std::string_view kLocalizedRecoverySuggestionKey = "NSLocalizedRecoverySuggestion";
  static constexpr std::string_view kFailingURLStringKey = "NSErrorFailingURLStringKey";
  // Domain of transfer failures (the URL loading service's codes, such as -1001).
  static constexpr std::string_view kURLErrorDomain = "NSURLErrorDomain";

  Error(std::string domain, std::int64_t code, UserInfo userInfo = {}, ErrorPtr underlying = nullptr);

  [[nodiscard]] static ErrorPtr make(std::string domain, std::int64_t code, UserInfo userInfo = {},
                                     ErrorPtr underlying = nullptr);
  // Shorthand for an error whose user info holds only the localized description.
  [[nodiscard]] static ErrorPtr make(std::string domain, std::int64_t code, std::string localizedDescription);

  [[nodiscard]] const std::string& domain() const noexcept { return domain_; }
  [[nodiscard]] std::int64_t code() const noexcept { return code_; }
  [[nodiscard]] const UserInfo& userInfo() const noexcept { return userInfo_; }
  [[nodiscard]] const ErrorPtr& underlyingError() const noexcept { return underlying_; }

  // The user info's description, or the platform's generic sentence naming domain and code.
  [[nodiscard]] std::string localizedDescription() const;
  [[nodiscard]] std::optional<std::string> localizedFailureReason() const;
  [[nodiscard]] std::optional<std::string> localizedRecoverySuggestion() const;
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
