// Keyed archives: built-in values, the classes a reader accepts, and hostile archives. (What
// other tools read of them is the interoperability test.)
#include "kp/coding/keyed_archiver.h"

#include <gtest/gtest.h>

#include "kp/coding/property_list.h"

namespace {

class Forecast : public kp::Archivable {
 public:
  std::string city;
  double high = 0;
  std::shared_ptr<const Forecast> previous;

  std::string archiveClassName() const override { return "KPForecast"; }
  void encode(kp::ArchiveEncoder& c) const override {
    c.encodeObject("city", city);
    c.encodeDouble("high", high);
    if (previous) c.encodeObject("previous", kp::ArchivablePtr(previous));
  }
  static std::shared_ptr<Forecast> decode(kp::ArchiveDecoder& c) {
    auto f = std::make_shared<Forecast>();
    f->city = c.decodeString("city").value_or("");
    f->high = c.decodeDouble("high");
    f->previous = c.decodeObjectOfClass<Forecast>("previous");
    return f;
  }
};
const kp::ArchiveRegistration<Forecast> registration{"KPForecast"};

std::set<std::string, std::less<>> allowing(std::initializer_list<std::string> extra) {
  auto s = kp::KeyedUnarchiver::propertyListClasses();
  s.insert(extra);
  return s;
}

TEST(KeyedArchiver, BuiltInValuesRoundTrip) {
  const auto underlying = kp::Error::make("NSURLErrorDomain", -1001, "timed out");
  const kp::ArchiveValue::Dictionary dict{
      {"s", "text"},
      {"i", std::int64_t{-7}},
      {"r", 2.5},
      {"b", true},
      {"d", kp::Data{1, 2, 3}},
      {"t", kp::Date::fromTimeIntervalSince1970(1e9)},
      {"u", *kp::Url::parse("https://example.com/a?b=c")},
      {"l", kp::ArchiveValue::Array{"x", std::int64_t{1}, nullptr}},
      {"e", kp::Error::make("KPRequest", 400, {{"NSLocalizedDescription", "bad"}}, underlying)},
  };
  const auto data = kp::KeyedArchiver::archivedData(dict);
  ASSERT_TRUE(data);
  const auto back = kp::KeyedUnarchiver::unarchivedObject(*data, allowing({"NSURL", "NSError"}));
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, kp::ArchiveValue(dict));
  const auto& error = *back->get<kp::ArchiveValue::Dictionary>()->at("e").get<kp::ErrorPtr>();
  ASSERT_TRUE(error->underlyingError());
  EXPECT_EQ(error->underlyingError()->code(), -1001);
  // The same archive without the error class is refused as a whole.
  EXPECT_FALSE(kp::KeyedUnarchiver::unarchivedObject(*data, allowing({"NSURL"})));
  // Written out as XML, where each object reference becomes a {CF$UID} dictionary, it reads the same.
  const auto xml = kp::writePropertyList(kp::readPropertyList(data->bytes()), kp::PropertyListFormat::xml);
  ASSERT_NE(std::string_view(reinterpret_cast<const char*>(xml.bytes().data()), xml.size()).find("CF$UID"),
            std::string_view::npos);
  const auto fromXml = kp::KeyedUnarchiver::unarchivedObject(xml, allowing({"NSURL", "NSError"}));
  ASSERT_TRUE(fromXml);
  EXPECT_EQ(*fromXml, kp::ArchiveValue(dict));
}

TEST(KeyedArchiver, RefusesUnacceptedAndWrongClasses) {
  auto f = std::make_shared<Forecast>();
  f->city = "Chur";
  f->high = 12;
  const auto data = kp::KeyedArchiver::archivedData(kp::ArchivablePtr(f));
  ASSERT_TRUE(data);
  EXPECT_TRUE(kp::KeyedUnarchiver::unarchivedObject<Forecast>(*data, {"KPForecast"}));
  EXPECT_FALSE(kp::KeyedUnarchiver::unarchivedObject<Forecast>(*data, {"NSString"}));
  // A value of another type than asked for.
  const auto text = kp::KeyedArchiver::archivedData("just text");
  EXPECT_FALSE(kp::KeyedUnarchiver::unarchivedObject<Forecast>(*text, {"KPForecast"}));
}

TEST(KeyedArchiver, HostileArchivesYieldNothing) {
  const auto archive = [](kp::Value objects, kp::Value root) {
    kp::Value a = kp::Value::Dictionary{};
    a.set("$archiver", "NSKeyedArchiver");
    a.set("$version", 100000);
    kp::Value top = kp::Value::Dictionary{};
    top.set("root", std::move(root));
    a.set("$top", std::move(top));
    a.set("$objects", std::move(objects));
    return kp::writePropertyList(a);
  };
  const auto cls = [] {
    kp::Value c = kp::Value::Dictionary{};
    c.set("$classname", "NSArray");
    c.set("$classes", kp::Value::Array{"NSArray", "NSObject"});
    return c;
  };
  const auto arrayOf = [](kp::Value::Array refs) {
    kp::Value a = kp::Value::Dictionary{};
    a.set("NS.objects", std::move(refs));
    a.set("$class", kp::Uid{1});
    return a;
  };
  const auto allowed = kp::KeyedUnarchiver::propertyListClasses();
  // An array containing itself.
  EXPECT_FALSE(kp::KeyedUnarchiver::unarchivedObject(
      archive(kp::Value::Array{"$null", cls(), arrayOf({kp::Uid{2}})}, kp::Uid{2}), allowed));
  // A reference past the end.
  EXPECT_FALSE(kp::KeyedUnarchiver::unarchivedObject(
      archive(kp::Value::Array{"$null", cls(), arrayOf({kp::Uid{99}})}, kp::Uid{2}), allowed));
  // Shared arrays that double at every level would expand to 2^40 nodes.
  kp::Value::Array objects{"$null", cls(), "leaf"};
  for (int i = 0; i < 40; ++i) {
    const auto prev = kp::Uid{objects.size() - 1};
    objects.push_back(arrayOf({prev, prev}));
  }
  EXPECT_FALSE(kp::KeyedUnarchiver::unarchivedObject(archive(objects, kp::Uid{objects.size() - 1}), allowed));
  // Not an archive at all.
  EXPECT_FALSE(kp::KeyedUnarchiver::unarchivedObject(kp::Data::fromString("junk"), allowed));
  EXPECT_FALSE(kp::KeyedUnarchiver::unarchivedObject(kp::writePropertyList(kp::Value::Array{}), allowed));
}

}  // namespace
