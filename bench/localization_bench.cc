// Dates and units against their baselines, measured in the same run:
// - one weather value through kp::MeasurementFormatter against ICU's LocalizedNumberFormatter
//   with the same settings, called directly (goal: at most 1.2x), and against ICU formatting in
//   the unit shown without routing by usage;
// - a whole forecast screen (current conditions, 48 hours, 7 days: every value and time
//   formatted, in the locale's units and on its clock; goal: under 1 ms), with the same screen
//   written by snprintf in fixed units for scale;
// - RFC 3339 strings read by kp::readRfc3339 and by the service date reader, against strptime
//   plus timegm on the same strings (goal: at least 3x faster).
// Only the baselines include ICU here; the library's side goes through its public headers.
#include <benchmark/benchmark.h>
#include <unicode/numberformatter.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "kp/localization/compass.h"
#include "kp/localization/measurement_formatter.h"
#include "kp/localization/relative_time.h"
#include "kp/localization/service_date.h"
#include "kp/localization/zoned_date_formatter.h"

namespace {

using kp::Unit;
using kp::WeatherQuantity;

// Values that vary, so that neither side formats one number over and over.
std::vector<double> temperatures() {
  std::vector<double> values;
  for (int i = 0; i < 64; ++i) values.push_back(-20.0 + i * 0.77);
  return values;
}

void BM_Baseline_IcuFormatTemperature(benchmark::State& state) {
  UErrorCode status = U_ZERO_ERROR;
  const auto formatter = icu::number::NumberFormatter::withLocale(icu::Locale("de_DE"))
                             .unit(icu::MeasureUnit::getCelsius())
                             .usage("weather")
                             .unitWidth(UNUM_UNIT_WIDTH_SHORT)
                             .sign(UNUM_SIGN_NEGATIVE)
                             .precision(icu::number::Precision::fixedFraction(0));
  const auto values = temperatures();
  std::size_t i = 0;
  for (auto _ : state) {
    std::string out;
    formatter.formatDouble(values[i++ % values.size()], status).toString(status).toUTF8String(out);
    benchmark::DoNotOptimize(out);
  }
  if (U_FAILURE(status)) state.SkipWithError("ICU failed");
}
BENCHMARK(BM_Baseline_IcuFormatTemperature);

// ICU told the unit to show, as the library learns it once per locale: the cost of the number
// formatting alone, which the library's own work adds to.
void BM_Baseline_IcuFormatTemperatureInShownUnit(benchmark::State& state) {
  UErrorCode status = U_ZERO_ERROR;
  const auto formatter = icu::number::NumberFormatter::withLocale(icu::Locale("de_DE"))
                             .unit(icu::MeasureUnit::getCelsius())
                             .unitWidth(UNUM_UNIT_WIDTH_SHORT)
                             .sign(UNUM_SIGN_NEGATIVE)
                             .precision(icu::number::Precision::fixedFraction(0));
  const auto values = temperatures();
  std::size_t i = 0;
  for (auto _ : state) {
    std::string out;
    formatter.formatDouble(values[i++ % values.size()], status).toString(status).toUTF8String(out);
    benchmark::DoNotOptimize(out);
  }
  if (U_FAILURE(status)) state.SkipWithError("ICU failed");
}
BENCHMARK(BM_Baseline_IcuFormatTemperatureInShownUnit);

void BM_FormatTemperature(benchmark::State& state) {
  const kp::MeasurementFormatter formatter({.locale = "de_DE"});
  const auto values = temperatures();
  std::size_t i = 0;
  for (auto _ : state) {
    auto out = formatter.string(WeatherQuantity::temperature, {values[i++ % values.size()], Unit::celsius});
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_FormatTemperature);

struct Hour {
  kp::Date time;
  double temperature, wind, direction, pressure, rain;
};

std::vector<Hour> forecastHours(int count, double step) {
  std::vector<Hour> hours;
  const kp::Date start = kp::Date::fromTimeIntervalSince1970(1711846800);
  for (int i = 0; i < count; ++i) {
    hours.push_back({start.addingTimeInterval(i * step), 4.0 + (i % 17) * 0.9, 2.0 + (i % 11) * 0.7,
                     static_cast<double>((i * 37) % 360), 1002.0 + (i % 13), (i % 5) * 0.4});
  }
  return hours;
}

// The screen a user sees: current conditions, 48 hourly rows and 7 daily rows.
void BM_ForecastScreen(benchmark::State& state) {
  const std::string locale = "en_US";
  const kp::MeasurementFormatter units({.locale = locale});
  const kp::CompassFormatter compass(locale);
  const kp::RelativeTimeFormatter ago(locale);
  const auto hourClock = *kp::ZonedDateFormatter::make("EEEjmm", "America/New_York", locale).value();
  const auto dayClock = *kp::ZonedDateFormatter::make("EEEMMMd", "America/New_York", locale).value();
  const auto hours = forecastHours(48, 3600);
  const auto days = forecastHours(7, 86400);
  const kp::Date now = hours.front().time.addingTimeInterval(180);
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string screen;
    screen += ago.string(hours.front().time, now);
    const Hour& c = hours.front();
    hourClock.append(screen, c.time);
    units.append(screen, WeatherQuantity::temperature, {c.temperature, Unit::celsius});
    units.append(screen, WeatherQuantity::temperature, {c.temperature - 2, Unit::celsius});
    units.append(screen, WeatherQuantity::wind, {c.wind, Unit::meterPerSecond});
    units.append(screen, WeatherQuantity::wind, {c.wind * 1.6, Unit::meterPerSecond});
    screen += compass.string(c.direction);
    units.append(screen, WeatherQuantity::pressure, {c.pressure, Unit::hectopascal});
    units.append(screen, WeatherQuantity::visibility, {12000, Unit::meter});
    for (const Hour& h : hours) {
      hourClock.append(screen, h.time);
      units.append(screen, WeatherQuantity::temperature, {h.temperature, Unit::celsius});
      units.append(screen, WeatherQuantity::wind, {h.wind, Unit::meterPerSecond});
      screen += compass.string(h.direction);
      units.append(screen, WeatherQuantity::pressure, {h.pressure, Unit::hectopascal});
      units.append(screen, WeatherQuantity::precipitation, {h.rain, Unit::millimeter});
    }
    for (const Hour& d : days) {
      dayClock.append(screen, d.time);
      units.append(screen, WeatherQuantity::temperature, {d.temperature - 5, Unit::celsius});
      units.append(screen, WeatherQuantity::temperature, {d.temperature + 3, Unit::celsius});
      units.append(screen, WeatherQuantity::wind, {d.wind, Unit::meterPerSecond});
      screen += compass.string(d.direction);
      units.append(screen, WeatherQuantity::precipitation, {d.rain * 6, Unit::millimeter});
    }
    bytes = screen.size();
    benchmark::DoNotOptimize(screen);
  }
  state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ForecastScreen)->Unit(benchmark::kMicrosecond);

// The same screen as the demo used to print it: snprintf in fixed metric units.
void BM_Baseline_ForecastScreenPrintf(benchmark::State& state) {
  const auto hours = forecastHours(48, 3600);
  const auto days = forecastHours(7, 86400);
  char buffer[128];
  for (auto _ : state) {
    std::string screen;
    auto row = [&](const Hour& h) {
      const auto seconds = static_cast<std::time_t>(h.time.timeIntervalSince1970());
      std::tm fields{};
      ::gmtime_r(&seconds, &fields);
      const auto n = std::strftime(buffer, sizeof buffer, "%a %H:%M ", &fields);
      screen.append(buffer, n);
      const int m = std::snprintf(buffer, sizeof buffer, "%.0f °C %.0f m/s %.0f° %.0f hPa %.1f mm", h.temperature,
                                  h.wind, h.direction, h.pressure, h.rain);
      screen.append(buffer, static_cast<std::size_t>(m));
    };
    for (const Hour& h : hours) row(h);
    for (const Hour& d : days) row(d);
    benchmark::DoNotOptimize(screen);
  }
}
BENCHMARK(BM_Baseline_ForecastScreenPrintf)->Unit(benchmark::kMicrosecond);

std::vector<std::string> rfc3339Strings() {
  std::vector<std::string> texts;
  const auto hours = forecastHours(64, 7919);
  for (const Hour& h : hours) texts.push_back(kp::rfc3339String(h.time));
  return texts;
}

void BM_Baseline_StrptimeTimegm(benchmark::State& state) {
  const auto texts = rfc3339Strings();
  std::size_t i = 0;
  for (auto _ : state) {
    std::tm fields{};
    const char* end = ::strptime(texts[i++ % texts.size()].c_str(), "%Y-%m-%dT%H:%M:%SZ", &fields);
    benchmark::DoNotOptimize(end);
    benchmark::DoNotOptimize(::timegm(&fields));
  }
}
BENCHMARK(BM_Baseline_StrptimeTimegm);

void BM_ReadRfc3339(benchmark::State& state) {
  const auto texts = rfc3339Strings();
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(kp::readRfc3339(texts[i++ % texts.size()]));
}
BENCHMARK(BM_ReadRfc3339);

void BM_ServiceDateReader(benchmark::State& state) {
  const auto texts = rfc3339Strings();
  const kp::ServiceDateReader reader;
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(reader.read(texts[i++ % texts.size()]));
}
BENCHMARK(BM_ServiceDateReader);

}  // namespace
