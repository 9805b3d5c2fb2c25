#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

extern char** environ;  // NOLINT

namespace kp::test {

ChildProcess::ChildProcess(std::vector<std::string> argv, Options options) {
  // Everything the child needs is prepared before fork(), so that it only calls exec.
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) {
    const std::string entry(*e);
    const std::string name = entry.substr(0, entry.find('='));
    bool replaced = false;
    for (const auto& extra : options.environment) replaced |= extra.substr(0, extra.find('=')) == name;
    if (!replaced) env.push_back(entry);
  }
  env.insert(env.end(), options.environment.begin(), options.environment.end());
  std::vector<char*> args;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);

  int in[2];
  int out[2] = {-1, -1};
  if (::pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  if (options.captureOutput && ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    // The program ends with the test, even when the test is killed.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(in[0], STDIN_FILENO);
    if (out[1] >= 0) ::dup2(out[1], STDOUT_FILENO);
    if (out[1] >= 0 && options.captureErrors) ::dup2(out[1], STDERR_FILENO);
    if (options.quiet) {
      if (const int null = ::open("/dev/null", O_WRONLY); null >= 0) ::dup2(null, STDERR_FILENO);
    }
    ::execvpe(args[0], args.data(), envp.data());
    ::_exit(127);
  }
  ::close(in[0]);
  if (out[1] >= 0) ::close(out[1]);
  output_ = out[0];
  std::size_t done = 0;
  while (done < options.input.size()) {
    const ssize_t n = ::write(in[1], options.input.data() + done, options.input.size() - done);
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  ::close(in[1]);
}

ChildProcess::~ChildProcess() {
  if (!status_) {
    signal(SIGKILL);
    wait();
  }
  if (output_ >= 0) ::close(output_);
}

bool ChildProcess::fill(std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (output_ < 0 || left.count() <= 0) return false;
    pollfd p{output_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char buffer[4096];
    const ssize_t n = ::read(output_, buffer, sizeof buffer);
    if (n <= 0) return false;
    buffered_.append(buffer, static_cast<std::size_t>(n));
    return true;
  }
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (auto end = buffered_.find('\n'); end != std::string::npos) {
      std::string line = buffered_.substr(0, end);
      buffered_.erase(0, end + 1);
      return line;
    }
    if (!fill(deadline)) return std::nullopt;
  }
}

std::string ChildProcess::readAll(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (fill(deadline)) {
  }
  return std::exchange(buffered_, {});
}

void ChildProcess::signal(int signalNumber) const {
  if (pid_ > 0 && !status_) ::kill(pid_, signalNumber);
}

int ChildProcess::wait() {
  if (status_) return *status_;
  int raw = 0;
  while (::waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
  }
  status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  return *status_;
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  int raw = 0;
  while (!status_) {
    const pid_t ended = ::waitpid(pid_, &raw, WNOHANG);
    if (ended == pid_) status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    if (status_ || std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return status_;
}

}  // namespace kp::test
