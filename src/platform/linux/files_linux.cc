// Linux implementation of the private folders, whole-file replacement, bounded reads, file
// identities and flock() locks.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

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

std::string describeErrno(std::string_view what, const std::filesystem::path& path, int error) {
  return std::string(what) + " " + path.string() + ": " + std::strerror(error);
}

FileIdentity identityOf(const struct stat& info) {
  FileIdentity id;
  id.exists = true;
  id.device = info.st_dev;
  id.inode = info.st_ino;
  id.size = static_cast<std::uint64_t>(info.st_size);
  id.modifiedNanoseconds = static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec;
  return id;
}

// Closes a descriptor on every path out of a function.
class Descriptor {
 public:
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }

 private:
  int fd_;
};

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

namespace {

// Fills a temporary file beside `path` with `fill` (which returns 0 or an errno value), makes
// it durable and renames it over `path`; on failure removes it and returns the errno value
// of the failed step, naming the step in `step`.
template <class Fill>
int replaceThroughTemporaryFile(const std::filesystem::path& path, const Fill& fill, const char*& step) {
  const auto folder = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
  std::string temporary =
      (folder / (std::string(kTemporaryFilePrefix) + path.filename().string() + ".XXXXXX")).string();
  step = "cannot create a temporary file for";
  const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);  // 0600
  if (fd < 0) return errno;
  // The data must be on disk before the rename is: a file system may commit the rename
  // first, and a power loss would then leave the final name on a short file.
  step = "cannot write";
  int failure = fill(fd);
  if (failure == 0) step = "cannot flush", failure = ::fsync(fd) == 0 ? 0 : errno;
  if (::close(fd) != 0 && failure == 0) step = "cannot close", failure = errno;
  if (failure == 0) step = "cannot replace", failure = ::rename(temporary.c_str(), path.c_str()) == 0 ? 0 : errno;
  if (failure != 0) {
    ::unlink(temporary.c_str());
    return failure;
  }
  // Make the rename durable too. Failing here leaves the new file in place: still done.
  if (Descriptor dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); dir.valid()) ::fsync(dir.get());
  return 0;
}

// Copies what is left of `from` into `to`; 0 or an errno value.
int copyAll(int from, int to) {
  while (true) {
    const ssize_t copied = ::copy_file_range(from, nullptr, to, nullptr, std::size_t{1} << 30, 0);
    if (copied == 0) return 0;
    if (copied > 0) continue;
    if (errno == EINTR) continue;
    if (errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) return errno;
    break;  // not between these files: copy through a buffer
  }
  std::vector<std::uint8_t> buffer(std::size_t{1} << 20);
  while (true) {
    const ssize_t count = ::read(from, buffer.data(), buffer.size());
    if (count == 0) return 0;
    if (count < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (!writeAll(to, std::span(buffer.data(), static_cast<std::size_t>(count)))) return errno;
  }
}

}  // namespace

bool writeFileAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes,
                         std::string* error) noexcept {
  try {
    const char* step = "";
    const int failure = replaceThroughTemporaryFile(
        path, [&](int fd) { return writeAll(fd, bytes) ? 0 : errno; }, step);
    if (failure != 0 && error) *error = describeErrno(step, path, failure);
    return failure == 0;
  } catch (...) {
    return false;  // out of memory building the names
  }
}

std::error_code moveFile(const std::filesystem::path& from, const std::filesystem::path& to) noexcept {
  if (::rename(from.c_str(), to.c_str()) == 0) return {};
  if (errno != EXDEV) return {errno, std::generic_category()};
  try {
    Descriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (!source.valid()) return {errno, std::generic_category()};
    const char* step = "";
    const int failure = replaceThroughTemporaryFile(
        to, [&](int fd) { return copyAll(source.get(), fd); }, step);
    if (failure != 0) return {failure, std::generic_category()};
    ::unlink(from.c_str());
    return {};
  } catch (...) {
    return std::make_error_code(std::errc::not_enough_memory);
  }
}

void removeStaleTemporaryFiles(const std::filesystem::path& path, std::chrono::seconds age) noexcept {
  namespace fs = std::filesystem;
  try {
    const std::string prefix = std::string(kTemporaryFilePrefix) + path.filename().string() + ".";
    const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
      if (!it->path().filename().string().starts_with(prefix)) continue;
      std::error_code ignored;
      const auto modified = fs::last_write_time(it->path(), ignored);
      if (!ignored && fs::file_time_type::clock::now() - modified > age) fs::remove(it->path(), ignored);
    }
  } catch (...) {
    // Out of memory: the leftovers stay for another time.
  }
}

FileIdentity fileIdentity(const std::filesystem::path& path) noexcept {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return {};
  return identityOf(info);
}

FileContents readFile(const std::filesystem::path& path, std::uint64_t maxSize) {
  FileContents out;
  Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) {
    const int error = errno;
    out.status = error == ENOENT ? FileContents::Status::missing : FileContents::Status::failed;
    out.error = describeErrno("cannot open", path, error);
    return out;
  }
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) {
    out.error = describeErrno("cannot inspect", path, errno);
    return out;
  }
  out.identity = identityOf(info);
  if (!S_ISREG(info.st_mode)) {
    out.error = path.string() + " is not a regular file";
    return out;
  }
  if (static_cast<std::uint64_t>(info.st_size) > maxSize) {
    out.status = FileContents::Status::tooLarge;
    out.error = path.string() + " is larger than " + std::to_string(maxSize) + " bytes";
    return out;
  }
  out.bytes.reserve(static_cast<std::size_t>(info.st_size));
  std::uint8_t buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      out.error = describeErrno("cannot read", path, errno);
      out.bytes.clear();
      return out;
    }
    if (n == 0) break;
    // The file may grow while it is read; the bound holds for what we keep.
    if (out.bytes.size() + static_cast<std::size_t>(n) > maxSize) {
      out.status = FileContents::Status::tooLarge;
      out.error = path.string() + " grew beyond " + std::to_string(maxSize) + " bytes";
      out.bytes.clear();
      return out;
    }
    out.bytes.append(buffer, static_cast<std::size_t>(n));
  }
  out.status = FileContents::Status::ok;
  return out;
}

std::optional<FileLock> FileLock::acquire(const std::filesystem::path& lockFile, std::chrono::milliseconds timeout) {
  const int fd = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return std::nullopt;
  FileLock lock(fd);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  auto pause = std::chrono::microseconds(200);
  for (;;) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return lock;
    if (errno != EWOULDBLOCK && errno != EINTR) return std::nullopt;
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(pause);
    pause = std::min<std::chrono::microseconds>(pause * 2, std::chrono::milliseconds(10));
  }
}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

FileLock::~FileLock() {
  // Closing the descriptor releases the lock.
  if (fd_ >= 0) ::close(fd_);
}

}  // namespace kp::platform
