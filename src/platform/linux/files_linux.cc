// Linux implementation of the private folders.
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "platform/files.h"

namespace kp::platform {
namespace {

bool isDirectory(const char* path) {
  struct stat info {};
  return ::stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

bool createPrivateDirectory(const std::filesystem::path& path) noexcept {
  // mkdir's mode is only narrowed by the umask, so a new folder is never more open than 0700.
  if (::mkdir(path.c_str(), S_IRWXU) == 0) return true;
  return errno == EEXIST && isDirectory(path.c_str());
}

bool createPrivateDirectories(const std::filesystem::path& path) noexcept {
  try {
    if (path.empty()) return false;
    if (isDirectory(path.c_str())) return true;
    std::filesystem::path prefix;
    for (const auto& part : path) {
      prefix /= part;
      if (part == prefix.root_path() || part.empty()) continue;
      if (!createPrivateDirectory(prefix)) return false;
    }
    return true;
  } catch (...) {
    return false;  // out of memory building the path
  }
}

}  // namespace kp::platform
