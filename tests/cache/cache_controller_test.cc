// The cache controller against real files: the three tiers, the expiry rules on a clock the
// tests move, groups and removals, keys the database cannot hold, and the application life.
#include "kp/cache/cache_controller.h"

#include <gtest/gtest.h>

#include <thread>

#include "cache_controller_support.h"
#include "kp/coding/archivable_image.h"
#include "kp/platform/application_info.h"
#include "kp/service/encryption.h"
#include "support/wait.h"

namespace {

namespace fs = std::filesystem;
using kp::CacheItem;
using kp::CacheItemType;
using namespace std::chrono_literals;

using namespace kp::test;

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
    EXPECT_TRUE(eventuallyOnMain([&] { return cache->memoryItemCount() == 0; }));

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

}  // namespace
