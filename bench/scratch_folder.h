// The benchmarks' scratch space: one folder per run in the temporary folder, named
// "kp-bench-<pid>-XXXXXX", removed when the program ends. A run that did not end (killed, or
// stopped in a debugger) leaves its folder behind; the next run removes the folders of runs
// whose process is gone, so benchmark files never pile up in /tmp.
//
// Thread safety: scratchFolder() may be called from any thread; freshFolder() by one thread
// at a time for a given name.
//
// Example:
//   const auto dir = kp::bench::freshFolder("database-save");  // empty, inside this run's folder
#pragma once

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

namespace kp::bench {

namespace internal {

inline constexpr std::string_view kPrefix = "kp-bench-";

// The process a scratch folder's name names, when it has the form above.
inline pid_t ownerOf(const std::string& name) {
  if (!name.starts_with(kPrefix)) return 0;
  const std::string rest = name.substr(kPrefix.size());
  const auto dash = rest.find('-');
  if (dash == 0 || dash == std::string::npos || rest.find_first_not_of("0123456789") != dash) return 0;
  try {
    return static_cast<pid_t>(std::stol(rest.substr(0, dash)));
  } catch (...) {
    return 0;
  }
}

class Scratch {
 public:
  Scratch() {
    namespace fs = std::filesystem;
    const fs::path temporary = fs::temp_directory_path();
    std::error_code ec;
    for (fs::directory_iterator it(temporary, ec), end; !ec && it != end; it.increment(ec)) {
      const pid_t owner = ownerOf(it->path().filename().string());
      // Only folders of our own runs, and only when their process has gone.
      if (owner > 0 && ::kill(owner, 0) != 0 && errno == ESRCH && it->is_directory(ec) && !it->is_symlink(ec)) {
        fs::remove_all(it->path(), ec);
      }
    }
    std::string pattern = (temporary / (std::string(kPrefix) + std::to_string(::getpid()) + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::system_error(errno, std::generic_category(), "mkdtemp");
    path_ = pattern;
  }
  ~Scratch() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace internal

// This run's folder, made on first use.
inline const std::filesystem::path& scratchFolder() {
  static const internal::Scratch scratch;
  return scratch.path();
}

// The folder `name` in this run's folder, emptied.
inline std::filesystem::path freshFolder(const std::string& name) {
  const auto dir = scratchFolder() / name;
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir;
}

}  // namespace kp::bench
