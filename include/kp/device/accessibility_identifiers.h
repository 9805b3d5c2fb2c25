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

class KP_EXPORT AccessibilityIdentifier {
 public:
  consteval AccessibilityIdentifier(const char* text) : text_(text) {  // NOLINT(google-explicit-constructor)
    if (!isWellFormed(text_)) throw "an accessibility identifier is dotted words of [A-Za-z0-9_-]";
  }

  [[nodiscard]] constexpr std::string_view text() const noexcept { return text_; }
  [[nodiscard]] std::string value() const { return std::string(text_); }
  // "<this>.<word>"; a word that is not well formed becomes "_" so that the result stays one.
  [[nodiscard]] std::string child(std::string_view word) const {
    return value() + "." + (isWellFormed(word) && word.find('.') == std::string_view::npos ? std::string(word) : "_");
  }
  [[nodiscard]] std::string child(long long index) const { return value() + "." + std::to_string(index); }

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

  friend constexpr bool operator==(AccessibilityIdentifier a, AccessibilityIdentifier b) noexcept {
    return a.text_ == b.text_;
  }

 private:
  std::string_view text_;
};

// The places every weather application has.
namespace AccessibilityIdentifiers {
inline constexpr AccessibilityIdentifier currentConditions{"weather.current"};
inline constexpr AccessibilityIdentifier currentTemperature{"weather.current.temperature"};
inline constexpr AccessibilityIdentifier hourlyForecast{"forecast.hourly"};
inline constexpr AccessibilityIdentifier hourlyRow{"forecast.hourly.row"};
inline constexpr AccessibilityIdentifier dailyForecast{"forecast.daily"};
inline constexpr AccessibilityIdentifier dailyRow{"forecast.daily.row"};
inline constexpr AccessibilityIdentifier locationSearch{"location.search"};
inline constexpr AccessibilityIdentifier currentLocationButton{"location.current"};
inline constexpr AccessibilityIdentifier locationPermissionPrompt{"location.permission"};
inline constexpr AccessibilityIdentifier settings{"settings"};
inline constexpr AccessibilityIdentifier unitsSetting{"settings.units"};
inline constexpr AccessibilityIdentifier refreshControl{"refresh"};
inline constexpr AccessibilityIdentifier errorMessage{"error.message"};
}  // namespace AccessibilityIdentifiers

}  // namespace kp
