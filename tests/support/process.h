// Test helper: runs a shell command and gathers what it prints and how it ended.
#pragma once

#include <string>

namespace kp::test {

struct ProcessResult {
  int status = -1;     // exit status, or -1 when it did not exit normally
  std::string output;  // standard output (standard error too when the command merges it)
};

// Runs `command` with /bin/sh, writing `input` to its standard input.
[[nodiscard]] ProcessResult runCommand(const std::string& command, const std::string& input = {});

// Quotes text for the shell.
[[nodiscard]] std::string shellQuote(const std::string& text);

}  // namespace kp::test
