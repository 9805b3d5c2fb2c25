// The JSON helpers: parsing that never throws, both text forms, and typed reads by key path and
// JSON Pointer, which must convert exactly as JsonValue's own accessors do.
#include "kp/foundation/json.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using kp::JsonValue;

const JsonValue& forecast() {
  static const JsonValue doc = *kp::parseJson(std::string_view(R"({
    "current": {"temperature": 21.5, "code": 3, "wind": null, "summary": "Sonnig 🌤"},
    "days": [{"high": 24, "low": 12.0}, {"high": 2.5}],
    "a.b": {"c/d": {"e~f": true}},
    "7": "seven",
    "big": 18446744073709551615,
    "": "empty key"
  })"));
  return doc;
}

TEST(JsonHelpers, ParsingGivesAValueOrNothingAndSaysWhy) {
  EXPECT_EQ(kp::parseJson(kp::Data::fromString("[1,2]"))->size(), 2u);
  EXPECT_EQ(kp::objectFromJSONString("\"x\"")->stringValue(), "x");
  for (const std::string& bad : {std::string(), std::string("{\"a\":"), std::string("[1,]"), std::string("\"\xff\""),
                                 std::string("{} {}"), std::string(100000, '['), std::string("nul\0l", 5)}) {
    kp::ErrorPtr error;
    EXPECT_FALSE(kp::objectFromJSONData(kp::Data::fromString(bad), &error)) << bad.substr(0, 20);
    EXPECT_TRUE(error) << bad.substr(0, 20);
  }
  // A large document is read whole.
  std::string big = "[";
  for (int i = 0; i < 200000; ++i) big += std::to_string(i) + ",";
  big.back() = ']';
  const auto parsed = kp::parseJson(big);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(kp::jsonValueAtKeyPath<int>(*parsed, "199999"), 199999);
}

TEST(JsonHelpers, CompactAndPrettyTextReadBackAsTheSameValue) {
  const auto v = kp::parseJson(std::string_view(R"({"b":[1,{"c":"$null"}],"a":{},"d":[]})"));
  EXPECT_EQ(kp::jsonText(*v), R"({"b":[1,{"c":"$null"}],"a":{},"d":[]})");
  EXPECT_EQ(kp::jsonText(*v, kp::JsonFormat::pretty),
            "{\n  \"b\" : [\n    1,\n    {\n      \"c\" : \"$null\"\n    }\n  ],\n  \"a\" : {},\n  \"d\" : []\n}");
  EXPECT_EQ(*kp::parseJson(kp::jsonDataFromObject(forecast(), kp::JsonFormat::pretty)), forecast());
  // 12.0 is written as 12 and reads back as an integer: JSON has one kind of number.
  EXPECT_EQ(*kp::parseJson(std::string_view("[12, -0, 1e2]")), *kp::parseJson(std::string_view("[12.0, 0, 100]")));
  EXPECT_NE(*kp::parseJson(std::string_view("12")), *kp::parseJson(std::string_view("12.5")));
  EXPECT_NE(*kp::parseJson(std::string_view("18446744073709551615")),
            *kp::parseJson(std::string_view("1.8446744073709552e19")));
  EXPECT_EQ(kp::jsonStringFromObject(JsonValue()), "null");
  EXPECT_EQ(kp::jsonTypeName(forecast()["days"].type()), "array");
}

TEST(JsonHelpers, KeyPathsAndPointersReachTheSameValues) {
  const JsonValue& doc = forecast();
  EXPECT_EQ(kp::jsonValueAtKeyPath<double>(doc, "current.temperature"), 21.5);
  EXPECT_EQ(kp::jsonValueAtPointer<double>(doc, "/current/temperature"), 21.5);
  EXPECT_EQ(kp::jsonValueAtKeyPath<std::int64_t>(doc, "days.0.high"), 24);
  EXPECT_EQ(kp::jsonValueAtPointer<std::int64_t>(doc, "/days/0/high"), 24);
  EXPECT_EQ(kp::jsonValueAtKeyPath<std::string_view>(doc, "current.summary"), "Sonnig 🌤");
  EXPECT_EQ(kp::jsonValueAtKeyPath<std::string>(doc, "7"), "seven");  // digits are a key in an object
  EXPECT_EQ(kp::jsonValueAtKeyPath<std::string>(doc, "."), std::nullopt);
  EXPECT_EQ(kp::jsonValueAtPointer<std::string>(doc, "/"), "empty key");
  // Keys with dots, slashes and tildes need the pointer and its escapes.
  EXPECT_EQ(kp::jsonValueAtPointer<bool>(doc, "/a.b/c~1d/e~0f"), true);
  EXPECT_EQ(kp::jsonValueAtKeyPath<bool>(doc, "a.b"), std::nullopt);

  // Present JSON null is a value; a missing member is nothing.
  EXPECT_TRUE(kp::jsonValueAtKeyPath<JsonValue>(doc, "current.wind")->isNull());
  EXPECT_EQ(kp::jsonValueAtKeyPath<JsonValue>(doc, "current.rain"), std::nullopt);
  EXPECT_EQ(kp::jsonValueAtKeyPath<JsonValue>(doc, ""), doc);
  EXPECT_EQ(kp::jsonValueAtPointer<JsonValue>(doc, ""), doc);
  EXPECT_TRUE(kp::jsonValueAtKeyPath<JsonValue>(JsonValue(), "")->isNull());
  EXPECT_EQ(kp::jsonValueAtKeyPath<JsonValue>(JsonValue(), "a"), std::nullopt);

  for (const char* path : {"days.2.high", "days.-1.high", "days.01.high", "days.1e0.high", "days.high",
                           "current.temperature.x", "current..temperature", "days.99999999999999999999999"}) {
    EXPECT_EQ(kp::jsonValueAtKeyPath<JsonValue>(doc, path), std::nullopt) << path;
  }
  for (const char* pointer :
       {"current", "/days/2", "/days/-", "/days/01", "/days/~", "/a.b/c~2d", "~1", "/days/1/high/", "/days//high"}) {
    EXPECT_EQ(kp::jsonValueAtPointer<JsonValue>(doc, pointer), std::nullopt) << pointer;
  }
}

TEST(JsonHelpers, TypedReadsConvertAsJsonValueDoes) {
  const auto values = kp::parseJson(std::string_view(
      R"([0, -1, 2.0, 2.5, 1e300, -9223372036854775808, 9223372036854775807, 9223372036854775808,
          18446744073709551615, 2147483647, 2147483648, -2147483649, true, "1", null, [], {}])"));
  ASSERT_TRUE(values);
  for (std::size_t i = 0; i < values->size(); ++i) {
    const JsonValue& v = (*values)[i];
    const std::string path = std::to_string(i);
    const auto wide = kp::jsonValueAtKeyPath<std::int64_t>(*values, path);
    EXPECT_EQ(wide, v.intValue()) << path;
    EXPECT_EQ(kp::jsonValueAtKeyPath<double>(*values, path), v.doubleValue()) << path;
    EXPECT_EQ(kp::jsonValueAtKeyPath<bool>(*values, path), v.boolValue()) << path;
    EXPECT_EQ(kp::jsonValueAtKeyPath<std::string_view>(*values, path), v.stringValue()) << path;
    const bool fitsInt = wide && *wide >= INT32_MIN && *wide <= INT32_MAX;
    EXPECT_EQ(kp::jsonValueAtKeyPath<int>(*values, path).has_value(), fitsInt) << path;
  }
}

}  // namespace
