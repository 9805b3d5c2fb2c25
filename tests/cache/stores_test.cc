// The cache's database and file store against real files. (The memory store, and how the
// stores hold up against full disks, killed writers and concurrent use, are tested through the
// controller.)
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "cache/cache_database.h"
#include "cache/file_storage.h"
#include "cache_controller_support.h"
#include "kp/service/encryption.h"
#include "support/temp_dir.h"

namespace {

using kp::CacheItemType;
using kp::Date;

class Entry final : public kp::Cacheable {
 public:
  Entry(kp::CacheItemConfiguration config, Date created, CacheItemType type = CacheItemType::serialized)
      : Cacheable(created), config_(std::move(config)), type_(type) {}
  const kp::CacheItemConfiguration& cacheConfiguration() const noexcept override { return config_; }
  CacheItemType storedCacheType() const noexcept override { return type_; }
  void encode(kp::Encoder&) const override {}

 private:
  kp::CacheItemConfiguration config_;
  CacheItemType type_;
};

kp::CacheItemConfiguration config(double age, std::optional<std::string> group = std::nullopt, bool autoExp = true) {
  kp::CacheItemConfiguration c(age);
  c.groupName = std::move(group);
  c.autoExpiration = autoExp;
  return c;
}

using kp::test::sqlite;

TEST(CacheItemConfiguration, AnEntryExpiresOnlyOnceOlderThanAPositiveAge) {
  const Date now = Date::now();
  EXPECT_FALSE(Entry(config(0), now.addingTimeInterval(-1e6)).isExpired(now));
  EXPECT_FALSE(Entry(config(-5), now.addingTimeInterval(-1e6)).isExpired(now));
  EXPECT_FALSE(Entry(config(10), now.addingTimeInterval(-10)).isExpired(now));  // equal age: fresh
  EXPECT_TRUE(Entry(config(10), now.addingTimeInterval(-10.001)).isExpired(now));
}

class CacheDatabaseTest : public ::testing::Test {
 protected:
  std::unique_ptr<kp::CacheControllerDatabase> open() {
    auto db = std::make_unique<kp::CacheControllerDatabase>("centralcache.db", dir_.path());
    db->prepare();
    return db;
  }
  std::filesystem::path file() const { return dir_.path() / "centralcache.db"; }
  kp::test::TempDir dir_;
};

TEST_F(CacheDatabaseTest, CreatesAPlainFileWithTheTwoTablesAndStoresRows) {
  auto db = open();
  ASSERT_TRUE(db->isOpen());
  const Date now = Date::now();
  db->saveRecord(kp::Data{1, 2, 3}, Entry(config(60, "g"), now), "k");
  db->saveRecord(kp::Data{4, 5}, Entry(config(60, "g"), now), "k");  // replaces
  EXPECT_EQ(db->loadCacheData("k"), (kp::Data{4, 5}));
  EXPECT_EQ(db->getCacheItemGroup("k"), "g");
  EXPECT_EQ(db->getCacheItemType("k"), CacheItemType::serialized);
  EXPECT_FALSE(db->loadCacheData("missing"));
  // A key full of path and quoting characters is just text to the database.
  const std::string odd = "../../etc/passwd' OR 1=1; --" + std::string(10000, 'x');
  db->saveRecord(kp::Data{9}, Entry(config(0), now), odd);
  EXPECT_EQ(db->loadCacheData(odd), (kp::Data{9}));
  db->removeCacheItem(odd);
  EXPECT_FALSE(db->loadCacheData(odd));

  EXPECT_EQ(sqlite(file(), ".tables"), "cache        db_metadata\n");
  EXPECT_EQ(sqlite(file(), "SELECT id, groupName, cacheType, maximum_age, length(data) FROM cache;"), "k|g|0|60|2\n");
  EXPECT_EQ(sqlite(file(), "PRAGMA integrity_check;"), "ok\n");
  EXPECT_GT(db->getSize(), 0u);
}

TEST_F(CacheDatabaseTest, OldUnreadableOrEmptyVersionsAreReplaced) {
  for (const std::string& setup : {std::string("CREATE TABLE db_metadata (id VARCHAR(4), version INTEGER);"
                                               "INSERT INTO db_metadata (version) VALUES (2);"
                                               "CREATE TABLE cache (id TEXT); INSERT INTO cache VALUES ('old');"),
                                   std::string("CREATE TABLE db_metadata (id VARCHAR(4), version INTEGER);"
                                               "CREATE TABLE cache (id TEXT); INSERT INTO cache VALUES ('old');")}) {
    std::filesystem::remove(file());
    sqlite(file(), setup);
    auto db = open();
    EXPECT_EQ(sqlite(file(), "SELECT version FROM db_metadata;"), "3\n");
    EXPECT_EQ(sqlite(file(), "SELECT count(*) FROM cache;"), "0\n");
  }
  // Random bytes and a truncated file are recreated too.
  for (std::size_t size : {4096u, 7u}) {
    std::filesystem::remove(file());
    std::ofstream(file(), std::ios::binary) << std::string(size, '\x9c');
    auto db = open();
    db->saveRecord(kp::Data{1}, Entry(config(0), Date::now()), "fresh");
    EXPECT_EQ(db->loadCacheData("fresh"), (kp::Data{1}));
  }
}

TEST_F(CacheDatabaseTest, ExpiryQueriesAndBulkRemovals) {
  auto db = open();
  const Date now = Date::now();
  const Date old = now.addingTimeInterval(-1000);
  db->saveRecord(kp::Data{1}, Entry(config(10, "a"), old), "expired");
  db->saveRecord(kp::Data{1}, Entry(config(10, std::nullopt, false), old), "expired-manual");
  db->saveRecord(kp::Data{1}, Entry(config(0), old), "forever");
  db->saveRecord(kp::Data{1}, Entry(config(5000), old), "fresh");
  db->saveRecord(kp::Data{1}, Entry(config(10, "a"), old, CacheItemType::rawDataToFile), "file-old");
  db->saveRecord(kp::Data{1}, Entry(config(10), now, CacheItemType::image), "file-new");

  auto expired = db->getExpiredCacheKeys(CacheItemType::serialized);
  ASSERT_EQ(expired.size(), 2u);  // the automatic-expiry flag does not filter here
  EXPECT_EQ(expired[0], (kp::CacheKeyAndGroup{"expired", "a"}));
  EXPECT_EQ(expired[1], (kp::CacheKeyAndGroup{"expired-manual", std::nullopt}));

  auto files = db->getFileCacheKeysSortedByCreationDate();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[0], (kp::CacheKeyAndGroup{"file-old", std::nullopt}));  // groups are never read here
  EXPECT_EQ(files[1].key, "file-new");

  db->removeExpiredItems();
  EXPECT_FALSE(db->loadCacheData("expired"));
  EXPECT_FALSE(db->loadCacheData("file-old"));
  EXPECT_TRUE(db->loadCacheData("expired-manual"));
  EXPECT_TRUE(db->loadCacheData("forever"));
  EXPECT_TRUE(db->loadCacheData("fresh"));

  db->saveRecord(kp::Data{1}, Entry(config(0, "b"), now), "in-b");
  db->removeAllItems(std::string("b"));
  EXPECT_FALSE(db->loadCacheData("in-b"));
  EXPECT_TRUE(db->loadCacheData("fresh"));
  db->removeAllItems(std::nullopt);
  EXPECT_EQ(sqlite(file(), "SELECT count(*) FROM cache;"), "0\n");
  EXPECT_EQ(sqlite(file(), "SELECT version FROM db_metadata;"), "3\n");
}

TEST_F(CacheDatabaseTest, WipingGivesTheDiskSpaceBack) {
  auto db = open();
  const kp::Data blob = kp::Data::zeros(64 * 1024);
  for (int i = 0; i < 64; ++i)
    db->saveRecord(blob, Entry(config(1), Date::now().addingTimeInterval(-10)), std::to_string(i));
  const auto full = db->getSize();
  ASSERT_GT(full, 4u << 20);
  // Reads that stop at their first row leave nothing open that would keep the wipe from
  // compacting the file.
  ASSERT_TRUE(db->loadCacheData("1"));
  ASSERT_TRUE(db->getCacheItemType("2"));
  db->removeAllItems(std::nullopt);
  EXPECT_LT(db->getSize(), 64u << 10) << "from " << full;
  for (int i = 0; i < 64; ++i)
    db->saveRecord(blob, Entry(config(1), Date::now().addingTimeInterval(-10)), std::to_string(i));
  db->removeExpiredItems();  // vacuums too
  EXPECT_LT(db->getSize(), 64u << 10);
  EXPECT_EQ(sqlite(file(), "PRAGMA integrity_check;"), "ok\n");

  // A purge that removes nothing (as on most activations) leaves the file as it is, rather
  // than rewriting all of it.
  for (int i = 0; i < 16; ++i) db->saveRecord(blob, Entry(config(0), Date::now()), std::to_string(i));
  const auto size = db->getSize();
  const auto written = std::filesystem::last_write_time(file());
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  db->removeExpiredItems();
  EXPECT_EQ(db->getSize(), size);
  EXPECT_EQ(std::filesystem::last_write_time(file()), written);
}

std::vector<std::string> namesIn(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

TEST(CacheFileStorage, PathsSizesAndTheTrim) {
  kp::test::TempDir dir;
  kp::CacheControllerFileStorage files("KPCentralCacheController", dir.path());
  files.prepareCacheFolder();
  const auto base = dir.path() / "KPCentralCacheController";
  EXPECT_EQ(files.filePath("k", std::nullopt), base / kp::hashSha1(std::string_view("k")));
  EXPECT_EQ(files.filePath("k", std::string("")), files.filePath("k", std::nullopt));
  EXPECT_EQ(files.filePath("../../k/", std::string("g/..")).parent_path(),
            base / kp::hashSha1(std::string_view("g/..")));

  files.save(kp::Data{1, 2}, "k", std::nullopt);
  files.save(kp::Data{3}, "k", std::string("g"));  // same key in a group: another file
  EXPECT_EQ(files.loadData("k", std::nullopt), (kp::Data{1, 2}));
  EXPECT_EQ(files.loadData("k", std::string("g")), (kp::Data{3}));
  EXPECT_EQ(files.getSize(), 3u);
  files.removeAllItems(std::string("g"));
  EXPECT_FALSE(files.loadData("k", std::string("g")));
  files.removeData("k", std::nullopt);
  EXPECT_FALSE(files.loadData("k", std::nullopt));

  // Trim: limit 100 with three 50-byte files (150): the oldest removal frees 50 >= 20 and
  // leaves 100, still not below the limit, so the second-oldest goes too.
  kp::CacheControllerDatabase db("centralcache.db", dir.path());
  db.prepare();
  const Date now = Date::now();
  for (int i = 0; i < 3; ++i) {
    const std::string key = "f" + std::to_string(i);
    files.save(kp::Data::zeros(50), key, std::nullopt);
    db.saveRecord(kp::Data{}, Entry(config(0), now.addingTimeInterval(i - 10), CacheItemType::rawDataToFile), key);
  }
  files.removeOldestFiles(150, db);  // current equals max: nothing removed
  EXPECT_EQ(files.getSize(), 150u);
  files.removeOldestFiles(100, db);
  EXPECT_FALSE(files.loadData("f0", std::nullopt));
  EXPECT_FALSE(files.loadData("f1", std::nullopt));
  EXPECT_TRUE(files.loadData("f2", std::nullopt));
  files.save(kp::Data::zeros(80), "f3", std::nullopt);  // 130 > 100; f3 has no row, so f2 goes
  files.removeOldestFiles(100, db);
  EXPECT_FALSE(files.loadData("f2", std::nullopt));
  EXPECT_EQ(files.getSize(), 80u);
  files.removeAllItems(std::nullopt);
  EXPECT_EQ(files.getSize(), 0u);
  EXPECT_TRUE(std::filesystem::exists(base));
}

// A folder that something else put in the store's place, or inside it, is never the store's:
// it neither reads, counts, writes nor removes anything through a link, nor anything it did not
// make itself.
TEST(CacheFileStorage, NeverFollowsALinkAndTouchesOnlyWhatItMade) {
  namespace fs = std::filesystem;
  kp::test::TempDir dir;
  const auto digest = [](std::string_view text) { return kp::hashSha1(text); };
  const auto victim = dir.path() / "documents";
  fs::create_directories(victim / "sub");
  for (const auto& name : {fs::path("a.txt"), fs::path("sub/b.txt"), fs::path(digest("k"))}) {
    std::ofstream(victim / name) << "precious";
  }
  const auto sorted = [](std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    return names;
  };
  const auto untouched = [&] {
    return namesIn(victim) == sorted({digest("k"), "a.txt", "sub"}) &&
           namesIn(victim / "sub") == std::vector<std::string>{"b.txt"};
  };
  kp::CacheControllerDatabase db("centralcache.db", dir.path());
  db.prepare();
  db.saveRecord(kp::Data{}, Entry(config(0), Date::now(), CacheItemType::rawDataToFile), "k");

  const auto base = dir.path() / "store";
  fs::create_directory_symlink(victim, base);
  kp::CacheControllerFileStorage files("store", dir.path());
  files.prepareCacheFolder();
  ASSERT_TRUE(files.folderProblem());
  EXPECT_NE(files.folderProblem()->find("is a symbolic link"), std::string::npos) << *files.folderProblem();
  EXPECT_FALSE(files.save(kp::Data{1}, "new", std::nullopt));
  EXPECT_FALSE(files.loadData("k", std::nullopt));
  EXPECT_FALSE(files.fileSize("k", std::nullopt));
  EXPECT_EQ(files.getSize(), 0u);
  files.removeData("k", std::nullopt);
  files.removeOldestFiles(0, db);
  files.removeAllItems(std::string("sub"));
  files.removeAllItems(std::nullopt);
  EXPECT_TRUE(untouched());
  EXPECT_TRUE(fs::is_symlink(base));

  // In a folder of its own, links in the place of a group folder or a file are left alone, as
  // is whatever it did not make.
  fs::remove(base);
  files.prepareCacheFolder();
  EXPECT_FALSE(files.folderProblem());
  fs::create_directory_symlink(victim, base / digest("g"));
  fs::create_symlink(victim / digest("k"), base / digest("linked"));
  fs::create_directory(base / "photos");
  std::ofstream(base / "photos" / digest("x")) << "foreign";
  std::ofstream(base / "notes.txt") << "foreign";
  EXPECT_TRUE(files.save(kp::Data{1, 2}, "own", std::nullopt));
  EXPECT_TRUE(files.save(kp::Data{3}, "own", std::string("h")));
  EXPECT_FALSE(files.save(kp::Data{4}, "k", std::string("g")));
  EXPECT_FALSE(files.loadData("k", std::string("g")));
  EXPECT_FALSE(files.loadData("linked", std::nullopt));
  EXPECT_EQ(files.getSize(), 3u);
  files.removeAllItems(std::string("g"));
  files.removeAllItems(std::nullopt);
  EXPECT_TRUE(untouched());
  EXPECT_EQ(namesIn(base), sorted({digest("g"), digest("linked"), "notes.txt", "photos"}));
  EXPECT_EQ(namesIn(base / "photos"), std::vector<std::string>{digest("x")});
}

// On a machine where nothing of the application exists yet, the stores make their folders
// and keep what they are given across launches.
TEST(CacheStores, StoreAndReloadInAFreshHome) {
  if (kp::test::inTestChild()) {
    kp::CacheControllerDatabase db("centralcache.db");
    db.prepare();
    kp::CacheControllerFileStorage files("KPCentralCacheController");
    files.prepareCacheFolder();
    if (std::string(std::getenv("KP_STEP")) == "store") {
      db.saveRecord(kp::Data{7, 7}, Entry(config(0, "g"), Date::now()), "k");
      files.save(kp::Data{1, 2, 3}, "k", std::string("g"));
    }
    EXPECT_EQ(db.loadCacheData("k"), (kp::Data{7, 7}));
    EXPECT_EQ(files.loadData("k", std::string("g")), (kp::Data{1, 2, 3}));
    return;
  }
  namespace fs = std::filesystem;
  kp::test::TempDir home;
  for (const char* step : {"store", "reload"}) {
    auto child = kp::test::runThisTestInChild("-u XDG_CACHE_HOME HOME=" + kp::test::shellQuote(home.path()) +
                                              " KP_STEP=" + step);
    EXPECT_EQ(child.status, 0) << child.output;
    EXPECT_NE(child.output.find("[  PASSED  ] 1 test"), std::string::npos) << child.output;
  }
  const auto caches = home.path() / ".cache/com.kp.app";
  EXPECT_TRUE(fs::is_regular_file(caches / "centralcache.db"));
  for (const auto& folder : {home.path() / ".cache", caches, caches / "KPCentralCacheController",
                             caches / "KPCentralCacheController" / kp::hashSha1(std::string_view("g"))}) {
    EXPECT_EQ(fs::status(folder).permissions() & fs::perms::all, fs::perms::owner_all) << folder;
  }
}

}  // namespace
