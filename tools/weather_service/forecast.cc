// A deterministic forecast: smooth value noise over absolute time, seeded by the place.
#include "forecast.h"

#include <algorithm>
#include <array>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <cmath>
#include <numbers>

#include "forecast_model.h"

namespace kp::weather {
namespace {

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 24 * kHour;
constexpr int kHourlyCount = 48;
constexpr int kDailyCount = 7;

std::uint64_t mix(std::uint64_t x) {
  // splitmix64's finaliser: every input bit reaches every output bit.
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

// Uniform in [0, 1) for a seed and a step.
double uniform(std::uint64_t seed, std::int64_t step) {
  return static_cast<double>(mix(seed ^ mix(static_cast<std::uint64_t>(step))) >> 11) * 0x1.0p-53;
}

// Noise in [0, 1) that changes smoothly over time, with a new value every `period` seconds.
double smoothNoise(std::uint64_t seed, std::int64_t time, std::int64_t period) {
  const std::int64_t knot = time >= 0 ? time / period : (time - period + 1) / period;
  const double t = static_cast<double>(time - knot * period) / static_cast<double>(period);
  const double s = t * t * (3 - 2 * t);
  return uniform(seed, knot) * (1 - s) + uniform(seed, knot + 1) * s;
}

double round1(double value) { return std::round(value * 10) / 10; }

struct Hour {
  std::int64_t time = 0;
  double temperature = 0;
  double windSpeed = 0;
  double windDirection = 0;
  double pressure = 0;
  double precipitation = 0;
  double precipitationProbability = 0;
  double cloudCover = 0;
  double humidity = 0;
  WeatherCondition condition = WeatherCondition::clear;
};

class Model {
 public:
  Model(double latitude, double longitude) : latitude_(latitude), longitude_(longitude) {
    const auto lat = static_cast<std::int64_t>(std::llround(latitude * 100));
    const auto lon = static_cast<std::int64_t>(std::llround(longitude * 100));
    seed_ = mix(static_cast<std::uint64_t>(lat) * 0x1000193ULL ^ mix(static_cast<std::uint64_t>(lon)));
  }

  [[nodiscard]] Hour at(std::int64_t time) const {
    Hour h;
    h.time = time;
    h.pressure = 1013 + 24 * (noise(1, time, 2 * kDay) - 0.5) + 4 * (noise(2, time, 6 * kHour) - 0.5);
    const double low = std::clamp((1013 - h.pressure) / 12, -1.0, 1.0);  // 1 in a deep low
    h.cloudCover = std::clamp(45 + 45 * low + 50 * (noise(3, time, 4 * kHour) - 0.5), 0.0, 100.0);
    h.precipitationProbability = std::clamp((h.cloudCover - 45) * 1.8, 0.0, 100.0);
    if (uniform(seed_ ^ 4, time / kHour) * 100 < h.precipitationProbability) {
      h.precipitation = round1(0.1 + 3 * (h.cloudCover / 100) * uniform(seed_ ^ 5, time / kHour));
    }
    h.temperature = temperature(time) - 2 * (h.cloudCover / 100) * diurnal(time);
    h.windSpeed = std::max(0.0, 1 + 9 * noise(6, time, 12 * kHour) + 6 * std::max(low, 0.0));
    h.windDirection = std::fmod(540 * noise(7, time, 2 * kDay) + 60 * noise(8, time, 9 * kHour), 360.0);
    h.humidity = std::clamp(50 + 0.35 * h.cloudCover + (h.precipitation > 0 ? 10 : 0) - 3 * diurnal(time), 15.0, 100.0);
    if (h.precipitation > 0) {
      h.condition = h.temperature < 0.5 ? WeatherCondition::snow : WeatherCondition::rain;
    } else {
      h.condition = h.cloudCover > 85 ? WeatherCondition::cloudy
                                      : (h.cloudCover > 35 ? WeatherCondition::partlyCloudy : WeatherCondition::clear);
    }
    return h;
  }

 private:
  double noise(std::uint64_t stream, std::int64_t time, std::int64_t period) const {
    return smoothNoise(seed_ ^ mix(stream), time, period);
  }

  // -1 before dawn ... +1 in the afternoon, by local solar time.
  double diurnal(std::int64_t time) const {
    const double solarHour = std::fmod(static_cast<double>(time % kDay) / kHour + longitude_ / 15 + 48, 24.0);
    return std::cos(2 * std::numbers::pi * (solarHour - 15) / 24);
  }

  double temperature(std::int64_t time) const {
    const double yearDay = std::fmod(static_cast<double>(time) / kDay, 365.2425);
    // Warmest in late July north of the equator, late January south of it.
    const double season = std::cos(2 * std::numbers::pi * (yearDay - 200) / 365.2425) * (latitude_ >= 0 ? 1 : -1);
    const double annualMean = 28 - 0.0072 * latitude_ * latitude_;
    const double seasonalSwing = 0.18 * std::fabs(latitude_);
    return annualMean + seasonalSwing * season + 4 * diurnal(time) + 8 * (noise(9, time, 3 * kDay) - 0.5);
  }

  double latitude_;
  double longitude_;
  std::uint64_t seed_ = 0;
};

boost::json::object hourlyEntry(const Hour& h) {
  return {{"time", h.time},
          {"temperature", round1(h.temperature)},
          {"windSpeed", round1(h.windSpeed)},
          {"windDirection", std::lround(h.windDirection) % 360},
          {"pressure", round1(h.pressure)},
          {"precipitation", h.precipitation},
          {"precipitationProbability", std::lround(h.precipitationProbability)},
          {"cloudCover", std::lround(h.cloudCover)},
          {"condition", conditionName(h.condition)}};
}

boost::json::object currentEntry(const Hour& h) {
  // Wind makes cold air feel colder; humidity makes warm air feel warmer.
  const double apparent = h.temperature < 10 ? h.temperature - 0.6 * h.windSpeed
                                             : h.temperature + std::max(0.0, h.temperature - 20) * h.humidity / 200;
  return {{"time", h.time},
          {"temperature", round1(h.temperature)},
          {"apparentTemperature", round1(apparent)},
          {"humidity", std::lround(h.humidity)},
          {"windSpeed", round1(h.windSpeed)},
          {"windGust", round1(h.windSpeed * 1.6)},
          {"windDirection", std::lround(h.windDirection) % 360},
          {"pressure", round1(h.pressure)},
          {"precipitation", h.precipitation},
          {"cloudCover", std::lround(h.cloudCover)},
          {"condition", conditionName(h.condition)}};
}

boost::json::object dailyEntry(const Model& model, std::int64_t midnight) {
  double low = 1e9, high = -1e9, windMax = 0, pressureSum = 0, rain = 0, chance = 0;
  double windX = 0, windY = 0;
  WeatherCondition worst = WeatherCondition::clear;
  for (std::int64_t hour = 0; hour < 24; ++hour) {
    const Hour h = model.at(midnight + hour * kHour);
    low = std::min(low, h.temperature);
    high = std::max(high, h.temperature);
    windMax = std::max(windMax, h.windSpeed);
    windX += h.windSpeed * std::cos(h.windDirection * std::numbers::pi / 180);
    windY += h.windSpeed * std::sin(h.windDirection * std::numbers::pi / 180);
    pressureSum += h.pressure;
    rain += h.precipitation;
    chance = std::max(chance, h.precipitationProbability);
    worst = std::max(worst, h.condition);
  }
  const double direction = std::fmod(std::atan2(windY, windX) * 180 / std::numbers::pi + 360, 360.0);
  return {{"date", midnight},
          {"temperatureMin", round1(low)},
          {"temperatureMax", round1(high)},
          {"windSpeedMax", round1(windMax)},
          {"windDirection", std::lround(direction) % 360},
          {"pressure", round1(pressureSum / 24)},
          {"precipitation", round1(rain)},
          {"precipitationProbability", std::lround(chance)},
          {"condition", conditionName(worst)}};
}

}  // namespace

boost::json::value makeForecast(double latitude, double longitude, std::int64_t hourStart) {
  const double lat = std::round(latitude * 100) / 100;
  const double lon = std::round(longitude * 100) / 100;
  const Model model(lat, lon);

  boost::json::array hourly;
  hourly.reserve(kHourlyCount);
  for (int i = 0; i < kHourlyCount; ++i) hourly.push_back(hourlyEntry(model.at(hourStart + i * kHour)));

  const std::int64_t today = hourStart - (((hourStart % kDay) + kDay) % kDay);
  boost::json::array daily;
  daily.reserve(kDailyCount);
  for (int i = 0; i < kDailyCount; ++i) daily.push_back(dailyEntry(model, today + i * kDay));

  return boost::json::object{{"location", {{"latitude", lat}, {"longitude", lon}}},
                             {"current", currentEntry(model.at(hourStart))},
                             {"hourly", std::move(hourly)},
                             {"daily", std::move(daily)}};
}

std::string_view conditionName(WeatherCondition condition) noexcept {
  static constexpr std::array<std::string_view, 5> kNames{"clear", "partlyCloudy", "cloudy", "rain", "snow"};
  return kNames[static_cast<std::size_t>(condition)];
}

}  // namespace kp::weather

namespace kp {

weather::WeatherCondition Coding<weather::WeatherCondition>::decode(const Decoder& d) {
  const std::string name = d.decode<std::string>();
  for (auto condition :
       {weather::WeatherCondition::clear, weather::WeatherCondition::partlyCloudy, weather::WeatherCondition::cloudy,
        weather::WeatherCondition::rain, weather::WeatherCondition::snow}) {
    if (weather::conditionName(condition) == name) return condition;
  }
  d.fail("unknown weather condition \"" + name + "\"");
}

}  // namespace kp
