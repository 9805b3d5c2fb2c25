// The cache's stores against their baselines, measured in the same run:
//   database saves and loads against raw SQLite prepared statements with the same journal
//   and sync settings; memory-store lookups against a bare std::unordered_map; file-store
//   saves against a stream writing the file in place and against a temporary file renamed
//   without flushing it (what the store's flush to disk costs); loads against one open and
//   read of the file by its path; a trim of 10,000 files.
// The cache controller against its stores: a memory hit against the memory store's lookup, a
// database hit against the database's load and against a raw load of the rows it reads,
// 100,000 background saves against the database's own save loop, and a cold start over
// 100,000 rows against opening the file with raw SQLite.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <unordered_map>

#include "cache/cache_database.h"
#include "cache/file_storage.h"
#include "cache/memory_storage.h"
#include "kp/cache/cache_controller.h"
#include "scratch_folder.h"

namespace {

namespace fs = std::filesystem;

class Entry final : public kp::Cacheable {
 public:
  explicit Entry(kp::CacheItemConfiguration config, kp::CacheItemType type = kp::CacheItemType::serialized)
      : config_(std::move(config)), type_(type) {}
  const kp::CacheItemConfiguration& cacheConfiguration() const noexcept override { return config_; }
  kp::CacheItemType storedCacheType() const noexcept override { return type_; }
  void encode(kp::Encoder&) const override {}

 private:
  kp::CacheItemConfiguration config_;
  kp::CacheItemType type_;
};

// An empty folder of this run's scratch space, which goes when the program ends.
fs::path freshDir(const std::string& name) { return kp::bench::freshFolder(name); }

const kp::Data kPayload = kp::Data(std::vector<std::uint8_t>(1024, 0x5a));

// A raw database with the cache's table and the same journal and sync settings.
sqlite3* openRawCache(const std::string& name) {
  sqlite3* db = nullptr;
  sqlite3_open((freshDir(name) / "raw.db").c_str(), &db);
  sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr, nullptr, nullptr);
  sqlite3_exec(
      db,
      "CREATE TABLE cache ( id VARCHAR(200) PRIMARY KEY, groupName VARCHAR(200), cacheType INTEGER, "
      "rollingExpiration INTEGER, autoExpiration INTEGER, data BLOB, timestamp INTEGER, maximum_age INTEGER );",
      nullptr, nullptr, nullptr);
  return db;
}

sqlite3_stmt* prepareRawInsert(sqlite3* db) {
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(db,
                     "INSERT OR REPLACE INTO cache (id, cacheType, groupName, rollingExpiration, autoExpiration, "
                     "data, timestamp, maximum_age) VALUES (?, ?, ?, ?, ?, ?, ?, ?);",
                     -1, &insert, nullptr);
  return insert;
}

// Binds the same row the cache database writes for a 1 KiB entry, and runs the insert.
void runRawInsert(sqlite3_stmt* insert, const std::string& key) {
  sqlite3_bind_text(insert, 1, key.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_bind_int(insert, 2, 0);
  sqlite3_bind_null(insert, 3);
  sqlite3_bind_int(insert, 4, 0);
  sqlite3_bind_int(insert, 5, 1);
  sqlite3_bind_blob(insert, 6, kPayload.data(), static_cast<int>(kPayload.size()), SQLITE_TRANSIENT);
  sqlite3_bind_int(insert, 7, 1700000000);
  sqlite3_bind_int(insert, 8, 3600);
  sqlite3_step(insert);
}

void BM_Baseline_RawSqliteInsert(benchmark::State& state) {
  sqlite3* db = openRawCache("raw");
  sqlite3_stmt* insert = prepareRawInsert(db);
  int i = 0;
  for (auto _ : state) {
    runRawInsert(insert, "key-" + std::to_string(i++ % 5000));
    sqlite3_reset(insert);
  }
  sqlite3_finalize(insert);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Baseline_RawSqliteInsert);

// The same inserts with the statement prepared and finalized each time: what preparing a
// statement per run would cost (the cache database prepares each statement once).
void BM_Baseline_RawSqliteInsertPreparedEachTime(benchmark::State& state) {
  sqlite3* db = openRawCache("raw-each");
  int i = 0;
  for (auto _ : state) {
    sqlite3_stmt* insert = prepareRawInsert(db);
    runRawInsert(insert, "key-" + std::to_string(i++ % 5000));
    sqlite3_clear_bindings(insert);
    sqlite3_finalize(insert);
  }
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Baseline_RawSqliteInsertPreparedEachTime);

// One row read by key, its blob copied out; false when no row has the key.
bool runRawLoad(sqlite3_stmt* select, const std::string& key) {
  sqlite3_bind_text(select, 1, key.c_str(), -1, SQLITE_TRANSIENT);
  const bool found = sqlite3_step(select) == SQLITE_ROW;
  if (found) {
    const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(select, 0));
    benchmark::DoNotOptimize(std::vector<std::uint8_t>(bytes, bytes + sqlite3_column_bytes(select, 0)));
    benchmark::DoNotOptimize(sqlite3_column_int(select, 1));
  }
  sqlite3_reset(select);
  sqlite3_clear_bindings(select);
  return found;
}

// A 1 KiB row read by key with a statement prepared once, its blob copied out.
void BM_Baseline_RawSqliteLoad(benchmark::State& state) {
  sqlite3* db = openRawCache("raw-load");
  sqlite3_stmt* insert = prepareRawInsert(db);
  for (int i = 0; i < 1000; ++i) {
    runRawInsert(insert, "key-" + std::to_string(i));
    sqlite3_reset(insert);
  }
  sqlite3_finalize(insert);
  sqlite3_stmt* select = nullptr;
  sqlite3_prepare_v2(db, "SELECT data, timestamp FROM cache WHERE id = ?;", -1, &select, nullptr);
  int i = 0;
  for (auto _ : state) {
    (void)runRawLoad(select, "key-" + std::to_string(i++ % 1000));
  }
  sqlite3_finalize(select);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Baseline_RawSqliteLoad);

void BM_CacheDatabaseSave(benchmark::State& state) {
  kp::CacheControllerDatabase db("centralcache.db", freshDir("save"));
  db.prepare();
  Entry entry(kp::CacheItemConfiguration(3600));
  int i = 0;
  for (auto _ : state) db.saveRecord(kPayload, entry, "key-" + std::to_string(i++ % 5000));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CacheDatabaseSave);

void BM_CacheDatabaseLoad(benchmark::State& state) {
  kp::CacheControllerDatabase db("centralcache.db", freshDir("load"));
  db.prepare();
  Entry entry(kp::CacheItemConfiguration(3600));
  for (int i = 0; i < 1000; ++i) db.saveRecord(kPayload, entry, "key-" + std::to_string(i));
  int i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(db.loadCacheData("key-" + std::to_string(i++ % 1000)));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CacheDatabaseLoad);

void BM_Baseline_UnorderedMapLookup(benchmark::State& state) {
  std::unordered_map<std::string, std::shared_ptr<kp::Cacheable>> map;
  std::vector<std::string> keys;
  for (int i = 0; i < 1000; ++i) {
    keys.push_back("forecast/" + std::to_string(i));
    map[keys.back()] = std::make_shared<Entry>(kp::CacheItemConfiguration());
  }
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(map.find(keys[i++ % keys.size()])->second);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Baseline_UnorderedMapLookup);

void BM_MemoryStorageLookup(benchmark::State& state) {
  kp::CacheMemoryStorage memory;
  std::vector<std::string> keys;
  for (int i = 0; i < 1000; ++i) {
    keys.push_back("forecast/" + std::to_string(i));
    memory.set(std::make_shared<Entry>(kp::CacheItemConfiguration()), keys.back());
  }
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(memory.get(keys[i++ % keys.size()]));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MemoryStorageLookup);

const kp::Data k64KiB = kp::Data(std::vector<std::uint8_t>(64 * 1024, 0xa5));

void writeInPlace(const fs::path& path, const kp::Data& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// Baseline: the bytes written straight into the final file, which a crash can cut short.
void BM_Baseline_FileWriteInPlace64KiB(benchmark::State& state) {
  const auto dir = freshDir("files-in-place");
  int i = 0;
  for (auto _ : state) writeInPlace(dir / ("tile-" + std::to_string(i++ % 200)), k64KiB);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(k64KiB.size()));
}
BENCHMARK(BM_Baseline_FileWriteInPlace64KiB);

// Baseline: a temporary file renamed over the final one, without flushing it to disk first.
void BM_Baseline_FileWriteRenamedUnflushed64KiB(benchmark::State& state) {
  const auto dir = freshDir("files-renamed");
  int i = 0;
  for (auto _ : state) {
    const auto path = dir / ("tile-" + std::to_string(i++ % 200));
    std::string temporary = (dir / ".tmp-XXXXXX").string();
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    benchmark::DoNotOptimize(::write(fd, k64KiB.data(), k64KiB.size()));
    ::close(fd);
    std::rename(temporary.c_str(), path.c_str());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(k64KiB.size()));
}
BENCHMARK(BM_Baseline_FileWriteRenamedUnflushed64KiB);

void BM_FileStorageSave64KiB(benchmark::State& state) {
  kp::CacheControllerFileStorage files("store", freshDir("files-save"));
  files.prepareCacheFolder();
  int i = 0;
  for (auto _ : state) files.save(k64KiB, "tile-" + std::to_string(i++ % 200), std::nullopt);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(k64KiB.size()));
}
BENCHMARK(BM_FileStorageSave64KiB);

// Baseline: the file read by its path with one open and one read, as the store read before it
// opened its folder first and refused links.
void BM_Baseline_FileReadByPath64KiB(benchmark::State& state) {
  const auto dir = freshDir("files-read");
  for (int i = 0; i < 200; ++i) writeInPlace(dir / ("tile-" + std::to_string(i)), k64KiB);
  std::vector<std::uint8_t> buffer(k64KiB.size());
  int i = 0;
  for (auto _ : state) {
    const int fd = ::open((dir / ("tile-" + std::to_string(i++ % 200))).c_str(), O_RDONLY | O_CLOEXEC);
    benchmark::DoNotOptimize(::read(fd, buffer.data(), buffer.size()));
    ::close(fd);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(k64KiB.size()));
}
BENCHMARK(BM_Baseline_FileReadByPath64KiB);

void BM_FileStorageLoad64KiB(benchmark::State& state) {
  kp::CacheControllerFileStorage files("store", freshDir("files-load"));
  files.prepareCacheFolder();
  for (int i = 0; i < 200; ++i) files.save(k64KiB, "tile-" + std::to_string(i), std::nullopt);
  int i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(files.loadData("tile-" + std::to_string(i++ % 200), std::nullopt));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(k64KiB.size()));
}
BENCHMARK(BM_FileStorageLoad64KiB);

void BM_FileStorageTrim10000Files(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    const auto dir = freshDir("trim");
    kp::CacheControllerFileStorage files("store", dir);
    files.prepareCacheFolder();
    kp::CacheControllerDatabase db("centralcache.db", dir);
    db.prepare();
    const kp::Data small = kp::Data::zeros(100);
    for (int i = 0; i < 10000; ++i) {
      const std::string key = "f" + std::to_string(i);
      writeInPlace(files.filePath(key, std::nullopt), small);  // setup: skips the store's flush
      Entry entry(kp::CacheItemConfiguration(), kp::CacheItemType::rawDataToFile);
      entry.setCreationDate(kp::Date::fromTimeIntervalSince1970(1700000000 + i));
      db.saveRecord(kp::Data{}, entry, key);
    }
    state.ResumeTiming();
    files.removeOldestFiles(500000, db);  // 1,000,000 bytes down to below half
  }
}
BENCHMARK(BM_FileStorageTrim10000Files)->Unit(benchmark::kMillisecond)->Iterations(3);

// ---- the controller ----

std::unique_ptr<kp::CacheController> openController(const fs::path& dir) {
  kp::CacheController::Options options;
  options.directory = dir;
  return std::make_unique<kp::CacheController>(options);
}

kp::CacheItemConfiguration retained(bool inMemory) {
  kp::CacheItemConfiguration config(3600);
  config.retainInBackStore = true;
  config.retainInMemory = inMemory;
  return config;
}

std::vector<std::string> keys(int count) {
  std::vector<std::string> out;
  for (int i = 0; i < count; ++i) out.push_back("forecast/" + std::to_string(i));
  return out;
}

void BM_ControllerMemoryHit(benchmark::State& state) {
  auto cache = openController(freshDir("controller-memory"));
  const auto names = keys(1000);
  for (const auto& key : names) {
    cache->set(std::make_shared<kp::CacheItem>(kp::ArchiveValue(kPayload), kp::CacheItemConfiguration()), key);
  }
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(cache->getCacheItem(names[i++ % names.size()]));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ControllerMemoryHit);

// 1 KiB serialized entries kept only in the database: every read decodes a row.
void BM_ControllerDatabaseHit(benchmark::State& state) {
  auto cache = openController(freshDir("controller-database"));
  const auto names = keys(1000);
  for (const auto& key : names)
    cache->set(std::make_shared<kp::CacheItem>(kp::ArchiveValue(kPayload), retained(false)), key);
  cache->waitForBackgroundWork();
  std::size_t i = 0;
  for (auto _ : state) {
    if (!cache->getCacheItem(names[i++ % names.size()])) state.SkipWithError("a row is missing");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ControllerDatabaseHit);

// The raw load again, of the rows the controller wrote for the hit above: an entry's stored
// form (its policy, dates and extra items around the archived payload) is a larger row than
// the bare 1 KiB of the raw baseline, and every hit reads it. It is still not decoded here.
void BM_Baseline_RawSqliteLoadOfStoredEntries(benchmark::State& state) {
  const auto dir = freshDir("controller-database-raw");
  const auto names = keys(1000);
  {
    auto cache = openController(dir);
    for (const auto& key : names)
      cache->set(std::make_shared<kp::CacheItem>(kp::ArchiveValue(kPayload), retained(false)), key);
    cache->waitForBackgroundWork();
  }
  sqlite3* db = nullptr;
  sqlite3_open((dir / "centralcache.db").c_str(), &db);
  sqlite3_stmt* select = nullptr;
  sqlite3_prepare_v2(db, "SELECT data, timestamp FROM cache WHERE id = ?;", -1, &select, nullptr);
  std::size_t i = 0;
  for (auto _ : state) {
    if (!runRawLoad(select, names[i++ % names.size()])) state.SkipWithError("a row is missing");
  }
  sqlite3_finalize(select);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Baseline_RawSqliteLoadOfStoredEntries);

constexpr int kBulk = 100000;

std::vector<std::shared_ptr<kp::CacheItem>> bulkEntries() {
  std::vector<std::shared_ptr<kp::CacheItem>> entries;
  for (int i = 0; i < kBulk; ++i)
    entries.push_back(std::make_shared<kp::CacheItem>(kp::ArchiveValue(kPayload), retained(true)));
  return entries;
}

// Bytes the process has allocated and not freed (glibc's count).
std::int64_t heapInUse() { return static_cast<std::int64_t>(mallinfo2().uordblks); }

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The baseline: the database's own loop, encoding and saving each entry in turn.
void BM_Baseline_DatabaseEncodeLoop100k(benchmark::State& state) {
  const auto entries = bulkEntries();
  const auto names = keys(kBulk);
  for (auto _ : state) {
    state.PauseTiming();
    kp::CacheControllerDatabase db("centralcache.db", freshDir("encode-loop"));
    db.prepare();
    state.ResumeTiming();
    for (int i = 0; i < kBulk; ++i) db.encode(*entries[i], names[i]);
  }
  state.counters["rows_per_s"] =
      benchmark::Counter(kBulk * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Baseline_DatabaseEncodeLoop100k)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// The baseline of the calls: the memory store's own set of the same entries.
void BM_Baseline_MemoryStorageSet100k(benchmark::State& state) {
  const auto entries = bulkEntries();
  const auto names = keys(kBulk);
  for (auto _ : state) {
    state.PauseTiming();
    auto memory = std::make_unique<kp::CacheMemoryStorage>();
    const auto heapBefore = heapInUse();
    state.ResumeTiming();
    for (int i = 0; i < kBulk; ++i) memory->set(entries[i], names[i]);
    state.PauseTiming();
    state.counters["heap_growth_MiB"] = static_cast<double>(heapInUse() - heapBefore) / (1 << 20);
    memory.reset();
    state.ResumeTiming();
  }
  state.counters["set_calls_per_s"] =
      benchmark::Counter(kBulk * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Baseline_MemoryStorageSet100k)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// 100,000 sets of entries kept in memory and the database: the time until every row has landed,
// with the rate of the calls themselves and the most background work waiting at once.
void BM_ControllerSet100k(benchmark::State& state) {
  const auto entries = bulkEntries();
  const auto names = keys(kBulk);
  double callSeconds = 0;
  kp::CacheBackgroundStatistics stats;
  for (auto _ : state) {
    state.PauseTiming();
    auto cache = openController(freshDir("controller-set"));
    state.ResumeTiming();
    const auto heapBefore = heapInUse();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kBulk; ++i) cache->set(entries[i], names[i]);
    callSeconds += secondsSince(start);
    // The memory store's share is the baseline's; the rest is the backlog of saves.
    state.counters["heap_growth_MiB"] = static_cast<double>(heapInUse() - heapBefore) / (1 << 20);
    cache->waitForBackgroundWork();
    state.PauseTiming();
    if (cache->databaseItemCount() != kBulk) state.SkipWithError("not every row landed");
    stats = cache->backgroundStatistics();
    cache.reset();
    state.ResumeTiming();
  }
  const double calls = kBulk * static_cast<double>(state.iterations());
  state.counters["set_calls_per_s"] = calls / callSeconds;
  state.counters["rows_per_s"] = benchmark::Counter(calls, benchmark::Counter::kIsRate);
  state.counters["peak_pending_tasks"] = static_cast<double>(stats.peakTasks);
  state.counters["peak_pending_MiB"] = static_cast<double>(stats.peakBytes) / (1 << 20);
}
BENCHMARK(BM_ControllerSet100k)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// A database of 100,000 rows, made once.
const fs::path& bigDatabaseFolder() {
  static const fs::path dir = [] {
    auto folder = freshDir("cold-start");
    auto cache = openController(folder);
    const auto names = keys(kBulk);
    for (const auto& key : names)
      cache->set(std::make_shared<kp::CacheItem>(kp::ArchiveValue(kPayload), retained(false)), key);
    cache->waitForBackgroundWork();
    return folder;
  }();
  return dir;
}

void BM_Baseline_RawSqliteOpenAndFirstRead100k(benchmark::State& state) {
  const auto path = bigDatabaseFolder() / "centralcache.db";
  for (auto _ : state) {
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db, "SELECT data FROM cache WHERE id = ?;", -1, &select, nullptr);
    sqlite3_bind_text(select, 1, "forecast/4242", -1, SQLITE_STATIC);
    if (sqlite3_step(select) != SQLITE_ROW) state.SkipWithError("no row");
    sqlite3_finalize(select);
    sqlite3_close(db);
  }
}
BENCHMARK(BM_Baseline_RawSqliteOpenAndFirstRead100k)->Unit(benchmark::kMicrosecond);

// Opening the controller over 100,000 rows and reading one entry.
void BM_ControllerColdStart100k(benchmark::State& state) {
  const auto& dir = bigDatabaseFolder();
  for (auto _ : state) {
    auto cache = openController(dir);
    if (!cache->getCacheItem("forecast/4242")) state.SkipWithError("no entry");
    state.PauseTiming();
    cache.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ControllerColdStart100k)->Unit(benchmark::kMicrosecond)->Iterations(20);

}  // namespace
