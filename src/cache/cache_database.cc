// The cache database. Every statement is prepared once per connection and reused, bound, run
// and reset under the lock; every failure yields the empty result.
#include "cache/cache_database.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "kp/logging/tarvix_logger.h"
#include "kp/platform/application_info.h"
#include "platform/files.h"

namespace kp {
namespace {

constexpr std::string_view kCreateMetadata = "CREATE TABLE db_metadata ( id VARCHAR(4) PRIMARY KEY, version INTEGER );";
constexpr std::string_view kCreateCache =
    "CREATE TABLE cache ( id VARCHAR(200) PRIMARY KEY, groupName VARCHAR(200), cacheType INTEGER, "
    "rollingExpiration INTEGER, autoExpiration INTEGER, data BLOB, timestamp INTEGER, maximum_age INTEGER );";
constexpr std::string_view kInsertVersion = "INSERT INTO db_metadata ( version ) VALUES ( ? );";
constexpr std::string_view kSelectVersion = "SELECT version FROM db_metadata LIMIT 1;";
constexpr std::string_view kSave =
    "INSERT OR REPLACE INTO cache (id, cacheType, groupName, rollingExpiration, autoExpiration, data, timestamp, "
    "maximum_age) VALUES (?, ?, ?, ?, ?, ?, ?, ?);";
constexpr std::string_view kLoad = "SELECT data FROM cache WHERE id = ?;";
constexpr std::string_view kLoadWithTimestamp = "SELECT data, timestamp FROM cache WHERE id = ?;";
constexpr std::string_view kSelectType = "SELECT cacheType FROM cache WHERE id = ? LIMIT 1";
constexpr std::string_view kSelectGroup = "SELECT groupName FROM cache WHERE id = ? LIMIT 1";
constexpr std::string_view kDelete = "DELETE FROM cache WHERE id = ?;";
constexpr std::string_view kDeleteGroup = "DELETE FROM cache WHERE groupName = ?;";
constexpr std::string_view kDeleteAll = "DELETE FROM cache;";
constexpr std::string_view kUpdateTimestamp = "UPDATE cache SET timestamp = ? WHERE id = ?;";
constexpr std::string_view kSelectExpired =
    "SELECT * FROM cache WHERE cacheType = ? AND maximum_age > 0 AND timestamp + maximum_age < ?;";
constexpr std::string_view kDeleteExpired =
    "DELETE FROM cache WHERE maximum_age > 0 AND timestamp + maximum_age < ? AND autoExpiration = ?;";
constexpr std::string_view kSelectFileKeys = "SELECT id, data FROM cache WHERE cacheType >= 1 ORDER BY timestamp ASC;";
constexpr std::string_view kSelectSummaries =
    "SELECT id, groupName, cacheType, timestamp, maximum_age, rollingExpiration, autoExpiration, "
    "length(data) AS dataSize, CAST(id AS BLOB) AS idBytes FROM cache ORDER BY timestamp ASC;";
constexpr std::string_view kSelectSummary =
    "SELECT id, groupName, cacheType, timestamp, maximum_age, rollingExpiration, autoExpiration, "
    "length(data) AS dataSize, CAST(id AS BLOB) AS idBytes FROM cache WHERE id = ?;";
constexpr std::string_view kCount = "SELECT count(*) AS count FROM cache;";
constexpr std::string_view kCountCacheTables =
    "SELECT count(*) AS count FROM sqlite_master WHERE type = 'table' AND name IN ('cache', 'db_metadata');";
constexpr std::string_view kVacuum = "VACUUM;";
constexpr std::string_view kFreePages = "PRAGMA freelist_count;";
// How long prepare() waits for another process that prepares the same file; that takes
// moments, unless the other waits on a busy database itself.
constexpr auto kPrepareLockTimeout = std::chrono::seconds(5);
// The log holds every page written since the last checkpoint; VACUUM writes them all.
constexpr std::string_view kCheckpointAndTruncate = "PRAGMA wal_checkpoint(TRUNCATE);";

// Seconds as a signed 32-bit count; anything outside that range is a programming error.
std::int32_t wholeSeconds(double seconds, const char* what) {
  if (!std::isfinite(seconds) || seconds < static_cast<double>(std::numeric_limits<std::int32_t>::min()) ||
      seconds >= static_cast<double>(std::numeric_limits<std::int32_t>::max()) + 1.0) {
    std::fprintf(stderr, "kp: fatal: cache %s out of the 32-bit range: %f\n", what, seconds);
    std::abort();
  }
  return static_cast<std::int32_t>(seconds);  // the fraction is dropped
}

std::int32_t nowSeconds(Date now) { return wholeSeconds(std::floor(now.timeIntervalSince1970()), "clock"); }

// The columns of a row listing.
enum class SummaryColumns {
  id,
  idBytes,
  group,
  type,
  timestamp,
  maximumAge,
  rolling,
  autoExpiration,
  dataSize,
  count,
  data
};

std::string_view sqliteColumnName(SummaryColumns column) noexcept {
  switch (column) {
    case SummaryColumns::id:
      return "id";
    case SummaryColumns::idBytes:
      return "idBytes";
    case SummaryColumns::group:
      return "groupName";
    case SummaryColumns::type:
      return "cacheType";
    case SummaryColumns::timestamp:
      return "timestamp";
    case SummaryColumns::maximumAge:
      return "maximum_age";
    case SummaryColumns::rolling:
      return "rollingExpiration";
    case SummaryColumns::autoExpiration:
      return "autoExpiration";
    case SummaryColumns::dataSize:
      return "dataSize";
    case SummaryColumns::count:
      return "count";
    case SummaryColumns::data:
      return "data";
  }
  return "";
}

// Encodes the file URL of a path: the characters that a URL cannot carry as they are. A
// relative path is taken from the working folder, as a file URL holds only absolute ones.
std::string fileUrlOf(const std::filesystem::path& path) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string url = "file://";
  std::error_code ec;
  const auto absolute = std::filesystem::absolute(path, ec);
  for (unsigned char c : (ec ? path : absolute).string()) {
    const bool plain = std::isalnum(c) != 0 ||
                       std::string_view("/-._~!$&'()*+,;=:@").find(static_cast<char>(c)) != std::string_view::npos;
    if (plain) {
      url.push_back(static_cast<char>(c));
    } else {
      url.push_back('%');
      url.push_back(kHex[c >> 4]);
      url.push_back(kHex[c & 0x0f]);
    }
  }
  return url;
}

std::vector<CacheKeyAndGroup> keysAndGroups(const std::vector<SQLiteRow<CacheItemColumns>>& rows) {
  std::vector<CacheKeyAndGroup> result;
  for (const auto& row : rows) {
    auto key = row.string(CacheItemColumns::id);
    if (!key) continue;
    result.push_back({std::move(*key), row.string(CacheItemColumns::group)});
  }
  return result;
}

}  // namespace

std::string_view sqliteColumnName(CacheItemColumns column) noexcept {
  switch (column) {
    case CacheItemColumns::id:
      return "id";
    case CacheItemColumns::type:
      return "cacheType";
    case CacheItemColumns::group:
      return "groupName";
    case CacheItemColumns::data:
      return "data";
  }
  return "";
}

std::string_view sqliteColumnName(MetadataColumns column) noexcept {
  switch (column) {
    case MetadataColumns::id:
      return "id";
    case MetadataColumns::version:
      return "version";
  }
  return "";
}

CacheControllerDatabase::CacheControllerDatabase(std::string dbFileName)
    : CacheControllerDatabase(std::move(dbFileName), cachesDirectory()) {}

CacheControllerDatabase::CacheControllerDatabase(std::string dbFileName, const std::filesystem::path& directory)
    : dbFileName_(std::move(dbFileName)), path_(directory / dbFileName_) {}

bool CacheControllerDatabase::isOpen() const {
  MutexLock lock(mutex_);
  return db_ != nullptr;
}

namespace {
// Resets a statement when its run ends, however it ends: its bindings are cleared, and a read
// cut short lets go of the file.
class StatementRun {
 public:
  explicit StatementRun(SQLitePreparedStatement& statement) noexcept : statement_(statement) {}
  ~StatementRun() { statement_.reset(); }
  StatementRun(const StatementRun&) = delete;
  StatementRun& operator=(const StatementRun&) = delete;

 private:
  SQLitePreparedStatement& statement_;
};
}  // namespace

bool CacheControllerDatabase::open(const std::string& url) {
  dropConnection();
  const auto parsed = Url::parse(url);
  if (!parsed) return false;
  try {
    db_ = std::make_unique<DefaultSQLiteDatabase>(*parsed);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void CacheControllerDatabase::dropConnection() {
  load_ = nullptr;
  statements_.clear();
  db_.reset();
}

SQLitePreparedStatement* CacheControllerDatabase::statement(std::string_view sql) {
  if (!db_) return nullptr;
  if (auto it = statements_.find(sql); it != statements_.end()) return it->second.get();
  try {
    auto prepared = db_->createPreparedStatement(sql);
    return statements_.emplace(std::string(sql), std::move(prepared)).first->second.get();
  } catch (const std::exception&) {
    return nullptr;  // prepared again on the next use
  }
}

bool CacheControllerDatabase::run(std::string_view sql, const std::vector<SQLiteValue>& bindings) {
  auto* prepared = statement(sql);
  if (!prepared) return false;
  StatementRun run(*prepared);
  try {
    for (const auto& value : bindings) prepared->bind(value);
    prepared->execute();
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool CacheControllerDatabase::runPragma(std::string_view sql) {
  auto* prepared = statement(sql);
  if (!prepared) return false;
  StatementRun run(*prepared);
  try {
    // These pragmas answer with a row (the mode in force, the checkpoint's counts).
    (void)prepared->readCells();
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void CacheControllerDatabase::configureConnection() {
  (void)runPragma("PRAGMA journal_mode=WAL;");
  (void)run("PRAGMA synchronous=NORMAL;", {});
  // Once a checkpoint has emptied the log, its file shrinks back to this size instead of
  // keeping the largest size it ever reached. That is just above what the automatic
  // checkpoint lets it reach (1000 pages): a log cut shorter after every checkpoint has its
  // blocks allocated again by the next saves, which made each save about a sixth slower.
  (void)runPragma("PRAGMA journal_size_limit=4194304;");
  // Another process (kpcore on a live cache) may hold the write lock for a moment: wait for
  // it rather than drop the statement.
  (void)runPragma("PRAGMA busy_timeout=2000;");
  // Pages read once stay in memory, up to this many KiB, so that a hit reads its row without
  // a system call. SQLite's default of 2 MiB holds about a thousand entries of 1 KiB
  // (two to a page once coded), fewer than a cache of forecasts keeps; the pages are given
  // back on a memory warning (releaseMemory()). Reading the file through a memory map instead
  // would spare the copy as well, but an I/O error or a file cut short by another process
  // would then end the host with a signal instead of failing the read.
  (void)run("PRAGMA cache_size=-8192;", {});
}

std::optional<std::string> CacheControllerDatabase::fileProblem() const {
  std::error_code ec;
  if (!std::filesystem::is_symlink(std::filesystem::symlink_status(path_, ec))) return std::nullopt;
  return path_.string() + " is a symbolic link, not a database of the cache's own; no entries are kept there";
}

void CacheControllerDatabase::prepare() {
  // The link is left as it is: it is not the cache's to remove, and its owner may want it.
  if (auto problem = fileProblem()) {
    TarvixLoggers::CL()->error(*problem);
    return;
  }
  // Processes preparing the same file take turns: one that found the file another had just
  // created, before its tables existed, would take it for an old one and delete it under the
  // other's connection, whose saves would then go to a file without a name.
  const std::filesystem::path lockFile = path_.parent_path() / ("." + path_.filename().string() + ".lock");
  const auto turn = platform::FileLock::acquire(lockFile, kPrepareLockTimeout);
  MutexLock lock(mutex_);
  std::error_code ec;
  if (std::filesystem::exists(path_, ec)) {
    if (!open(fileUrlOf(path_))) return;  // unreadable: no persistent store until the next launch
    configureConnection();
  } else {
    createDatabase();
  }
  if (storedVersion() > 2) return;
  if (!turn) {
    // Without our turn this may be a file that another process is still making: it is left
    // alone, and this process keeps its entries in memory.
    dropConnection();
    return;
  }
  createDatabase();
}

std::optional<std::string> CacheControllerDatabase::openForReading() {
  MutexLock lock(mutex_);
  const std::string name = path_.string();
  if (auto problem = fileProblem()) return problem;
  std::error_code ec;
  if (!std::filesystem::exists(path_, ec)) return name + " does not exist";
  // "mode=ro": SQLite neither creates the file nor writes to it.
  if (!open(fileUrlOf(path_) + "?mode=ro")) return "cannot open " + name;
  // The application may be writing: wait for it rather than fail.
  (void)runPragma("PRAGMA busy_timeout=2000;");
  std::optional<std::string> problem;
  // The first statement is where SQLite notices that the file is not one of its own.
  const auto tables = rows<SummaryColumns>(kCountCacheTables, {}, true);
  if (tables.empty()) {
    problem = name + " cannot be read as an SQLite database";
  } else if (tables.front().int32(SummaryColumns::count) != 2) {
    problem = name + " has no cache tables";
  } else if (const auto version = storedVersion(); version <= 2) {
    problem = name + " has schema version " + std::to_string(version) + ", older than " + std::to_string(kDbVersion) +
              ", which the application replaces with an empty cache";
  }
  if (problem) dropConnection();
  return problem;
}

std::int64_t CacheControllerDatabase::storedVersion() {
  // A file that is not a database, or has no metadata table, has no row to give.
  const auto found = rows<MetadataColumns>(kSelectVersion, {}, true);
  if (found.empty()) return 1;
  return found.front().int32(MetadataColumns::version).value_or(1);
}

void CacheControllerDatabase::createDatabase() {
  std::error_code ec;
  if (std::filesystem::exists(path_, ec)) {
    dropConnection();  // the old connection stays open, unused, as connections are never closed
    if (!std::filesystem::remove(path_, ec) || ec) return;
    std::filesystem::remove(path_.string() + "-wal", ec);
    std::filesystem::remove(path_.string() + "-shm", ec);
  }
  if (!open(fileUrlOf(path_))) return;
  configureConnection();
  if (!run(kCreateMetadata, {})) return;
  if (!run(kCreateCache, {})) return;
  (void)run(kInsertVersion, {SQLiteValue(kDbVersion)});
}

namespace {
// Lets the property-list encoder write any entry through its virtual coded form.
struct CodedEntry {
  const Cacheable& entry;
};
}  // namespace

template <>
struct Coding<CodedEntry> {
  static void encode(Encoder& encoder, const CodedEntry& coded) { coded.entry.encode(encoder); }
};

std::optional<Data> CacheControllerDatabase::encodeEntry(const Cacheable& entry) {
  try {
    return PropertyListEncoder().encode(CodedEntry{entry});
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

void CacheControllerDatabase::encode(const Cacheable& entry, std::string_view key) {
  // An entry that cannot be encoded is not stored.
  if (auto data = encodeEntry(entry)) saveRecord(*data, entry, key);
}

bool CacheControllerDatabase::saveRecord(const Data& data, const Cacheable& entry, std::string_view key) {
  const auto& config = entry.cacheConfiguration();
  std::vector<SQLiteValue> bindings{
      SQLiteValue(std::string(key)),
      SQLiteValue(static_cast<std::int32_t>(entry.storedCacheType())),
      config.groupName ? SQLiteValue(*config.groupName) : SQLiteValue(),
      SQLiteValue(std::int32_t{config.rollingExpiration ? 1 : 0}),
      SQLiteValue(std::int32_t{config.autoExpiration ? 1 : 0}),
      SQLiteValue(data),
      SQLiteValue(wholeSeconds(entry.creationDate().timeIntervalSince1970(), "creation date")),
      SQLiteValue(wholeSeconds(config.maximumAge, "maximum age")),
  };
  MutexLock lock(mutex_);
  return run(kSave, bindings);
}

template <SQLiteColumn Column>
std::vector<SQLiteRow<Column>> CacheControllerDatabase::rows(std::string_view sql,
                                                             const std::vector<SQLiteValue>& bindings, bool firstOnly) {
  auto* prepared = statement(sql);
  if (!prepared) return {};
  StatementRun run(*prepared);
  try {
    for (const auto& value : bindings) prepared->bind(value);
    std::vector<SQLiteRow<Column>> result;
    if (firstOnly) {
      if (auto row = prepared->template readRow<Column>()) result.push_back(std::move(*row));
    } else {
      result = prepared->template readAllRows<Column>();
    }
    return result;
  } catch (const std::exception&) {
    return {};
  }
}

std::optional<Data> CacheControllerDatabase::loadCacheData(std::string_view key) {
  MutexLock lock(mutex_);
  auto found = rows(kLoad, {SQLiteValue(std::string(key))}, true);
  return found.empty() ? std::nullopt : found.front().data(CacheItemColumns::data);
}

std::optional<CacheControllerDatabase::StoredData> CacheControllerDatabase::loadCacheDataAndTimestamp(
    std::string_view key) {
  // Every read from the database takes this path: its one row is read by column position,
  // and its bytes are moved out rather than copied.
  MutexLock lock(mutex_);
  // Kept apart from the statements by text, so that a hit does not hash the SQL to find it.
  if (!load_) load_ = statement(kLoadWithTimestamp);
  auto* prepared = load_;
  if (!prepared) return std::nullopt;
  // The key is bound where it lies: its caller's buffer outlives this run, whose end resets
  // the statement and clears the binding.
  StatementRun run(*prepared);
  std::array<SQLiteValue, 2> row;
  try {
    prepared->bindBorrowedText(key);
    if (!prepared->readValues(row)) return std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;
  }
  if (!row[0].asData()) return std::nullopt;
  const auto seconds = row[1].asInt32().value_or(0);
  return StoredData{std::move(row[0]).takeData(), Date::fromTimeIntervalSince1970(seconds)};
}

std::optional<CacheItemType> CacheControllerDatabase::getCacheItemType(std::string_view key) {
  MutexLock lock(mutex_);
  auto found = rows(kSelectType, {SQLiteValue(std::string(key))}, true);
  if (found.empty()) return std::nullopt;
  auto raw = found.front().int32(CacheItemColumns::type);
  return raw ? cacheItemTypeFromRawValue(*raw) : std::nullopt;
}

std::optional<std::string> CacheControllerDatabase::getCacheItemGroup(std::string_view key) {
  MutexLock lock(mutex_);
  auto found = rows(kSelectGroup, {SQLiteValue(std::string(key))}, true);
  return found.empty() ? std::nullopt : found.front().string(CacheItemColumns::group);
}

bool CacheControllerDatabase::removeCacheItem(std::string_view key) {
  MutexLock lock(mutex_);
  return run(kDelete, {SQLiteValue(std::string(key))});
}

void CacheControllerDatabase::removeAllItems(const std::optional<std::string>& group) {
  {
    MutexLock lock(mutex_);
    if (group) {
      (void)run(kDeleteGroup, {SQLiteValue(*group)});
    } else {
      (void)run(kDeleteAll, {});
    }
  }
  vacuum();
}

void CacheControllerDatabase::updateTimestamp(std::string_view key, const Cacheable& entry) {
  const auto seconds = wholeSeconds(entry.creationDate().timeIntervalSince1970(), "creation date");
  MutexLock lock(mutex_);
  (void)run(kUpdateTimestamp, {SQLiteValue(seconds), SQLiteValue(std::string(key))});
}

std::vector<CacheKeyAndGroup> CacheControllerDatabase::getExpiredCacheKeys(CacheItemType type, Date now) {
  const auto seconds = nowSeconds(now);
  MutexLock lock(mutex_);
  return keysAndGroups(rows(kSelectExpired, {SQLiteValue(static_cast<std::int32_t>(type)), SQLiteValue(seconds)}));
}

void CacheControllerDatabase::removeExpiredItems(Date now) {
  const auto seconds = nowSeconds(now);
  {
    MutexLock lock(mutex_);
    (void)run(kDeleteExpired, {SQLiteValue(seconds), SQLiteValue(std::int32_t{1})});
  }
  vacuum();
}

std::vector<CacheKeyAndGroup> CacheControllerDatabase::getFileCacheKeysSortedByCreationDate() {
  MutexLock lock(mutex_);
  // The statement selects no group, so every group comes back absent.
  return keysAndGroups(rows(kSelectFileKeys, {}));
}

std::vector<CacheRowSummary> CacheControllerDatabase::summaries(std::string_view sql,
                                                                const std::vector<SQLiteValue>& bindings) {
  std::vector<SQLiteRow<SummaryColumns>> found;
  {
    MutexLock lock(mutex_);
    found = rows<SummaryColumns>(sql, bindings);
  }
  std::vector<CacheRowSummary> result;
  result.reserve(found.size());
  for (const auto& row : found) {
    CacheRowSummary summary;
    // Rows whose id is no UTF-8 text are counted by getItemCount() too: they are listed, named
    // by their bytes.
    if (auto key = row.string(SummaryColumns::id)) {
      summary.key = std::move(*key);
    } else if (auto bytes = row.data(SummaryColumns::idBytes)) {
      summary.key = bytes->toString();
      summary.keyForm = CacheRowSummary::KeyForm::bytes;
    } else {
      summary.keyForm = CacheRowSummary::KeyForm::null;
    }
    summary.group = row.string(SummaryColumns::group);
    const auto type = row.int32(SummaryColumns::type);
    summary.type = type ? cacheItemTypeFromRawValue(*type) : std::nullopt;
    summary.timestamp = Date::fromTimeIntervalSince1970(row.int32(SummaryColumns::timestamp).value_or(0));
    summary.maximumAge = row.int32(SummaryColumns::maximumAge).value_or(0);
    summary.rollingExpiration = row.int32(SummaryColumns::rolling).value_or(0) != 0;
    summary.autoExpiration = row.int32(SummaryColumns::autoExpiration).value_or(0) != 0;
    summary.dataSize = static_cast<std::uint64_t>(std::max(0, row.int32(SummaryColumns::dataSize).value_or(0)));
    result.push_back(std::move(summary));
  }
  return result;
}

std::vector<CacheRowSummary> CacheControllerDatabase::getRowSummaries() { return summaries(kSelectSummaries, {}); }

std::optional<CacheRowSummary> CacheControllerDatabase::getRowSummary(std::string_view key) {
  auto found = summaries(kSelectSummary, {SQLiteValue(std::string(key))});
  if (found.empty()) return std::nullopt;
  return std::move(found.front());
}

std::uint64_t CacheControllerDatabase::getItemCount() {
  MutexLock lock(mutex_);
  auto found = rows<SummaryColumns>(kCount, {}, true);
  if (found.empty()) return 0;
  return static_cast<std::uint64_t>(std::max(0, found.front().int32(SummaryColumns::count).value_or(0)));
}

std::uint64_t CacheControllerDatabase::getSize() const {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path_, ec);
  if (ec) return 0;
  // Recent saves sit in the write-ahead log until a checkpoint; they take disk space too.
  std::error_code walError;
  const auto wal = std::filesystem::file_size(path_.string() + "-wal", walError);
  return static_cast<std::uint64_t>(size) + (walError ? 0 : static_cast<std::uint64_t>(wal));
}

std::optional<std::int32_t> CacheControllerDatabase::freePages() {
  auto* prepared = statement(kFreePages);
  if (!prepared) return std::nullopt;
  StatementRun run(*prepared);
  try {
    const auto cells = prepared->readCells();
    if (!cells) return std::nullopt;
    const auto found = cells->find("freelist_count");
    return found == cells->end() ? std::nullopt : found->second.asInt32();
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

void CacheControllerDatabase::releaseMemory() {
  MutexLock lock(mutex_);
  (void)run("PRAGMA shrink_memory;", {});
}

void CacheControllerDatabase::vacuum() {
  MutexLock lock(mutex_);
  // The purge runs each time the application becomes active, mostly with nothing to remove;
  // rewriting the whole file then would cost its size in writes for no space won.
  if (freePages() == 0) return;
  if (!run(kVacuum, {})) return;
  // VACUUM writes the whole database into the log; without emptying and cutting the log
  // here, wiping the cache would leave it larger on disk than before.
  (void)runPragma(kCheckpointAndTruncate);
}

}  // namespace kp
