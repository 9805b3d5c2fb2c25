// kp::ApplicationInfo: facts about the running application and device that the service
// parameters and the cache paths use. The host fills in what it knows at start-up; the rest
// keeps Linux defaults (the identifier and name of the desktop entry the application was
// launched from, kernel name, DMI product name, locale, currency, languages and time zone of
// the environment). What neither gives stays empty: the version and build, the idiom and the
// system version, for which kp::DeviceInformation (device layer) knows the machine's.
//
// Thread safety: current() and setCurrent() may be called from any thread.
//
// Example:
//   auto info = kp::ApplicationInfo::current();
//   info.identifier = "com.example.weather";
//   info.version = "5.2.0";
//   kp::ApplicationInfo::setCurrent(info);
//   std::filesystem::path caches = kp::cachesDirectory();  // ~/.cache/com.example.weather
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kp/platform/export.h"

namespace kp {

// The kind of interface the application shows, as the host states it.
enum class UserInterfaceIdiom { unspecified = -1, phone = 0, pad = 1, tv = 2, carPlay = 3, mac = 5, vision = 6 };

struct KP_EXPORT ApplicationInfo {
  // The folder name of an application without an identifier.
  static constexpr std::string_view kDefaultFolderName = "com.kp.app";

  // Reverse-domain bundle identifier (the host's, else the desktop entry's ID), or nothing. It
  // also names the application's folders, so setCurrent() stores it in canonicalIdentifier() form.
  std::optional<std::string> identifier;
  std::string name;     // display name (the host's, else the desktop entry's Name)
  std::string version;  // marketing version, "5.2.0"; empty unless the host sets it
  std::string build;    // build number; empty unless the host sets it
  UserInterfaceIdiom idiom = UserInterfaceIdiom::unspecified;  // the host's; unspecified otherwise
  double screenScale = 1.0;                                    // device pixels per point; the host's, else 1
  std::string systemName;                                      // "Linux"
  std::string systemVersion;                                   // the host's; empty: the operating system's
  std::string deviceModel;                                     // DMI product name or machine type
  std::string localeIdentifier;                                // "en_US"
  std::string timeZone;                                        // "Europe/Berlin"
  std::string currencyCode;                                    // "EUR"; empty when unknown
  std::vector<std::string> preferredLanguages;                 // "nl-NL", "en": most preferred first

  // The facts in force: the host's, or the defaults read from the system on first use.
  [[nodiscard]] static ApplicationInfo current();
  // Puts `info` in force, its identifier in canonical form.
  static void setCurrent(ApplicationInfo info);
  // `identifier` as the name of exactly one folder inside a base folder: "/" and NUL bytes
  // become "_" and the name is cut to 255 bytes (not inside a UTF-8 character); what is then
  // empty, "." or ".." names no folder and is no identifier (nothing). Any other identifier is
  // kept as it is.
  [[nodiscard]] static std::optional<std::string> canonicalIdentifier(std::string_view identifier);
  // Defaults for this system.
  [[nodiscard]] static ApplicationInfo systemDefaults();

  // The name of the application's folders: the identifier, else kDefaultFolderName.
  [[nodiscard]] std::string folderName() const;
};

// $XDG_CACHE_HOME (else ~/.cache) joined with the application's folder name. Created with its
// missing parents when it does not exist; the folders made here are private to the user (0700).
[[nodiscard]] KP_EXPORT std::filesystem::path cachesDirectory();
// $XDG_CONFIG_HOME (else ~/.config) joined with the application's folder name, created as above.
[[nodiscard]] KP_EXPORT std::filesystem::path configurationDirectory();
// $XDG_DATA_HOME (else ~/.local/share) joined with the application identifier, created as
// above: what the application keeps that is neither a cache nor a setting (its cookies).
[[nodiscard]] KP_EXPORT std::filesystem::path dataDirectory();

}  // namespace kp
