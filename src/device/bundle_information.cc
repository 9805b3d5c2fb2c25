// The host application's identity, from the application information (which holds the host's
// values over the desktop entry's).
#include "kp/device/bundle_information.h"

#include "kp/platform/application_info.h"

namespace kp {
namespace {

std::optional<std::string> given(const std::string& text) {
  if (text.empty()) return std::nullopt;
  return text;
}

}  // namespace

BundleInformation BundleInformation::current() {
  const auto info = ApplicationInfo::current();
  return {info.identifier, given(info.name), given(info.version), given(info.build)};
}

}  // namespace kp
