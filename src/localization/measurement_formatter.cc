// Weather values through ICU's number formatter: CLDR's unit preferences per usage for the
// locale's own units, our own exact conversions for a chosen unit system.
#include "kp/localization/measurement_formatter.h"

#include <unicode/numberformatter.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <mutex>
#include <vector>

#include "localization/icu_support.h"
#include "platform/no_destructor.h"

namespace kp {
namespace {

using icu::number::LocalizedNumberFormatter;
using icu::number::NumberFormatter;
using icu::number::Precision;

constexpr std::size_t kQuantities = 6;
constexpr std::size_t kUnits = static_cast<std::size_t>(Unit::beaufort) + 1;

constexpr std::array<std::string_view, kQuantities> kQuantityNames{"temperature",   "wind",     "pressure",
                                                                   "precipitation", "snowfall", "visibility"};
// CLDR's usage names for the same quantities.
constexpr std::array<const char*, kQuantities> kUsages{"weather",  "wind",     "baromtrc",
                                                       "rainfall", "snowfall", "visiblty"};

// ICU's identifiers of our units; the Beaufort force has none (it is converted to m/s first).
constexpr std::array<const char*, kUnits> kIcuUnits{"celsius",
                                                    "fahrenheit",
                                                    "kelvin",
                                                    "hectopascal",
                                                    "millibar",
                                                    "kilopascal",
                                                    "inch-ofhg",
                                                    "millimeter-ofhg",
                                                    "meter",
                                                    "kilometer",
                                                    "mile",
                                                    "foot",
                                                    "nautical-mile",
                                                    "millimeter",
                                                    "centimeter",
                                                    "inch",
                                                    "meter-per-second",
                                                    "kilometer-per-hour",
                                                    "mile-per-hour",
                                                    "knot",
                                                    nullptr};

std::size_t indexOf(WeatherQuantity q) { return static_cast<std::size_t>(q); }
std::size_t indexOf(Unit u) { return static_cast<std::size_t>(u); }

// Units a chosen system shows, per quantity; visibility below one large unit shows the small.
struct SystemUnits {
  std::array<Unit, kQuantities> shown;
  Unit smallVisibility;
};
SystemUnits unitsOf(UnitSystem system) {
  using enum Unit;
  switch (system) {
    case UnitSystem::us:
      return {{fahrenheit, milePerHour, inchOfMercury, inch, inch, mile}, foot};
    case UnitSystem::uk:
      return {{celsius, milePerHour, millibar, millimeter, centimeter, mile}, foot};
    default:
      return {{celsius, kilometerPerHour, hectopascal, millimeter, centimeter, kilometer}, meter};
  }
}

// Digits after the separator for a unit shown for a quantity; nothing: ICU's own.
std::optional<int> defaultDigits(WeatherQuantity quantity, Unit shown) {
  switch (shown) {
    case Unit::kilopascal:
    case Unit::millimeter:
    case Unit::centimeter:
      return 1;
    case Unit::inchOfMercury:
      return 2;
    case Unit::inch:
      return quantity == WeatherQuantity::snowfall ? 1 : 2;
    default:
      return 0;
  }
}

std::optional<Unit> unitForIcu(std::string_view identifier) {
  for (std::size_t i = 0; i < kUnits; ++i) {
    if (kIcuUnits[i] != nullptr && identifier == kIcuUnits[i]) return static_cast<Unit>(i);
  }
  return std::nullopt;
}

icu::MeasureUnit icuUnit(Unit unit) {
  UErrorCode status = U_ZERO_ERROR;
  return icu::MeasureUnit::forIdentifier(kIcuUnits[indexOf(unit)], status);
}

UNumberUnitWidth icuWidth(TextWidth width) {
  switch (width) {
    case TextWidth::narrow:
      return UNUM_UNIT_WIDTH_NARROW;
    case TextWidth::long_:
      return UNUM_UNIT_WIDTH_FULL_NAME;
    case TextWidth::short_:
      break;
  }
  return UNUM_UNIT_WIDTH_SHORT;
}

// A typical value of each quantity in SI units, to learn which unit the locale shows.
constexpr std::array<double, kQuantities> kProbes{293.15, 5, 101300, 0.002, 0.03, 10000};
constexpr std::array<Unit, kQuantities> kProbeUnits{Unit::kelvin, Unit::meterPerSecond, Unit::hectopascal,
                                                    Unit::meter,  Unit::meter,          Unit::meter};

// The one unit of ours that ICU's preferences show for the quantity from a thousandth to a
// thousand times its typical value, and below zero; nothing when they show several (visibility:
// metres below a kilometre) or one we do not know.
// Probes a copy: ICU compiles a formatter after a few calls and hands the compiled one on when
// the formatter is moved into one with other settings, which would keep the old precision.
std::optional<Unit> singleShownUnit(LocalizedNumberFormatter routed, WeatherQuantity quantity, Unit input) {
  std::optional<Unit> single;
  for (const double scale : {1e-3, 0.1, 1.0, 10.0, 1e3, -1.0}) {
    const auto probe = Measurement{kProbes[indexOf(quantity)] * scale, kProbeUnits[indexOf(quantity)]}.converted(input);
    if (!probe) return std::nullopt;
    UErrorCode status = U_ZERO_ERROR;
    const auto shown = routed.formatDouble(probe->value, status).getOutputUnit(status);
    const auto known = U_SUCCESS(status) ? unitForIcu(shown.getIdentifier()) : std::nullopt;
    if (!known || (single && *single != *known)) return std::nullopt;
    single = known;
  }
  return single;
}

// How one quantity measured in one unit is written under one set of settings.
struct Entry {
  LocalizedNumberFormatter large;
  std::optional<LocalizedNumberFormatter> small;  // visibility of a chosen system below 1
  std::optional<Unit> convertTo;                  // convert before formatting (nothing: as measured)
  Unit smallUnit = Unit::meter;
  bool beaufort = false;
};

LocalizedNumberFormatter withPrecision(LocalizedNumberFormatter base, WeatherQuantity quantity,
                                       std::optional<int> digits) {
  if (digits) return std::move(base).precision(Precision::fixedFraction(std::clamp(*digits, 0, 6)));
  if (quantity == WeatherQuantity::visibility) return std::move(base).precision(Precision::maxSignificantDigits(2));
  return base;
}

std::optional<int> fixedDigits(const MeasurementFormatSettings& settings, WeatherQuantity quantity) {
  const auto it = settings.fractionDigits.find(quantity);
  return it == settings.fractionDigits.end() ? std::nullopt : std::optional<int>(it->second);
}

Entry makeEntry(const MeasurementFormatSettings& settings, WeatherQuantity quantity, Unit unit) {
  const icu::Locale locale = internal::localeFor(settings.locale);
  const LocalizedNumberFormatter base =
      NumberFormatter::withLocale(locale).unitWidth(icuWidth(settings.width)).sign(UNUM_SIGN_NEGATIVE);
  const std::optional<int> fixed = fixedDigits(settings, quantity);
  Entry entry{base, std::nullopt, std::nullopt};
  if (quantity == WeatherQuantity::wind && settings.windInBeaufort) {
    entry.beaufort = true;
    entry.convertTo = Unit::beaufort;
    return entry;
  }
  if (settings.units == UnitSystem::locale) {
    // ICU converts; a Beaufort force reaches it as a speed.
    const Unit input = unit == Unit::beaufort ? Unit::meterPerSecond : unit;
    if (input != unit) entry.convertTo = input;
    LocalizedNumberFormatter routed = base.unit(icuUnit(input)).usage(kUsages[indexOf(quantity)]);
    if (const auto shown = singleShownUnit(routed, quantity, input)) {
      // Routing each value through ICU's unit preferences costs five times the formatting;
      // where the locale shows one unit at every magnitude, converting first says the same.
      entry.convertTo = *shown;
      const bool significant = quantity == WeatherQuantity::visibility;
      entry.large = withPrecision(base.unit(icuUnit(*shown)), quantity,
                                  fixed || significant ? fixed : defaultDigits(quantity, *shown));
      return entry;
    }
    entry.large = withPrecision(std::move(routed), quantity, fixed);
    return entry;
  }
  const SystemUnits system = unitsOf(settings.units);
  const Unit shown = system.shown[indexOf(quantity)];
  entry.convertTo = shown;
  const bool significant = quantity == WeatherQuantity::visibility;
  entry.large =
      withPrecision(base.unit(icuUnit(shown)), quantity, fixed || significant ? fixed : defaultDigits(quantity, shown));
  if (quantity == WeatherQuantity::visibility) {
    entry.smallUnit = system.smallVisibility;
    entry.small = withPrecision(base.unit(icuUnit(entry.smallUnit)), quantity, fixed);
  }
  return entry;
}

std::string settingsKey(const MeasurementFormatSettings& s) {
  std::string key = internal::localeKey(s.locale);
  key += '|';
  key += std::to_string(static_cast<int>(s.units));
  key += std::to_string(static_cast<int>(s.width));
  key += s.windInBeaufort ? 'b' : '-';
  for (const auto& [quantity, digits] : s.fractionDigits) {
    key += '|' + std::to_string(static_cast<int>(quantity)) + '=' + std::to_string(digits);
  }
  return key;
}

bool appendIcu(std::string& out, const LocalizedNumberFormatter& formatter, double value) {
  UErrorCode status = U_ZERO_ERROR;
  const auto formatted = formatter.formatDouble(value, status);
  const auto text = formatted.toString(status);
  if (U_FAILURE(status)) return false;
  internal::appendUtf8(out, text);
  return true;
}

}  // namespace

std::optional<WeatherQuantity> weatherQuantityNamed(std::string_view name) noexcept {
  for (std::size_t i = 0; i < kQuantities; ++i) {
    if (kQuantityNames[i] == name) return static_cast<WeatherQuantity>(i);
  }
  return std::nullopt;
}

std::optional<UnitSystem> unitSystemNamed(std::string_view name) noexcept {
  if (name == "locale") return UnitSystem::locale;
  if (name == "metric") return UnitSystem::metric;
  if (name == "us") return UnitSystem::us;
  if (name == "uk") return UnitSystem::uk;
  return std::nullopt;
}

std::optional<TextWidth> textWidthNamed(std::string_view name) noexcept {
  if (name == "short") return TextWidth::short_;
  if (name == "narrow") return TextWidth::narrow;
  if (name == "long") return TextWidth::long_;
  return std::nullopt;
}

bool measures(WeatherQuantity quantity, Unit unit) noexcept {
  switch (quantity) {
    case WeatherQuantity::temperature:
      return dimensionOf(unit) == Dimension::temperature;
    case WeatherQuantity::wind:
      return dimensionOf(unit) == Dimension::speed;
    case WeatherQuantity::pressure:
      return dimensionOf(unit) == Dimension::pressure;
    default:
      return dimensionOf(unit) == Dimension::length;
  }
}

class MeasurementFormatter::Impl {
 public:
  explicit Impl(MeasurementFormatSettings settings) : settings_(std::move(settings)), key_(settingsKey(settings_)) {
    if (settings_.locale.empty()) settings_.locale = currentLocaleIdentifier();
  }

  [[nodiscard]] const MeasurementFormatSettings& settings() const noexcept { return settings_; }

  bool append(std::string& out, WeatherQuantity quantity, Measurement m) const {
    if (!std::isfinite(m.value) || !measures(quantity, m.unit)) return false;
    const Entry& entry = entryFor(quantity, m.unit);
    double value = m.value;
    if (entry.convertTo) {
      const auto converted = m.converted(*entry.convertTo);
      if (!converted) return false;
      value = converted->value;
    }
    if (entry.beaufort) return appendBeaufort(out, static_cast<long long>(value));
    if (entry.small && std::fabs(value) < 1) {
      const auto smaller = Measurement{value, *entry.convertTo}.converted(entry.smallUnit);
      return smaller && appendIcu(out, *entry.small, smaller->value);
    }
    return appendIcu(out, entry.large, value);
  }

 private:
  // Made on first use and kept for the formatter's life: the fast path is one atomic load.
  const Entry& entryFor(WeatherQuantity quantity, Unit unit) const {
    auto& slot = slots_[indexOf(quantity) * kUnits + indexOf(unit)];
    if (const Entry* entry = slot.load(std::memory_order_acquire)) return *entry;
    static internal::NoDestructor<internal::SharedCache<Entry, 1024>> shared;
    auto made = shared->get(key_ + "|" + std::to_string(indexOf(quantity)) + "|" + std::to_string(indexOf(unit)),
                            [&] { return std::make_shared<const Entry>(makeEntry(settings_, quantity, unit)); });
    std::lock_guard lock(mutex_);
    if (const Entry* entry = slot.load(std::memory_order_acquire)) return *entry;
    held_.push_back(made);
    slot.store(made.get(), std::memory_order_release);
    return *made;
  }

  bool appendBeaufort(std::string& out, long long force) const {
    const bool isLong = settings_.width == TextWidth::long_;
    const char* id = isLong ? "Beaufort force {0}" : "{0} Bft";
    std::optional<std::string> text;
    if (settings_.strings) text = settings_.strings->pluralText(settings_.locale, id, force, "unit");
    out += internal::substitute(text.value_or(id), internal::integerText(settings_.locale, force));
    return true;
  }

  MeasurementFormatSettings settings_;
  std::string key_;
  mutable std::array<std::atomic<const Entry*>, kQuantities * kUnits> slots_{};
  mutable std::mutex mutex_;
  mutable std::vector<std::shared_ptr<const Entry>> held_;
};

MeasurementFormatter::MeasurementFormatter(MeasurementFormatSettings settings)
    : impl_(std::make_shared<Impl>(std::move(settings))) {}

const MeasurementFormatSettings& MeasurementFormatter::settings() const noexcept { return impl_->settings(); }

std::optional<std::string> MeasurementFormatter::string(WeatherQuantity quantity, Measurement measurement) const {
  std::string out;
  if (!impl_->append(out, quantity, measurement)) return std::nullopt;
  return out;
}

bool MeasurementFormatter::append(std::string& out, WeatherQuantity quantity, Measurement measurement) const {
  const std::size_t size = out.size();
  if (impl_->append(out, quantity, measurement)) return true;
  out.resize(size);
  return false;
}

}  // namespace kp
