// The fault plan: SPEC text read strictly, and a draw per answer that depends only on the seed
// and the answer's number.
#include "faults.h"

#include <charconv>
#include <cmath>

namespace kp::weather {
namespace {

constexpr std::array<std::string_view, kFaultKindCount> kNames = {
    "delay", "dribble", "cut", "reset", "500", "503", "envelope-error", "wrong-key", "oversize", "wrong-length"};

// SplitMix64: a good spread of bits from consecutive inputs, so that answer n's draw needs
// no state shared between the serving threads.
std::uint64_t mix(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

std::optional<double> number(std::string_view text) {
  double value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || text.empty() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

// "2s", "250ms", "1.5s"; at most an hour.
std::optional<std::chrono::milliseconds> duration(std::string_view text) {
  double scale = 0;
  if (text.ends_with("ms")) {
    scale = 1;
    text.remove_suffix(2);
  } else if (text.ends_with('s')) {
    scale = 1000;
    text.remove_suffix(1);
  } else {
    return std::nullopt;
  }
  const auto value = number(text);
  if (!value || *value < 0 || *value * scale > 3600e3) return std::nullopt;
  return std::chrono::milliseconds(static_cast<std::int64_t>(std::llround(*value * scale)));
}

// "4096", "64K", "2M", "1G"; at least 1 byte, at most 1 TiB.
std::optional<std::uint64_t> byteCount(std::string_view text) {
  std::uint64_t scale = 1;
  if (!text.empty()) {
    switch (text.back()) {
      case 'K':
        scale = 1ull << 10;
        break;
      case 'M':
        scale = 1ull << 20;
        break;
      case 'G':
        scale = 1ull << 30;
        break;
      default:
        break;
    }
    if (scale != 1) text.remove_suffix(1);
  }
  std::uint64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || text.empty() || value == 0 ||
      value > (1ull << 40) / scale) {
    return std::nullopt;
  }
  return value * scale;
}

std::optional<FaultSpec> fail(std::string* error, std::string message) {
  if (error) *error = std::move(message);
  return std::nullopt;
}

}  // namespace

std::string_view faultName(FaultKind kind) noexcept { return kNames[static_cast<std::size_t>(kind)]; }

bool FaultSpec::empty() const noexcept {
  for (double rate : rates) {
    if (rate > 0) return false;
  }
  return true;
}

std::optional<FaultSpec> FaultSpec::parse(std::string_view text, std::string* error) {
  FaultSpec spec;
  std::array<bool, kFaultKindCount> seen{};
  bool seedSeen = false;
  double total = 0;
  while (!text.empty()) {
    const std::size_t comma = text.find(',');
    const std::string_view item = text.substr(0, comma);
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    const std::size_t equals = item.find('=');
    if (equals == std::string_view::npos) return fail(error, "'" + std::string(item) + "' is not KIND=RATE");
    const std::string_view name = item.substr(0, equals);
    std::string_view value = item.substr(equals + 1);
    if (name == "seed") {
      std::uint64_t seed = 0;
      const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), seed);
      if (seedSeen || ec != std::errc() || end != value.data() + value.size() || value.empty()) {
        return fail(error, "seed takes one whole number: '" + std::string(value) + "'");
      }
      spec.seed = seed;
      seedSeen = true;
      continue;
    }
    std::size_t index = 0;
    while (index < kFaultKindCount && kNames[index] != name) ++index;
    if (index == kFaultKindCount) return fail(error, "unknown fault '" + std::string(name) + "'");
    if (seen[index]) return fail(error, "fault '" + std::string(name) + "' given twice");
    seen[index] = true;
    std::string_view parameter;
    if (const std::size_t colon = value.find(':'); colon != std::string_view::npos) {
      parameter = value.substr(colon + 1);
      value = value.substr(0, colon);
    }
    const auto rate = number(value);
    if (!rate || *rate < 0 || *rate > 1) {
      return fail(error,
                  "the rate of '" + std::string(name) + "' is a fraction from 0 to 1: '" + std::string(value) + "'");
    }
    spec.rates[index] = *rate;
    total += *rate;
    const auto kind = static_cast<FaultKind>(index);
    if (parameter.empty()) continue;
    if (kind == FaultKind::delay || kind == FaultKind::dribble) {
      const auto time = duration(parameter);
      if (!time)
        return fail(error,
                    std::string(name) + " takes a duration such as 2s or 250ms: '" + std::string(parameter) + "'");
      (kind == FaultKind::delay ? spec.longestDelay : spec.dribbleTime) = *time;
    } else if (kind == FaultKind::oversize) {
      const auto bytes = byteCount(parameter);
      if (!bytes) return fail(error, "oversize takes a size such as 2M: '" + std::string(parameter) + "'");
      spec.oversizeBytes = *bytes;
    } else {
      return fail(error, "fault '" + std::string(name) + "' takes no parameter");
    }
  }
  // A little room for rates written with decimals that do not add up exactly.
  if (total > 1 + 1e-9) return fail(error, "the rates add up to more than 1");
  return spec;
}

std::optional<Fault> FaultPlan::next() {
  const std::uint64_t n = answers_.fetch_add(1);
  const std::uint64_t draw = mix(spec_.seed ^ mix(n));
  const double u = static_cast<double>(draw >> 11) * 0x1.0p-53;
  double edge = 0;
  for (std::size_t i = 0; i < kFaultKindCount; ++i) {
    edge += spec_.rates[i];
    if (spec_.rates[i] > 0 && u < edge) {
      counts_[i].fetch_add(1);
      return Fault{static_cast<FaultKind>(i), mix(draw)};
    }
  }
  return std::nullopt;
}

std::array<std::uint64_t, kFaultKindCount> FaultPlan::counts() const noexcept {
  std::array<std::uint64_t, kFaultKindCount> out{};
  for (std::size_t i = 0; i < kFaultKindCount; ++i) out[i] = counts_[i].load();
  return out;
}

std::string FaultPlan::countsJson() const {
  std::string out =
      "{\"answers\":" + std::to_string(answers()) + ",\"seed\":" + std::to_string(spec_.seed) + ",\"injected\":{";
  const auto counted = counts();
  for (std::size_t i = 0; i < kFaultKindCount; ++i) {
    if (i > 0) out += ',';
    out += "\"" + std::string(kNames[i]) + "\":" + std::to_string(counted[i]);
  }
  return out + "}}";
}

std::string FaultPlan::countsText() const {
  std::string out = "answers=" + std::to_string(answers());
  const auto counted = counts();
  for (std::size_t i = 0; i < kFaultKindCount; ++i) {
    out += " " + std::string(kNames[i]) + "=" + std::to_string(counted[i]);
  }
  return out;
}

}  // namespace kp::weather
