// The forecast as a client reads it: the "forecast" payload of weather_protocol.h as codable
// types, for kp::DecodableTarvixWebService. Times are kp::Date, decoded from seconds since
// 1970 (the service decoder's date strategy); units as the protocol says.
//
// Thread safety: plain values.
//
// Example:
//   kp::DecodableTarvixWebService service(baseUrl);
//   auto request = service.createRequest<kp::weather::Forecast>("forecast");
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kp/coding/coding.h"
#include "kp/platform/date.h"

namespace kp::weather {

enum class WeatherCondition { clear, partlyCloudy, cloudy, rain, snow };

// "clear", "partlyCloudy", ... as the service spells them.
[[nodiscard]] std::string_view conditionName(WeatherCondition condition) noexcept;

struct ForecastLocation {
  double latitude = 0;
  double longitude = 0;
};
BOOST_DESCRIBE_STRUCT(ForecastLocation, (), (latitude, longitude))

struct CurrentConditions {
  Date time;
  double temperature = 0;
  double apparentTemperature = 0;
  int humidity = 0;
  double windSpeed = 0;
  double windGust = 0;
  int windDirection = 0;
  double pressure = 0;
  double precipitation = 0;
  int cloudCover = 0;
  WeatherCondition condition = WeatherCondition::clear;
};
BOOST_DESCRIBE_STRUCT(CurrentConditions, (),
                      (time, temperature, apparentTemperature, humidity, windSpeed, windGust, windDirection, pressure,
                       precipitation, cloudCover, condition))

struct HourlyForecast {
  Date time;
  double temperature = 0;
  double windSpeed = 0;
  int windDirection = 0;
  double pressure = 0;
  double precipitation = 0;
  int precipitationProbability = 0;
  int cloudCover = 0;
  WeatherCondition condition = WeatherCondition::clear;
};
BOOST_DESCRIBE_STRUCT(HourlyForecast, (),
                      (time, temperature, windSpeed, windDirection, pressure, precipitation, precipitationProbability,
                       cloudCover, condition))

struct DailyForecast {
  Date date;
  double temperatureMin = 0;
  double temperatureMax = 0;
  double windSpeedMax = 0;
  int windDirection = 0;
  double pressure = 0;
  double precipitation = 0;
  int precipitationProbability = 0;
  WeatherCondition condition = WeatherCondition::clear;
};
BOOST_DESCRIBE_STRUCT(DailyForecast, (),
                      (date, temperatureMin, temperatureMax, windSpeedMax, windDirection, pressure, precipitation,
                       precipitationProbability, condition))

struct Forecast {
  ForecastLocation location;
  CurrentConditions current;
  std::vector<HourlyForecast> hourly;
  std::vector<DailyForecast> daily;
};
BOOST_DESCRIBE_STRUCT(Forecast, (), (location, current, hourly, daily))

}  // namespace kp::weather

namespace kp {

// Conditions travel as their names; an unknown name fails the decoding.
template <>
struct Coding<weather::WeatherCondition> {
  static void encode(Encoder& e, weather::WeatherCondition v) { e.encode(std::string(weather::conditionName(v))); }
  static weather::WeatherCondition decode(const Decoder& d);
};

}  // namespace kp
