// Keyed storage: the in-memory store, the typed containers over any store, the user-defaults
// additions (lists, encodable values, archived objects) and the member wrapper.
#include "kp/storage/keyed_storage.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "kp/coding/property_list.h"
#include "kp/container/dependency.h"
#include "kp/storage/dictionary_storage.h"
#include "kp/storage/user_defaults.h"
#include "storage/suite_store.h"
#include "support/assertion_capture.h"
#include "support/temp_dir.h"

namespace app {

enum class Setting { units, count, city, forecast, list, missing };
std::string_view storageKey(Setting s) {
  switch (s) {
    case Setting::units:
      return "units";
    case Setting::count:
      return "count";
    case Setting::city:
      return "city";
    case Setting::forecast:
      return "forecast";
    case Setting::list:
      return "list";
    case Setting::missing:
      return "missing";
  }
  return "";
}

// A key type that names its text with a member, returned by value.
struct Named {
  std::string name;
  [[nodiscard]] std::string key() const { return "named." + name; }
  friend bool operator==(const Named&, const Named&) = default;
};

struct City {
  std::string name;
  double latitude = 0;
};
BOOST_DESCRIBE_STRUCT(City, (), (name, latitude))

struct Station {
  std::string id;
};
BOOST_DESCRIBE_STRUCT(Station, (), (id))

class Forecast : public kp::Archivable {
 public:
  std::string city;
  std::string archiveClassName() const override { return "KPStorageTestForecast"; }
  void encode(kp::ArchiveEncoder& c) const override { c.encodeObject("city", city); }
  static std::shared_ptr<Forecast> decode(kp::ArchiveDecoder& c) {
    auto f = std::make_shared<Forecast>();
    f->city = c.decodeString("city").value_or("");
    return f;
  }
};
const kp::ArchiveRegistration<Forecast> registration{"KPStorageTestForecast"};

// Archived under a name this process never registered.
class RenamedForecast : public Forecast {
 public:
  std::string archiveClassName() const override { return "OldAppForecast"; }
};

}  // namespace app

namespace {

using app::Setting;

static_assert(kp::StorageKey<Setting> && kp::StorageKey<app::Named>);
static_assert(!kp::StorageKey<int>);

// A configuration folder of its own; every suite is written before the folder goes, so that
// no late write brings it back.
class ConfigFolder {
 public:
  ConfigFolder() { ::setenv("XDG_CONFIG_HOME", dir_.path().c_str(), 1); }  // NOLINT(concurrency-mt-unsafe)
  ~ConfigFolder() { kp::storage_detail::SuiteStore::synchronizeAll(); }
  ConfigFolder(const ConfigFolder&) = delete;
  ConfigFolder& operator=(const ConfigFolder&) = delete;

 private:
  kp::test::TempDir dir_;
};

TEST(DictionaryStorage, KeepsValuesAsGivenAndConvertsNothing) {
  kp::DictionaryStorage storage({{"seed", std::any(std::string("x"))}});
  storage.setObject(std::string("5"), "text");
  storage.setObject("literal", "pointer");
  storage.setObject(5, "int");
  storage.setObject(2.5F, "float");
  storage.setBool(true, "bool");
  EXPECT_EQ(storage.string("seed"), "x");
  EXPECT_EQ(storage.integer("text"), 0);
  EXPECT_EQ(storage.string("int"), std::nullopt);
  EXPECT_EQ(storage.string("pointer"), "literal");
  EXPECT_EQ(storage.integer("int"), 5);  // any integer type
  EXPECT_EQ(storage.integer("bool"), 0);
  EXPECT_EQ(storage.double_("float"), 0.0);  // a float is not a double
  EXPECT_EQ(storage.float_("float"), 2.5F);
  EXPECT_FALSE(storage.bool_("int"));
  storage.setObject(std::nullopt, "text");
  storage.removeObject("int");
  EXPECT_EQ(storage.object("text"), std::nullopt);
  EXPECT_EQ(storage.content().size(), 4U);

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        storage.setInteger(i, "t" + std::to_string(t));
        (void)storage.integer("t" + std::to_string((t + 1) % 4));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(storage.integer("t" + std::to_string(t)), 199);
}

// The same container behaviour over the in-memory store and over a user-defaults suite.
class ContainerTest : public ::testing::TestWithParam<bool> {
 protected:
  ContainerTest()
      : storage_(GetParam() ? std::shared_ptr<tarvix::KeyedStorageService>(kp::UserDefaults::suite("containers"))
                            : std::make_shared<kp::DictionaryStorage>()),
        settings_(storage_) {}

  ConfigFolder folder_;
  std::shared_ptr<tarvix::KeyedStorageService> storage_;
  kp::KeyedStorageContainer<Setting> settings_;
};

TEST_P(ContainerTest, WrongTypesGiveTheDefaultAndLeaveTheValue) {
  kp::test::AssertionCapture capture;
  settings_.setObject(std::string("metric"), Setting::units);
  EXPECT_EQ(settings_.object<std::string>(Setting::units), "metric");
  EXPECT_EQ(settings_.object<std::int64_t>(Setting::units, [] { return std::int64_t{9}; }), 9);
  EXPECT_EQ(settings_.string(Setting::units), "metric");  // still stored
  EXPECT_EQ(settings_.object<int>(Setting::missing, [] { return 3; }), 3);
  settings_.setInteger(41, Setting::count);
  EXPECT_EQ(settings_.object<int>(Setting::count), 41);  // an integer reads as any integer type
  EXPECT_EQ(settings_.object<double>(Setting::count), 41.0);
  EXPECT_EQ(settings_.object<std::uint8_t>(Setting::count, [] { return std::uint8_t{0}; }), 41);
  settings_.setInteger(300, Setting::count);
  EXPECT_EQ(settings_.object<std::uint8_t>(Setting::count, [] { return std::uint8_t{7}; }), 7);  // does not fit
  EXPECT_TRUE(capture.messages().empty());  // data problems go to the log, not the assertion hook

  kp::KeyedStorageContainer<app::Named> named(storage_);
  named.setBool(true, app::Named{"flag"});
  EXPECT_TRUE(storage_->bool_("named.flag"));
  EXPECT_TRUE(named.synchronize());
}

TEST_P(ContainerTest, EncodableValuesRoundTripAndFailuresChangeNothing) {
  settings_.setEncodable(app::City{"Bern", 46.95}, Setting::city);
  auto city = settings_.decodable<app::City>(Setting::city);
  ASSERT_TRUE(city);
  EXPECT_EQ(city->name, "Bern");
  EXPECT_EQ(settings_.decodable<app::Station>(Setting::city), std::nullopt);  // another type
  EXPECT_EQ(settings_.decodable<app::City>(Setting::missing), std::nullopt);
  settings_.setEncodable(12, Setting::count);
  EXPECT_EQ(settings_.decodable<int>(Setting::count), 12);  // scalars travel wrapped

  kp::test::AssertionCapture capture;
  settings_.setEncodable(app::City{"\xff", 0}, Setting::city);  // text a property list cannot hold
  ASSERT_EQ(capture.messages().size(), 1U);
  EXPECT_EQ(capture.messages()[0].rfind("Failed to encode: ", 0), 0U);
  EXPECT_EQ(settings_.decodable<app::City>(Setting::city)->name, "Bern");
}

TEST_P(ContainerTest, ArchivedObjectsReadBackByClass) {
  auto forecast = std::make_shared<app::Forecast>();
  forecast->city = "Thun";
  settings_.setObject(std::any(*kp::KeyedArchiver::archivedData(forecast)), Setting::forecast);
  auto back = settings_.unarchivedObject<app::Forecast>(Setting::forecast);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->city, "Thun");
  settings_.setObject(std::any(*kp::KeyedArchiver::archivedData(std::string("plain"))), Setting::units);
  EXPECT_EQ(settings_.unarchivedObject<std::string>(Setting::units), "plain");
  EXPECT_EQ(settings_.unarchivedObject<app::Forecast>(Setting::units), nullptr);
  settings_.setObject(std::any(kp::Data::fromString("not an archive")), Setting::units);
  EXPECT_EQ(settings_.unarchivedObject<std::string>(Setting::units), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Stores, ContainerTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& p) {
                           return p.param ? "UserDefaults" : "Dictionary";
                         });

TEST(UserDefaultsContainer, ListsArchivesAndSuites) {
  ConfigFolder folder;
  auto defaults = kp::UserDefaults::suite("additions");
  auto settings = defaults->container<Setting>();
  settings.setObject(std::vector<std::string>{"a", "b"}, Setting::list);
  EXPECT_EQ(settings.array<std::string>(Setting::list), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(settings.array<int>(Setting::list), std::nullopt);
  EXPECT_EQ(settings.array<int>(Setting::list, [] { return std::vector<int>{0}; }), std::vector<int>{0});

  settings.encode(app::City{"Chur", 46.85}, Setting::city);
  EXPECT_EQ(settings.decode<app::City>(Setting::city)->name, "Chur");
  EXPECT_EQ(defaults->decode<app::City>("city")->latitude, 46.85);

  auto forecast = std::make_shared<app::Forecast>();
  forecast->city = "Sion";
  settings.setArchivable(kp::ArchiveValue(forecast), Setting::forecast);
  EXPECT_EQ(settings.unarchivedObject<app::Forecast>(Setting::forecast)->city, "Sion");
  // The same archive as an older build wrote it, under a class name nobody registers now.
  kp::Value tree = kp::readPropertyList(settings.object<kp::Data>(Setting::forecast)->bytes());
  for (auto& [section, objects] : *tree.ifDictionary()) {
    if (section != "$objects") continue;
    for (kp::Value& object : *objects.ifArray()) {
      if (kp::Value::Dictionary* d = object.ifDictionary()) {
        for (auto& [key, value] : *d) {
          if (key == "$classname" && *value.ifString() == "KPStorageTestForecast") value = "OldAppForecast";
        }
      }
    }
  }
  settings.setObject(std::any(kp::writePropertyList(tree)), Setting::forecast);
  auto fallback = [] { return std::shared_ptr<const app::Forecast>(); };
  EXPECT_EQ(settings.unarchivedObject<app::Forecast>(Setting::forecast, {}, fallback), nullptr);
  auto mapped = settings.unarchivedObject<app::Forecast>(Setting::forecast,
                                                         {{"OldAppForecast", "KPStorageTestForecast"}}, fallback);
  ASSERT_TRUE(mapped);
  EXPECT_EQ(mapped->city, "Sion");
  EXPECT_EQ(settings.unarchivedObject<std::string>(Setting::missing, {}, [] { return std::string("none"); }), "none");
  settings.setArchivable(std::nullopt, Setting::forecast);
  EXPECT_EQ(settings.object(Setting::forecast), std::nullopt);

  EXPECT_FALSE(kp::UserDefaults::container<Setting>("a/b"));
  auto other = kp::UserDefaults::container<Setting>("additions");
  ASSERT_TRUE(other);
  EXPECT_EQ(other->decode<app::City>(Setting::city)->name, "Chur");  // the same suite's values
}

TEST(UserDefaultsContainer, StoresArchivedObjectsByKey) {
  ConfigFolder folder;
  auto defaults = kp::UserDefaults::suite("objects");
  kp::DataStorable& store = *defaults;
  auto forecast = std::make_shared<app::Forecast>();
  forecast->city = "Aarau";
  store.saveObject(kp::ArchiveValue(forecast), "forecast");
  auto back = store.getObjectForKey("forecast");
  ASSERT_TRUE(back);
  EXPECT_EQ(back->object<app::Forecast>()->city, "Aarau");

  // Nothing, or an object that cannot be archived, removes the key.
  store.saveObject(std::nullopt, "forecast");
  EXPECT_EQ(defaults->object("forecast"), std::nullopt);
  store.saveObject(kp::ArchiveValue(std::string("kept")), "other");
  store.saveObject(kp::ArchiveValue(std::make_shared<app::RenamedForecast>()), "other");  // class not registered
  EXPECT_EQ(defaults->object("other"), std::nullopt);

  defaults->setObject(std::string("text"), "text");
  defaults->setObject(kp::Data::fromString("garbage"), "garbage");
  EXPECT_EQ(store.getObjectForKey("text"), std::nullopt);
  EXPECT_EQ(store.getObjectForKey("garbage"), std::nullopt);
}

TEST(KeyedStorageWrapper, ResolvesTheServiceOrFallsBackToMemory) {
  auto shared = std::make_shared<kp::DictionaryStorage>();
  shared->setInteger(5, "count");
  kp::withDependencies([&](kp::DefaultServiceContainer& c) { c.registerInstance<tarvix::KeyedStorageService>(shared); },
                       [] {
                         kp::KeyedStorage<Setting> settings;
                         EXPECT_EQ(settings->integer(Setting::count), 5);
                         settings->setInteger(6, Setting::count);
                       });
  EXPECT_EQ(shared->integer("count"), 6);

  kp::test::AssertionCapture capture;  // nothing is registered in an empty container
  kp::KeyedStorage<Setting> orphan(std::make_shared<kp::Services>(std::make_shared<kp::DefaultServiceContainer>()));
  EXPECT_EQ(capture.messages().size(), 1U);
  orphan->setInteger(1, Setting::count);
  EXPECT_EQ(orphan->integer(Setting::count), 1);
}

}  // namespace
