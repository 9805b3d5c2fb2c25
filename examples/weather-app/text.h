// Everything the window writes, in the user's locale and preferred units: the app's own
// texts from its gettext catalogue (kp::LocalizedStrings, English when none holds them),
// temperatures and winds through kp::MeasurementFormatter, hours on the local clock, the
// service's days (UTC days) by name, and "updated 5 minutes ago".
//
// Thread safety: set up once on the main thread before use; then main thread only.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "kp/localization/measurement_formatter.h"
#include "kp/platform/date.h"

namespace weatherapp {

// Reads the app's catalogues from `folders`, for the environment's locale and `units`.
void setUpText(std::vector<std::filesystem::path> folders, kp::UnitSystem units);

// The text of `english` in the user's language.
[[nodiscard]] std::string tr(std::string_view english);
// `english` with "{0}" replaced by `value`, translated first.
[[nodiscard]] std::string tr(std::string_view english, std::string_view value);

[[nodiscard]] const std::string& localeIdentifier();
[[nodiscard]] std::string temperature(double celsius);
[[nodiscard]] std::string wind(double metresPerSecond, double fromDegrees);
[[nodiscard]] std::string percent(int value);
[[nodiscard]] std::string hourOf(kp::Date time);
[[nodiscard]] std::string dayOf(kp::Date midnightUtc);
[[nodiscard]] std::string ago(kp::Date date);
// The words for a condition the service names ("partlyCloudy" -> "Partly cloudy"); a name
// this app does not know is shown as it is.
[[nodiscard]] std::string conditionText(const std::string& condition);

}  // namespace weatherapp
