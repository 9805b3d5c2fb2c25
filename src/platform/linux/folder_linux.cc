// Linux implementation of folders used through their descriptors: openat() and its kin with
// O_NOFOLLOW, and AT_SYMLINK_NOFOLLOW wherever a name is looked at.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "platform/folder.h"

namespace kp::platform {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// One name inside a folder: no separator, and not the folder itself or its parent.
bool isPlainName(std::string_view name) noexcept {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

Folder::Kind kindOf(mode_t mode) noexcept {
  if (S_ISREG(mode)) return Folder::Kind::file;
  if (S_ISDIR(mode)) return Folder::Kind::folder;
  if (S_ISLNK(mode)) return Folder::Kind::symbolicLink;
  return Folder::Kind::other;
}

Folder::Entry entryOf(std::string name, const struct stat& info) {
  Folder::Entry entry;
  entry.name = std::move(name);
  entry.kind = kindOf(info.st_mode);
  entry.size = static_cast<std::uint64_t>(info.st_size);
  entry.modified =
      std::chrono::system_clock::time_point(std::chrono::duration_cast<std::chrono::system_clock::duration>(
          std::chrono::seconds(info.st_mtim.tv_sec) + std::chrono::nanoseconds(info.st_mtim.tv_nsec)));
  return entry;
}

// Why `name` in `folder` (AT_FDCWD for a path) did not open as a folder.
FolderProblem problemOf(int folder, const char* name, int error) noexcept {
  if (error == ENOENT) return FolderProblem::missing;
  struct stat info {};
  if (::fstatat(folder, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return FolderProblem::failed;
  if (S_ISLNK(info.st_mode)) return FolderProblem::symbolicLink;
  if (!S_ISDIR(info.st_mode)) return FolderProblem::notAFolder;
  return FolderProblem::failed;
}

std::optional<int> openFolder(int folder, const char* name, FolderProblem* problem) noexcept {
  const int fd = ::openat(folder, name, kFolderFlags);
  if (fd >= 0) {
    if (problem) *problem = FolderProblem::none;
    return fd;
  }
  const int error = errno;
  if (problem) *problem = problemOf(folder, name, error);
  return std::nullopt;
}

// Six characters that make a temporary name unlikely to be taken; O_EXCL settles the rest.
std::string uniqueSuffix() {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  static std::atomic<std::uint64_t> counter{0};
  std::uint64_t value = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                        (static_cast<std::uint64_t>(::getpid()) << 40) ^
                        (counter.fetch_add(1, std::memory_order_relaxed) * 0x9e3779b97f4a7c15ULL);
  std::string suffix;
  for (int i = 0; i < 6; ++i) {
    suffix.push_back(kAlphabet[value % 62]);
    value /= 62;
  }
  return suffix;
}

bool writeAll(int fd, std::span<const std::uint8_t> bytes) noexcept {
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

std::optional<Folder> Folder::open(const std::filesystem::path& path, FolderProblem* problem) noexcept {
  if (auto fd = openFolder(AT_FDCWD, path.c_str(), problem)) return Folder(*fd);
  return std::nullopt;
}

std::optional<Folder> Folder::create(const std::filesystem::path& path, FolderProblem* problem) noexcept {
  // mkdir's mode is only narrowed by the umask, so a new folder is never more open than 0700.
  (void)::mkdir(path.c_str(), S_IRWXU);
  return open(path, problem);
}

std::optional<Folder> Folder::folder(std::string_view name, bool create, FolderProblem* problem) const noexcept {
  try {
    if (!isPlainName(name)) {
      if (problem) *problem = FolderProblem::failed;
      return std::nullopt;
    }
    const std::string text(name);
    if (create) (void)::mkdirat(fd_, text.c_str(), S_IRWXU);
    if (auto fd = openFolder(fd_, text.c_str(), problem)) return Folder(*fd);
  } catch (...) {
    if (problem) *problem = FolderProblem::failed;  // out of memory
  }
  return std::nullopt;
}

std::optional<std::vector<Folder::Entry>> Folder::entries(bool* complete) const noexcept {
  if (complete) *complete = false;
  // A descriptor of its own: listings on other threads keep their own positions.
  const int fd = ::openat(fd_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  DIR* dir = ::fdopendir(fd);
  if (dir == nullptr) {
    ::close(fd);
    return std::nullopt;
  }
  std::optional<std::vector<Entry>> found;
  try {
    found.emplace();
    bool whole = true;
    errno = 0;
    while (const dirent* item = ::readdir(dir)) {
      const std::string_view name(item->d_name);
      if (name == "." || name == "..") continue;
      struct stat info {};
      if (::fstatat(fd, item->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) continue;  // removed meanwhile
        whole = false;
        break;
      }
      found->push_back(entryOf(std::string(name), info));
      errno = 0;
    }
    if (errno != 0) whole = false;
    if (complete) *complete = whole;
  } catch (...) {
    found.reset();  // out of memory
  }
  ::closedir(dir);
  return found;
}

std::optional<Folder::Entry> Folder::entry(std::string_view name) const noexcept {
  try {
    if (!isPlainName(name)) return std::nullopt;
    const std::string text(name);
    struct stat info {};
    if (::fstatat(fd_, text.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
    return entryOf(text, info);
  } catch (...) {
    return std::nullopt;
  }
}

FileContents Folder::readFile(std::string_view name, std::uint64_t maxSize) const noexcept {
  FileContents out;
  try {
    if (!isPlainName(name)) {
      out.status = FileContents::Status::wrongKind;
      return out;
    }
    const std::string text(name);
    // O_NONBLOCK: a named pipe under the name is never waited on; it is no regular file.
    const int fd = ::openat(fd_, text.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
    if (fd < 0) {
      const int error = errno;
      out.status = error == ENOENT                                         ? FileContents::Status::missing
                   : (error == ELOOP || error == ENXIO || error == ENODEV) ? FileContents::Status::wrongKind
                                                                           : FileContents::Status::failed;
      out.error = text + ": " + std::strerror(error);
      return out;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
      ::close(fd);
      return out;  // failed
    }
    if (!S_ISREG(info.st_mode) || static_cast<std::uint64_t>(info.st_size) > maxSize) {
      out.status = S_ISREG(info.st_mode) ? FileContents::Status::tooLarge : FileContents::Status::wrongKind;
      ::close(fd);
      return out;
    }
    out.identity = {true, info.st_dev, info.st_ino, static_cast<std::uint64_t>(info.st_size),
                    static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec};
    out.bytes.reserve(static_cast<std::size_t>(info.st_size));
    std::uint8_t buffer[65536];
    out.status = FileContents::Status::ok;
    for (;;) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        out.status = FileContents::Status::failed;
        out.error = text + ": " + std::strerror(errno);
        break;
      }
      if (n == 0) break;
      // The file may grow while it is read; the bound holds for what is kept.
      if (out.bytes.size() + static_cast<std::size_t>(n) > maxSize) {
        out.status = FileContents::Status::tooLarge;
        break;
      }
      out.bytes.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    if (out.status != FileContents::Status::ok) out.bytes.clear();
  } catch (...) {
    out = {};  // out of memory: failed
  }
  return out;
}

int Folder::removeFile(std::string_view name) const noexcept {
  try {
    if (!isPlainName(name)) return EINVAL;
    return ::unlinkat(fd_, std::string(name).c_str(), 0) == 0 ? 0 : errno;
  } catch (...) {
    return ENOMEM;
  }
}

int Folder::removeEmptyFolder(std::string_view name) const noexcept {
  try {
    if (!isPlainName(name)) return EINVAL;
    return ::unlinkat(fd_, std::string(name).c_str(), AT_REMOVEDIR) == 0 ? 0 : errno;
  } catch (...) {
    return ENOMEM;
  }
}

std::optional<Folder::Staged> Folder::stage(std::string_view name, std::span<const std::uint8_t> bytes) const noexcept {
  try {
    if (!isPlainName(name)) return std::nullopt;
    const int folder = ::fcntl(fd_, F_DUPFD_CLOEXEC, 0);
    if (folder < 0) return std::nullopt;
    // From here on the folder's descriptor belongs to the staged file, which closes it.
    Staged staged(folder, std::string(name), {});
    const std::string prefix = std::string(kTemporaryFilePrefix) + std::string(name) + ".";
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
      std::string temporary = prefix + uniqueSuffix();
      fd = ::openat(folder, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
      if (fd >= 0) staged.temporary_ = std::move(temporary);
      if (fd < 0 && errno != EEXIST) return std::nullopt;
    }
    if (fd < 0) return std::nullopt;
    // The data must be on the disk before the rename is: a file system may commit the rename
    // first, and a power loss would then leave the name on a short file.
    const bool written = writeAll(fd, bytes) && ::fsync(fd) == 0;
    if (::close(fd) != 0 || !written) return std::nullopt;  // the staged file removes it
    return staged;
  } catch (...) {
    return std::nullopt;  // out of memory
  }
}

bool Folder::Staged::commit() noexcept {
  if (temporary_.empty()) return false;
  const bool renamed = ::renameat(folder_, temporary_.c_str(), folder_, name_.c_str()) == 0;
  if (!renamed) ::unlinkat(folder_, temporary_.c_str(), 0);
  temporary_.clear();
  // Make the rename durable too; failing here leaves the new file in place: still done.
  if (renamed) (void)::fsync(folder_);
  return renamed;
}

Folder::Staged::~Staged() {
  if (!temporary_.empty()) ::unlinkat(folder_, temporary_.c_str(), 0);
  if (folder_ >= 0) ::close(folder_);
}

Folder& Folder::operator=(Folder&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

Folder::~Folder() {
  if (fd_ >= 0) ::close(fd_);
}

}  // namespace kp::platform
