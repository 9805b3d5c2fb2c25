// tarvix::SourceLocation: the file, line and function of a call, taken at the call site by a
// default argument. std::source_location would do, but not every toolchain the hosts use has
// it (clang before 15 with libstdc++ does not); the compiler built-ins below are in all of them.
//
// Thread safety: an immutable value.
//
// Example:
//   void report(std::string_view message, tarvix::SourceLocation where = tarvix::SourceLocation::current());
//   // where.function_name() is "load" when called from a function named load
#pragma once

namespace tarvix {

class SourceLocation {
 public:
  // The calling place (as the default arguments take it).
  [[nodiscard]] static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                                        int line = __builtin_LINE(),
                                                        const char* function = __builtin_FUNCTION()) noexcept {
    return SourceLocation(file, line, function);
  }
  // The source path.
  [[nodiscard]] constexpr const char* file_name() const noexcept { return file_; }
  // The line.
  [[nodiscard]] constexpr int line() const noexcept { return line_; }
  // The bare name of the calling function ("" outside any function).
  [[nodiscard]] constexpr const char* function_name() const noexcept { return function_; }

 private:
  constexpr SourceLocation(const char* file, int line, const char* function) noexcept
      : file_(file), line_(line), function_(function) {}
  const char* file_;
  int line_;
  const char* function_;
};

}  // namespace tarvix
