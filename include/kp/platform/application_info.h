// kp::ApplicationInfo: facts about the running application and device that the service
// parameters and the cache paths use. The host fills in what it knows at start-up; the rest
// keeps Linux defaults (kernel name and release, DMI product name, locale, currency, languages
// and time zone of the environment).
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
#include <string>
#include <vector>

namespace kp {

enum class UserInterfaceIdiom { unspecified = -1, phone = 0, pad = 1, tv = 2, carPlay = 3, mac = 5, vision = 6 };

struct ApplicationInfo {
  std::string identifier;  // reverse-domain bundle identifier
  std::string name;        // display name
  std::string version;     // marketing version, "5.2.0"
  std::string build;       // build number
  UserInterfaceIdiom idiom = UserInterfaceIdiom::unspecified;
  double screenScale = 1.0;
  std::string systemName;                       // "Linux"
  std::string systemVersion;                    // kernel release
  std::string deviceModel;                      // DMI product name or machine type
  std::string localeIdentifier;                 // "en_US"
  std::string timeZone;                         // "Europe/Berlin"
  std::string currencyCode;                     // "EUR"; empty when unknown
  std::vector<std::string> preferredLanguages;  // "nl-NL", "en": most preferred first

  // The facts in force: the host's, or the defaults read from the system on first use.
  [[nodiscard]] static ApplicationInfo current();
  static void setCurrent(ApplicationInfo info);
  // Defaults for this system, with identifier "com.kp.app".
  [[nodiscard]] static ApplicationInfo systemDefaults();
};

// $XDG_CACHE_HOME (else ~/.cache) joined with the application identifier. Created with its
// missing parents when it does not exist; the folders made here are private to the user (0700).
[[nodiscard]] std::filesystem::path cachesDirectory();
// $XDG_CONFIG_HOME (else ~/.config) joined with the application identifier, created as above.
[[nodiscard]] std::filesystem::path configurationDirectory();

}  // namespace kp
