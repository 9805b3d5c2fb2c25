// Linux side of the durable file operations: mkstemp, fsync, rename and flock.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "platform/durable_file.h"

namespace kp::platform {
namespace {

namespace fs = std::filesystem;

std::string describeErrno(std::string_view what, const fs::path& path, int error) {
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
  ~Descriptor() { reset(); }
  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
  // Closes now and tells whether the close (which may report a delayed write error) worked.
  bool reset() noexcept {
    if (fd_ < 0) return true;
    const bool ok = ::close(std::exchange(fd_, -1)) == 0;
    return ok;
  }

 private:
  int fd_;
};

bool writeAll(int fd, std::span<const std::uint8_t> bytes, int* error) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      *error = errno;
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

FileIdentity fileIdentity(const fs::path& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return {};
  return identityOf(info);
}

FileContents readFile(const fs::path& path, std::uint64_t maxSize) {
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

WriteOutcome writeFileAtomically(const fs::path& path, std::span<const std::uint8_t> bytes) {
  WriteOutcome out;
  const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
  std::string temp = (folder / ("." + path.filename().string() + ".tmp-XXXXXX")).string();
  Descriptor fd(::mkostemp(temp.data(), O_CLOEXEC));
  if (!fd.valid()) {
    out.error = describeErrno("cannot create a temporary file for", path, errno);
    return out;
  }
  auto fail = [&](std::string_view what, int error) {
    fd.reset();
    ::unlink(temp.c_str());
    out.error = describeErrno(what, path, error);
    return out;
  };
  int error = 0;
  if (!writeAll(fd.get(), bytes, &error)) return fail("cannot write", error);
  // The data must be on the disk before the rename makes it visible, or a crash could leave
  // the new name pointing at an empty file.
  if (::fsync(fd.get()) != 0) return fail("cannot flush", errno);
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) return fail("cannot inspect", errno);
  if (!fd.reset()) return fail("cannot close", errno);
  if (::rename(temp.c_str(), path.c_str()) != 0) return fail("cannot replace", errno);
  // Make the rename itself durable. A failure here leaves the new file in place, so the write
  // still counts as done.
  if (Descriptor dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); dir.valid()) ::fsync(dir.get());
  out.ok = true;
  out.identity = identityOf(info);
  return out;
}

void removeStaleTemporaryFiles(const fs::path& path, std::chrono::seconds age) {
  const std::string prefix = "." + path.filename().string() + ".tmp-";
  const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    if (!it->path().filename().string().starts_with(prefix)) continue;
    std::error_code ignored;
    const auto modified = fs::last_write_time(it->path(), ignored);
    if (!ignored && fs::file_time_type::clock::now() - modified > age) fs::remove(it->path(), ignored);
  }
}

bool createPrivateDirectories(const fs::path& directory, std::string* error) {
  fs::path current;
  for (const auto& part : directory) {
    current /= part;
    if (::mkdir(current.c_str(), 0700) == 0 || errno == EEXIST) continue;
    if (error) *error = describeErrno("cannot create", current, errno);
    return false;
  }
  struct stat info {};
  if (::stat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    if (error) *error = directory.string() + " is not a folder";
    return false;
  }
  return true;
}

std::optional<FileLock> FileLock::acquire(const fs::path& lockFile, std::chrono::milliseconds timeout) {
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
