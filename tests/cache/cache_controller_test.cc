// The cache controller against real files: the three tiers, the expiry rules on a clock the
// tests move, the application life, damaged and vanishing storage, killed writers and
// concurrent use.
#include "kp/cache/cache_controller.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "kp/coding/archivable_image.h"
#include "kp/platform/application_info.h"
#include "kp/service/encryption.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "tarvix/application.h"

namespace {

namespace fs = std::filesystem;
using kp::CacheItem;
using kp::CacheItemType;
using namespace std::chrono_literals;

class TestClock final : public tarvix::DateService {
 public:
  std::chrono::system_clock::time_point now() const override { return time_.load(); }
  void advance(double seconds) {
    time_.store(time_.load() + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                   std::chrono::duration<double>(seconds)));
  }

 private:
  std::atomic<std::chrono::system_clock::time_point> time_{std::chrono::system_clock::now()};
};

class TestApplication final : public tarvix::Application {
 public:
  explicit TestApplication(tarvix::ApplicationState state) : state_(state) {}
  std::shared_ptr<void> applicationWindow() const override { return nullptr; }
  tarvix::ApplicationState applicationState() const override { return state_; }
  tarvix::InterfaceOrientation statusBarOrientation() const override { return {}; }
  bool isIdleTimerDisabled() const override { return false; }
  void setIdleTimerDisabled(bool) override {}
  bool canOpenURL(std::string_view) const override { return false; }
  void open(std::string_view) override {}
  void open(std::string_view, const OpenOptions&, std::function<void(bool)>) override {}

 private:
  tarvix::ApplicationState state_;
};

kp::CacheItemConfiguration policy(double age, bool backStore = true, std::optional<std::string> group = {}) {
  kp::CacheItemConfiguration c(age);
  c.retainInBackStore = backStore;
  c.groupName = std::move(group);
  return c;
}

std::shared_ptr<CacheItem> entry(std::optional<kp::ArchiveValue> payload, kp::CacheItemConfiguration config,
                                 CacheItemType type = CacheItemType::serialized) {
  return std::make_shared<CacheItem>(std::move(payload), std::move(config), type);
}

std::shared_ptr<CacheItem> bytesEntry(const kp::Data& bytes, kp::CacheItemConfiguration config) {
  return entry(kp::ArchiveValue(bytes), std::move(config), CacheItemType::rawDataToFile);
}

// Bytes that tell their own length: `size` times the byte size % 251.
kp::Data pattern(std::size_t size) {
  return kp::Data(std::vector<std::uint8_t>(size, static_cast<std::uint8_t>(size % 251)));
}
bool isPattern(const kp::Data& bytes) { return !bytes.empty() && bytes == pattern(bytes.size()); }

std::string sqlite(const fs::path& db, const std::string& sql) {
  using kp::test::shellQuote;
  return kp::test::runCommand("sqlite3 " + shellQuote(db.string()) + " " + shellQuote(sql) + " 2>&1").output;
}

class CacheControllerTest : public ::testing::Test {
 protected:
  kp::CacheController::Options options(std::optional<fs::path> directory = {}) const {
    kp::CacheController::Options options;
    options.directory = directory.value_or(dir_.path());
    options.clock = clock_;
    options.services = services_;
    return options;
  }
  std::unique_ptr<kp::CacheController> open(std::optional<fs::path> directory = {},
                                            std::size_t budget = kp::CacheController::kDefaultBackgroundBudgetBytes) {
    auto settings = options(std::move(directory));
    settings.backgroundBudgetBytes = budget;
    auto cache = std::make_unique<kp::CacheController>(settings);
    kp::MainQueue::shared()->runPending();  // the start-up step of a controller made elsewhere
    return cache;
  }
  void registerApplication(tarvix::ApplicationState state) {
    services_->registerInstance<tarvix::Application>(std::make_shared<TestApplication>(state));
  }
  fs::path database() const { return dir_.path() / "centralcache.db"; }

  kp::test::TempDir dir_;
  std::shared_ptr<TestClock> clock_ = std::make_shared<TestClock>();
  std::shared_ptr<kp::Services> services_ =
      std::make_shared<kp::Services>(std::make_shared<kp::DefaultServiceContainer>());
};

TEST_F(CacheControllerTest, EntriesLiveInMemoryTheirRowAndTheirFile) {
  auto info = kp::ApplicationInfo::current();
  const double screenScale = info.screenScale;
  info.screenScale = 3;
  kp::ApplicationInfo::setCurrent(info);
  const kp::Image image(2, 1, {255, 0, 0, 255, 0, 0, 255, 128}, 2);
  auto serialized = entry(kp::ArchiveValue("sunny"), policy(600));
  serialized->extraItems["result"] = kp::ArchiveValue(kp::ArchiveValue::Dictionary{{"status", 200}});
  {
    auto cache = open();
    cache->set(serialized, "forecast");
    cache->set(bytesEntry(pattern(3000), policy(600, true, "")), "radar");  // the empty group is no group
    cache->set(entry(kp::ArchiveValue(std::make_shared<kp::ArchivableImage>(image)), policy(600, true, "icons"),
                     CacheItemType::image),
               "icon");
    cache->set(entry(kp::ArchiveValue(std::make_shared<kp::ArchivableImage>(image)), policy(0)), "archived-image");
    EXPECT_EQ(cache->getCacheItem("forecast"), serialized);  // the same object, from memory

    // Invalid entries and empty keys change nothing; an entry kept nowhere evicts the old one.
    cache->set(entry(kp::ArchiveValue("text"), policy(0), CacheItemType::rawDataToFile), "forecast");
    cache->set(entry(std::nullopt, policy(0)), "forecast");
    cache->set(entry(kp::ArchiveValue("x"), policy(0)), "");
    EXPECT_EQ(cache->getCacheItem("forecast"), serialized);
    auto nowhere = policy(0, false);
    nowhere.retainInMemory = false;
    cache->set(entry(kp::ArchiveValue("a"), policy(0, false)), "transient");
    cache->set(entry(kp::ArchiveValue("b"), nowhere), "transient");
    EXPECT_FALSE(cache->getCacheItem("transient"));
    EXPECT_EQ(cache->memoryItemCount(), 4u);
  }
  // A new controller starts with an empty memory: everything comes from the back store.
  auto cache = open();
  EXPECT_EQ(cache->memoryItemCount(), 0u);
  auto forecast = cache->getCacheItem("forecast");
  ASSERT_TRUE(forecast);
  EXPECT_EQ(*forecast, *serialized);  // payload, policy and extra items
  EXPECT_EQ(cache->getCacheItem("radar")->item->get<kp::Data>()->size(), 3000u);
  EXPECT_FALSE(cache->getCacheItem("radar")->configuration.groupName);
  auto icon = cache->getCacheItem("icon");
  ASSERT_TRUE(icon);
  EXPECT_EQ(icon->item->object<kp::ArchivableImage>()->image(), image.withScale(3));  // the screen's scale
  EXPECT_EQ(cache->getCacheItem("archived-image")->item->object<kp::ArchivableImage>()->image(), image);
  EXPECT_EQ(cache->memoryItemCount(), 4u);  // read from the database, now kept in memory
  EXPECT_TRUE(fs::exists(cache->storagePath() / kp::hashSha1(std::string_view("icons")) /
                         kp::hashSha1(std::string_view("icon"))));
  EXPECT_EQ(sqlite(database(), "SELECT count(*) FROM cache;"), "4\n");
  info.screenScale = screenScale;
  kp::ApplicationInfo::setCurrent(info);
}

TEST_F(CacheControllerTest, FileEntriesWithoutTheirFileReadAsAbsentAndLoseTheirRow) {
  auto cache = open();
  for (const char* key : {"a", "b", "c"}) cache->set(bytesEntry(pattern(1000), policy(0)), key);
  cache->waitForBackgroundWork();
  cache->wipeCompleteCache();  // memory now, the back store in the background
  cache->waitForBackgroundWork();
  for (const char* key : {"a", "b", "c"}) cache->set(bytesEntry(pattern(1000), policy(0)), key);
  cache->waitForBackgroundWork();
  cache->receivedMemoryWarning({});
  EXPECT_EQ(cache->memoryItemCount(), 0u);

  // Without loading the payload the entry comes without it, its row stays, and it is not
  // kept in memory where it would stand in for the whole entry.
  fs::remove(cache->storagePath() / kp::hashSha1(std::string_view("a")));
  auto bare = cache->getCacheItem("a", false);
  ASSERT_TRUE(bare);
  EXPECT_FALSE(bare->item);
  EXPECT_EQ(cache->memoryItemCount(), 0u);
  EXPECT_FALSE(cache->getCacheItem("a"));
  EXPECT_FALSE(cache->getCacheItem("a", false));  // the row went with the failed read

  // The trim removes the oldest files down to the limit; their rows go when read.
  cache->setMaximumCacheSizeInBytes(1500);
  cache->curbUsedDiskSpace();
  cache->waitForBackgroundWork();
  EXPECT_EQ(cache->getFileStorageTotalSize(), 1000u);
  EXPECT_EQ(cache->databaseItemCount(), 2u);
  const int found = (cache->getCacheItem("b") ? 1 : 0) + (cache->getCacheItem("c") ? 1 : 0);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(cache->databaseItemCount(), 1u);
  EXPECT_EQ(cache->getBackStoreTotalSize(), cache->getDatabaseTotalSize() + 1000u);
}

TEST_F(CacheControllerTest, ExpiryFollowsTheClock) {
  auto cache = open();
  auto rolling = policy(60);
  rolling.rollingExpiration = true;
  auto manual = policy(60);
  manual.autoExpiration = false;
  cache->set(entry(kp::ArchiveValue("r"), rolling), "rolling");
  using Note = kp::CodableCacheItem<std::string>;
  cache->set(std::static_pointer_cast<kp::Cacheable>(std::make_shared<Note>("n", rolling)), "rolling-note");
  cache->set(entry(kp::ArchiveValue("p"), policy(60)), "plain");
  cache->set(entry(kp::ArchiveValue("m"), manual), "manual");
  cache->set(bytesEntry(pattern(10), manual), "manual-file");
  cache->set(bytesEntry(pattern(10), policy(60)), "plain-file");
  for (int i = 0; i < 4; ++i) {
    clock_->advance(30);
    EXPECT_TRUE(cache->getCacheItem("rolling")) << i;  // every read restarts the minute
  }
  EXPECT_FALSE(cache->getCacheItem("plain"));  // 120 s old
  EXPECT_TRUE(cache->getCacheItem("manual"));  // expired, but only the clean-up may remove it
  cache->waitForBackgroundWork();
  // The refreshed timestamp reached the row: a new controller sees a fresh entry.
  EXPECT_TRUE(open()->getCacheItem("rolling"));
  // However long a rolling entry went unread, a read restarts its lifetime before its age is
  // tested, in memory and in its row alike; only the clean-up removes one left alone.
  clock_->advance(3600);
  EXPECT_TRUE(cache->getCacheItem("rolling"));
  EXPECT_TRUE(cache->get<Note>("rolling-note"));
  cache->waitForBackgroundWork();
  clock_->advance(3600);
  EXPECT_TRUE(open()->getCacheItem("rolling"));
  EXPECT_TRUE(open()->get<Note>("rolling-note"));
  clock_->advance(61);

  cache->wipeCompleteExpiredCache();
  cache->waitForBackgroundWork();
  EXPECT_EQ(cache->memoryItemCount(), 0u);  // expired in memory, whatever the flag
  // Rows that allow automatic expiry are gone; the manual ones stay, but their files do not.
  EXPECT_EQ(sqlite(database(), "SELECT id FROM cache ORDER BY id;"), "manual\nmanual-file\n");
  EXPECT_EQ(cache->getFileStorageTotalSize(), 0u);
  EXPECT_TRUE(cache->getCacheItem("manual"));
  EXPECT_FALSE(cache->getCacheItem("manual-file"));
  EXPECT_EQ(sqlite(database(), "SELECT id FROM cache;"), "manual\n");
}

TEST_F(CacheControllerTest, WipesGroupsRemovalsAndTheGenericEntries) {
  auto cache = open();
  cache->set(bytesEntry(pattern(100), policy(0, true, "a")), "a1");
  cache->set(entry(kp::ArchiveValue("x"), policy(0, true, "a")), "a2");
  cache->set(bytesEntry(pattern(200), policy(0, true, "b")), "b1");
  cache->set(bytesEntry(pattern(300), policy(0)), "none");
  cache->wipeCompleteCache("a");
  EXPECT_FALSE(cache->getCacheItem("a1"));  // memory at once
  EXPECT_TRUE(cache->getCacheItem("b1"));
  cache->waitForBackgroundWork();
  EXPECT_EQ(sqlite(database(), "SELECT id FROM cache ORDER BY id;"), "b1\nnone\n");
  EXPECT_EQ(cache->getFileStorageTotalSize(), 500u);

  cache->removeAllItemsFromBackStore();
  cache->waitForBackgroundWork();
  EXPECT_EQ(cache->memoryItemCount(), 2u);  // memory untouched
  EXPECT_EQ(cache->databaseItemCount(), 0u);
  EXPECT_EQ(cache->getFileStorageTotalSize(), 0u);

  // A key saved again in another group, or as a serialized entry, leaves no file of its
  // earlier entry behind, where no row would name it for a clean-up or a trim.
  cache->set(bytesEntry(pattern(30), policy(0, true, "a")), "moving");
  cache->set(bytesEntry(pattern(40), policy(0, true, "b")), "moving");
  cache->waitForBackgroundWork();
  EXPECT_EQ(cache->getFileStorageTotalSize(), 40u);
  cache->set(entry(kp::ArchiveValue("now a row"), policy(0)), "moving");
  cache->waitForBackgroundWork();
  EXPECT_EQ(cache->getFileStorageTotalSize(), 0u);
  cache->removeAllItemsFromBackStore();

  // A removal also undoes the saves still waiting to run: the entry does not come back.
  for (int i = 0; i < 20; ++i) {
    const std::string key = "k" + std::to_string(i);
    cache->set(bytesEntry(pattern(50 + i), policy(0)), key);
    cache->removeCacheItem(key);
  }
  cache->waitForBackgroundWork();
  EXPECT_EQ(cache->databaseItemCount(), 0u);
  EXPECT_EQ(cache->getFileStorageTotalSize(), 0u);

  // Entries of any coded type go through their row only, and come back as their type.
  using Note = kp::CodableCacheItem<std::string>;
  auto note = std::make_shared<Note>("hello", policy(60));
  note->setCreationDate(kp::Date::fromTimePoint(clock_->now()));  // made on the test's clock, not the wall's
  cache->set(std::static_pointer_cast<kp::Cacheable>(note), "note");
  EXPECT_EQ(cache->get<Note>("note")->item, "hello");
  EXPECT_FALSE(cache->get<CacheItem>("note"));
  EXPECT_FALSE(cache->getCacheItem("note"));
  cache->waitForBackgroundWork();
  auto fresh = open();
  EXPECT_EQ(fresh->get<Note>("note")->item, "hello");
  EXPECT_FALSE(fresh->getCacheItem("note"));
  clock_->advance(120);  // well past the minute the note was given by the system clock
  EXPECT_FALSE(fresh->get<Note>("note"));
}

TEST_F(CacheControllerTest, KeysAndGroupsTheDatabaseCannotHoldStayInMemory) {
  auto cache = open();
  const std::string invalid = "bad\xff";
  const std::string withNul("a\0b", 3);
  const std::string groupWithNul("g\0h", 3);
  cache->set(bytesEntry(pattern(100), policy(60)), invalid);
  cache->set(bytesEntry(pattern(200), policy(60)), withNul);
  cache->set(bytesEntry(pattern(300), policy(60, true, groupWithNul)), "grouped");
  cache->set(bytesEntry(pattern(400), policy(60, true, "g")), "other-group");
  cache->set(entry(kp::ArchiveValue("plain"), policy(0)), "a");
  cache->waitForBackgroundWork();
  EXPECT_TRUE(isPattern(*cache->getCacheItem(invalid)->item->get<kp::Data>()));
  cache->wipeCompleteCache(groupWithNul);  // not the group its text is cut to
  cache->waitForBackgroundWork();

  cache->receivedMemoryWarning({});
  EXPECT_TRUE(cache->getCacheItem("other-group"));
  EXPECT_FALSE(cache->getCacheItem(std::string("a\0zzz", 5)));  // not the entry of "a"
  EXPECT_EQ(*cache->getCacheItem("a")->item->get<std::string>(), "plain");
  // Once expired, nothing is left on disk that no clean-up can find. (The entries took their
  // creation dates from the system clock, a moment after the test's clock started.)
  clock_->advance(120);
  cache->wipeCompleteExpiredCache();
  cache->waitForBackgroundWork();
  EXPECT_EQ(cache->getFileStorageTotalSize(), 0u);
  EXPECT_EQ(sqlite(database(), "SELECT id FROM cache;"), "a\n");
}

TEST_F(CacheControllerTest, TheTimerRunsWhileTheApplicationIsActive) {
  auto& center = kp::NotificationCenter::defaultCenter();
  auto& main = *kp::MainQueue::shared();
  using Names = kp::ApplicationNotifications;
  {
    auto cache = open();  // no Application registered: not active
    EXPECT_FALSE(cache->hasCleanUpTimer());
    cache->setCleanUpInterval(0.02);
    center.post(Names::kDidBecomeActive);
    center.post(Names::kDidBecomeActive);
    EXPECT_TRUE(cache->hasCleanUpTimer());
    cache->set(entry(kp::ArchiveValue("short"), policy(10, false)), "short");
    clock_->advance(11);
    // Only the timer purges memory now.
    for (int i = 0; i < 250 && cache->memoryItemCount() != 0; ++i) main.runFor(20ms);
    EXPECT_EQ(cache->memoryItemCount(), 0u);

    // After resigning, no timer fires: not the one stopped, nor a second one from the
    // repeated did-become-active.
    center.post(Names::kWillResignActive);
    EXPECT_FALSE(cache->hasCleanUpTimer());
    cache->set(entry(kp::ArchiveValue("later"), policy(10, false)), "later");
    clock_->advance(11);
    main.runFor(200ms);
    EXPECT_EQ(cache->memoryItemCount(), 1u);

    auto keep = policy(0, false);
    keep.expireOnMemoryWarning = false;
    cache->set(entry(kp::ArchiveValue("k"), keep), "keep");
    cache->set(entry(kp::ArchiveValue("d"), policy(0, false)), "drop");
    center.post(Names::kDidReceiveMemoryWarning);
    EXPECT_TRUE(cache->getCacheItem("keep"));
    EXPECT_FALSE(cache->getCacheItem("drop"));

    // Announced from another thread, the timer still starts on the main thread.
    std::thread([&] { center.post(Names::kDidBecomeActive); }).join();
    EXPECT_FALSE(cache->hasCleanUpTimer());
    main.runPending();
    EXPECT_TRUE(cache->hasCleanUpTimer());
    cache->set(entry(kp::ArchiveValue("stored"), policy(5)), "stored");
  }
  center.post(Names::kDidBecomeActive);  // reaches no destroyed controller
  main.runPending();

  // Active at start-up: expired rows are cleaned up and the timer starts, at once for a
  // controller made on the main thread...
  clock_->advance(6);
  registerApplication(tarvix::ApplicationState::active);
  auto cache = std::make_unique<kp::CacheController>(options());
  EXPECT_TRUE(cache->hasCleanUpTimer());
  cache->waitForBackgroundWork();
  EXPECT_EQ(cache->databaseItemCount(), 0u);
  // ...and once the main queue runs for one made on another thread, or by a factory of the
  // container that holds the application (which it cannot ask while that factory runs).
  std::unique_ptr<kp::CacheController> elsewhere;
  std::thread([&] { elsewhere = std::make_unique<kp::CacheController>(options()); }).join();
  services_->register_<kp::CacheService>(
      [settings = options()](tarvix::ServiceContainer&) { return std::make_shared<kp::CacheController>(settings); });
  auto made = std::dynamic_pointer_cast<kp::CacheController>(services_->safeGet<kp::CacheService>());
  EXPECT_FALSE(elsewhere->hasCleanUpTimer());
  EXPECT_FALSE(made->hasCleanUpTimer());
  main.runPending();
  EXPECT_TRUE(elsewhere->hasCleanUpTimer());
  EXPECT_TRUE(made->hasCleanUpTimer());
}

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
    std::ifstream in(item.path(), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), {});
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
  kp::test::BackgroundProcess child({"/usr/bin/env", "KP_TEST_CHILD=1", "KP_CACHE_FOLDER=" + dir_.path().string(),
                                     fs::read_symlink("/proc/self/exe").string(),
                                     std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name()});
  for (auto line = child.readLine(20s); line && *line != "saving";) line = child.readLine(20s);
  std::this_thread::sleep_for(500ms);
  child.sendSignal(SIGKILL);
  ASSERT_TRUE(child.wait(10s));
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
