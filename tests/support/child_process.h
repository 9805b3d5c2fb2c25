// Test helper: a program run in the background, that a test can signal, feed and read from.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace kp::test {

class ChildProcess {
 public:
  struct Options {
    std::string input;                     // written to standard input, which is then closed
    bool captureOutput = false;            // standard output readable through readLine()
    bool captureErrors = false;            // with captureOutput: standard error goes there too
    bool quiet = false;                    // standard error goes nowhere
    std::vector<std::string> environment;  // "NAME=VALUE" entries added to (or replacing) ours
  };

  // Starts argv[0] (looked up in PATH). Throws std::runtime_error when it cannot start.
  explicit ChildProcess(std::vector<std::string> argv, Options options);
  explicit ChildProcess(std::vector<std::string> argv) : ChildProcess(std::move(argv), Options{}) {}
  // Kills the program if it still runs, and reaps it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  [[nodiscard]] pid_t pid() const noexcept { return pid_; }
  // One line of standard output, without its end; nothing at the end of output or on timeout.
  [[nodiscard]] std::optional<std::string> readLine(std::chrono::milliseconds timeout);
  // Everything it writes to standard output until it closes it (or `timeout` passes).
  [[nodiscard]] std::string readAll(std::chrono::milliseconds timeout);
  void signal(int signalNumber) const;
  // Waits for the end: the exit status, or 128 + the signal that ended it.
  int wait();
  // The same, or nothing when it still runs after `timeout`.
  std::optional<int> wait(std::chrono::milliseconds timeout);

 private:
  pid_t pid_ = -1;
  // Reads what is available into buffered_; false at the end of output or on timeout.
  bool fill(std::chrono::steady_clock::time_point deadline);

  int output_ = -1;
  std::string buffered_;
  std::optional<int> status_;
};

}  // namespace kp::test
