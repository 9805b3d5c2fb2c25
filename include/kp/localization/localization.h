// Dates, times, units and localization: what the whole subsystem shares. The environment's
// locale and time zone (the defaults of every formatter and calendar), the width of the texts
// it writes, and the domain and codes of its errors.
//
// Locales are named by identifiers such as "de_DE", "de-DE", "ar_EG" or "en_US@rg=gbzzzz".
// An identifier the locale data does not know falls back as ICU does (to the process's default
// locale, then the root locale); one that is not an identifier at all is the root locale.
//
// Thread safety: free functions and constants; callable from any thread.
//
// Example:
//   std::string locale = kp::currentLocaleIdentifier();   // "nb_NO" under LANG=nb_NO.UTF-8
//   std::string zone = kp::currentTimeZoneName();         // "Europe/Oslo"
#pragma once

#include <string>
#include <string_view>

#include "kp/platform/export.h"

namespace kp {

// The environment's locale ("de_DE"): LC_ALL, LC_MESSAGES, then LANG; "en_US" when none is
// set or it is "C".
[[nodiscard]] KP_EXPORT std::string currentLocaleIdentifier();

// The environment's IANA zone name ("Europe/Berlin"), "UTC" when the environment names none.
[[nodiscard]] KP_EXPORT std::string currentTimeZoneName();

// How long a text may be: "3 hours ago" / "3 hr. ago" / "3h ago", "5 km/h" long: "5 kilometers
// per hour", compass "ESE" / "east-southeast".
enum class TextWidth { short_, narrow, long_ };

// The errors of the localization layer.
struct KP_EXPORT LocalizationError {
  // Their domain.
  static constexpr std::string_view kDomain = "KPLocalization";
  // A zone name the zone data does not know.
  static constexpr int kUnknownTimeZone = 1;
  // A date skeleton the locale data cannot turn into a pattern.
  static constexpr int kInvalidSkeleton = 2;
};

}  // namespace kp
