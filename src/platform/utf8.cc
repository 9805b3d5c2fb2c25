// UTF-8 validation and repair, one sequence at a time.
#include "platform/utf8.h"

#include <cstdint>

namespace kp::internal {

namespace {

// Length of the well-formed sequence at the start of [p, end), or 0 when it is malformed.
std::size_t sequenceLength(const std::uint8_t* p, const std::uint8_t* end) noexcept {
  const std::uint8_t c = *p;
  if (c < 0x80) return 1;
  int extra = 0;
  std::uint32_t min = 0;
  std::uint32_t code = 0;
  if ((c & 0xE0) == 0xC0) {
    extra = 1, min = 0x80, code = c & 0x1F;
  } else if ((c & 0xF0) == 0xE0) {
    extra = 2, min = 0x800, code = c & 0x0F;
  } else if ((c & 0xF8) == 0xF0) {
    extra = 3, min = 0x10000, code = c & 0x07;
  } else {
    return 0;
  }
  if (end - p <= extra) return 0;
  for (int i = 1; i <= extra; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    code = (code << 6) | (p[i] & 0x3F);
  }
  if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return static_cast<std::size_t>(extra) + 1;
}

bool isControl(std::uint8_t c) noexcept { return (c < 0x20 && c != '\t' && c != '\n') || c == 0x7F; }

}  // namespace

bool isValidUtf8(std::string_view bytes) noexcept {
  const auto* p = reinterpret_cast<const std::uint8_t*>(bytes.data());
  const auto* end = p + bytes.size();
  while (p < end) {
    const std::size_t length = sequenceLength(p, end);
    if (length == 0) return false;
    p += length;
  }
  return true;
}

bool isPrintableUtf8(std::string_view bytes) noexcept {
  const auto* p = reinterpret_cast<const std::uint8_t*>(bytes.data());
  const auto* end = p + bytes.size();
  while (p < end) {
    const std::size_t length = sequenceLength(p, end);
    if (length == 0 || (length == 1 && isControl(*p))) return false;
    p += length;
  }
  return true;
}

namespace {

// Appends `bytes` with U+FFFD for every malformed sequence and, with `controls`, for every
// control character other than tab and line feed.
void appendRepaired(std::string& out, std::string_view bytes, bool controls) {
  static constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
  const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes.data());
  const auto* p = begin;
  const auto* end = p + bytes.size();
  const auto* run = p;  // start of the bytes not yet copied
  while (p < end) {
    const std::size_t length = sequenceLength(p, end);
    if (length != 0 && !(controls && length == 1 && isControl(*p))) {
      p += length;
      continue;
    }
    out.append(bytes.substr(static_cast<std::size_t>(run - begin), static_cast<std::size_t>(p - run)));
    out.append(kReplacement);
    run = ++p;
  }
  out.append(bytes.substr(static_cast<std::size_t>(run - begin)));
}

}  // namespace

void appendPrintableUtf8(std::string& out, std::string_view bytes) { appendRepaired(out, bytes, true); }

void appendValidUtf8(std::string& out, std::string_view bytes) { appendRepaired(out, bytes, false); }

}  // namespace kp::internal
