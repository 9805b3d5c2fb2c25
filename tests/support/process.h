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

// Runs the running test case again in a child process of this test program, under
// `environment` (words for env(1): "NAME=value", "-u NAME") and behind `wrapper` (a command
// prefix such as "timeout -s KILL 0.5"). Standard error is merged into the output. In the
// child, inTestChild() is true, so that one test case holds both sides:
//   if (kp::test::inTestChild()) { ...work in the fresh environment...; return; }
//   auto child = kp::test::runThisTestInChild("HOME=" + shellQuote(home));
[[nodiscard]] ProcessResult runThisTestInChild(const std::string& environment, const std::string& wrapper = {});
[[nodiscard]] bool inTestChild();

}  // namespace kp::test
