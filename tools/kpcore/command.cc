// Subcommand registry and argument helpers.
#include "command.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

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

std::string readInput(const std::optional<std::string>& path) {
  std::ostringstream buffer;
  if (!path || *path == "-") {
    buffer << std::cin.rdbuf();
  } else {
    std::ifstream in(*path, std::ios::binary);
    if (!in) throw CommandError("cannot open " + *path);
    buffer << in.rdbuf();
  }
  return buffer.str();
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
