// Application facts: host-set values over system defaults.
#include "kp/platform/application_info.h"

#include <mutex>
#include <optional>

#include "platform/env.h"
#include "platform/files.h"

namespace kp {
namespace {

std::mutex gInfoMutex;
std::optional<ApplicationInfo> gInfo;  // guarded by gInfoMutex

// The application's folder in an XDG base folder, made (private, with its parents) when
// missing: on a fresh machine nothing below the home folder may exist yet, and the stores
// that live there do not create parents themselves.
std::filesystem::path xdgDirectory(const char* variable, const char* fallback) {
  auto& env = platform::Env::current();
  std::filesystem::path base;
  if (auto value = env.variable(variable); value && !value->empty() && value->front() == '/') {
    base = *value;
  } else {
    base = env.homeDirectory() / fallback;
  }
  auto directory = base / ApplicationInfo::current().identifier;
  (void)platform::createPrivateDirectories(directory);  // a failure shows when the stores write
  return directory;
}

}  // namespace

ApplicationInfo ApplicationInfo::systemDefaults() {
  auto& env = platform::Env::current();
  const auto facts = env.systemFacts();
  ApplicationInfo info;
  info.identifier = "com.kp.app";
  info.name = "KPApp";
  info.version = "1.0";
  info.build = "1";
  info.systemName = facts.systemName;
  info.systemVersion = facts.systemVersion;
  info.deviceModel = facts.model;
  info.localeIdentifier = env.localeIdentifier();
  info.timeZone = env.timeZoneName();
  info.currencyCode = env.currencyCode().value_or("");
  info.preferredLanguages = env.preferredLanguages();
  return info;
}

ApplicationInfo ApplicationInfo::current() {
  std::lock_guard lock(gInfoMutex);
  if (!gInfo) gInfo = systemDefaults();
  return *gInfo;
}

void ApplicationInfo::setCurrent(ApplicationInfo info) {
  std::lock_guard lock(gInfoMutex);
  gInfo = std::move(info);
}

std::filesystem::path cachesDirectory() { return xdgDirectory("XDG_CACHE_HOME", ".cache"); }

std::filesystem::path configurationDirectory() { return xdgDirectory("XDG_CONFIG_HOME", ".config"); }

}  // namespace kp
