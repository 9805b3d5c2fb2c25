// kp::CacheControllerDatabase: the persistent index and store of the cache: one SQLite file
// ("centralcache.db" for the shared controller) with a table of entries and a table of
// metadata. Serialized entries keep their whole encoded form in their row; file-backed
// entries keep a row for their kind, group, timestamp and age.
//
// Nothing here reports an error: every failure ends the operation quietly with the empty
// result (no row, empty list, nothing stored). A file that cannot be opened leaves the
// database closed, and every operation is then a no-op.
//
// The file runs in write-ahead-log mode with normal sync: a crash or power cut may lose the
// last saves, never the file's integrity, and saves do not wait for the disk each time. The
// file stays a plain SQLite database that the sqlite3 shell opens.
//
// Each statement is prepared once per connection, on its first use, and kept: a run binds it,
// steps it and then resets it and clears its bindings, so that the next run (of any thread)
// finds it fresh and no finished read keeps a snapshot of the file open.
//
// Thread safety: every operation may be called from any thread; each statement runs under the
// database's own lock, and vacuuming runs after the calling operation released it.
//
// Example:
//   kp::CacheControllerDatabase db("centralcache.db");
//   db.prepare();
//   db.saveRecord(encoded, *entry, "forecast/berlin");
//   std::optional<kp::Data> bytes = db.loadCacheData("forecast/berlin");
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "cache/sqlite.h"
#include "kp/cache/cache_item.h"
#include "kp/cache/cache_row.h"
#include "kp/cache/cacheable.h"
#include "kp/coding/property_list.h"
#include "platform/mutex.h"

namespace kp {

struct CacheKeyAndGroup {
  std::string key;
  std::optional<std::string> group;
  friend bool operator==(const CacheKeyAndGroup&, const CacheKeyAndGroup&) = default;
};

enum class CacheItemColumns { id, type, group, data };
enum class MetadataColumns { id, version };
[[nodiscard]] std::string_view sqliteColumnName(CacheItemColumns column) noexcept;
[[nodiscard]] std::string_view sqliteColumnName(MetadataColumns column) noexcept;

class CacheControllerDatabase {
 public:
  static constexpr std::string_view kDbName = "KPCacheControllerDal_DB";
  static constexpr std::int32_t kDbVersion = 3;

  // The file `dbFileName` in the application's caches directory, or in `directory`.
  explicit CacheControllerDatabase(std::string dbFileName);
  CacheControllerDatabase(std::string dbFileName, const std::filesystem::path& directory);
  CacheControllerDatabase(const CacheControllerDatabase&) = delete;
  CacheControllerDatabase& operator=(const CacheControllerDatabase&) = delete;

  // Opens the file, or creates it; a file whose schema version is 2 or less (or unreadable)
  // is replaced by a new, empty one. Processes preparing the same file take turns (through
  // the lock file ".<name>.lock" beside it), so none replaces a file another has just created;
  // one that cannot have its turn replaces nothing. A symbolic link at the file is neither
  // followed nor replaced: the database stays closed, and the link is reported to CL. Run
  // once, before any other operation.
  void prepare();
  // Instead of prepare(), for tools that inspect a cache the application owns: opens the
  // existing file read-only, creating, replacing and migrating nothing. Nothing when it is open
  // afterwards; otherwise one line saying why it cannot be read as a cache database (missing,
  // not SQLite, without the cache's tables, of a schema version older than 3), and the
  // database stays closed. Writes through a database opened this way change nothing.
  [[nodiscard]] std::optional<std::string> openForReading();
  [[nodiscard]] bool isOpen() const;
  // One line when a symbolic link stands at the file: the database is not the cache's then,
  // and neither prepare() nor openForReading() opens it (the cache keeps its entries in
  // memory). Nothing otherwise.
  [[nodiscard]] std::optional<std::string> fileProblem() const;
  [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }

  // Stores the entry's coded form (a property list) under `key`; nothing when it cannot be
  // encoded.
  void encode(const Cacheable& entry, std::string_view key);
  // The entry's coded form as saveRecord() takes it; nothing when it cannot be encoded.
  [[nodiscard]] static std::optional<Data> encodeEntry(const Cacheable& entry);
  // The entry stored under `key` decoded as T (a Cacheable with a coded form), or null when
  // there is none or it cannot be decoded. Expiry is not checked here.
  template <class T>
  [[nodiscard]] std::shared_ptr<T> decode(std::string_view key) {
    auto bytes = loadCacheData(key);
    return bytes ? decodeEntry<T>(*bytes) : nullptr;
  }
  // An entry of type T from its stored coded form, or null when it cannot be decoded.
  template <class T>
  [[nodiscard]] static std::shared_ptr<T> decodeEntry(const Data& bytes) {
    try {
      if constexpr (std::is_same_v<T, CacheItem>) {
        return std::make_shared<CacheItem>(CacheItem::decodeStored(bytes.bytes()));
      } else {
        return std::make_shared<T>(PropertyListDecoder().decode<T>(bytes));
      }
    } catch (const std::exception&) {
      return nullptr;
    }
  }

  // Stores (or replaces) the row of `key` with the encoded entry `data`; false when the row
  // could not be written (most callers need not look).
  // REQUIRES: the entry's creation date and age limit fit in signed 32-bit seconds; anything
  // else stops the program.
  bool saveRecord(const Data& data, const Cacheable& entry, std::string_view key);
  [[nodiscard]] std::optional<Data> loadCacheData(std::string_view key);
  // The row's encoded entry with its timestamp (which rolling expiry moves on without
  // re-encoding the entry), or nothing.
  struct StoredData {
    Data data;
    Date timestamp;
  };
  [[nodiscard]] std::optional<StoredData> loadCacheDataAndTimestamp(std::string_view key);
  [[nodiscard]] std::optional<CacheItemType> getCacheItemType(std::string_view key);
  [[nodiscard]] std::optional<std::string> getCacheItemGroup(std::string_view key);
  // False when the row could not be deleted (most callers need not look).
  bool removeCacheItem(std::string_view key);
  // Empties the group (or, without one, the whole table), then vacuums.
  void removeAllItems(const std::optional<std::string>& group);
  void updateTimestamp(std::string_view key, const Cacheable& entry);
  // Keys (with groups) of the rows of `type` whose positive age limit has passed at `now`,
  // whatever their automatic-expiry flag.
  [[nodiscard]] std::vector<CacheKeyAndGroup> getExpiredCacheKeys(CacheItemType type, Date now = Date::now());
  // Deletes the rows expired at `now` that allow automatic expiry, then vacuums.
  void removeExpiredItems(Date now = Date::now());
  // Keys of file-backed rows, oldest first. Their group is always absent.
  [[nodiscard]] std::vector<CacheKeyAndGroup> getFileCacheKeysSortedByCreationDate();
  // Every row, oldest first.
  [[nodiscard]] std::vector<CacheRowSummary> getRowSummaries();
  [[nodiscard]] std::optional<CacheRowSummary> getRowSummary(std::string_view key);
  [[nodiscard]] std::uint64_t getItemCount();
  // Size of the database file and its write-ahead log in bytes; 0 when it cannot be read.
  [[nodiscard]] std::uint64_t getSize() const;
  // Gives back the memory of the pages that SQLite keeps of the file (they are read again when
  // needed).
  void releaseMemory();
  // Rebuilds the file without its free pages and empties the log, so that the disk space of
  // removed rows is given back; leaves a file without free pages as it is.
  void vacuum();

 private:
  void createDatabase() REQUIRES(mutex_);
  [[nodiscard]] std::int64_t storedVersion() REQUIRES(mutex_);
  [[nodiscard]] std::vector<CacheRowSummary> summaries(std::string_view sql, const std::vector<SQLiteValue>& bindings);
  void configureConnection() REQUIRES(mutex_);
  // Opens the connection at `url`; false (and no connection) when it cannot be opened.
  bool open(const std::string& url) REQUIRES(mutex_);
  // Drops the connection, which stays open unused, and finalizes its statements.
  void dropConnection() REQUIRES(mutex_);
  // The connection's statement for `sql`, prepared on first use; null when it cannot be.
  [[nodiscard]] SQLitePreparedStatement* statement(std::string_view sql) REQUIRES(mutex_);
  // The rows of one statement (only the first with `firstOnly`); none on any failure.
  template <SQLiteColumn Column = CacheItemColumns>
  [[nodiscard]] std::vector<SQLiteRow<Column>> rows(std::string_view sql, const std::vector<SQLiteValue>& bindings,
                                                    bool firstOnly = false) REQUIRES(mutex_);
  // Runs one statement with its bindings to completion; false on any failure.
  bool run(std::string_view sql, const std::vector<SQLiteValue>& bindings) REQUIRES(mutex_);
  // Runs a pragma that answers with a row, ignoring the row; false on any failure.
  bool runPragma(std::string_view sql) REQUIRES(mutex_);
  // The pages that deletions left unused in the file; nothing when it cannot tell.
  [[nodiscard]] std::optional<std::int32_t> freePages() REQUIRES(mutex_);

  std::string dbFileName_;
  std::filesystem::path path_;
  mutable Mutex mutex_;
  std::unique_ptr<SQLiteDatabase> db_ GUARDED_BY(mutex_);
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
  };
  // The statements of db_, by their SQL text.
  std::unordered_map<std::string, std::unique_ptr<SQLitePreparedStatement>, TextHash, std::equal_to<>> statements_
      GUARDED_BY(mutex_);
  // The one of them that every read of an entry runs; null until its first use.
  SQLitePreparedStatement* load_ GUARDED_BY(mutex_) = nullptr;
};

}  // namespace kp
