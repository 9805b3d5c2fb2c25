// Child processes by fork and exec: only system calls between the two, since the soak's
// other threads may hold any lock at the moment of the fork.
#include "child_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <thread>

namespace kp::soak {

std::optional<ChildProcess> ChildProcess::start(const std::vector<std::string>& argv, const fs::path& out,
                                                const fs::path& err) {
  std::vector<char*> arguments;
  for (const auto& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  const std::string outPath = out.string();
  const std::string errPath = err.string();
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) return std::nullopt;
  if (pid == 0) {
    // Gone with the soak, however it ends.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);
    const int outFd = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int errFd = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int nullFd = ::open("/dev/null", O_RDONLY);
    if (outFd < 0 || errFd < 0 || nullFd < 0) ::_exit(127);
    ::dup2(nullFd, STDIN_FILENO);
    ::dup2(outFd, STDOUT_FILENO);
    ::dup2(errFd, STDERR_FILENO);
    ::execv(arguments[0], arguments.data());
    ::_exit(127);
  }
  return ChildProcess(pid);
}

void ChildProcess::signal(int number) const { ::kill(pid_, number); }

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  for (;;) {
    int status = 0;
    const pid_t done = ::waitpid(pid_, &status, WNOHANG);
    if (done == pid_) return status;
    if (done < 0) return -1;
    if (Clock::now() >= end) return std::nullopt;
    std::this_thread::sleep_for(5ms);
  }
}

int ChildProcess::kill() {
  signal(SIGKILL);
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

std::string ChildProcess::describe(int status) {
  if (status < 0) return "lost";
  if (WIFEXITED(status)) return "exited with " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "status " + std::to_string(status);
}

}  // namespace kp::soak
