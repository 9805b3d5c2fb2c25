#include "support/process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "support/temp_dir.h"

namespace kp::test {

std::string shellQuote(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out.push_back(c);
    }
  }
  return out + "'";
}

ProcessResult runCommand(const std::string& command, const std::string& input) {
  // Standard input comes from a file so that a command that never reads it cannot block us.
  const auto inputFile =
      std::filesystem::temp_directory_path() / ("kp-stdin-" + std::to_string(std::random_device()()));
  std::ofstream(inputFile, std::ios::binary).write(input.data(), static_cast<std::streamsize>(input.size()));
  ProcessResult result;
  const std::string full = "(" + command + ") < " + shellQuote(inputFile.string());
  if (FILE* pipe = ::popen(full.c_str(), "r")) {
    char buffer[4096];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) result.output.append(buffer, n);
    const int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::error_code ignored;
  std::filesystem::remove(inputFile, ignored);
  return result;
}

namespace {
constexpr const char* kChildVariable = "KP_TEST_CHILD";
}

bool inTestChild() { return std::getenv(kChildVariable) != nullptr; }  // NOLINT(concurrency-mt-unsafe)

ProcessResult runThisTestInChild(const std::string& environment, const std::string& wrapper) {
  const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
  const auto self = std::filesystem::read_symlink("/proc/self/exe");
  const std::string filter = std::string(test->test_suite_name()) + "." + test->name();
  // The child makes its own temporary folders (its fixture's among them) in one that goes
  // when it ends: a child that is killed cannot clean up after itself.
  const TempDir childTemporary;
  return runCommand(wrapper + " env " + environment + " TMPDIR=" + shellQuote(childTemporary.path().string()) + " " +
                    kChildVariable + "=1 " + shellQuote(self.string()) + " --gtest_filter=" + shellQuote(filter) +
                    " 2>&1");
}

}  // namespace kp::test
