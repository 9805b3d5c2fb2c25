// The forecast as this app reads it from the weather service's "forecast" method, and the
// copy it keeps in the library's cache for the next start and for when it is offline.
//
// Only what the screen shows is decoded; keys the service adds later are ignored. The
// condition stays text, so that a condition this app does not know yet still shows (as
// its name, without an icon) instead of failing the whole forecast.
//
// Thread safety: plain values.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kp/coding/coding.h"
#include "kp/platform/date.h"
#include "kp/service/tarvix_service_content_info.h"

namespace weatherapp {

struct CurrentConditions {
  kp::Date time;
  double temperature = 0;          // °C
  double apparentTemperature = 0;  // °C
  int humidity = 0;                // %
  double windSpeed = 0;            // m/s
  int windDirection = 0;           // degrees the wind comes from
  std::string condition;
};
BOOST_DESCRIBE_STRUCT(CurrentConditions, (),
                      (time, temperature, apparentTemperature, humidity, windSpeed, windDirection, condition))

struct HourlyForecast {
  kp::Date time;
  double temperature = 0;
  int precipitationProbability = 0;
  std::string condition;
};
BOOST_DESCRIBE_STRUCT(HourlyForecast, (), (time, temperature, precipitationProbability, condition))

struct DailyForecast {
  kp::Date date;  // midnight UTC of the day
  double temperatureMin = 0;
  double temperatureMax = 0;
  int precipitationProbability = 0;
  std::string condition;
};
BOOST_DESCRIBE_STRUCT(DailyForecast, (), (date, temperatureMin, temperatureMax, precipitationProbability, condition))

struct Forecast {
  CurrentConditions current;
  std::vector<HourlyForecast> hourly;
  std::vector<DailyForecast> daily;
};
BOOST_DESCRIBE_STRUCT(Forecast, (), (current, hourly, daily))

// A place the forecast is for.
struct Place {
  std::string name;
  double latitude = 0;
  double longitude = 0;
};

// What the window shows: a forecast, how fresh it is, and where it came from.
struct ForecastSnapshot {
  Forecast forecast;
  kp::TarvixServiceContentInfo contentInfo;
  std::optional<std::string> etag;
  bool fromCache = false;

  // When the service made the content (its clock), else when this device received it.
  [[nodiscard]] kp::Date updated() const { return contentInfo.remoteCreatedAt.value_or(contentInfo.localCreatedAt); }
};

}  // namespace weatherapp
