// Measurements: exact conversions, the Beaufort bands, and weather values written in each
// region's preferred units, a chosen system's, and every width.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "kp/localization/measurement_formatter.h"

namespace {

using kp::Measurement;
using kp::Unit;
using kp::WeatherQuantity;

double convert(double value, Unit from, Unit to) {
  const auto result = Measurement{value, from}.converted(to);
  return result ? result->value : std::numeric_limits<double>::quiet_NaN();
}

TEST(Measurement, ConvertsExactlyByTheSiDefinitions) {
  EXPECT_DOUBLE_EQ(convert(100, Unit::celsius, Unit::fahrenheit), 212);
  EXPECT_DOUBLE_EQ(convert(-40, Unit::fahrenheit, Unit::celsius), -40);
  EXPECT_DOUBLE_EQ(convert(0, Unit::kelvin, Unit::fahrenheit), -459.67);
  EXPECT_DOUBLE_EQ(convert(1, Unit::inchOfMercury, Unit::hectopascal), 33.86388640341);
  EXPECT_DOUBLE_EQ(convert(760, Unit::millimeterOfMercury, Unit::hectopascal), 1013.2501443540);
  EXPECT_DOUBLE_EQ(convert(1013.25, Unit::hectopascal, Unit::millibar), 1013.25);
  EXPECT_DOUBLE_EQ(convert(1, Unit::mile, Unit::foot), 5280);
  EXPECT_DOUBLE_EQ(convert(1, Unit::nauticalMile, Unit::kilometer), 1.852);
  EXPECT_DOUBLE_EQ(convert(1, Unit::inch, Unit::millimeter), 25.4);
  EXPECT_DOUBLE_EQ(convert(1, Unit::knot, Unit::kilometerPerHour), 1.852);
  EXPECT_DOUBLE_EQ(convert(100, Unit::kilometerPerHour, Unit::milePerHour), 62.13711922373339);
  EXPECT_TRUE(std::isnan(convert(1, Unit::celsius, Unit::meter)));
  EXPECT_TRUE(std::isnan(convert(std::numeric_limits<double>::infinity(), Unit::celsius, Unit::kelvin)));
  EXPECT_EQ(kp::unitForSymbol("km/h"), Unit::kilometerPerHour);
  EXPECT_EQ(kp::unitForSymbol("KM/H"), std::nullopt);
  for (int u = 0; u <= static_cast<int>(Unit::beaufort); ++u) {
    EXPECT_EQ(kp::unitForSymbol(kp::symbolOf(static_cast<Unit>(u))), static_cast<Unit>(u));
  }
}

TEST(Measurement, BeaufortForcesFollowTheWmoBands) {
  const std::pair<double, int> bands[] = {{0, 0},   {0.24, 0}, {0.25, 1}, {1.5, 1},  {1.6, 2},   {5.44, 3},   {5.45, 4},
                                          {7.9, 4}, {8.0, 5},  {17.1, 7}, {17.2, 8}, {32.6, 11}, {32.65, 12}, {70, 12}};
  for (const auto& [speed, force] : bands) EXPECT_EQ(kp::beaufortForce(speed), force) << speed;
  EXPECT_EQ(kp::beaufortForce(-1), std::nullopt);
  EXPECT_DOUBLE_EQ(convert(20, Unit::knot, Unit::beaufort), 5);
  EXPECT_NEAR(convert(4, Unit::beaufort, Unit::meterPerSecond), 6.688, 1e-9);
  // A force read back into a speed lies within its own band.
  for (int force = 0; force <= 12; ++force) {
    EXPECT_EQ(convert(convert(force, Unit::beaufort, Unit::meterPerSecond), Unit::meterPerSecond, Unit::beaufort),
              force);
  }
  EXPECT_TRUE(std::isnan(convert(13, Unit::beaufort, Unit::knot)));
}

std::string text(const kp::MeasurementFormatSettings& settings, WeatherQuantity quantity, double value, Unit unit) {
  return kp::MeasurementFormatter(settings).string(quantity, {value, unit}).value_or("nothing");
}

TEST(MeasurementFormatter, EachRegionsPreferredWeatherUnits) {
  struct Row {
    const char* locale;
    const char* temperature;
    const char* wind;
    const char* pressure;
    const char* rain;
    const char* visibility;
  };
  const Row rows[] = {
      {"en_US", "71°F", "12 mph", "29.92 inHg", "0.09 in", "2,800 ft"},
      {"ru_RU", "22 °C", "5 м/с", "760 мм рт. ст.", "2,4 мм", "0,85 км"},
      {"nb_NO", "22 °C", "5 m/s", "1\u00A0013 hPa", "2,4 mm", "0,85 km"},
      {"en_GB", "22°C", "19 km/h", "1,013 mbar", "2.4 mm", "2,800 ft"},
      {"ar_EG", "٢٢°م", "١٩ كم/س", "١٬٠١٣ م. بار", "٢٫٤ مم", "٠٫٨٥ كم"},
      // The region keyword asks for British units in American English.
      {"en_US@rg=gbzzzz", "22°C", "19 km/h", "1,013 mbar", "2.4 mm", "2,800 ft"},
  };
  for (const Row& row : rows) {
    const kp::MeasurementFormatSettings settings{.locale = row.locale};
    EXPECT_EQ(text(settings, WeatherQuantity::temperature, 21.5, Unit::celsius), row.temperature) << row.locale;
    EXPECT_EQ(text(settings, WeatherQuantity::wind, 5.3, Unit::meterPerSecond), row.wind) << row.locale;
    EXPECT_EQ(text(settings, WeatherQuantity::pressure, 1013.2, Unit::hectopascal), row.pressure) << row.locale;
    EXPECT_EQ(text(settings, WeatherQuantity::precipitation, 2.35, Unit::millimeter), row.rain) << row.locale;
    EXPECT_EQ(text(settings, WeatherQuantity::visibility, 850, Unit::meter), row.visibility) << row.locale;
  }
  // Measured in other units, the same preferences apply.
  EXPECT_EQ(text({.locale = "en_US"}, WeatherQuantity::temperature, 294.65, Unit::kelvin), "71°F");
  EXPECT_EQ(text({.locale = "ru_RU"}, WeatherQuantity::wind, 4, Unit::beaufort), "7 м/с");
  EXPECT_EQ(text({.locale = "en_US"}, WeatherQuantity::visibility, 12, Unit::kilometer), "7.5 mi");
  EXPECT_EQ(text({.locale = "en_US"}, WeatherQuantity::snowfall, 3.3, Unit::centimeter), "1.3 in");
}

TEST(MeasurementFormatter, ChosenSystemsWidthsAndPrecision) {
  using kp::TextWidth;
  using kp::UnitSystem;
  EXPECT_EQ(text({.locale = "de_DE", .units = UnitSystem::us}, WeatherQuantity::temperature, 21.5, Unit::celsius),
            "71 °F");
  EXPECT_EQ(text({.locale = "en_US", .units = UnitSystem::metric}, WeatherQuantity::wind, 5, Unit::meterPerSecond),
            "18 km/h");
  EXPECT_EQ(text({.locale = "en_US", .units = UnitSystem::uk}, WeatherQuantity::wind, 5, Unit::meterPerSecond),
            "11 mph");
  EXPECT_EQ(text({.locale = "en_GB", .units = UnitSystem::uk}, WeatherQuantity::pressure, 29.92, Unit::inchOfMercury),
            "1,013 mbar");
  EXPECT_EQ(text({.locale = "en_US", .units = UnitSystem::metric}, WeatherQuantity::visibility, 850, Unit::meter),
            "850 m");
  EXPECT_EQ(text({.locale = "en_US", .units = UnitSystem::metric}, WeatherQuantity::visibility, 1.2, Unit::mile),
            "1.9 km");
  EXPECT_EQ(text({.locale = "en_US", .units = UnitSystem::us}, WeatherQuantity::visibility, 500, Unit::meter),
            "1,600 ft");

  EXPECT_EQ(text({.locale = "en_US", .width = TextWidth::long_}, WeatherQuantity::temperature, 21.5, Unit::celsius),
            "71 degrees Fahrenheit");
  EXPECT_EQ(text({.locale = "en_US", .width = TextWidth::narrow}, WeatherQuantity::temperature, 21.5, Unit::celsius),
            "71°");
  EXPECT_EQ(text({.locale = "ru_RU", .width = TextWidth::long_}, WeatherQuantity::pressure, 1013.2, Unit::hectopascal),
            "760 миллиметров ртутного столба");
  EXPECT_EQ(text({.locale = "pl_PL", .width = TextWidth::long_}, WeatherQuantity::wind, 2, Unit::meterPerSecond),
            "2 metry na sekundę");

  EXPECT_EQ(text({.locale = "en_US", .fractionDigits = {{WeatherQuantity::temperature, 1}}},
                 WeatherQuantity::temperature, 21.5, Unit::celsius),
            "70.7°F");
  EXPECT_EQ(text({.locale = "de_DE", .windInBeaufort = true}, WeatherQuantity::wind, 20, Unit::knot), "5 Bft");
  EXPECT_EQ(text({.locale = "ar_EG", .width = TextWidth::long_, .windInBeaufort = true}, WeatherQuantity::wind, 20,
                 Unit::knot),
            "Beaufort force ٥");
  // No "-0": a cold that rounds to zero is zero.
  EXPECT_EQ(text({.locale = "en_US", .units = UnitSystem::metric}, WeatherQuantity::temperature, -0.3, Unit::celsius),
            "0°C");
}

TEST(MeasurementFormatter, NoTextForValuesThatAreNotFiniteOrUnitsOfAnotherQuantity) {
  const kp::MeasurementFormatter formatter({.locale = "en_US"});
  for (const double bad : {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                           -std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(formatter.string(WeatherQuantity::temperature, {bad, Unit::celsius}), std::nullopt);
    std::string out = "kept";
    EXPECT_FALSE(formatter.append(out, WeatherQuantity::wind, {bad, Unit::knot}));
    EXPECT_EQ(out, "kept");
  }
  EXPECT_EQ(formatter.string(WeatherQuantity::wind, {3, Unit::celsius}), std::nullopt);
  EXPECT_EQ(formatter.string(WeatherQuantity::pressure, {3, Unit::meter}), std::nullopt);
  EXPECT_EQ(formatter.string(WeatherQuantity::wind, {-3, Unit::beaufort}), std::nullopt);
  EXPECT_EQ(formatter.string(WeatherQuantity::temperature, {1e300, Unit::celsius}).has_value(), true);
}

TEST(MeasurementFormatter, FormattersAreSharedAcrossThreads) {
  const kp::MeasurementFormatter shared({.locale = "nb_NO"});
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      // Half the threads share one formatter, half make their own with the same settings.
      const kp::MeasurementFormatter own({.locale = "nb_NO"});
      const auto& formatter = t % 2 == 0 ? shared : own;
      for (int i = 0; i < 200; ++i) {
        if (formatter.string(WeatherQuantity::wind, {5.3, Unit::meterPerSecond}) != "5 m/s") ++wrong;
        if (formatter.string(WeatherQuantity::pressure, {1013.2, Unit::hectopascal}) != "1\u00A0013 hPa") ++wrong;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
