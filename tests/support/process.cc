#include "support/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <thread>

extern char** environ;  // NOLINT

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
  return runCommand(wrapper + " env " + environment + " " + kChildVariable + "=1 " + shellQuote(self.string()) +
                    " --gtest_filter=" + shellQuote(filter) + " 2>&1");
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv) {
  int pipeEnds[2];
  if (::pipe2(pipeEnds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::vector<char*> args;
  for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
  const int failed = ::posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(pipeEnds[1]);
  output_ = pipeEnds[0];
  if (failed != 0) {
    ::close(output_);
    throw std::runtime_error("cannot start " + argv.front());
  }
}

BackgroundProcess::~BackgroundProcess() {
  if (!reaped_) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  ::close(output_);
}

std::optional<std::string> BackgroundProcess::readLine(std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (pending_.find('\n') == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    pollfd readable{output_, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
    char buffer[512];
    const auto n = ::read(output_, buffer, sizeof buffer);
    if (n <= 0) return std::nullopt;
    pending_.append(buffer, static_cast<std::size_t>(n));
  }
  const auto newline = pending_.find('\n');
  std::string line = pending_.substr(0, newline);
  pending_.erase(0, newline + 1);
  return line;
}

void BackgroundProcess::sendSignal(int signal) {
  if (!reaped_) ::kill(pid_, signal);
}

std::optional<int> BackgroundProcess::wait(std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  int status = 0;
  while (::waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > end) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  reaped_ = true;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace kp::test
