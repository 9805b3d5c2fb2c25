// Linux implementation of platform::Env.
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <vector>

#include "platform/env.h"

namespace kp::platform {
namespace {

std::string firstLineOf(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::string line;
  if (in) std::getline(in, line);
  while (!line.empty() && (line.back() == ' ' || line.back() == '\n' || line.back() == '\r')) line.pop_back();
  return line;
}

class LinuxEnv final : public Env {
 public:
  bool isProcessInitialThread() const noexcept override { return ::gettid() == ::getpid(); }

  std::optional<std::string> variable(std::string_view name) const override {
    // The library never sets variables; a host that does so concurrently owns that race.
    const char* value = std::getenv(std::string(name).c_str());  // NOLINT(concurrency-mt-unsafe)
    if (value == nullptr) return std::nullopt;
    return std::string(value);
  }

  std::filesystem::path homeDirectory() const override {
    if (auto home = variable("HOME"); home && !home->empty()) return *home;
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr) {
      return found->pw_dir;
    }
    return "/tmp";
  }

  SystemFacts systemFacts() const override {
    SystemFacts facts;
    utsname names{};
    if (::uname(&names) == 0) {
      facts.systemName = names.sysname;
      facts.systemVersion = names.release;
      facts.machine = names.machine;
      facts.hostName = names.nodename;
    }
    facts.model = firstLineOf("/sys/class/dmi/id/product_name");
    if (facts.model.empty()) facts.model = facts.machine;
    return facts;
  }

  std::string localeIdentifier() const override {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
      auto value = variable(name);
      if (!value || value->empty()) continue;
      std::string id = value->substr(0, value->find_first_of(".@"));
      if (id == "C" || id == "POSIX") break;
      return id;
    }
    return "en_US";
  }

  std::string timeZoneName() const override {
    if (auto tz = variable("TZ"); tz && !tz->empty()) return tz->front() == ':' ? tz->substr(1) : *tz;
    if (auto name = firstLineOf("/etc/timezone"); !name.empty()) return name;
    std::error_code ec;
    auto target = std::filesystem::read_symlink("/etc/localtime", ec);
    if (!ec) {
      const std::string text = target.string();
      if (auto pos = text.find("zoneinfo/"); pos != std::string::npos) return text.substr(pos + 9);
    }
    return "UTC";
  }
};

}  // namespace

Env& Env::current() {
  static LinuxEnv env;
  return env;
}

}  // namespace kp::platform
