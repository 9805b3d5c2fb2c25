// File operations that the persistent stores need beyond std::filesystem: a write that a
// crash or a full disk can never leave half done, a read with a size bound, an advisory lock
// that cooperating processes share, and a cheap identity that tells whether a file changed.
// Internal; not installed. The Linux implementation is in linux/durable_file_linux.cc.
//
// Thread safety: every function may be called from any thread; a FileLock belongs to the
// thread that holds it.
//
// Example:
//   if (auto lock = platform::FileLock::acquire(dir / ".settings.lock", std::chrono::seconds(2))) {
//     auto written = platform::writeFileAtomically(dir / "settings.plist", bytes);
//     if (!written.ok) report(written.error);
//   }
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "kp/platform/data.h"

namespace kp::platform {

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
[[nodiscard]] FileIdentity fileIdentity(const std::filesystem::path& path);

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

struct WriteOutcome {
  bool ok = false;
  FileIdentity identity;  // of the new file, when ok
  std::string error;
};

// Writes `bytes` to a temporary file in the same folder, flushes it to the disk, renames it
// over `path` and flushes the folder, so that `path` holds either its old content or the new
// one at every moment. On failure the temporary file is removed and `path` is untouched.
// Temporary names start with "." + the file name + ".tmp-".
[[nodiscard]] WriteOutcome writeFileAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes);

// Removes the temporary files that writeFileAtomically() left beside `path` when its process
// died mid-write, if they are older than `age` (a live writer's file is younger).
void removeStaleTemporaryFiles(const std::filesystem::path& path, std::chrono::seconds age);

// Creates `directory` and its missing parents, private to the user (0700). True when the
// folder exists afterwards.
[[nodiscard]] bool createPrivateDirectories(const std::filesystem::path& directory, std::string* error = nullptr);

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
