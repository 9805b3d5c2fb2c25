// The texts the Linux device facts come in: SMBIOS chassis types as the kernel writes them, and
// desktop entries. Pure functions, so that they are fuzzed without the rest.
#include <charconv>
#include <system_error>

#include "platform/linux/device_facts_linux.h"

namespace kp::platform {
namespace {

std::string trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return std::string(text.substr(first, last - first + 1));
}

std::string unescapeDesktopValue(std::string_view value) {
  std::string out;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      out += value[i];
      continue;
    }
    switch (value[++i]) {
      case 's':
        out += ' ';
        break;
      case 'n':
        out += '\n';
        break;
      case 't':
        out += '\t';
        break;
      case 'r':
        out += '\r';
        break;
      default:
        out += value[i];
    }
  }
  return out;
}

}  // namespace

std::string chassisOfDmiType(std::string_view text) {
  const std::string number = trimmed(text);
  unsigned type = 0;
  const auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), type);
  if (ec != std::errc() || end != number.data() + number.size()) return {};
  switch (type) {
    case 0x03:  // desktop
    case 0x04:  // low-profile desktop
    case 0x06:  // mini tower
    case 0x07:  // tower
    case 0x0D:  // all in one
    case 0x23:  // mini PC
    case 0x24:  // stick PC
      return "desktop";
    case 0x08:  // portable
    case 0x09:  // laptop
    case 0x0A:  // notebook
    case 0x0E:  // sub-notebook
      return "laptop";
    case 0x0B:  // hand held
      return "handset";
    case 0x11:  // main server chassis
    case 0x17:  // rack mount chassis
    case 0x1C:  // blade
    case 0x1D:  // blade enclosure
      return "server";
    case 0x1E:  // tablet
      return "tablet";
    case 0x1F:  // convertible
    case 0x20:  // detachable
      return "convertible";
    case 0x21:  // IoT gateway
    case 0x22:  // embedded PC
      return "embedded";
    default:
      return {};
  }
}

std::optional<DesktopEntry> parseDesktopEntry(std::string_view text, std::string identifier) {
  bool inEntry = false;
  bool sawGroup = false;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const std::string line = trimmed(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      // The format puts [Desktop Entry] first; a file that does not is no desktop entry.
      if (!sawGroup && line != "[Desktop Entry]") return std::nullopt;
      if (sawGroup && inEntry) break;
      sawGroup = true;
      inEntry = true;
      continue;
    }
    if (!inEntry) return std::nullopt;
    const auto equals = line.find('=');
    if (equals == std::string::npos) continue;
    if (trimmed(std::string_view(line).substr(0, equals)) == "Name") {
      auto name = unescapeDesktopValue(trimmed(std::string_view(line).substr(equals + 1)));
      if (name.empty()) return std::nullopt;
      return DesktopEntry{std::move(identifier), std::move(name)};
    }
  }
  return std::nullopt;
}

}  // namespace kp::platform
