// Linux implementation of platform::Env.
#include <langinfo.h>
#include <locale.h>
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <vector>

#include "platform/env.h"
#include "platform/no_destructor.h"

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
    const auto value = localeVariable({"LC_ALL", "LC_MESSAGES", "LANG"});
    if (!value) return "en_US";
    return value->substr(0, value->find_first_of(".@"));
  }

  std::optional<std::string> currencyCode() const override {
    const auto value = localeVariable({"LC_ALL", "LC_MONETARY", "LANG"});
    if (!value) return std::nullopt;
    // The C library knows the currency of every installed locale; asking a locale object
    // leaves the process's own locale alone.
    locale_t monetary = ::newlocale(LC_MONETARY_MASK, value->c_str(), static_cast<locale_t>(nullptr));
    if (monetary == static_cast<locale_t>(nullptr)) return std::nullopt;
    std::string code = ::nl_langinfo_l(INT_CURR_SYMBOL, monetary);  // "EUR " (with its separator)
    ::freelocale(monetary);
    code = code.substr(0, 3);
    const bool isCode =
        code.size() == 3 && std::all_of(code.begin(), code.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
    return isCode ? std::optional(code) : std::nullopt;
  }

  bool standardErrorIsTerminal() const noexcept override { return ::isatty(STDERR_FILENO) == 1; }

  std::vector<std::string> preferredLanguages() const override {
    std::vector<std::string> tags;
    auto add = [&tags](std::string_view entry) {
      std::string tag(entry.substr(0, entry.find_first_of(".@")));
      if (tag.empty() || tag == "C" || tag == "POSIX") return;
      std::replace(tag.begin(), tag.end(), '_', '-');
      if (std::find(tags.begin(), tags.end(), tag) == tags.end()) tags.push_back(std::move(tag));
    };
    // LANGUAGE lists the user's choices in order, but counts only under a real messages
    // locale, as for the C library's own message lookup.
    if (localeVariable({"LC_ALL", "LC_MESSAGES", "LANG"})) {
      if (auto list = variable("LANGUAGE")) {
        std::string_view rest = *list;
        while (!rest.empty()) {
          const auto colon = rest.find(':');
          add(rest.substr(0, colon));
          rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
        }
      }
    }
    if (tags.empty()) add(localeIdentifier());
    return tags;
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

 private:
  // The first of the locale variables that is set, as the C library picks a category's
  // locale; nothing when that one is "C" or "POSIX".
  std::optional<std::string> localeVariable(std::initializer_list<const char*> names) const {
    for (const char* name : names) {
      auto value = variable(name);
      if (!value || value->empty()) continue;
      const std::string id = value->substr(0, value->find_first_of(".@"));
      if (id == "C" || id == "POSIX") return std::nullopt;
      return value;
    }
    return std::nullopt;
  }
};

}  // namespace

Env& Env::current() {
  static internal::NoDestructor<LinuxEnv> env;
  return *env;
}

}  // namespace kp::platform
