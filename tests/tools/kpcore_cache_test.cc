// `kpcore cache` as a user runs it, on a cache folder this process filled.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>

#include "kp/cache/cache_controller.h"
#include "kp/coding/archivable_image.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using kp::test::runCommand;
using kp::test::shellQuote;

class KpcoreCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kp::CacheController::Options options;
    options.directory = dir_.path();
    kp::CacheController cache(options);
    auto stored = [](double age, std::optional<std::string> group = {}) {
      kp::CacheItemConfiguration c(age);
      c.retainInBackStore = true;
      c.groupName = std::move(group);
      return c;
    };
    auto forecast = std::make_shared<kp::CacheItem>(kp::ArchiveValue("sunny\n\x1b[31mred"), stored(3600));
    forecast->extraItems["status"] = kp::ArchiveValue(200);
    cache.set(forecast, "forecast/berlin");
    cache.set(std::make_shared<kp::CacheItem>(kp::ArchiveValue(kp::Data(std::vector<std::uint8_t>(3000, 7))),
                                              stored(0, "radar"), kp::CacheItemType::rawDataToFile),
              "radar/1");
    const kp::Image image(3, 2, std::vector<std::uint8_t>(24, 90), 2);
    cache.set(std::make_shared<kp::CacheItem>(kp::ArchiveValue(std::make_shared<kp::ArchivableImage>(image)),
                                              stored(60), kp::CacheItemType::image),
              "icon\tsun");
    auto old = std::make_shared<kp::CacheItem>(kp::ArchiveValue("stale"), stored(1));
    old->setCreationDate(kp::Date::now().addingTimeInterval(-7000));
    cache.set(old, "stale");
  }

  kp::test::ProcessResult kpcore(const std::string& arguments) {
    return runCommand(std::string(KPCORE_PATH) + " cache " + arguments + " --dir " + shellQuote(dir_.path()) + " 2>&1");
  }

  kp::test::TempDir dir_;
};

TEST_F(KpcoreCacheTest, ShowsTheFolderItsEntriesAndOneEntry) {
  const auto stats = kpcore("stats");
  EXPECT_EQ(stats.status, 0);
  EXPECT_NE(stats.output.find("folder:            " + dir_.path().string() + "\n"), std::string::npos) << stats.output;
  EXPECT_NE(stats.output.find("database entries:  4\n"), std::string::npos) << stats.output;
  EXPECT_NE(stats.output.find("file storage size: 3."), std::string::npos) << stats.output;

  const auto list = kpcore("list");
  EXPECT_EQ(list.status, 0);
  EXPECT_NE(list.output.find("2.9 KiB    data       radar        radar/1\n"), std::string::npos) << list.output;
  EXPECT_NE(list.output.find("icon\\x09sun\n"), std::string::npos) << list.output;  // no raw control bytes
  EXPECT_NE(list.output.find("1h     1h ago "), std::string::npos) << list.output;
  EXPECT_TRUE(list.output.ends_with("4 entries, " + list.output.substr(list.output.rfind(", ") + 2))) << list.output;

  const auto json = kpcore("list --json");
  EXPECT_EQ(json.status, 0);
  EXPECT_NE(json.output.find("{\"key\":\"radar/1\",\"kind\":\"data\",\"group\":\"radar\","), std::string::npos)
      << json.output;

  const auto one = kpcore("get forecast/berlin");
  EXPECT_EQ(one.status, 0);
  EXPECT_NE(one.output.find("payload: text \"sunny\\x0a\\x1b[31mred\" (14 bytes)\n"), std::string::npos) << one.output;
  EXPECT_NE(one.output.find("maximum age: 1h\n"), std::string::npos) << one.output;
  EXPECT_NE(one.output.find("extra items: status (integer 200)\n"), std::string::npos) << one.output;
  EXPECT_NE(kpcore("get 'icon\tsun'").output.find("payload: PNG file, "), std::string::npos);

  EXPECT_EQ(kpcore("get radar/1 --raw").output, std::string(3000, '\x07'));
  const auto png = kpcore("get 'icon\tsun' --raw");
  const auto image = kp::Image::decode(kp::Data::fromString(png.output));
  ASSERT_TRUE(image);
  EXPECT_EQ(image->scale(), 2.0);

  // Rows that something else wrote under ids no key matches are listed as stats counts them,
  // and a folder given relative to the working folder is the same folder.
  const auto db = dir_.path() / "centralcache.db";
  const auto forged = runCommand("sqlite3 " + shellQuote(db.string()) +
                                 " \"INSERT INTO cache (id, cacheType, data, timestamp) VALUES (NULL, 0, x'00', 1), "
                                 "(x'6162', 0, x'00', 1), (CAST(x'ff61' AS TEXT), 0, x'00', 1);\" 2>&1");
  ASSERT_EQ(forged.output, "");
  const auto relative = [&](const std::string& arguments) {
    return runCommand("cd " + shellQuote(dir_.path().parent_path()) + " && " + KPCORE_PATH + " cache " + arguments +
                      " --dir " + shellQuote(dir_.path().filename()) + " 2>&1");
  };
  EXPECT_NE(relative("stats").output.find("database entries:  7\n"), std::string::npos);
  const auto all = relative("list");
  EXPECT_NE(all.output.find("7 entries, "), std::string::npos) << all.output;
  for (const char* id : {" (id NULL)\n", " (id x'6162')\n", " (id x'ff61')\n"}) {
    EXPECT_NE(all.output.find(id), std::string::npos) << id << all.output;
  }
  EXPECT_NE(kpcore("list --json").output.find("{\"key\":null,\"keyBytes\":\"6162\",\"kind\":\"serialized\""),
            std::string::npos);
}

TEST_F(KpcoreCacheTest, MaintainsTheFolderAndFailsWithOneLine) {
  const auto expired = kpcore("expired");
  EXPECT_EQ(expired.status, 0);
  EXPECT_EQ(expired.output.rfind("expired clean-up: removed 1 entry; file storage ", 0), 0u) << expired.output;
  const auto curb = kpcore("curb --max 1K");
  EXPECT_EQ(curb.status, 0);
  EXPECT_NE(curb.output.find("curb to 1.0 KiB: removed 0 entries; file storage 3."), std::string::npos) << curb.output;
  EXPECT_TRUE(curb.output.ends_with(" -> 2.9 KiB\n") || curb.output.ends_with(" -> 0 B\n")) << curb.output;
  const auto group = kpcore("wipe --group radar");
  EXPECT_EQ(group.status, 0);
  EXPECT_EQ(group.output.rfind("wipe group radar: removed 1 entry", 0), 0u) << group.output;
  EXPECT_EQ(kpcore("wipe --json").output.rfind("{\"action\":\"wipe\",\"removedEntries\":2,", 0), 0u);
  EXPECT_NE(kpcore("stats").output.find("database entries:  0\n"), std::string::npos);

  struct Case {
    std::string arguments;
    int status;
    std::string output;
  };
  const Case cases[] = {
      {"get missing", 1, "kpcore cache: no entry under missing\n"},
      {"curb", 2, "kpcore cache: curb needs --max BYTES\n"},
      {"curb --max lots", 2, "kpcore cache: not a size: lots\n"},
      {"curb --max 0x10K", 2, "kpcore cache: not a size: 0x10K\n"},
      {"curb --max ' 1K'", 2, "kpcore cache: not a size:  1K\n"},
      {"curb --max nanM", 2, "kpcore cache: not a size: nanM\n"},
      {"shrink", 2, "kpcore cache: unknown subcommand: shrink\n"},
  };
  for (const auto& c : cases) {
    const auto result = kpcore(c.arguments);
    EXPECT_EQ(result.status, c.status) << c.arguments;
    EXPECT_EQ(result.output, c.output) << c.arguments;
  }
  kp::test::TempDir empty;
  const auto none = runCommand(std::string(KPCORE_PATH) + " cache stats --dir " + shellQuote(empty.path()) + " 2>&1");
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.output, "kpcore cache: no cache database in " + empty.path().string() + "\n");

  // A link in the place of the file folder is not the cache's: a wipe leaves alone what it
  // leads to, and neither counts its files.
  namespace fs = std::filesystem;
  kp::test::TempDir elsewhere;
  fs::create_directory(elsewhere.path() / "sub");
  for (const char* name : {"precious.txt", "sub/more.txt"}) std::ofstream(elsewhere.path() / name) << "keep me";
  const auto folder = dir_.path() / "KPCentralCacheController";
  fs::remove_all(folder);
  fs::create_directory_symlink(elsewhere.path(), folder);
  const auto linked = kpcore("wipe");
  EXPECT_EQ(linked.status, 0);
  EXPECT_NE(linked.output.find("kpcore cache: note: " + folder.string() + " is a symbolic link"), std::string::npos)
      << linked.output;
  EXPECT_NE(kpcore("stats").output.find("file storage size: 0 B\n"), std::string::npos);
  EXPECT_TRUE(fs::exists(elsewhere.path() / "precious.txt") && fs::exists(elsewhere.path() / "sub/more.txt"));
  // So is a link in the place of the database, which no subcommand opens.
  const auto database = dir_.path() / "centralcache.db";
  fs::rename(database, elsewhere.path() / "cache.db");
  fs::create_symlink(elsewhere.path() / "cache.db", database);
  for (const char* action : {"stats", "wipe"}) {
    EXPECT_EQ(kpcore(action).output, "kpcore cache: " + database.string() +
                                         " is a symbolic link, not a database of the cache's own; the application"
                                         " keeps its entries in memory\n");
  }
}

TEST_F(KpcoreCacheTest, InspectingReportsAnUnreadableDatabaseAndLeavesItAsItIs) {
  const auto file = dir_.path() / "centralcache.db";
  const auto sqlite = [&](const std::string& sql) {
    return runCommand("sqlite3 " + shellQuote(file.string()) + " " + shellQuote(sql) + " 2>&1").output;
  };
  const std::string named = "kpcore cache: " + file.string();
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { sqlite("UPDATE db_metadata SET version = 2;"); },
       named + " has schema version 2, older than 3, which the application replaces with an empty cache\n"},
      {[&] { sqlite("DROP TABLE cache;"); }, named + " has no cache tables\n"},
      {[&] {
         std::filesystem::remove(file);
         std::ofstream(file, std::ios::binary) << std::string(4096, '\x9c');
       },
       named + " cannot be read as an SQLite database\n"},
  };
  for (const auto& [damage, message] : cases) {
    damage();
    sqlite("PRAGMA wal_checkpoint(TRUNCATE);");
    const std::string before = kp::test::readFile(file);
    for (const char* inspection : {"stats", "list --json", "get forecast/berlin"}) {
      const auto result = kpcore(inspection);
      EXPECT_EQ(result.status, 1) << inspection;
      EXPECT_EQ(result.output, message) << inspection;
    }
    EXPECT_TRUE(kp::test::readFile(file) == before) << message;
  }
  // Maintenance may replace what it cannot read.
  EXPECT_EQ(kpcore("wipe").status, 0);
  EXPECT_NE(kpcore("stats").output.find("database entries:  0\n"), std::string::npos);
}

}  // namespace
