// The user-defaults store against real files in a temporary XDG folder, with other processes
// (kpcore, and this test program in a writer mode) using the same suites.
#include "kp/storage/user_defaults.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>

#include "kp/coding/property_list.h"
#include "storage/suite_store.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using kp::Value;

// Read through the one open file: sizing it by path could meet a newer file renamed over it.
using kp::test::readFile;

Value readSuite(const fs::path& path) {
  const std::string bytes = readFile(path);
  return kp::readPropertyList({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
}

using kp::test::eventually;

class UserDefaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A test run again in a child process works in its parent's folder.
    if (kp::test::inTestChild()) {
      root_ = std::getenv("KP_TEST_CONFIG");  // NOLINT(concurrency-mt-unsafe)
    } else {
      owned_.emplace();
      root_ = owned_->path();
    }
    ::setenv("XDG_CONFIG_HOME", (root_ / "config").c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
  }
  // Every suite is written before the folder goes, so that no late write brings it back. (A
  // child leaves its suites to the process's end.)
  void TearDown() override {
    if (!kp::test::inTestChild()) kp::storage_detail::SuiteStore::synchronizeAll();
  }

  [[nodiscard]] fs::path folder() const { return root_ / "config" / "com.kp.app"; }
  [[nodiscard]] fs::path suiteFile(const std::string& suite) const { return folder() / (suite + ".plist"); }
  static kp::test::ProcessResult kpcore(const std::string& arguments) {
    return kp::test::runCommand(std::string(KPCORE_PATH) + " " + arguments + " 2>&1");
  }
  // Files beside the suite file other than the suite file itself and its lock file.
  [[nodiscard]] std::vector<fs::path> asideFiles(const std::string& suite) const {
    std::vector<fs::path> out;
    for (const auto& entry : fs::directory_iterator(folder())) {
      const std::string name = entry.path().filename().string();
      if (name.starts_with(suite + ".plist.damaged-")) out.push_back(entry.path());
    }
    return out;
  }

  std::optional<kp::test::TempDir> owned_;
  fs::path root_;
};

TEST_F(UserDefaultsTest, ValuesPersistAsAPropertyListDictionary) {
  auto defaults = kp::UserDefaults::suite("values");
  ASSERT_TRUE(defaults);
  defaults->setObject(std::string("metric"), "units");
  defaults->setInteger(-7, "count");
  defaults->setDouble(2.5, "scale");
  defaults->setBool(true, "onboarded");
  defaults->setObject(kp::Date::fromTimeIntervalSince1970(1e9), "installed");
  defaults->setObject(std::vector<std::string>{"Bern", "Thun"}, "cities");
  defaults->setObject(std::map<std::string, std::any>{{"zoom", 3}, {"layers", std::vector<std::any>{1, "rain"}}},
                      "map");
  defaults->setUrl(kp::Url::parse("https://example.com/a?b=1"), "link");
  defaults->setObject(std::string("empty key"), "");
  const std::string binaryKey("k\0\xc3\xa9", 4);
  defaults->setObject(kp::Data::fromString(std::string("v\0", 2)), binaryKey);
  defaults->setObject(std::uint64_t{UINT64_MAX}, "huge");
  ASSERT_TRUE(defaults->synchronize());

  // Another process (and a fresh reader) sees the same values in the file.
  const Value file = readSuite(suiteFile("values"));
  EXPECT_EQ(*file.find("units")->ifString(), "metric");
  EXPECT_EQ(*file.find("count")->ifInteger(), -7);
  EXPECT_EQ(file.find("map")->find("layers")->ifArray()->size(), 2U);
  EXPECT_EQ(*file.find("")->ifString(), "empty key");
  EXPECT_EQ(*file.find(binaryKey)->ifData(), kp::Data::fromString(std::string("v\0", 2)));
  EXPECT_EQ(std::any_cast<std::uint64_t>(*defaults->object("huge")), UINT64_MAX);

  // object() hands back plain C++ values; lists and dictionaries stay trees.
  EXPECT_EQ(std::any_cast<std::string>(*defaults->object("units")), "metric");
  EXPECT_EQ(std::any_cast<std::int64_t>(*defaults->object("count")), -7);
  EXPECT_EQ(std::any_cast<Value>(*defaults->object("cities")).ifArray()->size(), 2U);
  EXPECT_EQ(defaults->stringArray("cities"), (std::vector<std::string>{"Bern", "Thun"}));
  EXPECT_EQ(defaults->stringArray("map"), std::nullopt);
  EXPECT_EQ(defaults->url("link")->host(), "example.com");
  defaults->setObject(std::string("/tmp/a b/100%?.txt"), "path");
  EXPECT_EQ(defaults->url("path")->absoluteString(), "file:///tmp/a%20b/100%25%3F.txt");
  EXPECT_EQ(std::any_cast<kp::Date>(*defaults->object("installed")), kp::Date::fromTimeIntervalSince1970(1e9));
}

TEST_F(UserDefaultsTest, TypedGettersConvertLikeThePlatformStore) {
  auto defaults = kp::UserDefaults::suite("conversions");
  defaults->setObject(std::string(" 42 "), "text");
  defaults->setObject(std::string("YES"), "yes");
  defaults->setObject(std::string("3.75"), "real text");
  defaults->setDouble(-3.75, "real");
  defaults->setBool(true, "flag");
  defaults->setObject(std::string("weather"), "word");
  EXPECT_EQ(defaults->integer("text"), 42);
  EXPECT_EQ(defaults->integer("real text"), 3);
  EXPECT_EQ(defaults->integer("real"), -3);
  EXPECT_EQ(defaults->integer("flag"), 1);
  EXPECT_EQ(defaults->integer("word"), 0);
  EXPECT_EQ(defaults->double_("real text"), 3.75);
  EXPECT_TRUE(defaults->bool_("yes"));
  EXPECT_TRUE(defaults->bool_("real"));
  EXPECT_FALSE(defaults->bool_("word"));
  EXPECT_EQ(defaults->string("real"), "-3.75");
  EXPECT_EQ(defaults->string("flag"), "1");
  EXPECT_EQ(defaults->data("text"), std::nullopt);
  EXPECT_EQ(defaults->integer("missing"), 0);
  // Keys given by their description.
  defaults->setInteger(5, 1234);
  EXPECT_EQ(defaults->integer("1234"), 5);
  EXPECT_EQ(defaults->string(1234), "5");
}

TEST_F(UserDefaultsTest, RefusesWhatAPropertyListCannotHoldAndNamesThatAreNoFiles) {
  auto defaults = kp::UserDefaults::suite("refusals");
  defaults->setObject(std::string("kept"), "k");
  struct Opaque {};
  defaults->setObject(Opaque{}, "k");
  defaults->setObject(std::string("\xff\xfe"), "k");
  defaults->setObject(std::vector<std::any>{std::string("ok"), Opaque{}}, "k");
  defaults->setObject(std::string("x"), std::string("\xc3", 1));  // a key that is not UTF-8
  EXPECT_EQ(defaults->string("k"), "kept");
  EXPECT_EQ(defaults->dictionaryRepresentation().size(), 1U);
  defaults->setObject(Value(), "k");  // null removes
  EXPECT_EQ(defaults->object("k"), std::nullopt);
  EXPECT_TRUE(defaults->synchronize());

  for (const char* bad : {"", ".", "..", ".hidden", "a/b", "tab\there", "\xff"}) {
    EXPECT_EQ(kp::UserDefaults::suite(bad), nullptr) << bad;
  }
  EXPECT_EQ(kp::UserDefaults::suite(std::string(201, 'a')), nullptr);
  EXPECT_NE(kp::UserDefaults::suite("Zürich widget"), nullptr);
}

TEST_F(UserDefaultsTest, AFirstRunCreatesAPrivateFolderAndLargeValuesRoundTrip) {
  EXPECT_FALSE(fs::exists(root_ / "config"));
  auto defaults = kp::UserDefaults::suite("first");
  kp::Data big = kp::Data::zeros(3 << 20);
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::uint8_t>(i * 7);
  defaults->setObject(big, "big");
  ASSERT_TRUE(defaults->synchronize());
  struct stat info {};
  ASSERT_EQ(::stat(folder().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700U);
  EXPECT_EQ(*readSuite(suiteFile("first")).find("big")->ifData(), big);
  EXPECT_EQ(kp::UserDefaults::suite("first")->data("big"), big);
}

// A process that changes a value and ends normally, without synchronize(), leaves it for the
// next one.
TEST_F(UserDefaultsTest, ChangesAreWrittenWhenTheProcessEnds) {
  if (kp::test::inTestChild()) {
    kp::UserDefaults::suite("ending")->setInteger(7, "last");
    return;
  }
  const auto child = kp::test::runThisTestInChild("KP_TEST_CONFIG=" + kp::test::shellQuote(root_.string()));
  ASSERT_EQ(child.status, 0) << child.output;
  EXPECT_EQ(kp::UserDefaults::suite("ending")->integer("last"), 7);
}

TEST_F(UserDefaultsTest, ABurstOfWritesReturnsAtOnceAndIsWrittenOnce) {
  auto defaults = kp::UserDefaults::suite("burst");
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 10'000; ++i) defaults->setInteger(i, "key" + std::to_string(i % 100));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_LT(elapsed, 2s);  // memory speed even under the sanitizers
  ASSERT_TRUE(defaults->synchronize());
  // Writes wait for a pause in the changes, and for a second at most while they continue;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(elapsed).count();
  EXPECT_LE(defaults->fileWriteCount(),
            3U + 2U * static_cast<std::uint64_t>(seconds));  // stalls of a loaded machine count as pauses
  EXPECT_EQ(*readSuite(suiteFile("burst")).find("key99")->ifInteger(), 9999);
  // Without synchronize(), the write still happens a moment later.
  defaults->setInteger(1, "late");
  EXPECT_TRUE(eventually([&] { return readSuite(suiteFile("burst")).find("late") != nullptr; }));
}

TEST_F(UserDefaultsTest, ProcessesSharingASuiteKeepEachOthersKeys) {
  auto defaults = kp::UserDefaults::suite("shared");
  defaults->setObject(std::string("mine"), "ours");
  ASSERT_TRUE(defaults->synchronize());

  // The other process writes a key of its own while ours waits unwritten; neither is lost.
  defaults->setObject(std::string("pending"), "ours too");
  ASSERT_EQ(kpcore("defaults write --suite shared theirs -int 12").status, 0);
  ASSERT_TRUE(defaults->synchronize());
  const Value file = readSuite(suiteFile("shared"));
  EXPECT_NE(file.find("ours"), nullptr);
  EXPECT_NE(file.find("ours too"), nullptr);
  EXPECT_NE(file.find("theirs"), nullptr);
  EXPECT_EQ(defaults->integer("theirs"), 12);

  // Their changes reach this process without asking.
  ASSERT_EQ(kpcore("defaults write --suite shared later -bool yes").status, 0);
  EXPECT_TRUE(eventually([&] { return defaults->bool_("later"); }));
  ASSERT_EQ(kpcore("defaults delete --suite shared theirs").status, 0);
  EXPECT_TRUE(eventually([&] { return !defaults->object("theirs"); }));

  // Both sides writing many keys at the same time.
  std::thread other([&] {
    for (int i = 0; i < 8; ++i) kpcore("defaults write --suite shared other" + std::to_string(i) + " -int 1");
  });
  for (int i = 0; i < 40; ++i) {
    defaults->setInteger(i, "own" + std::to_string(i));
    std::this_thread::sleep_for(5ms);
  }
  other.join();
  ASSERT_TRUE(defaults->synchronize());
  const Value merged = readSuite(suiteFile("shared"));
  for (int i = 0; i < 8; ++i) EXPECT_NE(merged.find("other" + std::to_string(i)), nullptr) << i;
  for (int i = 0; i < 40; ++i) EXPECT_NE(merged.find("own" + std::to_string(i)), nullptr) << i;
}

TEST_F(UserDefaultsTest, DamagedFilesAreSetAsideAndTheSuiteStartsEmpty) {
  fs::create_directories(folder());
  const std::string valid = kp::writePropertyList(Value(Value::Dictionary{{"a", 1}})).toString();
  const std::pair<const char*, std::string> cases[] = {
      {"truncated", valid.substr(0, valid.size() - 5)},
      {"text", "this is not a property list"},
      {"array", kp::writePropertyList(Value(Value::Array{1, 2})).toString()},
      {"empty", ""},
  };
  for (const auto& [suite, bytes] : cases) {
    std::ofstream(suiteFile(suite), std::ios::binary) << bytes;
    auto defaults = kp::UserDefaults::suite(suite);
    EXPECT_TRUE(defaults->dictionaryRepresentation().empty()) << suite;
    const auto aside = asideFiles(suite);
    ASSERT_EQ(aside.size(), 1U) << suite;
    EXPECT_EQ(readFile(aside[0]), bytes) << suite;
    ASSERT_EQ(defaults->fileStatus().setAside.size(), 1U) << suite;
    EXPECT_NE(defaults->fileStatus().setAside[0].find(aside[0].string()), std::string::npos) << suite;
    defaults->setInteger(1, "fresh");
    EXPECT_TRUE(defaults->synchronize()) << suite;
    EXPECT_EQ(*readSuite(suiteFile(suite)).find("fresh")->ifInteger(), 1) << suite;
  }
  // A folder where the file should be cannot be read; it is moved aside the same way.
  fs::create_directories(suiteFile("folder"));
  auto defaults = kp::UserDefaults::suite("folder");
  EXPECT_EQ(asideFiles("folder").size(), 1U);
  defaults->setInteger(2, "fresh");
  EXPECT_TRUE(defaults->synchronize());
  // So is a named pipe, which must not make the reader wait for a writer that never comes.
  ASSERT_EQ(::mkfifo(suiteFile("pipe").c_str(), 0600), 0);
  const auto piped =
      kp::test::runCommand("timeout -s KILL 20 " + std::string(KPCORE_PATH) + " defaults read --suite pipe 2>&1");
  EXPECT_EQ(piped.status, 0) << piped.output;
  EXPECT_EQ(asideFiles("pipe").size(), 1U);
  // Setting the suite aside is said, not only done.
  EXPECT_EQ(piped.output, "kpcore defaults: User defaults suite file " + suiteFile("pipe").string() + " is damaged (" +
                              suiteFile("pipe").string() + " is not a regular file); moved to " +
                              asideFiles("pipe")[0].string() + ", starting empty\n{}\n");

  // Another process damaging a suite this one has open is noticed too.
  auto live = kp::UserDefaults::suite("live");
  live->setInteger(3, "x");
  ASSERT_TRUE(live->synchronize());
  std::ofstream(suiteFile("live"), std::ios::binary) << "garbage";
  EXPECT_TRUE(eventually([&] { return asideFiles("live").size() == 1; }));
  EXPECT_TRUE(eventually([&] { return !live->object("x"); }));
}

TEST_F(UserDefaultsTest, AFileThatCannotBeReadNowIsLeftAloneAndNeverOverwritten) {
  const fs::path file = suiteFile("unreadable");
  if (kp::test::inTestChild()) {
    if (std::ifstream(file)) GTEST_SKIP() << "this process reads files whatever their mode";
    auto defaults = kp::UserDefaults::suite("unreadable");
    EXPECT_FALSE(defaults->object("kept"));
    EXPECT_NE(defaults->fileStatus().readError.value_or("").find("Permission denied"), std::string::npos);
    // The tool says why instead of showing an empty suite.
    for (const char* command :
         {"read --suite unreadable", "read --suite unreadable kept", "write --suite unreadable k v"}) {
      const auto tool = kpcore(std::string("defaults ") + command);
      EXPECT_EQ(tool.status, 1) << command;
      EXPECT_EQ(tool.output,
                "kpcore defaults: cannot read the suite: cannot open " + file.string() + ": Permission denied\n")
          << command;
    }
    EXPECT_TRUE(fs::exists(file));
    EXPECT_TRUE(asideFiles("unreadable").empty());
    // A write must not replace keys it could not read with its own alone.
    defaults->setInteger(2, "added");
    EXPECT_FALSE(defaults->synchronize());
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(readSuite(file).ifDictionary()->size(), 1U);
    // Once it can be read, its keys and the change meet.
    EXPECT_TRUE(defaults->synchronize());
    EXPECT_EQ(defaults->integer("kept"), 1);
    EXPECT_EQ(*readSuite(file).find("added")->ifInteger(), 2);
    EXPECT_EQ(*readSuite(file).find("kept")->ifInteger(), 1);
    return;
  }
  fs::create_directories(folder());
  std::ofstream(file, std::ios::binary) << kp::writePropertyList(Value(Value::Dictionary{{"kept", 1}})).toString();
  fs::permissions(file, fs::perms::none);
  // Without the capabilities that let root read any file, the mode applies to root too.
  const std::string wrapper = ::geteuid() == 0 ? "setpriv --bounding-set=-dac_override,-dac_read_search" : "";
  const auto child = kp::test::runThisTestInChild("KP_TEST_CONFIG=" + kp::test::shellQuote(root_.string()), wrapper);
  if (child.output.find("[  SKIPPED ]") != std::string::npos) GTEST_SKIP() << child.output;
  EXPECT_EQ(child.status, 0) << child.output;
  EXPECT_NE(child.output.find("[  PASSED  ] 1 test"), std::string::npos) << child.output;
}

TEST_F(UserDefaultsTest, AKilledWriterLeavesTheOldFileOrTheNew) {
  if (kp::test::inTestChild()) {
    // The writer: rewrites a large value until it is killed. Each round's value is one byte
    // repeated, so a torn file would show mixed bytes.
    auto defaults = kp::UserDefaults::suite("killed");
    for (std::int64_t round = 1;; ++round) {
      defaults->setObject(kp::Data(std::vector<std::uint8_t>(2 << 20, static_cast<std::uint8_t>(round))), "payload");
      defaults->setInteger(round, "round");
      defaults->synchronize();
    }
  }
  const fs::path file = suiteFile("killed");
  std::mt19937 random(42);
  double startup = 0.3;  // seconds until the writer writes; longer on a busy machine
  for (int round = 0; round < 8; ++round) {
    const std::string after = std::to_string(startup + static_cast<double>(random() % 500) / 1000.0);
    (void)kp::test::runThisTestInChild("KP_TEST_CONFIG=" + kp::test::shellQuote(root_.string()),
                                       "timeout -s KILL " + after);
    if (!fs::exists(file)) {  // killed before its first write
      startup = std::min(startup * 2, 4.0);
      continue;
    }
    const Value value = readSuite(file);  // throws (and fails the test) for a torn file
    const kp::Data* payload = value.find("payload")->ifData();
    ASSERT_NE(payload, nullptr);
    ASSERT_EQ(payload->size(), 2U << 20);
    // Every byte is the round's: a value is written whole or not at all. (A second key set
    // after it may land in a later write, so the round is read from the value itself.)
    const std::vector<std::uint8_t> expected(payload->size(), payload->data()[0]);
    EXPECT_EQ(std::memcmp(payload->data(), expected.data(), expected.size()), 0);
  }
  EXPECT_TRUE(fs::exists(file));

  // Temporary files of killed writers are cleared when the suite is opened, unless they may
  // belong to a writer that is still at work.
  const fs::path stale = folder() / ".kp-partial-killed.plist.stale1";
  const fs::path recent = folder() / ".kp-partial-killed.plist.recent";
  std::ofstream(stale) << "x";
  std::ofstream(recent) << "x";
  fs::last_write_time(stale, fs::file_time_type::clock::now() - std::chrono::hours(1));
  auto reader = kp::UserDefaults::suite("killed");
  EXPECT_FALSE(fs::exists(stale));
  EXPECT_TRUE(fs::exists(recent));
  EXPECT_GT(reader->integer("round"), 0);
}

TEST_F(UserDefaultsTest, AFullDiskLeavesTheOldFileAndTheChangesPending) {
  auto defaults = kp::UserDefaults::suite("full");
  defaults->setObject(std::string("old"), "value");
  ASSERT_TRUE(defaults->synchronize());
  const std::uintmax_t oldSize = fs::file_size(suiteFile("full"));

  // A file-size limit makes writes fail part-way, as a full disk does.
  rlimit previous{};
  ::getrlimit(RLIMIT_FSIZE, &previous);
  auto* previousHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limited = previous;
  limited.rlim_cur = 64 * 1024;
  ::setrlimit(RLIMIT_FSIZE, &limited);
  defaults->setObject(kp::Data::zeros(1 << 20), "value");
  const bool written = defaults->synchronize();
  // Looked at while the disk is still full: once there is room, the store's own scheduled
  // write may land the change at any moment.
  const auto writeError = defaults->fileStatus().writeError;
  const std::uintmax_t sizeWhileFull = fs::file_size(suiteFile("full"));
  const Value fileWhileFull = readSuite(suiteFile("full"));
  ::setrlimit(RLIMIT_FSIZE, &previous);
  std::signal(SIGXFSZ, previousHandler);

  EXPECT_FALSE(written);
  EXPECT_NE(writeError.value_or("").find("File too large"), std::string::npos);
  EXPECT_EQ(sizeWhileFull, oldSize);
  EXPECT_EQ(*fileWhileFull.find("value")->ifString(), "old");
  EXPECT_EQ(defaults->data("value")->size(), 1U << 20);  // memory keeps the change
  EXPECT_TRUE(defaults->synchronize());                  // and it is written once there is room
  EXPECT_EQ(defaults->fileStatus().writeError, std::nullopt);
  EXPECT_EQ(readSuite(suiteFile("full")).find("value")->ifData()->size(), 1U << 20);
  // The tool says why a write failed; the file holds a megabyte already, more than the limit.
  const auto tool = kp::test::runCommand("ulimit -f 64; trap '' XFSZ; " + std::string(KPCORE_PATH) +
                                         " defaults write --suite full more -data 00 2>&1");
  EXPECT_EQ(tool.status, 1);
  EXPECT_EQ(tool.output, "kpcore defaults: could not write " + suiteFile("full").string() + ": cannot write " +
                             suiteFile("full").string() + ": File too large\n");

  // A suite too large to be read back is not written either: the next reader would find the
  // file damaged and start without any of its keys.
  defaults->setObject(kp::Data::zeros(kp::storage_detail::SuiteStore::kMaxFileSize), "huge");
  EXPECT_FALSE(defaults->synchronize());
  const auto reader = kpcore("defaults read --suite full value");
  EXPECT_EQ(reader.status, 0) << reader.output;
  EXPECT_TRUE(asideFiles("full").empty());
  defaults->removeObject("huge");
  EXPECT_TRUE(defaults->synchronize());
}

TEST_F(UserDefaultsTest, ASuiteItWroteIsReadBackWholeEvenAsALink) {
  // The writer stores one repeated text once; readers must still take the file.
  auto defaults = kp::UserDefaults::suite("repeats");
  for (int i = 0; i < 25; ++i) defaults->setObject(std::string(120'000, 'r'), "k" + std::to_string(i));
  ASSERT_TRUE(defaults->synchronize());
  const auto read = kpcore("defaults read --suite repeats k24");
  EXPECT_EQ(read.status, 0);
  EXPECT_EQ(read.output, std::string(120'000, 'r') + "\n");
  EXPECT_TRUE(asideFiles("repeats").empty());

  // A suite file that links to a file elsewhere (as dotfile setups keep them) stays a link.
  fs::create_directories(root_ / "dotfiles");
  std::ofstream(root_ / "dotfiles" / "linked.plist", std::ios::binary)
      << kp::writePropertyList(Value(Value::Dictionary{{"theirs", 1}})).toString();
  fs::create_symlink("../../dotfiles/linked.plist", suiteFile("linked"));
  auto linked = kp::UserDefaults::suite("linked");
  EXPECT_EQ(linked->integer("theirs"), 1);
  linked->setInteger(2, "ours");
  ASSERT_TRUE(linked->synchronize());
  EXPECT_TRUE(fs::is_symlink(suiteFile("linked")));
  EXPECT_EQ(*readSuite(root_ / "dotfiles" / "linked.plist").find("ours")->ifInteger(), 2);
  EXPECT_EQ(std::distance(fs::directory_iterator(root_ / "dotfiles"), fs::directory_iterator()), 1);
}

TEST_F(UserDefaultsTest, ManyThreadsReadAndWriteOneSuite) {
  auto defaults = kp::UserDefaults::suite("threads");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      auto same = kp::UserDefaults::suite("threads");  // another object over the same values
      for (int i = 0; i < 500; ++i) {
        same->setInteger(i, "t" + std::to_string(t));
        (void)defaults->integer("t" + std::to_string((t + 1) % 4));
        if (i % 100 == 0) (void)defaults->synchronize();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(defaults->synchronize());
  for (int t = 0; t < 4; ++t) EXPECT_EQ(defaults->integer("t" + std::to_string(t)), 499);
  EXPECT_EQ(readSuite(suiteFile("threads")).ifDictionary()->size(), 4U);
}

}  // namespace
