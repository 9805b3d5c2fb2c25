// Internal: the file-system operations whose guarantees need the operating system itself:
// folders that only the user may enter, files that are replaced whole or not at all, reads
// with a size bound, an advisory lock that cooperating processes share, and a cheap identity
// that tells whether a file changed. The rest of the library uses std::filesystem directly.
//
// Thread safety: every function may be called from any thread. Two threads replacing the
// same file at once both succeed; the file then holds one of the two contents, whole. A
// FileLock belongs to the thread that holds it.
//
// Example:
//   if (auto lock = platform::FileLock::acquire(dir / ".settings.lock", std::chrono::seconds(2))) {
//     std::string error;
//     if (!platform::writeFileAtomically(dir / "settings.plist", bytes, &error)) report(error);
//   }
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "kp/platform/data.h"

namespace kp::platform {

// Creates the folder `path`, private to the user (0700), when nothing exists there; its
// parent must exist. True when `path` is a directory afterwards, also when it was one before
// or another process made it meanwhile.
[[nodiscard]] bool createPrivateDirectory(const std::filesystem::path& path) noexcept;
// The same, creating missing parents too (each of them private); existing folders are left
// as they are.
[[nodiscard]] bool createPrivateDirectories(const std::filesystem::path& path) noexcept;

// Replaces the file at `path` with `bytes` (0600 when new): the bytes go to a temporary file
// in the same folder, reach the disk, the temporary file is then renamed over `path`, and the
// rename reaches the disk too. A failure, or the process ending at any moment, leaves the old
// file (or none) under `path`, never a part of the new one; on failure the temporary file is
// removed and `error` (when given) says why.
[[nodiscard]] bool writeFileAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes,
                                       std::string* error = nullptr) noexcept;

// Moves the file at `from` to `to`, replacing what is there. Within one file system this is a
// rename. Across file systems the bytes are copied to a temporary file beside `to`, flushed
// and renamed over it, so that `to` holds the old file or the whole new one, never a part of
// it (a full disk leaves the old one), and `from` is removed afterwards. Returns the error of
// the step that failed, nothing on success.
[[nodiscard]] std::error_code moveFile(const std::filesystem::path& from, const std::filesystem::path& to) noexcept;

// Temporary files of writeFileAtomically() and moveFile() start with this, then the file's name and "."; only
// a process that died while writing leaves one behind.
inline constexpr std::string_view kTemporaryFilePrefix = ".kp-partial-";

// Removes the temporary files that writers of `path` left behind when they died, if they are
// older than `age` (a live writer's file is younger).
void removeStaleTemporaryFiles(const std::filesystem::path& path, std::chrono::seconds age) noexcept;

// Enough of a file's metadata to notice that it was replaced or rewritten.
struct FileIdentity {
  bool exists = false;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  std::int64_t modifiedNanoseconds = 0;

  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

// The identity of what is at `path` now (exists == false when nothing is there).
[[nodiscard]] FileIdentity fileIdentity(const std::filesystem::path& path) noexcept;

struct FileContents {
  enum class Status { ok, missing, tooLarge, failed };
  Status status = Status::failed;
  Data bytes;
  FileIdentity identity;  // of the file the bytes came from
  std::string error;      // why it failed, for reports
};

// Reads a regular file whole. Files larger than `maxSize` are not read (tooLarge); anything
// that is not a regular file, or fails to read, is `failed`.
[[nodiscard]] FileContents readFile(const std::filesystem::path& path, std::uint64_t maxSize);

// An exclusive advisory lock on a lock file, held until destruction. Every process that
// touches the guarded files takes it; the kernel drops it when its holder dies.
class FileLock {
 public:
  // Waits up to `timeout` for the lock; nothing when it cannot be had in time or the lock file
  // cannot be opened (created with 0600 when missing).
  [[nodiscard]] static std::optional<FileLock> acquire(const std::filesystem::path& lockFile,
                                                       std::chrono::milliseconds timeout);
  FileLock(FileLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileLock& operator=(FileLock&& other) noexcept;
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock();

 private:
  explicit FileLock(int fd) noexcept : fd_(fd) {}
  int fd_;
};

}  // namespace kp::platform
