// kpcore info: the application and device facts the library would send and use.
#include <cstdio>
#include <iostream>
#include <optional>

#include "command.h"
#include "kp/device/bundle_information.h"
#include "kp/device/device_information.h"
#include "kp/platform/application_info.h"
#include "kp/service/tarvix_web_service_parameters.h"
#include "kp/version.h"

namespace {

std::optional<std::string> inches(const std::optional<double>& diagonal) {
  if (!diagonal) return std::nullopt;
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", *diagonal);
  return std::string(text);
}

int runInfo(kpcore::Args& args) {
  const bool json = args.flag("json");
  args.expectEnd();
  const auto info = kp::ApplicationInfo::current();
  const auto bundle = kp::BundleInformation::current();
  auto& device = kp::DeviceInformation::shared();
  const auto facts = device.facts();
  const auto& system = facts->operatingSystem;
  std::string languages;
  for (const auto& language : info.preferredLanguages) languages += (languages.empty() ? "" : ",") + language;
  // Values from outside (os-release, the desktop entry, the display) are printed as they are
  // in JSON, and made printable on a terminal.
  const std::pair<const char*, std::optional<std::string>> rows[] = {
      {"libraryVersion", KP_VERSION_STRING},
      {"identifier", bundle.identifier},
      {"name", bundle.displayName},
      {"version", bundle.version},
      {"build", bundle.build},
      {"deviceKind", std::string(kp::chassisName(facts->kind))},
      {"chassisSource", facts->chassisSource},
      {"serviceDevice", kp::TarvixWebServiceParameters().device},
      {"systemName", system.name},
      {"systemVersion", system.versionText},
      {"systemBuild", system.build},
      {"kernelRelease", system.kernelRelease},
      {"deviceModel", info.deviceModel},
      {"screenDiagonalInches", inches(facts->screenDiagonalInches)},
      {"screenConnector", facts->screenConnector.empty() ? std::nullopt : std::optional(facts->screenConnector)},
      {"locale", info.localeIdentifier},
      {"timeZone", info.timeZone},
      {"currencyCode", info.currencyCode},
      {"preferredLanguages", languages},
      {"cachesDirectory", kp::cachesDirectory().string()},
  };
  if (json) {
    std::cout << "{";
    bool first = true;
    for (const auto& [key, value] : rows) {
      std::cout << (first ? "" : ",") << kpcore::jsonQuote(key) << ":" << (value ? kpcore::jsonQuote(*value) : "null");
      first = false;
    }
    std::cout << "}\n";
  } else {
    for (const auto& [key, value] : rows)
      std::cout << key << ": " << (value ? kpcore::printable(*value) : "none") << "\n";
  }
  return 0;
}

const kpcore::Registration registration{
    "info", "Show the application, device and library facts",
    "kpcore info [--json]\n"
    "  the application's identity, the device kind, operating system, screen diagonal and the\n"
    "  locale facts the library uses; facts nobody gives are none (null in JSON)",
    runInfo};

}  // namespace
