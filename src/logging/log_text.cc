// The per-thread buffer that log lines are built in, and the pieces of a line's prefix (the
// file's last path component, the line number).
#include "logging/log_text.h"

#include <array>
#include <charconv>

namespace kp::internal {
namespace {

// Lines longer than this give their memory back instead of keeping it for the next line.
constexpr std::size_t kRetainedLineCapacity = 16 * 1024;

struct ThreadLine {
  std::string text;
  bool inUse = false;
};
// Two, because a console writer builds its line and its executable then adds the line feed.
thread_local std::array<ThreadLine, 2> threadLines;

}  // namespace

std::string_view lastPathComponent(std::string_view path) noexcept {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  if (path == "/") return path;
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void appendLineNumber(std::string& out, int line) {
  std::array<char, 16> digits{};
  const bool negative = line < 0;
  const auto magnitude = negative ? -static_cast<long long>(line) : static_cast<long long>(line);
  auto [end, ec] = std::to_chars(digits.data(), digits.data() + digits.size(), magnitude);
  (void)ec;
  const auto length = static_cast<std::size_t>(end - digits.data());
  if (negative) out.push_back('-');
  const std::size_t width = negative ? 3 : 4;
  if (length < width) out.append(width - length, '0');
  out.append(digits.data(), length);
}

LineBuffer::LineBuffer() : text_(&own_) {
  for (ThreadLine& line : threadLines) {
    if (line.inUse) continue;
    line.inUse = true;
    line.text.clear();
    text_ = &line.text;
    slot_ = &line.inUse;
    return;
  }
}

LineBuffer::~LineBuffer() {
  if (!slot_) return;
  if (text_->capacity() > kRetainedLineCapacity) std::string().swap(*text_);
  *slot_ = false;
}

}  // namespace kp::internal
