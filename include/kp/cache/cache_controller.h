// kp::CacheController: the library's central cache, in three tiers: entries live in memory,
// in a database row ("centralcache.db") and, for bytes and images, in a file of their own
// (folder "KPCentralCacheController"), both in the application's caches directory.
//
// Reads look in memory, then in the database, then in the entry's file, and apply the
// entry's expiry rules: a read restarts the lifetime of an entry with rolling expiry before
// anything else (so such an entry is found however long it went unread, and only the expired
// clean-up removes it), an expired entry that allows automatic expiry reads as absent, and an
// entry whose file has gone reads as absent and loses its row. Writes go to memory at once; saves to the database and
// the files, wipes, the expired clean-up and the size trim run as background tasks on the
// library's pool, one at a time in the order they were started (a wipe always follows the
// saves started before it). Background work waiting to run is bounded in memory: beyond
// the controller's budget, the caller waits for (or runs) the work started before. Entries
// whose key or group is not UTF-8 text, or holds a NUL byte, are kept in memory only, since
// the database cannot hold such names as they are.
//
// Application life: the controller observes the application notifications on the default
// notification centre. While the application is active, a repeating timer on the main queue
// (every cleanUpInterval seconds) purges expired entries; becoming active purges them and
// starts the timer, resigning active stops it, and a memory warning drops the entries that
// ask for it. The controller reads the application state once, from the Application service,
// on the main thread: during construction when it is made there, otherwise (or when a factory
// of the container that holds the application makes it) once the main queue runs. With no
// Application registered it counts as not active, and the timer waits for the first
// did-become-active.
//
// Nothing here reports an error: a database that cannot be opened leaves a memory-only cache,
// a file that cannot be written is not stored, and damaged stored data reads as absent. (A
// symbolic link in the place of the file folder is reported: see fileStorageProblem().)
//
// Thread safety: every operation may be called from any thread. Timer and notification
// handling runs on the main thread. Destruction unregisters the observers, stops the timer
// and waits for the background work already started, so another controller over the same
// files sees every write.
//
// Example:
//   auto cache = kp::CacheController::sharedInstance();
//   kp::CacheItemConfiguration policy(3600);
//   policy.retainInBackStore = true;
//   cache->set(std::make_shared<kp::CacheItem>(kp::ArchiveValue(kp::Data::fromString("tile")), policy,
//                                              kp::CacheItemType::rawDataToFile),
//              "radar/12/34");
//   if (auto tile = cache->getCacheItem("radar/12/34")) { const kp::Data* bytes = tile->item->get<kp::Data>(); }
//   cache->setMaximumCacheSizeInBytes(100u << 20);
//   cache->curbUsedDiskSpace();
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kp/cache/cache_row.h"
#include "kp/cache/cache_service.h"
#include "kp/container/services.h"
#include "kp/platform/export.h"
#include "kp/platform/notification_center.h"
#include "tarvix/date_service.h"

namespace kp {

// One back-store entry as a listing shows it.
struct KP_EXPORT CacheEntrySummary {
  CacheRowSummary row;  // the entry's database row
  // Bytes of the entry's file; nothing for a serialized entry and for a file that is missing.
  std::optional<std::uint64_t> fileSize;
};

// What the cache holds under one key, read without the side effects of a lookup (no rolling
// expiry, no removal).
struct KP_EXPORT CacheItemInspection {
  // The entry in memory, else its row decoded; null when the row cannot be decoded.
  std::shared_ptr<CacheItem> entry;
  bool inMemory = false;  // whether `entry` came from memory
  // The row, when there is one.
  std::optional<CacheEntrySummary> stored;
  // For bytes and images: the file's bytes, when it can be read.
  std::optional<Data> fileData;
  // Expired by the controller's clock (whatever its automatic-expiry flag).
  bool expired = false;
};

// The background work of a controller: tasks and bytes waiting now, and the most seen.
struct KP_EXPORT CacheBackgroundStatistics {
  std::size_t pendingTasks = 0;  // tasks waiting now
  std::size_t pendingBytes = 0;  // bytes those tasks hold
  std::size_t peakTasks = 0;     // the most tasks that waited at once
  std::size_t peakBytes = 0;     // the most bytes that waited at once
};

class KP_EXPORT CacheController final : public CacheService {
 public:
  static constexpr std::string_view kDatabaseFileName = "centralcache.db";          // the database's file name
  static constexpr std::string_view kStorageFileName = "KPCentralCacheController";  // the file folder's name
  static constexpr std::uint64_t kDefaultMaximumCacheSizeInBytes = 367001600;       // 350 MiB
  static constexpr double kDefaultCleanUpInterval = 900;                            // 15 minutes
  static constexpr std::size_t kDefaultBackgroundBudgetBytes = 64u << 20;           // see Options

  // Where a controller keeps its entries, and what it works with.
  struct Options {
    std::string databaseFileName{kDatabaseFileName};  // in `directory`
    std::string storageFileName{kStorageFileName};    // the file folder, in `directory`
    // The folder of the database and the file folder; the application's caches directory
    // when empty. Created (with its parents) when missing.
    std::filesystem::path directory;
    // The clock of every expiry rule; the system clock when null.
    std::shared_ptr<const tarvix::DateService> clock;
    // Where the Application service is looked up; Services::default_() when null.
    std::shared_ptr<Services> services;
    // Bytes that background work may hold while it waits to run.
    std::size_t backgroundBudgetBytes = kDefaultBackgroundBudgetBytes;
  };

  // The process-wide controller over "centralcache.db" and "KPCentralCacheController", made on
  // first use and never destroyed.
  [[nodiscard]] static const std::shared_ptr<CacheController>& sharedInstance();

  // A controller over these names in the application's caches directory.
  CacheController(std::string_view databaseFileName, std::string_view storageFileName);
  // A controller as `options` say.
  explicit CacheController(Options options);
  ~CacheController() override;
  CacheController(const CacheController&) = delete;
  CacheController& operator=(const CacheController&) = delete;

  // An empty group name is cleared (it means no group) before the entry is stored.
  void set(std::shared_ptr<CacheItem> item, std::string_view key) override;
  void set(std::shared_ptr<Cacheable> item, std::string_view key) override;
  // Removes the entry from memory, its file and its row now, and again after the saves
  // already started, so that none of them brings it back.
  void removeCacheItem(std::string_view key) override;
  using CacheService::get;
  [[nodiscard]] std::shared_ptr<Cacheable> get(const CacheableType& type, std::string_view key) override;
  [[nodiscard]] std::shared_ptr<CacheItem> getCacheItem(std::string_view key) override;
  [[nodiscard]] std::shared_ptr<CacheItem> getCacheItem(std::string_view key, bool loadData) override;
  void wipeCompleteCache() override;
  void wipeCompleteCache(std::string_view group) override;
  // Drops expired entries from memory now (whatever their automatic-expiry flag); in the
  // background, removes the files of expired entries, then the expired rows that allow
  // automatic expiry.
  void wipeCompleteExpiredCache() override;

  // The limit of the file store for curbUsedDiskSpace().
  [[nodiscard]] std::uint64_t maximumCacheSizeInBytes() const;
  // Changes the limit; the next curbUsedDiskSpace() trims to it.
  void setMaximumCacheSizeInBytes(std::uint64_t bytes);
  // Seconds between clean-ups while the application is active; a change takes effect when
  // the timer next starts. A value that is not positive starts no timer.
  [[nodiscard]] double cleanUpInterval() const noexcept;
  // Changes the interval; see cleanUpInterval().
  void setCleanUpInterval(double seconds) noexcept;

  // In the background, trims the file store below maximumCacheSizeInBytes(), oldest entries
  // first (their rows stay until read).
  void curbUsedDiskSpace();
  // The background part of wipeCompleteCache(): memory is left as it is.
  void removeAllItemsFromBackStore();
  // Bytes of the database and the file folder together.
  [[nodiscard]] std::uint64_t getBackStoreTotalSize() const;
  // Bytes of the database file and its write-ahead log.
  [[nodiscard]] std::uint64_t getDatabaseTotalSize() const;
  // Bytes of the file folder, group folders included.
  [[nodiscard]] std::uint64_t getFileStorageTotalSize() const;
  // Why no files are kept in the file folder (a link or no folder stands there), if so: the cache then keeps bytes and
  // images in memory only.
  [[nodiscard]] std::optional<std::string> fileStorageProblem() const;

  // The application notifications; the host may also call these directly, from any thread.
  // Becoming active removes what has expired and starts the clean-up timer.
  void didBecomeActive(const Notification& notification);
  // Stops the clean-up timer.
  void willResignActive(const Notification& notification);
  // Drops the entries in memory whose configuration lets a memory warning drop them.
  void receivedMemoryWarning(const Notification& notification);
  // What the clean-up timer does: removes expired entries from memory now, and from the
  // database and the files in the background.
  void cleanUpTimerFired();

  // Inspection, for tools and diagnostics.
  [[nodiscard]] bool hasCleanUpTimer() const;
  // Entries in memory.
  [[nodiscard]] std::size_t memoryItemCount() const;
  // Rows in the database.
  [[nodiscard]] std::uint64_t databaseItemCount();
  // Every row, oldest first, with its file's size.
  [[nodiscard]] std::vector<CacheEntrySummary> listEntries();
  // Nothing when neither memory nor the database knows the key.
  [[nodiscard]] std::optional<CacheItemInspection> inspect(std::string_view key);
  // Where the database file is.
  [[nodiscard]] std::filesystem::path databasePath() const;
  // Where the file folder is.
  [[nodiscard]] std::filesystem::path storagePath() const;
  // The background work now, and the most seen.
  [[nodiscard]] CacheBackgroundStatistics backgroundStatistics() const;
  // Returns once the background work started before the call has run.
  void waitForBackgroundWork();

  struct State;

 private:
  std::shared_ptr<State> state_;
  std::vector<NotificationCenter::ObservationToken> observations_;
};

}  // namespace kp
