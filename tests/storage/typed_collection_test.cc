// Type-tagged collections with the property-list and JSON coders.
#include <gtest/gtest.h>

#include "kp/coding/json.h"
#include "kp/coding/property_list.h"
#include "kp/storage/codable_typed_collection.h"

namespace feed {

struct WeatherCard {
  std::string city;
  double temperature = 0;
  friend bool operator==(const WeatherCard&, const WeatherCard&) = default;
};
BOOST_DESCRIBE_STRUCT(WeatherCard, (), (city, temperature))

struct AdCard {
  std::string campaign;
  friend bool operator==(const AdCard&, const AdCard&) = default;
};
BOOST_DESCRIBE_STRUCT(AdCard, (), (campaign))

struct NewsCard {
  std::string headline;
  friend bool operator==(const NewsCard&, const NewsCard&) = default;
};
BOOST_DESCRIBE_STRUCT(NewsCard, (), (headline))

}  // namespace feed

namespace {

using feed::AdCard;
using feed::NewsCard;
using feed::WeatherCard;
using kp::AnyCodable;
using kp::CodableTypedCollection;

std::vector<AnyCodable> sampleFeed() {
  return {AnyCodable(WeatherCard{"Bern", 21.5}), AnyCodable(AdCard{"spring"}), AnyCodable(NewsCard{"Storm"}),
          AnyCodable(WeatherCard{"Thun", 19})};
}

TEST(CodableTypedCollection, KeepsTheKnownKindsInWrittenOrder) {
  const kp::Data blob = CodableTypedCollection::encode(sampleFeed(), std::nullopt, kp::PropertyListEncoder());
  kp::PropertyListDecoder decoder;
  const CodableTypedCollection::Decoders known{kp::TypedDecoder<WeatherCard>::make(),
                                               kp::TypedDecoder<NewsCard>::make()};
  const auto all = CodableTypedCollection::decode<AnyCodable>(blob, known, decoder);
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(*all[0].get<WeatherCard>(), (WeatherCard{"Bern", 21.5}));
  EXPECT_EQ(all[1].get<NewsCard>()->headline, "Storm");
  EXPECT_EQ(all[2].get<WeatherCard>()->city, "Thun");
  EXPECT_EQ(CodableTypedCollection::decode<WeatherCard>(blob, known, decoder).size(), 2U);
  EXPECT_TRUE(decoder.userInfo.empty());  // the table was handed back

  // The stored form: a list of {"type", "data"} with plain type names.
  const kp::Value tree = kp::readPropertyList(blob.bytes());
  ASSERT_EQ(tree.ifArray()->size(), 4U);
  const kp::Value& first = (*tree.ifArray())[0];
  EXPECT_EQ(first.ifDictionary()->front().first, "type");
  EXPECT_EQ(*first.find("type")->ifString(), "WeatherCard");
  EXPECT_EQ(*first.find("data")->find("city")->ifString(), "Bern");
}

TEST(CodableTypedCollection, NamesChooseTagsAndDecoders) {
  // A custom tag for one kind; the others keep their type names.
  const CodableTypedCollection::Encoders encoders{kp::TypedEncoder<AdCard>::make("promo"),
                                                  kp::TypedEncoder<AdCard>::make("ignored")};
  kp::JsonEncoder json;
  const kp::Data blob = CodableTypedCollection::encode(sampleFeed(), encoders, json);
  EXPECT_NE(blob.view().find("\"type\":\"promo\""), std::string_view::npos) << blob.view();
  EXPECT_NE(blob.view().find("\"type\":\"NewsCard\""), std::string_view::npos);

  kp::JsonDecoder decoder;
  decoder.userInfo["other"] = 1;
  // One decoder for two names; a later decoder of the same name replaces an earlier one.
  const CodableTypedCollection::Decoders decoders{
      kp::TypedDecoder<NewsCard>::make(std::string("promo")),
      kp::TypedDecoder<AdCard>::make(std::vector<std::string>{"promo", "advert"})};
  const auto ads = CodableTypedCollection::decode<AdCard>(blob, decoders, decoder);
  ASSERT_EQ(ads.size(), 1U);
  EXPECT_EQ(ads[0].campaign, "spring");
  const auto viaOtherName = CodableTypedCollection::decode<AdCard>(
      kp::Data::fromString(R"([{"type":"advert","data":{"campaign":"x"}}])"), decoders, decoder);
  EXPECT_EQ(viaOtherName.at(0).campaign, "x");
  EXPECT_EQ(decoder.userInfo.size(), 1U);
  EXPECT_FALSE(decoder.userInfo.contains("decoders"));

  const kp::Data empty = CodableTypedCollection::encode({}, std::nullopt, json);
  EXPECT_TRUE(CodableTypedCollection::decode<AnyCodable>(empty, decoders, decoder).empty());
}

TEST(CodableTypedCollection, MalformedDataFailsTheCall) {
  kp::JsonDecoder decoder;
  const CodableTypedCollection::Decoders decoders{kp::TypedDecoder<AdCard>::make()};
  const auto decode = [&](std::string_view text) {
    return CodableTypedCollection::decode<AdCard>(kp::Data::fromString(text), decoders, decoder);
  };
  EXPECT_THROW(decode(R"({"type":"AdCard"})"), kp::CodingError);                      // not a list
  EXPECT_THROW(decode(R"([{"data":{"campaign":"x"}}])"), kp::CodingError);            // no tag
  EXPECT_THROW(decode(R"([{"type":"AdCard","data":{"nope":1}}])"), kp::CodingError);  // the decoder fails
  EXPECT_THROW(decode(R"([{"type":"AdCard"}])"), kp::CodingError);                    // no data for a known tag
  EXPECT_EQ(decode(R"([{"type":"Unknown"},{"type":"AdCard","data":{"campaign":"y"}}])").size(), 1U);
  EXPECT_FALSE(decoder.userInfo.contains("decoders"));  // handed back after a failure too
}

}  // namespace
