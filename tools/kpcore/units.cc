// kpcore units: converts a value between units, and writes a weather value as a locale reads
// it, in the locale's preferred units or a chosen system's.
#include <charconv>
#include <cstdio>
#include <iostream>

#include "command.h"
#include "kp/localization/measurement_formatter.h"

namespace {

using kpcore::CommandError;

double number(const std::string& text) {
  double value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) throw CommandError("not a number: " + text, 2);
  return value;
}

kp::Unit unit(const std::string& symbol) {
  if (auto found = kp::unitForSymbol(symbol)) return *found;
  throw CommandError(
      "unknown unit: " + symbol + " (C F K hPa mbar kPa inHg mmHg m km mi ft nmi m/s km/h mph kn bft mm cm in)", 2);
}

std::string required(kpcore::Args& args, const char* what) {
  if (auto value = args.positional()) return *value;
  throw CommandError(std::string("missing ") + what, 2);
}

// Up to ten significant digits, without trailing zeros: "68", "33.86388640".
std::string shortNumber(double value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.10g", value);
  return buffer;
}

int convert(kpcore::Args& args, bool json) {
  const double value = number(required(args, "VALUE"));
  const kp::Unit from = unit(required(args, "FROM unit"));
  const kp::Unit to = unit(required(args, "TO unit"));
  args.expectEnd();
  if (kp::dimensionOf(from) != kp::dimensionOf(to)) {
    throw CommandError("cannot convert " + std::string(kp::symbolOf(from)) + " to " + std::string(kp::symbolOf(to)));
  }
  const auto result = kp::Measurement{value, from}.converted(to);
  if (!result) throw CommandError("no " + std::string(kp::symbolOf(to)) + " value for " + shortNumber(value));
  const std::string text = shortNumber(result->value);
  if (json) {
    std::cout << "{\"value\":" << text << ",\"unit\":" << kpcore::jsonQuote(kp::symbolOf(to)) << "}\n";
  } else {
    std::cout << text << " " << kp::symbolOf(to) << "\n";
  }
  return 0;
}

int format(kpcore::Args& args, bool json) {
  kp::MeasurementFormatSettings settings;
  if (auto locale = args.option("locale")) settings.locale = *locale;
  if (auto system = args.option("units")) {
    const auto named = kp::unitSystemNamed(*system);
    if (!named) throw CommandError("unknown unit system: " + *system + " (locale, metric, us, uk)", 2);
    settings.units = *named;
  }
  if (auto width = args.option("width")) {
    const auto named = kp::textWidthNamed(*width);
    if (!named) throw CommandError("unknown width: " + *width + " (short, narrow, long)", 2);
    settings.width = *named;
  }
  const std::string name = required(args, "QUANTITY");
  const auto quantity = kp::weatherQuantityNamed(name);
  if (!quantity) {
    throw CommandError("unknown quantity: " + name + " (temperature, wind, pressure, precipitation, visibility)", 2);
  }
  const double value = number(required(args, "VALUE"));
  const kp::Unit measured = unit(required(args, "UNIT"));
  args.expectEnd();
  if (!kp::measures(*quantity, measured)) {
    throw CommandError(std::string(kp::symbolOf(measured)) + " does not measure " + name, 2);
  }
  const auto text = kp::MeasurementFormatter(settings).string(*quantity, {value, measured});
  if (!text) throw CommandError("no text for " + shortNumber(value) + " " + std::string(kp::symbolOf(measured)));
  if (json) {
    std::cout << "{\"text\":" << kpcore::jsonQuote(*text) << "}\n";
  } else {
    std::cout << *text << "\n";
  }
  return 0;
}

int runUnits(kpcore::Args& args) {
  const bool json = args.flag("json");
  const auto action = args.positional();
  if (action == "convert") return convert(args, json);
  if (action == "format") return format(args, json);
  throw CommandError(action ? "unknown action: " + *action + " (convert, format)" : "missing action (convert, format)",
                     2);
}

const kpcore::Registration registration{
    "units", "Convert weather units, or write a value in a locale's preferred units",
    "kpcore units convert VALUE FROM TO [--json]\n"
    "       kpcore units format QUANTITY VALUE UNIT [--locale L] [--units locale|metric|us|uk]\n"
    "                           [--width short|narrow|long] [--json]\n"
    "  Units: C F K hPa mbar kPa inHg mmHg m km mi ft nmi m/s km/h mph kn bft mm cm in.\n"
    "  Quantities: temperature, wind, pressure, precipitation, snowfall, visibility.",
    runUnits};

}  // namespace
