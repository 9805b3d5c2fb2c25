// The platform error object.
#include "kp/platform/error.h"

namespace kp {

Error::Error(std::string domain, std::int64_t code, UserInfo userInfo, ErrorPtr underlying)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)), underlying_(std::move(underlying)) {}

ErrorPtr Error::make(std::string domain, std::int64_t code, UserInfo userInfo, ErrorPtr underlying) {
  return std::make_shared<const Error>(std::move(domain), code, std::move(userInfo), std::move(underlying));
}

ErrorPtr Error::make(std::string domain, std::int64_t code, std::string localizedDescription) {
  return make(std::move(domain), code,
              UserInfo{{std::string(kLocalizedDescriptionKey), std::move(localizedDescription)}});
}

std::optional<std::string> Error::userInfoValue(std::string_view key) const {
  if (auto it = userInfo_.find(std::string(key)); it != userInfo_.end()) return it->second;
  return std::nullopt;
}

std::string Error::localizedDescription() const {
  if (auto text = userInfoValue(kLocalizedDescriptionKey)) return *text;
  return "The operation couldn\u2019t be completed. (" + domain_ + " error " + std::to_string(code_) + ".)";
}

std::optional<std::string> Error::localizedFailureReason() const { return userInfoValue(kLocalizedFailureReasonKey); }

std::optional<std::string> Error::localizedRecoverySuggestion() const {
  return userInfoValue(kLocalizedRecoverySuggestionKey);
}

}  // namespace kp
