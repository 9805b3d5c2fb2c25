// kpcore info: the application and device facts the library would send and use.
#include <iostream>

#include "command.h"
#include "kp/platform/application_info.h"
#include "kp/version.h"

namespace {

int runInfo(kpcore::Args& args) {
  const bool json = args.flag("json");
  args.expectEnd();
  const auto info = kp::ApplicationInfo::current();
  std::string languages;
  for (const auto& language : info.preferredLanguages) languages += (languages.empty() ? "" : ",") + language;
  const std::pair<const char*, std::string> rows[] = {
      {"libraryVersion", KP_VERSION_STRING},
      {"identifier", info.identifier.value_or("")},
      {"version", info.version},
      {"systemName", info.systemName},
      {"systemVersion", info.systemVersion},
      {"deviceModel", info.deviceModel},
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
      std::cout << (first ? "" : ",") << kpcore::jsonQuote(key) << ":" << kpcore::jsonQuote(value);
      first = false;
    }
    std::cout << "}\n";
  } else {
    for (const auto& [key, value] : rows) std::cout << key << ": " << value << "\n";
  }
  return 0;
}

const kpcore::Registration registration{"info", "Show the application, device and library facts",
                                        "kpcore info [--json]", runInfo};

}  // namespace
