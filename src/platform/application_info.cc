// Application facts: host-set values over system defaults.
#include "kp/platform/application_info.h"

#include <algorithm>
#include <mutex>
#include <optional>

#include "platform/device_facts.h"
#include "platform/env.h"
#include "platform/files.h"

namespace kp {
namespace {

// The longest file name Linux file systems take.
constexpr std::size_t kMaxFolderNameBytes = 255;

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
  auto directory = base / ApplicationInfo::current().folderName();
  (void)platform::createPrivateDirectories(directory);  // a failure shows when the stores write
  return directory;
}

}  // namespace

ApplicationInfo ApplicationInfo::systemDefaults() {
  auto& env = platform::Env::current();
  const auto facts = env.systemFacts();
  ApplicationInfo info;
  // Who the application is, the launcher may know; its version and build only the host does.
  if (auto entry = platform::applicationDesktopEntry()) {
    info.identifier = canonicalIdentifier(entry->identifier);
    info.name = entry->name;
  }
  info.systemName = facts.systemName;
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

std::optional<std::string> ApplicationInfo::canonicalIdentifier(std::string_view identifier) {
  std::string name(identifier.substr(0, kMaxFolderNameBytes + 1));
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c == '/' || c == '\0'; }, '_');
  if (name.size() > kMaxFolderNameBytes) {
    std::size_t end = kMaxFolderNameBytes;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) --end;  // a continuation byte
    name.resize(end);
  }
  if (name.empty() || name == "." || name == "..") return std::nullopt;
  return name;
}

void ApplicationInfo::setCurrent(ApplicationInfo info) {
  // Every store joins the identifier to a base folder: an empty one would put them in the base
  // folder itself, and "..", a path or an absolute name somewhere outside it.
  if (info.identifier) info.identifier = canonicalIdentifier(*info.identifier);
  std::lock_guard lock(gInfoMutex);
  gInfo = std::move(info);
}

std::string ApplicationInfo::folderName() const { return identifier ? *identifier : std::string(kDefaultFolderName); }

std::filesystem::path cachesDirectory() { return xdgDirectory("XDG_CACHE_HOME", ".cache"); }

std::filesystem::path configurationDirectory() { return xdgDirectory("XDG_CONFIG_HOME", ".config"); }

std::filesystem::path dataDirectory() { return xdgDirectory("XDG_DATA_HOME", ".local/share"); }

}  // namespace kp
