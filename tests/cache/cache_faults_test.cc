// The cache controller when storage fails it: damaged and vanishing files, a full disk, killed
// writers, two processes starting at once, and readers, writers and wipes all at once.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "cache/cache_database.h"
#include "cache_controller_support.h"
#include "kp/cache/cache_controller.h"
#include "kp/coding/archivable_image.h"
#include "kp/service/encryption.h"
#include "support/child_process.h"

namespace {

namespace fs = std::filesystem;
using kp::CacheItemType;
using namespace kp::test;
using namespace std::chrono_literals;

// An archivable class; the tests rename it in stored archives to one no reader knows.
class Known final : public kp::Archivable {
 public:
  std::string archiveClassName() const override { return "KPTestKnown"; }
  void encode(kp::ArchiveEncoder& coder) const override { coder.encodeInt64("n", 1); }
  static std::shared_ptr<Known> decode(kp::ArchiveDecoder&) { return std::make_shared<Known>(); }
};
const kp::ArchiveRegistration<Known> knownRegistration{"KPTestKnown"};

TEST_F(CacheControllerTest, DamagedOrVanishingStorageReadsAsAbsent) {
  const kp::Image image(4, 4, std::vector<std::uint8_t>(64, 200), 1);
  const auto imagePayload = kp::ArchiveValue(std::make_shared<kp::ArchivableImage>(image));
  {
    auto cache = open();
    cache->set(entry(kp::ArchiveValue(std::make_shared<Known>()), policy(0)), "unknown-payload");
    auto unknownExtra = entry(kp::ArchiveValue("fine"), policy(0));
    unknownExtra->extraItems["x"] = kp::ArchiveValue(std::make_shared<Known>());
    cache->set(unknownExtra, "unknown-extra");
    cache->set(entry(kp::ArchiveValue("fine"), policy(0)), "corrupt");
    cache->set(entry(imagePayload, policy(0), CacheItemType::image), "truncated");
    cache->set(entry(imagePayload, policy(0), CacheItemType::image), "replaced");
    cache->set(entry(imagePayload, policy(0), CacheItemType::image), "intact");
  }
  sqlite(database(), "UPDATE cache SET data = x'62706c6973743030ff' WHERE id = 'corrupt';");
  {
    kp::CacheControllerDatabase rows("centralcache.db", dir_.path());
    rows.prepare();
    for (const char* key : {"unknown-payload", "unknown-extra"}) {
      std::string bytes = rows.loadCacheData(key)->toString();
      bytes.replace(bytes.find("KPTestKnown"), 11, "KPTestOther");
      rows.saveRecord(kp::Data::fromString(bytes), *entry(kp::ArchiveValue("x"), policy(0)), key);
    }
  }
  const auto file = [&](const char* key) {
    return dir_.path() / "KPCentralCacheController" / kp::hashSha1(std::string_view(key));
  };
  fs::resize_file(file("truncated"), fs::file_size(file("truncated")) / 2);
  std::ofstream(file("replaced"), std::ios::trunc) << "GIF89a, or rather not";

  auto cache = open();
  for (const char* key : {"unknown-payload", "unknown-extra", "corrupt", "truncated", "replaced"}) {
    EXPECT_FALSE(cache->getCacheItem(key)) << key;
  }
  EXPECT_TRUE(cache->getCacheItem("intact"));
  // Rows of unreadable files went; rows that cannot be decoded stay for the clean-up.
  EXPECT_EQ(cache->databaseItemCount(), 4u);

  // The database deleted under the running process: it carries on, and the next one starts
  // afresh.
  for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(database().string() + suffix);
  cache->set(entry(kp::ArchiveValue("m"), policy(0)), "after");
  cache->waitForBackgroundWork();
  EXPECT_TRUE(cache->getCacheItem("after"));
  auto next = open();
  next->set(entry(kp::ArchiveValue("n"), policy(0)), "next");
  next->waitForBackgroundWork();
  EXPECT_EQ(sqlite(database(), "SELECT id FROM cache; PRAGMA integrity_check;"), "next\nok\n");

  // A link planted in the database's place, even to a cache database, is neither followed nor
  // replaced: the cache keeps its entries in memory, and what the link leads to stays as it was.
  kp::test::TempDir linked;
  const auto elsewhere = linked.path() / "elsewhere.db";
  ASSERT_EQ(sqlite(database(), "VACUUM INTO '" + elsewhere.string() + "';"), "");
  fs::create_symlink(elsewhere, linked.path() / "centralcache.db");
  auto unowned = open(linked.path());
  unowned->set(bytesEntry(pattern(10), policy(0)), "m");
  unowned->waitForBackgroundWork();
  EXPECT_TRUE(unowned->getCacheItem("m"));
  EXPECT_EQ(unowned->databaseItemCount(), 0u);
  EXPECT_TRUE(fs::is_symlink(linked.path() / "centralcache.db"));
  EXPECT_EQ(sqlite(elsewhere, "SELECT id FROM cache;"), "next\n");

  // A folder that cannot be written leaves a cache in memory.
  if (::geteuid() != 0) {
    kp::test::TempDir readOnly;
    fs::permissions(readOnly.path(), fs::perms::owner_read | fs::perms::owner_exec);
    auto memoryOnly = open(readOnly.path() / "cache");
    memoryOnly->set(bytesEntry(pattern(10), policy(0)), "m");
    memoryOnly->waitForBackgroundWork();
    EXPECT_TRUE(memoryOnly->getCacheItem("m"));
    EXPECT_EQ(memoryOnly->databaseItemCount(), 0u);
    fs::permissions(readOnly.path(), fs::perms::owner_all);
  }
}

TEST_F(CacheControllerTest, AFullDiskStoresLessButNeverATornEntry) {
  if (kp::test::inTestChild()) {
    // Every file is limited to 1 MiB, as on a disk with that much room left.
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{1 << 20, 1 << 20};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    auto cache = open(fs::path(std::getenv("KP_CACHE_FOLDER")));
    const auto sized = [](std::size_t size) {
      auto e = bytesEntry(pattern(size), policy(0));
      e->extraItems["size"] = kp::ArchiveValue(static_cast<std::int64_t>(size));
      return e;
    };
    for (std::size_t i = 0; i < 20; ++i) cache->set(sized(10000 + i), "f" + std::to_string(i));
    cache->waitForBackgroundWork();
    for (std::size_t i = 0; i < 20; ++i) {
      // Every other one cannot be written: the entry it replaces must stay whole.
      cache->set(sized(i % 2 ? 1500000 + i : 20000 + i), "f" + std::to_string(i));
      cache->set(entry(kp::ArchiveValue(pattern(1000 + i)), policy(0)), "s" + std::to_string(i));
    }
    cache->waitForBackgroundWork();
    cache->receivedMemoryWarning({});  // reads come from the back store
    int found = 0;
    for (const char* prefix : {"f", "s"}) {
      for (std::size_t i = 0; i < 20; ++i) {
        auto read = cache->getCacheItem(prefix + std::to_string(i));
        if (!read) continue;
        ++found;
        const auto& bytes = *read->item->get<kp::Data>();
        EXPECT_TRUE(isPattern(bytes)) << prefix << i;
        if (*prefix == 'f') {
          EXPECT_EQ(*read->extraItems.at("size").get<std::int64_t>(), static_cast<std::int64_t>(bytes.size())) << i;
        }
      }
    }
    EXPECT_GE(found, 30);
    // The saves that could not be written left nothing aside.
    for (const auto& item : fs::recursive_directory_iterator(cache->storagePath())) {
      EXPECT_FALSE(item.path().filename().string().starts_with(".kp-partial-")) << item.path();
    }
    return;
  }
  const auto child = kp::test::runThisTestInChild("KP_CACHE_FOLDER=" + kp::test::shellQuote(dir_.path()));
  EXPECT_EQ(child.status, 0) << child.output;
  EXPECT_EQ(sqlite(database(), "PRAGMA integrity_check;"), "ok\n");
}

TEST_F(CacheControllerTest, KilledWhileSavingLeavesAnIntactStore) {
  if (kp::test::inTestChild()) {
    auto cache = open(fs::path(std::getenv("KP_CACHE_FOLDER")));
    for (std::size_t i = 0;; ++i) {  // until killed
      const std::string key = "k" + std::to_string(i % 40);
      const std::size_t size = 500 + (i * 7919) % 2000000;
      if (i % 3 == 0) {
        cache->set(entry(kp::ArchiveValue(pattern(size / 10)), policy(0)), key);
      } else {
        cache->set(bytesEntry(pattern(size), policy(0, true, i % 2 ? std::optional<std::string>("g") : std::nullopt)),
                   key);
      }
      if (i % 97 == 0) cache->wipeCompleteCache("g");
    }
  }
  for (int round = 0; round < 5; ++round) {
    const auto child = kp::test::runThisTestInChild("KP_CACHE_FOLDER=" + kp::test::shellQuote(dir_.path()),
                                                    "timeout -s KILL " + std::to_string(0.4 + 0.15 * round));
    ASSERT_NE(child.status, 0) << child.output;
  }
  EXPECT_EQ(sqlite(database(), "PRAGMA integrity_check;"), "ok\n");
  // The next process finds only whole payloads, in the folder and through the cache.
  auto cache = open();
  std::size_t count = 0;
  for (const auto& item : fs::recursive_directory_iterator(cache->storagePath())) {
    // Partial files of the killed writers are not entries; they stay until they are old.
    if (!item.is_regular_file() || item.path().filename().string().starts_with(".kp-partial-")) continue;
    const std::string bytes = kp::test::readFile(item.path());
    EXPECT_TRUE(isPattern(kp::Data::fromString(bytes))) << item.path() << " holds " << bytes.size() << " bytes";
    ++count;
  }
  EXPECT_GT(count, 0u);
  for (int i = 0; i < 40; ++i) {
    auto found = cache->getCacheItem("k" + std::to_string(i));
    if (found) {
      EXPECT_TRUE(isPattern(*found->item->get<kp::Data>())) << i;
    }
  }

  // What the killed writers left aside goes once it is old enough not to be the file of a save
  // still running in another process.
  cache.reset();
  const auto folder = dir_.path() / "KPCentralCacheController";
  const auto partial = [&](const char* key, const char* suffix) {
    return folder / (".kp-partial-" + kp::hashSha1(std::string_view(key)) + suffix);
  };
  std::ofstream(partial("k0", ".stale")) << "cut short";
  for (const auto& item : fs::recursive_directory_iterator(folder)) {
    if (!item.path().filename().string().starts_with(".kp-partial-")) continue;
    fs::last_write_time(item.path(), fs::file_time_type::clock::now() - std::chrono::hours(1));
  }
  std::ofstream(partial("k1", ".live")) << "being written";
  open()->waitForBackgroundWork();
  for (const auto& item : fs::recursive_directory_iterator(folder)) {
    const bool aside = item.path().filename().string().starts_with(".kp-partial-");
    EXPECT_TRUE(!aside || item.path() == partial("k1", ".live")) << item.path();
  }
  EXPECT_TRUE(fs::exists(partial("k1", ".live")));
}

TEST_F(CacheControllerTest, TwoProcessesStartingOnAnEmptyMachineKeepBothTheirSaves) {
  constexpr int kFolders = 8;
  constexpr auto kApart = 60ms;
  if (kp::test::inTestChild()) {
    // Both processes open each fresh folder at the same moment and save one entry there.
    const fs::path root(std::getenv("KP_CACHE_FOLDER"));
    const std::chrono::system_clock::time_point start(std::chrono::milliseconds(std::stoll(std::getenv("KP_START"))));
    for (int i = 0; i < kFolders; ++i) {
      std::this_thread::sleep_until(start + i * kApart);
      auto cache = open(root / std::to_string(i));
      cache->set(entry(kp::ArchiveValue("saved"), policy(0)), "by " + std::to_string(::getpid()));
    }
    return;
  }
  for (int round = 0; round < 2; ++round) {
    const fs::path root = dir_.path() / std::to_string(round);
    const auto start = std::chrono::duration_cast<std::chrono::milliseconds>(
        (std::chrono::system_clock::now() + 1500ms).time_since_epoch());
    // The wrapper runs the child command twice at once and fails when either fails.
    const auto children = kp::test::runThisTestInChild(
        "KP_CACHE_FOLDER=" + kp::test::shellQuote(root) + " KP_START=" + std::to_string(start.count()),
        R"(sh -c '"$@" & "$@"; a=$?; wait $!; exit $((a | $?))' twice)");
    ASSERT_EQ(children.status, 0) << children.output;
    for (int i = 0; i < kFolders; ++i) {
      EXPECT_EQ(sqlite(root / std::to_string(i) / "centralcache.db", "SELECT count(*) FROM cache;"), "2\n")
          << "round " << round << ", folder " << i;
    }
  }
}

TEST_F(CacheControllerTest, KilledBetweenFileAndRowLeavesTheOldEntryWholeAndNoRowWithoutItsFile) {
  const auto sized = [](std::size_t size) {
    auto e = bytesEntry(pattern(size), policy(0));
    e->extraItems["size"] = kp::ArchiveValue(static_cast<std::int64_t>(size));
    return e;
  };
  if (kp::test::inTestChild()) {
    auto cache = open(fs::path(std::getenv("KP_CACHE_FOLDER")));
    cache->set(sized(3000), "k");
    std::printf("saving\n");
    std::fflush(stdout);
    cache->waitForBackgroundWork();
    return;
  }
  open()->set(sized(1000), "k");
  // Another connection holds the database's write lock, so that the save in the child waits
  // for its row, with its file written or not, until the child is killed.
  kp::DefaultSQLiteDatabase holder(*kp::Url::parse(dir_.fileUrl("centralcache.db")));
  holder.createPreparedStatement("BEGIN IMMEDIATE;")->execute();
  const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
  kp::test::ChildProcess child({fs::read_symlink("/proc/self/exe").string(),
                                std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name()},
                               {.captureOutput = true,
                                // The killed child's own temporary folders go with ours.
                                .environment = {"KP_TEST_CHILD=1", "KP_CACHE_FOLDER=" + dir_.path().string(),
                                                "TMPDIR=" + dir_.path().string()}});
  for (auto line = child.readLine(20s); line && *line != "saving";) line = child.readLine(20s);
  std::this_thread::sleep_for(500ms);
  child.signal(SIGKILL);
  (void)child.wait();
  holder.createPreparedStatement("ROLLBACK;")->execute();

  auto cache = open();
  auto read = cache->getCacheItem("k");
  ASSERT_TRUE(read);
  const auto& bytes = *read->item->get<kp::Data>();
  EXPECT_TRUE(isPattern(bytes));
  EXPECT_EQ(*read->extraItems.at("size").get<std::int64_t>(), static_cast<std::int64_t>(bytes.size()));

  // A removal, and a save of a key into its row alone, whose row cannot change (as when the
  // process ends in between) leave the file with its row: the row goes first.
  cache->set(sized(2000), "removed");
  cache->waitForBackgroundWork();
  holder.createPreparedStatement("BEGIN IMMEDIATE;")->execute();
  cache->removeCacheItem("removed");
  cache->set(entry(kp::ArchiveValue(pattern(10)), policy(0)), "k");
  cache->waitForBackgroundWork();
  holder.createPreparedStatement("ROLLBACK;")->execute();
  for (const auto& listed : cache->listEntries()) {
    EXPECT_TRUE(listed.fileSize || listed.row.type == kp::CacheItemType::serialized) << listed.row.key;
  }
}

TEST_F(CacheControllerTest, TheSharedControllerFinishesItsSavesWhenTheProcessEnds) {
  if (kp::test::inTestChild()) {
    kp::CacheController::sharedInstance()->set(bytesEntry(pattern(8 << 20), policy(0)), "set just before exit");
    std::exit(0);
  }
  const auto child = runThisTestInChild("XDG_CACHE_HOME=" + shellQuote(dir_.path().string()));
  ASSERT_EQ(child.status, 0) << child.output;
  std::optional<fs::path> folder;
  for (const auto& found : fs::recursive_directory_iterator(dir_.path())) {
    if (found.path().filename() == "centralcache.db") folder = found.path().parent_path();
  }
  ASSERT_TRUE(folder) << child.output;
  const auto read = open(*folder)->getCacheItem("set just before exit");
  ASSERT_TRUE(read);
  EXPECT_TRUE(isPattern(*read->item->get<kp::Data>()));
}

TEST_F(CacheControllerTest, ReadersWritersWipesAndTheTimerAtOnce) {
  auto cache = open({}, 64 << 10);  // writers outrun the disk: they wait for the backlog
  cache->setCleanUpInterval(0.005);
  cache->didBecomeActive({});
  std::atomic<bool> stop{false};
  std::atomic<int> mismatches{0};
  auto write = [&](int seed) {
    for (int i = 0; !stop.load(); ++i) {
      const std::size_t size = 100 + static_cast<std::size_t>((i * 31 + seed) % 400);
      const std::string key = "k" + std::to_string((i + seed) % 24);
      auto e =
          bytesEntry(pattern(size), policy(1 + i % 3, true, i % 2 ? std::optional<std::string>("g") : std::nullopt));
      e->configuration.retainInMemory = i % 3 != 0;
      e->extraItems["size"] = kp::ArchiveValue(static_cast<std::int64_t>(size));
      cache->set(e, key);
      if (i % 5 == 0) cache->set(entry(kp::ArchiveValue("s"), policy(2)), "s" + key);
    }
  };
  auto read = [&] {
    for (int i = 0; !stop.load(); ++i) {
      auto found = cache->getCacheItem("k" + std::to_string(i % 24));
      if (!found) continue;
      const auto* bytes = found->item->get<kp::Data>();
      const auto* size = found->extraItems.at("size").get<std::int64_t>();
      if (!isPattern(*bytes) || static_cast<std::int64_t>(bytes->size()) != *size) mismatches.fetch_add(1);
      (void)cache->getCacheItem("sk" + std::to_string(i % 24), false);
    }
  };
  auto wipe = [&] {
    for (int i = 0; !stop.load(); ++i) {
      switch (i % 4) {
        case 0:
          cache->wipeCompleteCache();
          break;
        case 1:
          cache->wipeCompleteCache("g");
          break;
        case 2:
          cache->removeCacheItem("k" + std::to_string(i % 24));
          break;
        default:
          cache->wipeCompleteExpiredCache();
      }
      clock_->advance(0.5);
      std::this_thread::sleep_for(2ms);
    }
  };
  std::vector<std::thread> threads;
  threads.emplace_back(write, 0);
  threads.emplace_back(write, 7);
  threads.emplace_back(read);
  threads.emplace_back(read);
  threads.emplace_back(wipe);
  kp::MainQueue::shared()->runFor(1500ms);  // the timer fires meanwhile
  stop.store(true);
  for (auto& t : threads) t.join();
  cache->willResignActive({});
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_LE(cache->backgroundStatistics().peakBytes, (64u << 10) + 4096);

  cache->waitForBackgroundWork();
  cache->wipeCompleteExpiredCache();
  cache->waitForBackgroundWork();
  for (const auto& stored : cache->listEntries()) {
    if (stored.row.type == CacheItemType::rawDataToFile) {
      EXPECT_TRUE(stored.fileSize) << stored.row.key;
    }
  }
  EXPECT_EQ(sqlite(database(), "PRAGMA integrity_check;"), "ok\n");
}

}  // namespace
