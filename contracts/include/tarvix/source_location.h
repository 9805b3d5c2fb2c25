// tarvix::SourceLocation: the file and line of a call, taken at the call site by a default
// argument. std::source_location would do, but not every toolchain the hosts use has it
// (clang before 15 with libstdc++ does not); the compiler built-ins below are in all of them.
//
// Thread safety: an immutable value.
//
// Example:
//   void report(std::string_view message, tarvix::SourceLocation where = tarvix::SourceLocation::current());
#pragma once

namespace tarvix {

class SourceLocation {
 public:
  [[nodiscard]] static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                                        int line = __builtin_LINE()) noexcept {
    return SourceLocation(file, line);
  }
  [[nodiscard]] constexpr const char* file_name() const noexcept { return file_; }
  [[nodiscard]] constexpr int line() const noexcept { return line_; }

 private:
  constexpr SourceLocation(const char* file, int line) noexcept : file_(file), line_(line) {}
  const char* file_;
  int line_;
};

}  // namespace tarvix
