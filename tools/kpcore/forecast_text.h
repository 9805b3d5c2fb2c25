// The demo's forecast screen: every value in the user's locale and preferred units, times on
// the local wall clock, wind directions as compass points, and how old the forecast is.
//
// Thread safety: a ForecastText is used by one thread at a time.
//
// Example:
//   kpcore::ForecastText text(args.option("locale").value_or(""), kpcore::unitSystemOption(args.option("units")));
//   text.print(std::cout, forecast, contentInfo.remoteCreatedAt);
#pragma once

#include <iosfwd>
#include <optional>
#include <string>

#include "forecast_model.h"
#include "kp/localization/compass.h"
#include "kp/localization/measurement_formatter.h"
#include "kp/localization/relative_time.h"
#include "kp/localization/zoned_date_formatter.h"

namespace kpcore {

// The unit system an --units option names ("locale" without one); fails on other words.
[[nodiscard]] kp::UnitSystem unitSystemOption(const std::optional<std::string>& name);

class ForecastText {
 public:
  // An empty locale is the environment's. Times are in the environment's zone, or in UTC,
  // said so, when the environment names a zone the zone data does not know.
  ForecastText(const std::string& locale, kp::UnitSystem units);

  // `updated`: when the service made the forecast.
  void print(std::ostream& out, const kp::weather::Forecast& forecast, kp::Date updated) const;

 private:
  [[nodiscard]] std::string value(kp::WeatherQuantity quantity, double value, kp::Unit unit) const;

  std::string locale_;
  std::string zoneNote_;
  kp::MeasurementFormatter units_;
  kp::CompassFormatter compass_;
  kp::RelativeTimeFormatter ago_;
  std::optional<kp::ZonedDateFormatter> hour_;
  std::optional<kp::ZonedDateFormatter> day_;
};

}  // namespace kpcore
