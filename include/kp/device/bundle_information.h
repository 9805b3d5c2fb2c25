// kp::BundleInformation: who the host application is: identifier, display name, version and
// build as the host set them in kp::ApplicationInfo, else the identifier and name of the
// desktop entry it was launched from (XDG), else absent. The library makes none of them up.
//
// Thread safety: a plain value; current() may be called from any thread.
#pragma once

#include <optional>
#include <string>

#include "kp/platform/export.h"

namespace kp {

struct KP_EXPORT BundleInformation {
  std::optional<std::string> identifier;   // "org.example.Weather"
  std::optional<std::string> displayName;  // "Weather"
  std::optional<std::string> version;      // "5.2.0"
  std::optional<std::string> build;        // "5200"

  // The running application's information.
  [[nodiscard]] static BundleInformation current();
};

}  // namespace kp
