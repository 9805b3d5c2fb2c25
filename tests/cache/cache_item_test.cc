// Cache entries: their coded form, the tolerated failures, and what the database stores.
#include "kp/cache/cache_item.h"

#include <gtest/gtest.h>

#include <boost/describe/class.hpp>
#include <functional>

#include "cache/cache_database.h"
#include "kp/coding/property_list.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace app {
struct Forecast {
  std::string city;
  double high = 0;
  friend bool operator==(const Forecast&, const Forecast&) = default;
};
BOOST_DESCRIBE_STRUCT(Forecast, (), (city, high))

class Tile final : public kp::Archivable {
 public:
  explicit Tile(std::int64_t z) : zoom(z) {}
  std::int64_t zoom;
  std::string archiveClassName() const override { return "KPTestTile"; }
  void encode(kp::ArchiveEncoder& c) const override { c.encodeInt64("zoom", zoom); }
  static std::shared_ptr<Tile> decode(kp::ArchiveDecoder& c) { return std::make_shared<Tile>(c.decodeInt64("zoom")); }
  bool isEqual(const kp::Archivable& other) const override {
    const auto* tile = dynamic_cast<const Tile*>(&other);
    return tile && tile->zoom == zoom;
  }
};
const kp::ArchiveRegistration<Tile> tileRegistration{"KPTestTile"};
}  // namespace app

namespace {

using kp::CacheItem;
using kp::CacheItemType;

kp::Value codedForm(const CacheItem& item) {
  return kp::readPropertyList(kp::PropertyListEncoder().encode(item).bytes());
}

class CacheItemTest : public ::testing::Test {
 protected:
  CacheItemTest() : db_("centralcache.db", dir_.path()) { db_.prepare(); }
  kp::test::TempDir dir_;
  kp::CacheControllerDatabase db_;
};

TEST_F(CacheItemTest, RoundTripsThroughTheDatabaseWithPayloadAndExtraItems) {
  kp::CacheItemConfiguration config(3600);
  config.groupName = "tiles";
  config.rollingExpiration = true;
  CacheItem item(kp::ArchiveValue(std::make_shared<app::Tile>(7)), config);
  item.extraItems["result"] = kp::ArchiveValue(kp::ArchiveValue::Dictionary{{"status", 200}, {"etag", "abc"}});
  item.extraItems["url"] = kp::ArchiveValue(*kp::Url::parse("https://example.com/a%2Fb"));
  db_.encode(item, "tile/7");

  auto back = db_.decode<CacheItem>("tile/7");
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, item);
  EXPECT_EQ(back->item->object<app::Tile>()->zoom, 7);
  EXPECT_NEAR(back->creationDate().timeIntervalSince1970(), item.creationDate().timeIntervalSince1970(), 1e-3);
  EXPECT_EQ(db_.getCacheItemGroup("tile/7"), "tiles");

  // Stored forms other than the one written read back the same: XML, a whole-number age.
  auto coded = codedForm(item);
  EXPECT_EQ(CacheItem::decodeStored(kp::writePropertyList(coded, kp::PropertyListFormat::xml).bytes()), item);
  kp::Value policy = *coded.find("cacheConfiguration");
  policy.set("maximumAge", std::int64_t{3600});
  coded.set("cacheConfiguration", std::move(policy));
  EXPECT_EQ(CacheItem::decodeStored(kp::writePropertyList(coded).bytes()), item);

  // Entries that differ only in their creation date are equal; a changed group is not.
  CacheItem older = item;
  older.setCreationDate(item.creationDate().addingTimeInterval(-100));
  EXPECT_EQ(older, item);
  older.configuration.groupName.reset();
  EXPECT_NE(older, item);

  auto codable = kp::CodableCacheItem<app::Forecast>({"Zurich", 21.5}, kp::CacheItemConfiguration(60));
  db_.encode(codable, "forecast");
  auto forecast = db_.decode<kp::CodableCacheItem<app::Forecast>>("forecast");
  ASSERT_TRUE(forecast);
  EXPECT_EQ(forecast->item, (app::Forecast{"Zurich", 21.5}));
  EXPECT_EQ(forecast->configuration, kp::CacheItemConfiguration(60));
  EXPECT_FALSE(db_.decode<CacheItem>("forecast"));  // another shape: nothing, no crash
}

TEST_F(CacheItemTest, FileBackedAndUnarchivablePayloadsAreNotCoded) {
  CacheItem file(kp::ArchiveValue(kp::Data{1, 2, 3}), {}, CacheItemType::rawDataToFile);
  const auto coded = codedForm(file);
  EXPECT_FALSE(coded.find("item"));
  ASSERT_TRUE(coded.find("codingVersion"));
  EXPECT_EQ(coded.find("codingVersion")->ifInteger() ? *coded.find("codingVersion")->ifInteger() : -1, 1);
  auto back = kp::PropertyListDecoder().decode<CacheItem>(kp::PropertyListEncoder().encode(file));
  EXPECT_FALSE(back.item);
  EXPECT_EQ(back.cacheType, CacheItemType::rawDataToFile);

  CacheItem none;
  EXPECT_FALSE(codedForm(none).find("item"));
  EXPECT_TRUE(codedForm(CacheItem(kp::ArchiveValue("x"))).find("item"));
}

TEST_F(CacheItemTest, BadKindsGarbageRowsAndUnknownClassesAreHandled) {
  // Read by the generic decoder and from the stored form alike.
  const std::function<CacheItem(const kp::Data&)> readers[] = {
      [](const kp::Data& bytes) { return kp::PropertyListDecoder().decode<CacheItem>(bytes); },
      [](const kp::Data& bytes) { return CacheItem::decodeStored(bytes.bytes()); }};
  for (const auto& read : readers) {
    auto coded = codedForm(CacheItem(kp::ArchiveValue("x")));
    coded.set("cacheType", kp::Value(std::int64_t{3}));
    try {
      (void)read(kp::writePropertyList(coded));
      ADD_FAILURE() << "kind 3 decoded";
    } catch (const kp::CacheItemCodingError& error) {
      EXPECT_EQ(error.code(), kp::CacheItemCodingError::Code::invalidCacheItemType);
    }

    // A payload archived under a class this process does not know is dropped; the entry stays,
    // incomplete.
    auto unknown = codedForm(CacheItem(kp::ArchiveValue("x")));
    std::string archive = kp::KeyedArchiver::archivedData(std::make_shared<app::Tile>(1))->toString();
    for (auto pos = archive.find("KPTestTile"); pos != std::string::npos; pos = archive.find("KPTestTile")) {
      archive.replace(pos, 10, "KPZzzzTile");  // same length: the binary's offsets stay valid
    }
    unknown.set("item", kp::Value(kp::Data::fromString(archive)));
    unknown.set("extraItems", kp::Value(kp::Data{0xde, 0xad}));
    auto tolerant = read(kp::writePropertyList(unknown));
    EXPECT_FALSE(tolerant.item);
    EXPECT_TRUE(tolerant.extraItems.empty());
    EXPECT_FALSE(tolerant.isComplete());
  }

  // Rows whose data is garbage or the wrong shape decode to nothing.
  CacheItem placeholder;
  db_.saveRecord(kp::Data{0x62, 0x70, 0x6c, 0x69, 0x73, 0x74}, placeholder, "garbage");
  db_.saveRecord(kp::writePropertyList(kp::Value(std::int64_t{5})), placeholder, "scalar");
  EXPECT_FALSE(db_.decode<CacheItem>("garbage"));
  EXPECT_FALSE(db_.decode<CacheItem>("scalar"));
  EXPECT_FALSE(db_.decode<CacheItem>("missing"));
}

TEST_F(CacheItemTest, TheStoredFormReadsAsTheGeneralDecoderReadsIt) {
  // The database reads the form it writes where it lies; the general decoder reads the tree.
  CacheItem withExtras(kp::ArchiveValue(std::make_shared<app::Tile>(3)), kp::CacheItemConfiguration(60));
  withExtras.configuration.groupName = "tiles";
  withExtras.configuration.rollingExpiration = true;
  withExtras.extraItems["result"] = kp::ArchiveValue(kp::ArchiveValue::Dictionary{{"status", 200}});
  const CacheItem entries[] = {withExtras, CacheItem(kp::ArchiveValue(kp::Data{1, 2, 3})),
                               CacheItem(kp::ArchiveValue("text"), kp::CacheItemConfiguration(-1)),
                               CacheItem(kp::ArchiveValue(kp::Data{4}), {}, CacheItemType::rawDataToFile), CacheItem()};
  for (const auto& entry : entries) {
    const auto bytes = kp::CacheControllerDatabase::encodeEntry(entry);
    ASSERT_TRUE(bytes);
    const auto inPlace = CacheItem::decodeStored(bytes->bytes());
    const auto general = kp::PropertyListDecoder().decode<CacheItem>(*bytes);
    EXPECT_EQ(inPlace, general);
    EXPECT_EQ(inPlace.creationDate(), general.creationDate());
    EXPECT_EQ(inPlace.isComplete(), general.isComplete());
  }

  // An object the entry does not use is still read: damaged, it fails the entry as it fails the
  // general decoder (here the coding version, an integer given an impossible width).
  std::string damaged = kp::CacheControllerDatabase::encodeEntry(entries[1])->toString();
  const auto version = damaged.find("codingVersion") + std::string("codingVersion").size();
  ASSERT_EQ(damaged.substr(version, 2), std::string("\x10\x01"));
  damaged[version] = '\x15';
  EXPECT_THROW((void)CacheItem::decodeStored(kp::Data::fromString(damaged).bytes()), kp::CodingError);
}

TEST_F(CacheItemTest, StoredRowsAreStandardPropertyLists) {
  db_.encode(CacheItem(kp::ArchiveValue("payload"), kp::CacheItemConfiguration(60)), "k");
  const std::string script =
      "import plistlib,sqlite3,sys\n"
      "row=sqlite3.connect(sys.argv[1]).execute(\"SELECT data FROM cache WHERE id='k'\").fetchone()\n"
      "p=plistlib.loads(row[0])\n"
      "a=plistlib.loads(p['item'])\n"
      "print(p['codingVersion'],p['cacheType'],p['cacheConfiguration']['maximumAge'],a['$archiver'],"
      "a['$objects'][a['$top']['root'].data])\n";
  using kp::test::shellQuote;
  const auto run = kp::test::runCommand("python3 -c " + shellQuote(script) + " " +
                                        shellQuote((dir_.path() / "centralcache.db").string()) + " 2>&1");
  EXPECT_EQ(run.output, "1 0 60.0 NSKeyedArchiver payload\n");
}

}  // namespace
