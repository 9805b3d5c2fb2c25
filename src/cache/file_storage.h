// kp::CacheControllerFileStorage: the payload bytes of file-backed cache entries, one file per
// key in a folder of the caches directory ("KPCentralCacheController" for the shared
// controller), optionally in one sub-folder per group. File and folder names are SHA-1 hex
// digests of the key and the group, so neither appears in clear on disk and no key can reach
// outside the folder. It also trims the folder to a size limit, oldest entries first.
//
// Failures are silent: a save that cannot write stores nothing, a load that cannot read gives
// nothing. A save replaces a file whole: a failure or the process ending mid-write leaves
// the old payload, never a cut-off one. Folders made here are private to the user (0700).
//
// The store touches only what it made: files and group folders named by digests, and its own
// temporary files. Other things in its folder are neither counted, nor read, nor removed, and
// it never follows a symbolic link, neither at its folder nor at a group folder or a file. A
// folder that is a link (or no folder at all) is not the store's: it keeps no files then
// (reported to CL once, when the folder is prepared; folderProblem() says so), and the cache
// works from memory and the database alone, leaving the link and what it leads to as they
// are. Every operation opens the folder anew, without following a link, and works inside
// the folder it opened, so a link swapped in meanwhile is not followed either.
//
// Thread safety: every operation may be called from any thread; each runs under the store's
// own lock. The trim asks the database for its keys before taking that lock.
//
// Example:
//   kp::CacheControllerFileStorage files("KPCentralCacheController");
//   files.prepareCacheFolder();
//   files.save(bytes, "radar/tile-12", "radar");
//   auto back = files.loadData("radar/tile-12", "radar");
//   files.removeOldestFiles(350u << 20, database);
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "kp/platform/data.h"

namespace kp {

class CacheControllerDatabase;

class CacheControllerFileStorage {
 public:
  // The folder `fileName` in the application's caches directory, or in `directory`.
  explicit CacheControllerFileStorage(std::string_view fileName);
  CacheControllerFileStorage(std::string_view fileName, const std::filesystem::path& directory);
  CacheControllerFileStorage(const CacheControllerFileStorage&) = delete;
  CacheControllerFileStorage& operator=(const CacheControllerFileStorage&) = delete;

  // Creates the folder when nothing exists there (missing parents are not created), and
  // removes the partial files of writes that a process ending mid-write left behind (those
  // older than ten minutes; younger ones may be another process's save at work). A link or
  // anything else that is no folder in its place is reported.
  void prepareCacheFolder();
  // Writes the bytes to the key's file, replacing it; creates the group's folder if needed.
  // False when nothing was written (the old file, if any, is left as it was); most callers
  // need not look. `beforeReplacing`, when given, runs once the bytes are on the disk and
  // before they replace the old file; when it returns false the old file stays.
  bool save(const Data& data, std::string_view key, const std::optional<std::string>& group,
            const std::function<bool()>& beforeReplacing = {});
  [[nodiscard]] std::optional<Data> loadData(std::string_view key, const std::optional<std::string>& group) const;
  void removeData(std::string_view key, const std::optional<std::string>& group);
  // Without a group (absent or empty): removes the store's files and group folders, stopping
  // at the first failure. With one: removes the group's folder. A group folder is removed
  // once it holds nothing but what the store put there.
  void removeAllItems(const std::optional<std::string>& group);
  // Bytes of the store's files, group folders included; the walk stops at the first entry
  // whose kind or size cannot be read.
  [[nodiscard]] std::uint64_t getSize() const;
  // When the folder holds more than `maxCacheSize` bytes, removes the oldest file-backed
  // entries (as the database orders them) until at least a fifth of the limit is freed and
  // the rest fits. Files inside group folders are never trimmed.
  void removeOldestFiles(std::uint64_t maxCacheSize, CacheControllerDatabase& database);

  [[nodiscard]] const std::filesystem::path& basePath() const noexcept { return basePath_; }
  // The file of `key` (in the group's folder when `group` is present and not empty).
  [[nodiscard]] std::filesystem::path filePath(std::string_view key, const std::optional<std::string>& group) const;
  // Bytes of the file of `key`; nothing when there is no such file.
  [[nodiscard]] std::optional<std::uint64_t> fileSize(std::string_view key,
                                                      const std::optional<std::string>& group) const;
  // Why the store keeps no files in its folder (a link or something else that is no folder
  // stands there); nothing when the folder is a folder or missing.
  [[nodiscard]] std::optional<std::string> folderProblem() const;

 private:
  std::filesystem::path basePath_;
  mutable std::mutex mutex_;
};

}  // namespace kp
