// Subcommand registry and argument helpers.
#include "command.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>

#include "platform/utf8.h"

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
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
      out += escaped;
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  return out;
}

std::string jsonQuote(std::string_view raw) {
  // JSON is UTF-8: bytes that are not (keys, paths and arguments may hold any) become U+FFFD.
  std::string repaired;
  if (!kp::internal::isValidUtf8(raw)) kp::internal::appendPrintableUtf8(repaired, raw);
  const std::string_view text = repaired.empty() ? raw : std::string_view(repaired);
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  out.push_back('"');
  return out;
}

}  // namespace kpcore
