// kp::CacheInspector: a read-only view of a cache folder (the database and the file folder
// beside it) for tools and diagnostics, safe beside the application that owns the folder. It
// opens the database read-only and changes nothing: no file is created, replaced, migrated or
// removed, and no entry's lifetime restarts. A folder whose database it cannot read is
// reported, never repaired; repairs are the cache controller's.
//
// Thread safety: every operation may be called from any thread.
//
// Example:
//   std::string problem;
//   auto inspector = kp::CacheInspector::open(kp::cachesDirectory(), &problem);
//   if (!inspector) { std::cerr << problem << "\n"; return 1; }
//   for (const auto& entry : inspector->listEntries()) std::cout << entry.row.key << "\n";
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kp/cache/cache_controller.h"
#include "kp/platform/export.h"

namespace kp {

class KP_EXPORT CacheInspector {
 public:
  // The cache in `directory`; nothing, with `problem` (when given) saying why in one line,
  // when it has no database or its database cannot be read as one of schema version 3 or later.
  [[nodiscard]] static std::unique_ptr<CacheInspector> open(
      const std::filesystem::path& directory, std::string* problem = nullptr,
      std::string_view databaseFileName = CacheController::kDatabaseFileName,
      std::string_view storageFileName = CacheController::kStorageFileName);

  CacheInspector(const CacheInspector&) = delete;
  CacheInspector& operator=(const CacheInspector&) = delete;

  ~CacheInspector();

  // Rows in the database.
  [[nodiscard]] std::uint64_t entryCount();
  // Bytes of the database file with its write-ahead log, and of the file folder.
  [[nodiscard]] std::uint64_t databaseBytes() const;
  // Bytes of the file folder, group folders included.
  [[nodiscard]] std::uint64_t fileStorageBytes() const;
  // Why no files are kept in the file folder (a link or no folder stands there), if so.
  [[nodiscard]] std::optional<std::string> fileStorageProblem() const;
  // Every row, oldest first, with its file's size.
  [[nodiscard]] std::vector<CacheEntrySummary> listEntries();
  // What the folder holds under `key` (never in memory: inMemory is false), with expiry judged
  // at `now`; nothing when no row holds the key.
  [[nodiscard]] std::optional<CacheItemInspection> inspect(std::string_view key, Date now = Date::now());
  // Where the database file is.
  [[nodiscard]] const std::filesystem::path& databasePath() const noexcept;
  // Where the file folder is.
  [[nodiscard]] const std::filesystem::path& storagePath() const noexcept;

 private:
  struct Stores;
  explicit CacheInspector(std::unique_ptr<Stores> stores);

  std::unique_ptr<Stores> stores_;
};

}  // namespace kp
