// The cache's stores against their baselines, measured in the same run:
//   database saves and loads against raw SQLite prepared statements with the same journal
//   and sync settings; memory-store lookups against a bare std::unordered_map; file-store
//   saves against a stream writing the file in place and against a temporary file renamed
//   without flushing it (what the store's flush to disk costs); loads and a trim of 10,000
//   files.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <unordered_map>

#include "kp/cache/cache_database.h"
#include "kp/cache/file_storage.h"
#include "kp/cache/memory_storage.h"

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

fs::path freshDir(const std::string& name) {
  auto dir = fs::temp_directory_path() / ("kp-bench-" + name);
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

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

// The same inserts with the statement prepared and finalized each time, as the cache
// database's every-statement-once rule requires: the cost that rule itself adds.
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

}  // namespace
