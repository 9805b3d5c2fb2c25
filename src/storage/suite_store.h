// storage_detail::SuiteStore: the values of one user-defaults suite in this process, and the
// binary property-list file that holds them. Every UserDefaults of the suite shares one store.
//
// Reads come from memory under one mutex. A change updates memory, is remembered as pending
// and schedules one write on the store's serial queue a moment later, so a burst of changes
// costs one write. A write takes the suite's lock file (shared with other processes), reads
// the file again when another process replaced it, lays the pending changes over what it
// found, and replaces the file atomically; so two processes that change different keys keep
// each other's keys. Changes other processes make are picked up through the directory
// watcher, or on synchronize() where the system has none.
//
// A file whose content is damaged (not a property-list dictionary, too large, not a regular
// file) is renamed aside (never deleted), reported, and the suite starts empty. A file that
// cannot be read at the moment (out of descriptors, permission denied, an I/O error) stays where
// it is: memory keeps what it had, the read is tried again a little later and before every
// write, and no write replaces the file before it has been read, so none loses its keys. Each
// of these, and a failed write, is kept for status() too, for callers that tell a user.
//
// A suite file that is a symbolic link stays one: writes replace the file it leads to (a
// temporary file beside that file, renamed over it), as setups that keep such files elsewhere
// expect.
//
// Lock order: ioMutex_ (file work of this process) before mutex_ (the values). Readers take
// only mutex_ and never wait for file work. The members name the lock that guards them, which
// clang's thread-safety analysis checks.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kp/coding/value.h"
#include "kp/platform/dispatch.h"
#include "kp/platform/string_map.h"
#include "kp/storage/user_defaults.h"
#include "platform/files.h"
#include "platform/mutex.h"

namespace kp::storage_detail {

class SuiteStore : public std::enable_shared_from_this<SuiteStore> {
 public:
  // Changes are written once none came for this long...
  static constexpr std::chrono::milliseconds kCoalescingDelay{50};
  // ...or once the oldest unwritten change is this old, so a steady stream is written too.
  static constexpr std::chrono::milliseconds kMaximumDelay{1000};
  // How long a write waits for another process's lock on the suite.
  static constexpr std::chrono::milliseconds kLockTimeout{2000};
  // Larger suite files are treated as damaged rather than read into memory, so none is
  // written: changes that would make one stay pending.
  static constexpr std::uint64_t kMaxFileSize = 64ULL << 20;

  // The store of the suite file `file`, shared by every caller in this process; the folder is
  // created when missing and the file read when present.
  [[nodiscard]] static std::shared_ptr<SuiteStore> open(const std::filesystem::path& file);
  // Writes the pending changes of every open suite (at process exit).
  static void synchronizeAll();

  SuiteStore(const SuiteStore&) = delete;
  SuiteStore& operator=(const SuiteStore&) = delete;
  ~SuiteStore();

  // Calls `read(const Value*)` with the value under `key` (null when absent) under the lock;
  // `read` must not call back into the store.
  template <class F>
  decltype(auto) read(std::string_view key, F&& read) const EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    auto it = values_.find(key);
    return std::forward<F>(read)(it == values_.end() ? nullptr : it->second.get());
  }
  [[nodiscard]] std::shared_ptr<const Value> get(std::string_view key) const EXCLUDES(mutex_);
  // Stores `value` under `key`; null removes the key.
  void set(std::string_view key, std::shared_ptr<const Value> value) EXCLUDES(mutex_);
  void removeAll() EXCLUDES(mutex_);
  // Every entry, sorted by key.
  [[nodiscard]] std::vector<std::pair<std::string, std::shared_ptr<const Value>>> snapshot() const EXCLUDES(mutex_);

  // Writes pending changes now and reads changes of other processes; false when pending
  // changes could not be written (they stay pending and are tried again later) or the file
  // could not be read.
  bool synchronize() EXCLUDES(ioMutex_, mutex_);

  [[nodiscard]] const std::filesystem::path& file() const noexcept { return file_; }
  // What went wrong with the file lately (waits for file work under way).
  [[nodiscard]] SuiteFileStatus status() const EXCLUDES(ioMutex_);
  // How many times this process has written the file.
  [[nodiscard]] std::uint64_t fileWriteCount() const noexcept { return writes_.load(std::memory_order_relaxed); }

 private:
  struct Pending {
    std::shared_ptr<const Value> value;  // null: removed
    std::uint64_t generation = 0;
  };
  using Entries = StringMap<std::shared_ptr<const Value>>;

  explicit SuiteStore(std::filesystem::path file);

  void scheduleWrite(std::chrono::steady_clock::duration delay);
  // The scheduled write: writes, or waits further while changes keep coming.
  void scheduledWrite() EXCLUDES(ioMutex_, mutex_);
  void watch() REQUIRES(ioMutex_);
  void fileChanged();
  // Writes the pending changes, if any.
  bool writeLocked() REQUIRES(ioMutex_) EXCLUDES(mutex_);
  // Keeps why a write failed and tries again later, waiting longer after each failure; false.
  bool writeFailed(const std::string& error) REQUIRES(ioMutex_) EXCLUDES(mutex_);
  // Reads the file again when it changed since we last saw it and lays the pending changes over
  // it. `lockHeld` tells whether the suite's lock file is ours. False when the file is there but
  // could not be read (readError_ says why).
  bool reloadLocked(bool lockHeld) REQUIRES(ioMutex_) EXCLUDES(mutex_);
  // Reads the file again later, waiting longer after each failure.
  void scheduleReadRetry() REQUIRES(ioMutex_);
  // Renames a damaged file aside (under the suite's lock); false when another file has replaced
  // it meanwhile.
  bool setAside(const platform::FileContents& contents, std::string_view reason, bool lockHeld) REQUIRES(ioMutex_);
  // Keeps a report of a file set aside for status().
  void remember(std::string report) REQUIRES(ioMutex_);

  const std::filesystem::path file_;
  const std::filesystem::path lockFile_;
  const std::shared_ptr<SerialQueue> queue_;

  mutable Mutex ioMutex_;
  platform::FileIdentity lastSeen_ GUARDED_BY(ioMutex_);  // the file as we last read or wrote it
  std::chrono::milliseconds retryDelay_ GUARDED_BY(ioMutex_){0};
  std::string readError_ GUARDED_BY(ioMutex_);              // why the last read failed, if it did
  std::string writeError_ GUARDED_BY(ioMutex_);             // why the last write failed, if it did
  std::vector<std::string> setAside_ GUARDED_BY(ioMutex_);  // the damaged files moved aside
  std::chrono::milliseconds readRetryDelay_ GUARDED_BY(ioMutex_){0};
  bool readRetryScheduled_ GUARDED_BY(ioMutex_) = false;
  std::shared_ptr<void> watchToken_ GUARDED_BY(ioMutex_);

  mutable Mutex mutex_;
  Entries values_ GUARDED_BY(mutex_);              // the file's content with the pending changes laid over
  StringMap<Pending> pending_ GUARDED_BY(mutex_);  // local changes not yet written
  std::uint64_t generation_ GUARDED_BY(mutex_) = 0;
  bool writeScheduled_ GUARDED_BY(mutex_) = false;
  std::chrono::steady_clock::time_point firstChange_ GUARDED_BY(mutex_);  // of the changes not yet written
  std::chrono::steady_clock::time_point lastChange_ GUARDED_BY(mutex_);

  std::atomic<bool> watchLost_{true};
  std::atomic<bool> reloadScheduled_{false};
  std::atomic<std::uint64_t> writes_{0};
};

}  // namespace kp::storage_detail
