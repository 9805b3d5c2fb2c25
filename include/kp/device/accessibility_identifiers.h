// kp::AccessibilityIdentifier: stable identifiers that UI tests find views by. The library
// names the places every weather application has (AccessibilityIdentifiers); a host extends
// the catalogue with its own, built the same way, so that identifiers are checked when compiled
// and never drift with a view's text or language.
//
// An identifier is dotted words of ASCII letters, digits, '-' and '_' ("forecast.hourly.row"),
// made at compile time; a malformed one does not compile. child() appends a word or an index
// at run time for repeated views ("forecast.hourly.row.3").
//
// Thread safety: plain values.
//
// Example:
//   namespace ids {
//   inline constexpr kp::AccessibilityIdentifier radarMap{"radar.map"};
//   }
//   view.setAccessibilityIdentifier(kp::AccessibilityIdentifiers::hourlyRow.child(3).value());
#pragma once

#include <string>
#include <string_view>

#include "kp/platform/export.h"

namespace kp {

// A dotted identifier for user-interface tests, checked when compiled.
class KP_EXPORT AccessibilityIdentifier {
 public:
  // `text`; a literal that is not well formed does not compile.
  consteval AccessibilityIdentifier(const char* text) : text_(text) {  // NOLINT(google-explicit-constructor)
    if (!isWellFormed(text_)) throw "an accessibility identifier is dotted words of [A-Za-z0-9_-]";
  }

  [[nodiscard]] constexpr std::string_view text() const noexcept { return text_; }  // the identifier
  [[nodiscard]] std::string value() const { return std::string(text_); }            // a copy of the text
  // "<this>.<word>"; a word that is not well formed becomes "_" so that the result stays one.
  [[nodiscard]] std::string child(std::string_view word) const {
    return value() + "." + (isWellFormed(word) && word.find('.') == std::string_view::npos ? std::string(word) : "_");
  }
  // "<this>.<index>", for rows of a list.
  [[nodiscard]] std::string child(long long index) const { return value() + "." + std::to_string(index); }

  // Words of [A-Za-z0-9_-] joined by single dots, neither starting nor ending with one.
  [[nodiscard]] static constexpr bool isWellFormed(std::string_view text) noexcept {
    if (text.empty() || text.front() == '.' || text.back() == '.') return false;
    char previous = 0;
    for (char c : text) {
      const bool word =
          (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
      if (!word && !(c == '.' && previous != '.')) return false;
      previous = c;
    }
    return true;
  }

  // The same text.
  friend constexpr bool operator==(AccessibilityIdentifier a, AccessibilityIdentifier b) noexcept {
    return a.text_ == b.text_;
  }

 private:
  std::string_view text_;
};

// The places every weather application has.
namespace AccessibilityIdentifiers {
inline constexpr AccessibilityIdentifier currentConditions{"weather.current"};               // the current weather
inline constexpr AccessibilityIdentifier currentTemperature{"weather.current.temperature"};  // its temperature
inline constexpr AccessibilityIdentifier hourlyForecast{"forecast.hourly"};                  // the hourly list
inline constexpr AccessibilityIdentifier hourlyRow{"forecast.hourly.row"};                   // its rows (child(i))
inline constexpr AccessibilityIdentifier dailyForecast{"forecast.daily"};                    // the daily list
inline constexpr AccessibilityIdentifier dailyRow{"forecast.daily.row"};                     // its rows (child(i))
inline constexpr AccessibilityIdentifier locationSearch{"location.search"};                  // the place search
inline constexpr AccessibilityIdentifier currentLocationButton{"location.current"};          // "use my location"
inline constexpr AccessibilityIdentifier locationPermissionPrompt{"location.permission"};    // the permission prompt
inline constexpr AccessibilityIdentifier settings{"settings"};                               // the settings
inline constexpr AccessibilityIdentifier unitsSetting{"settings.units"};                     // the units setting
inline constexpr AccessibilityIdentifier refreshControl{"refresh"};                          // pull to refresh
inline constexpr AccessibilityIdentifier errorMessage{"error.message"};                      // an error shown
}  // namespace AccessibilityIdentifiers

}  // namespace kp
