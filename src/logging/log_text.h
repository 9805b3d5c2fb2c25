// Pieces of text that the log writers share: names cut from source positions, and line
// numbers as "%04d" writes them. Internal; not installed. Thread safety: pure functions.
#pragma once

#include <string>
#include <string_view>

namespace kp::internal {

// The marks of console lines; both loggers use the same ones for their common levels.
inline constexpr std::string_view kDebugMark = "\u26AB\uFE0F";    // ⚫️
inline constexpr std::string_view kInfoMark = "\U0001F535";       // 🔵
inline constexpr std::string_view kWarningMark = "\u2622\uFE0F";  // ☢️
inline constexpr std::string_view kErrorMark = "\u26D4\uFE0F";    // ⛔️
inline constexpr std::string_view kFaultMark = "\U0001F525";      // 🔥

// The text of a function signature before its first "(": "load" for "load(url:)", the whole
// signature when it has none.
[[nodiscard]] constexpr std::string_view functionName(std::string_view signature) noexcept {
  return signature.substr(0, signature.find('('));
}

// The last component of a path, as the platform's path functions see it: trailing slashes do
// not count ("a/b/" gives "b"), "/" stays "/", and a path without a slash is its own name.
[[nodiscard]] std::string_view lastPathComponent(std::string_view path) noexcept;

// `line` formatted with "%04d": at least four digits, zero-padded after a minus sign.
void appendLineNumber(std::string& out, int line);

// A reusable per-thread text buffer for building one line, so that a busy log does not
// allocate for each one. Lines made while another is being built (a writer that logs) get
// their own buffer.
class LineBuffer {
 public:
  LineBuffer();
  ~LineBuffer();
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;
  [[nodiscard]] std::string& text() noexcept { return *text_; }

 private:
  std::string own_;
  std::string* text_;
  bool* slot_ = nullptr;  // the per-thread buffer's in-use flag, when text_ is one
};

}  // namespace kp::internal
