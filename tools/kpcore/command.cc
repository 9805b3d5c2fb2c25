// Subcommand registry and argument helpers.
#include "command.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>

#include "kp/coding/json.h"
#include "kp/foundation/text.h"

namespace kpcore {
namespace {

std::vector<CommandInfo>& registry() {
  static std::vector<CommandInfo> list;
  return list;
}

}  // namespace

Registration::Registration(std::string name, std::string summary, std::string usage, Command run) {
  auto& list = registry();
  list.push_back(CommandInfo{std::move(name), std::move(summary), std::move(usage), std::move(run)});
  std::sort(list.begin(), list.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
}

const std::vector<CommandInfo>& commands() { return registry(); }

std::optional<std::string> Args::option(std::string_view name) {
  const std::string flagName = "--" + std::string(name);
  for (auto it = args_.begin(); it != args_.end(); ++it) {
    if (*it == flagName) {
      if (std::next(it) == args_.end()) throw CommandError("option " + flagName + " needs a value", 2);
      std::string value = *std::next(it);
      args_.erase(it, std::next(it, 2));
      return value;
    }
    if (it->rfind(flagName + "=", 0) == 0) {
      std::string value = it->substr(flagName.size() + 1);
      args_.erase(it);
      return value;
    }
  }
  return std::nullopt;
}

std::vector<std::string> Args::options(std::string_view name) {
  std::vector<std::string> values;
  while (auto value = option(name)) values.push_back(std::move(*value));
  return values;
}

bool Args::flag(std::string_view name) {
  const std::string flagName = "--" + std::string(name);
  auto it = std::find(args_.begin(), args_.end(), flagName);
  if (it == args_.end()) return false;
  args_.erase(it);
  return true;
}

std::optional<std::string> Args::positional() {
  for (auto it = args_.begin(); it != args_.end(); ++it) {
    if (*it == "-" || it->rfind("--", 0) != 0) {
      std::string value = *it;
      args_.erase(it);
      return value;
    }
  }
  return std::nullopt;
}

void Args::expectEnd() const {
  if (!args_.empty()) throw CommandError("unexpected argument: " + args_.front(), 2);
}

std::optional<std::string> readInputUpTo(const std::optional<std::string>& path, std::size_t maxBytes) {
  std::ifstream file;
  std::istream* in = &std::cin;
  if (path && *path != "-") {
    file.open(*path, std::ios::binary);
    if (!file) throw CommandError("cannot open " + *path);
    in = &file;
  }
  std::string out;
  char buffer[65536];
  while (in->read(buffer, sizeof buffer) || in->gcount() > 0) {
    const auto got = static_cast<std::size_t>(in->gcount());
    if (got > maxBytes - out.size()) return std::nullopt;
    out.append(buffer, got);
  }
  if (in->bad()) throw CommandError(path && *path != "-" ? "cannot read " + *path : "cannot read standard input");
  return out;
}

std::string readInput(const std::optional<std::string>& path) {
  return *readInputUpTo(path, std::numeric_limits<std::size_t>::max());
}

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  auto escape = [&out](unsigned char c) {
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
    out += escaped;
  };
  for (std::size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      if (c < 0x20 || c == 0x7f) {
        escape(c);
      } else {
        out.push_back(static_cast<char>(c));
      }
      ++i;
      continue;
    }
    // The sequence the lead byte announces, if it is whole and valid; else one stray byte.
    const std::size_t length = c >= 0xf0 ? 4 : c >= 0xe0 ? 3 : c >= 0xc0 ? 2 : 1;
    const std::string_view sequence = text.substr(i, length);
    // C1 controls (U+0080 to U+009F) are escapes to some terminals, as ESC is.
    const bool control = c == 0xc2 && sequence.size() == 2 && static_cast<unsigned char>(sequence[1]) < 0xa0;
    if (length == 1 || sequence.size() < length || !kp::isValidUtf8(sequence) || control) {
      escape(c);
      ++i;
      continue;
    }
    out += sequence;
    i += length;
  }
  return out;
}

namespace {

[[noreturn]] void refuseNumber(std::string_view name, std::string_view range, std::string_view text) {
  throw CommandError("--" + std::string(name) + " takes " + std::string(range) + ": " + printable(text), 2);
}

template <class Number>
std::optional<Number> wholeNumber(std::string_view text) {
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::string decimalText(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

}  // namespace

std::optional<std::int64_t> strictInteger(std::string_view text) { return wholeNumber<std::int64_t>(text); }

std::optional<std::uint64_t> strictUnsigned(std::string_view text) { return wholeNumber<std::uint64_t>(text); }

std::optional<double> strictDecimal(std::string_view text) {
  const auto value = wholeNumber<double>(text);
  if (!value || !std::isfinite(*value)) return std::nullopt;
  return value;
}

std::int64_t integerOption(std::string_view name, std::string_view text, std::int64_t min, std::int64_t max) {
  const auto value = strictInteger(text);
  if (!value || *value < min || *value > max)
    refuseNumber(name, std::to_string(min) + " to " + std::to_string(max), text);
  return *value;
}

double decimalOption(std::string_view name, std::string_view text, double min, double max) {
  const auto value = strictDecimal(text);
  if (!value || *value < min || *value > max) {
    refuseNumber(name, decimalText(min) + " to " + decimalText(max), text);
  }
  return *value;
}

double secondsOption(std::string_view name, std::string_view text) {
  const auto value = strictDecimal(text);
  if (!value || *value <= 0) refuseNumber(name, "a positive number of seconds", text);
  return *value;
}

std::string jsonQuote(std::string_view raw) {
  // JSON is UTF-8: bytes that are not (keys, paths and arguments may hold any) become U+FFFD.
  return kp::JsonValue(kp::validUtf8(raw)).serialize();
}

}  // namespace kpcore
