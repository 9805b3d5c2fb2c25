// Subcommand registry and argument helpers of kpcore.
//
// A subcommand is a function from its arguments to an exit status. It prints plain text,
// or JSON when --json is given, and reports failure as one line on standard error through
// CommandError.
//
// Example (in its own file):
//   namespace {
//   int runHello(kpcore::Args& args) { std::cout << "hello\n"; return 0; }
//   const kpcore::Registration reg{"hello", "Say hello", "kpcore hello", runHello};
//   }
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kpcore {

// A failure that ends the subcommand with exit status 1 (or `status`) and its message.
struct CommandError : std::runtime_error {
  explicit CommandError(const std::string& message, int exitStatus = 1)
      : std::runtime_error(message), status(exitStatus) {}
  int status;
};

class Args {
 public:
  explicit Args(std::vector<std::string> args) : args_(std::move(args)) {}
  // Removes and returns the value of `--name VALUE` or `--name=VALUE`; nothing when absent.
  std::optional<std::string> option(std::string_view name);
  // Every value of a repeatable option, in order.
  std::vector<std::string> options(std::string_view name);
  // Removes `--name` and tells whether it was there.
  bool flag(std::string_view name);
  // Removes and returns the next positional argument.
  std::optional<std::string> positional();
  // REQUIRES: all options were taken. Fails on anything left over.
  void expectEnd() const;
  [[nodiscard]] bool empty() const { return args_.empty(); }

 private:
  std::vector<std::string> args_;
};

using Command = std::function<int(Args&)>;

struct Registration {
  Registration(std::string name, std::string summary, std::string usage, Command run);
};

struct CommandInfo {
  std::string name;
  std::string summary;
  std::string usage;
  Command run;
};

[[nodiscard]] const std::vector<CommandInfo>& commands();

// Reads all of standard input, or of `path` when given ("-" also means standard input).
[[nodiscard]] std::string readInput(const std::optional<std::string>& path);
// The same, reading no more than `maxBytes`: nothing when the input is longer.
[[nodiscard]] std::optional<std::string> readInputUpTo(const std::optional<std::string>& path, std::size_t maxBytes);

// Text from outside (stored values, cache keys, servers' headers, error messages) for a
// terminal: control characters (C0, DEL and C1) and bytes that are not UTF-8 become "\xNN",
// so that none can move the cursor, recolour the screen or forge a line.
[[nodiscard]] std::string printable(std::string_view text);

// Numbers from the command line, strictly: the whole text is one decimal number ("3x", " 3",
// "+3", "0x10" and "" are not) that the type holds; a double is also finite ("nan", "inf" and
// "1e400" are none). Every numeric argument of kpcore goes through these.
[[nodiscard]] std::optional<std::int64_t> strictInteger(std::string_view text);
[[nodiscard]] std::optional<std::uint64_t> strictUnsigned(std::string_view text);
[[nodiscard]] std::optional<double> strictDecimal(std::string_view text);

// Numeric option values, strictly: the whole text is one decimal number ("3x", " 3", "+3",
// "0x10" are not) within the range. Anything else throws CommandError (status 2) naming the
// option: "--parallel takes 1 to 64: 0".
[[nodiscard]] std::int64_t integerOption(std::string_view name, std::string_view text, std::int64_t min,
                                         std::int64_t max);
// A finite decimal number from `min` to `max` ("--latitude takes -90 to 90: 91").
[[nodiscard]] double decimalOption(std::string_view name, std::string_view text, double min, double max);
// A finite number of seconds above zero ("--timeout takes a positive number of seconds: 0").
[[nodiscard]] double secondsOption(std::string_view name, std::string_view text);

// Text as a JSON string literal. Text that is not UTF-8 is repaired first: malformed bytes and
// control characters become U+FFFD.
[[nodiscard]] std::string jsonQuote(std::string_view text);

}  // namespace kpcore
