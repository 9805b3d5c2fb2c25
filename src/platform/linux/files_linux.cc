// Linux implementation of the private folders and whole-file replacement.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/files.h"

namespace kp::platform {
namespace {

bool isDirectory(const char* path) {
  struct stat info {};
  return ::stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool writeAll(int fd, std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return true;
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

bool writeFileAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) noexcept {
  try {
    const auto folder = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
    std::string temporary =
        (folder / (std::string(kTemporaryFilePrefix) + path.filename().string() + ".XXXXXX")).string();
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);  // 0600
    if (fd < 0) return false;
    // The data must be on disk before the rename is: a file system may commit the rename
    // first, and a power loss would then leave the final name on a short file.
    bool ok = writeAll(fd, bytes) && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    ok = ok && ::rename(temporary.c_str(), path.c_str()) == 0;
    if (!ok) ::unlink(temporary.c_str());
    return ok;
  } catch (...) {
    return false;  // out of memory building the names
  }
}

}  // namespace kp::platform
