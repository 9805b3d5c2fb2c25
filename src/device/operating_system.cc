// The operating system's name, version and build from os-release and the kernel release.
#include <charconv>
#include <limits>

#include "kp/device/device_information.h"

namespace kp {
namespace {

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// A value as the shell reads it: double quotes with backslash escapes, single quotes, or bare.
// Nothing when a quote is left open or text follows the closing one.
std::optional<std::string> unquoted(std::string_view value) {
  if (value.empty() || (value.front() != '"' && value.front() != '\'')) return std::string(value);
  const char quote = value.front();
  std::string out;
  for (std::size_t i = 1; i < value.size(); ++i) {
    const char c = value[i];
    if (c == quote) {
      if (i + 1 != value.size()) return std::nullopt;
      return out;
    }
    if (quote == '"' && c == '\\' && i + 1 < value.size()) {
      const char next = value[i + 1];
      if (next == '"' || next == '\\' || next == '$' || next == '`') {
        out += next;
        ++i;
        continue;
      }
    }
    out += c;
  }
  return std::nullopt;
}

bool isKey(std::string_view key) {
  if (key.empty()) return false;
  for (char c : key) {
    if (!((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_')) return false;
  }
  return true;
}

}  // namespace

std::optional<OperatingSystemVersion> OperatingSystemVersion::parse(std::string_view text) noexcept {
  int parts[3] = {0, 0, 0};
  const char* at = text.data();
  const char* const end = text.data() + text.size();
  for (int i = 0; i < 3; ++i) {
    if (at == end || *at < '0' || *at > '9') {
      if (i == 0) return std::nullopt;
      break;
    }
    const auto [next, ec] = std::from_chars(at, end, parts[i]);
    if (ec != std::errc()) return std::nullopt;
    at = next;
    if (at == end || *at != '.') break;
    ++at;
  }
  return OperatingSystemVersion{parts[0], parts[1], parts[2]};
}

OperatingSystem OperatingSystem::fromOsRelease(std::string_view osRelease, std::string_view kernelRelease) {
  OperatingSystem system;
  std::optional<std::string> buildId;
  while (!osRelease.empty()) {
    const auto newline = osRelease.find('\n');
    const std::string_view line = trimmed(osRelease.substr(0, newline));
    osRelease = newline == std::string_view::npos ? std::string_view() : osRelease.substr(newline + 1);
    const auto equals = line.find('=');
    if (line.empty() || line.front() == '#' || equals == std::string_view::npos) continue;
    const std::string_view key = line.substr(0, equals);
    if (!isKey(key)) continue;
    auto value = unquoted(line.substr(equals + 1));
    if (!value || value->empty()) continue;
    if (key == "NAME")
      system.name = std::move(*value);
    else if (key == "ID")
      system.identifier = std::move(*value);
    else if (key == "VERSION_ID")
      system.versionText = std::move(*value);
    else if (key == "BUILD_ID")
      buildId = std::move(*value);
  }
  if (system.versionText != kUnknown) system.version = OperatingSystemVersion::parse(system.versionText);
  const std::string_view kernel = trimmed(kernelRelease);
  if (!kernel.empty()) {
    system.kernelRelease = std::string(kernel);
    system.kernelVersion = OperatingSystemVersion::parse(kernel);
  }
  system.build = buildId ? *buildId : system.kernelRelease;
  return system;
}

}  // namespace kp
