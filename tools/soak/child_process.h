// kp::soak::ChildProcess: a program the soak runs beside itself (the service, the writers),
// with its standard output and error in files, that dies with the soak.
//
// Thread safety: one owner thread per child.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "soak.h"

namespace kp::soak {

class ChildProcess {
 public:
  // Starts `argv` (argv[0] a path) with standard output to `out` and standard error to `err`
  // (both appended). Nothing when it cannot be started.
  static std::optional<ChildProcess> start(const std::vector<std::string>& argv, const fs::path& out,
                                           const fs::path& err);

  [[nodiscard]] pid_t pid() const noexcept { return pid_; }
  void signal(int number) const;
  // The wait status once it has ended, or nothing when it is still running after `timeout`.
  std::optional<int> wait(std::chrono::milliseconds timeout);
  // SIGKILL, then the wait status.
  int kill();
  // "exited with 3", "killed by signal 6", ...
  [[nodiscard]] static std::string describe(int status);

 private:
  explicit ChildProcess(pid_t pid) : pid_(pid) {}
  pid_t pid_;
};

}  // namespace kp::soak
