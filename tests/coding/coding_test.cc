#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "kp/coding/json.h"
#include "kp/coding/property_list.h"
#include "support/assertion_capture.h"

namespace {

struct Inner {
  std::string name;
  std::optional<std::int64_t> count;
};
BOOST_DESCRIBE_STRUCT(Inner, (), (name, count))

struct Record {
  bool flag = false;
  std::int32_t small = 0;
  std::uint64_t big = 0;
  double real = 0;
  std::string text;
  kp::Data bytes;
  kp::Date when;
  std::optional<std::string> maybe;
  std::vector<Inner> items;
  std::map<std::string, double> table;
};
BOOST_DESCRIBE_STRUCT(Record, (), (flag, small, big, real, text, bytes, when, maybe, items, table))

bool operator==(const Inner& a, const Inner& b) { return a.name == b.name && a.count == b.count; }
bool operator==(const Record& a, const Record& b) {
  return a.flag == b.flag && a.small == b.small && a.big == b.big && a.real == b.real && a.text == b.text &&
         a.bytes == b.bytes && a.when == b.when && a.maybe == b.maybe && a.items == b.items && a.table == b.table;
}

// A type whose keys differ from its members, reading the user info on the way.
struct Custom {
  int value = 0;
  std::string seen;
  void encode(kp::Encoder& e) const {
    auto keyed = e.keyed();
    keyed.encode("v_value", value);
    keyed.encodeNil("nothing");
  }
  static Custom decode(const kp::Decoder& d) {
    auto keyed = d.keyed();
    Custom c{keyed.decode<int>("v_value"), {}};
    if (auto it = d.userInfo().find("tag"); it != d.userInfo().end()) c.seen = std::any_cast<std::string>(it->second);
    return c;
  }
};

Record sample() {
  Record r;
  r.flag = true;
  r.small = -42;
  r.big = UINT64_MAX;  // beyond the signed range, which every format must still carry
  r.real = 2.5;
  r.text = "Zürich ☀ 𝄞";
  r.bytes = kp::Data{0, 1, 2, 255};
  r.when = kp::Date::fromTimeIntervalSinceReferenceDate(700000000.25);
  r.items = {{"a", 3}, {"b", std::nullopt}};
  r.table = {{"x", 1.5}, {"y", -2}};
  return r;
}

TEST(CodingRoundTrip, EveryShapeThroughBothCoders) {
  const Record r = sample();
  for (auto format : {kp::PropertyListFormat::binary, kp::PropertyListFormat::xml}) {
    kp::PropertyListEncoder encoder;
    encoder.outputFormat = format;
    const kp::Data bytes = encoder.encode(r);
    Record back = kp::PropertyListDecoder().decode<Record>(bytes);
    if (format == kp::PropertyListFormat::xml) {
      // XML dates carry whole seconds only.
      EXPECT_NEAR(back.when.timeIntervalSince1970(), r.when.timeIntervalSince1970(), 1.0);
      back.when = r.when;
    }
    EXPECT_EQ(back, r);
  }
  for (auto dates : {kp::DateStrategy::secondsSince1970, kp::DateStrategy::secondsSinceReferenceDate}) {
    kp::JsonEncoder encoder;
    encoder.dateStrategy = dates;
    kp::JsonDecoder decoder;
    decoder.dateStrategy = dates;
    EXPECT_EQ(decoder.decode<Record>(encoder.encode(r)), r);
  }
}

TEST(CodingRoundTrip, JsonNumbersInTheirShortestPlainForm) {
  kp::JsonEncoder encoder;
  encoder.dateStrategy = kp::DateStrategy::secondsSince1970;
  const kp::Data json =
      encoder.encode(std::map<std::string, kp::Date>{{"d", kp::Date::fromTimeIntervalSince1970(86400)}});
  EXPECT_EQ(json.toString(), R"({"d":86400})");
  // Plain decimals from 1e-6 up to below 1e21, an exponent beyond; the fewest digits that read
  // back as the same double.
  const std::pair<double, const char*> cases[] = {
      {52.37, "52.37"},
      {0.1, "0.1"},
      {-2.5, "-2.5"},
      {1.0 / 3.0, "0.3333333333333333"},
      {0.000001, "0.000001"},
      {1.5e-7, "1.5e-7"},
      {123456789012345680000.0, "123456789012345680000"},
      {1e21, "1e+21"},
      {1.7976931348623157e308, "1.7976931348623157e+308"},
      {5e-324, "5e-324"},
      {-0.0, "-0"},
  };
  for (const auto& [number, text] : cases) {
    EXPECT_EQ(kp::writeJson(kp::Value(number), kp::DateStrategy::iso8601), text);
    EXPECT_EQ(kp::JsonValue(number).serialize(), text);
    double back = 0;
    std::from_chars(text, text + std::strlen(text), back);
    EXPECT_TRUE(back == number && std::signbit(back) == std::signbit(number)) << text;  // reads back the same
  }
  EXPECT_EQ(kp::writeJson(kp::Value::Array{std::uint64_t{UINT64_MAX}, INT64_MIN}, kp::DateStrategy::iso8601),
            "[18446744073709551615,-9223372036854775808]");
  EXPECT_THROW((void)kp::writeJson(kp::Value(std::nan("")), kp::DateStrategy::iso8601), kp::CodingError);
}

TEST(CodingErrors, NameTheFailingKeyOrIndex) {
  const auto expectFailure = [](std::string_view json, std::string_view path, kp::CodingError::Kind kind) {
    try {
      (void)kp::JsonDecoder().decode<Record>(json);
      ADD_FAILURE() << "decoded " << json;
    } catch (const kp::CodingError& e) {
      EXPECT_EQ(e.codingPath(), path) << e.what();
      EXPECT_EQ(e.kind(), kind) << e.what();
    }
  };
  const std::string base = R"("flag":true,"small":1,"big":2,"real":1,"text":"t","bytes":"AA==","when":0,"table":{})";
  expectFailure("{" + base + R"(,"items":[{"name":"a"},{"name":5}]})", "items[1].name",
                kp::CodingError::Kind::typeMismatch);
  expectFailure("{" + base + R"(,"items":[{}]})", "items[0].name", kp::CodingError::Kind::keyNotFound);
  expectFailure(R"({"flag":true,"small":3000000000})", "small", kp::CodingError::Kind::dataCorrupted);
  expectFailure(R"({"flag":true,"small":18446744073709551615})", "small", kp::CodingError::Kind::dataCorrupted);
  expectFailure(R"({"flag":true,"small":1,"big":-1})", "big", kp::CodingError::Kind::dataCorrupted);
  expectFailure(R"({"flag":1})", "flag", kp::CodingError::Kind::typeMismatch);
  expectFailure("[1]", "", kp::CodingError::Kind::typeMismatch);
  // A number beyond a double's range is no number the server can have meant.
  expectFailure(R"({"flag":true,"small":1,"big":2,"real":1e400})", "", kp::CodingError::Kind::dataCorrupted);
}

TEST(CodingUserInfo, ReachesNestedDecoders) {
  kp::PropertyListDecoder decoder;
  decoder.userInfo["tag"] = std::string("seen");
  const std::vector<Custom> list{{1, {}}, {2, {}}};
  const auto back = decoder.decode<std::map<std::string, std::vector<Custom>>>(
      kp::PropertyListEncoder().encode(std::map<std::string, std::vector<Custom>>{{"k", list}}));
  ASSERT_EQ(back.at("k").size(), 2u);
  EXPECT_EQ(back.at("k")[1].value, 2);
  EXPECT_EQ(back.at("k")[1].seen, "seen");
}

TEST(SharedHelpers, WrapScalarsUnderV) {
  const auto data = kp::encodePropertyListData(true);
  ASSERT_TRUE(data);
  const kp::Value tree = kp::readPropertyList(data->bytes());
  ASSERT_NE(tree.find("v"), nullptr);
  EXPECT_EQ(*tree.find("v"), kp::Value(true));
  EXPECT_EQ(kp::decodePropertyListData<bool>(*data), true);
  // A stored boolean is not an integer.
  EXPECT_EQ(kp::decodePropertyListData<int>(*data), std::nullopt);
  EXPECT_EQ(kp::decodePropertyListData<std::string>(*kp::encodePropertyListData(std::string("hi"))), "hi");
  // Records are stored without the wrapper.
  EXPECT_EQ(kp::readPropertyList(kp::encodePropertyListData(Inner{"n", 1})->bytes()).find("v"), nullptr);
}

TEST(JsonValue, DynamicAccess) {
  const auto v = kp::JsonValue::parse(R"({"a":[1,2.5,"x",null,true],"b":{"c":-3}})");
  ASSERT_TRUE(v);
  EXPECT_EQ(v->type(), kp::JsonValue::Type::object);
  EXPECT_EQ((*v)["a"].size(), 5u);
  EXPECT_EQ((*v)["a"][0].intValue(), 1);
  EXPECT_EQ((*v)["a"][1].doubleValue(), 2.5);
  EXPECT_EQ((*v)["a"][1].intValue(), std::nullopt);
  EXPECT_EQ((*v)["a"][2].stringValue(), "x");
  EXPECT_TRUE((*v)["a"][3].isNull());
  EXPECT_EQ((*v)["a"][4].boolValue(), true);
  EXPECT_EQ((*v)["b"]["c"].intValue(), -3);
  EXPECT_TRUE((*v)["missing"]["deeper"][7].isNull());
  EXPECT_FALSE(kp::JsonValue::parse("{\"a\":"));
  EXPECT_FALSE(kp::JsonValue::parse(std::string(100000, '[')));
  // Numbers beyond a double's range read as null, and an infinity made in code is one too.
  const auto huge = kp::JsonValue::parse(R"({"up":1e400,"down":[-1e999]})");
  ASSERT_TRUE(huge);
  EXPECT_EQ((*huge)["up"].doubleValue(), std::nullopt);
  EXPECT_EQ(huge->serialize(), R"({"up":null,"down":[null]})");
  EXPECT_TRUE(kp::JsonValue(INFINITY).isNull());
  // Untyped JSON inside a record survives a property-list round trip.
  const auto tree = kp::PropertyListDecoder().decode<kp::JsonValue>(kp::PropertyListEncoder().encode(*v));
  EXPECT_EQ(tree, *v) << tree.serialize() << " vs " << v->serialize();
}

// ---- Interoperability with python3's plistlib ----

class PlistInterop : public ::testing::Test {
 protected:
  static std::string run(const std::string& script, const kp::Data& input) {
    const auto dir = std::filesystem::temp_directory_path();
    const auto in = dir / ("kp_plist_in_" + std::to_string(::getpid()));
    const auto out = dir / ("kp_plist_out_" + std::to_string(::getpid()));
    std::ofstream(in, std::ios::binary).write(input.view().data(), static_cast<std::streamsize>(input.size()));
    const std::string cmd = "python3 -c '" + script + "' " + in.string() + " " + out.string();
    EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
    std::ifstream f(out, std::ios::binary);
    std::string result((std::istreambuf_iterator<char>(f)), {});
    std::filesystem::remove(in);
    std::filesystem::remove(out);
    return result;
  }
};

TEST_F(PlistInterop, PythonReadsWhatWeWriteAndWeReadWhatItWrites) {
  const char* script =
      "import plistlib,sys,datetime\n"
      "d=plistlib.load(open(sys.argv[1],\"rb\"))\n"
      "assert d[\"flag\"] is True and d[\"small\"]==-42 and d[\"big\"]==18446744073709551615 and d[\"real\"]==2.5\n"
      "assert d[\"text\"]==\"Z\\u00fcrich \\u2600 \\U0001d11e\" and d[\"bytes\"]==bytes([0,1,2,255])\n"
      "assert abs((d[\"when\"]-datetime.datetime(2023,3,8,20,26,40,250000)).total_seconds())<1, d[\"when\"]\n"
      "assert d[\"items\"]==[{\"name\":\"a\",\"count\":3},{\"name\":\"b\"}] and \"maybe\" not in d\n"
      "assert isinstance(d[\"real\"],float) and isinstance(d[\"small\"],int)\n"
      "d[\"text\"]=d[\"text\"]+\"!\"\n"
      "plistlib.dump(d,open(sys.argv[2],\"wb\"),fmt=plistlib.FMT_BINARY if "
      "open(sys.argv[1],\"rb\").read(6)==b\"bplist\" else plistlib.FMT_XML)\n";
  for (auto format : {kp::PropertyListFormat::binary, kp::PropertyListFormat::xml}) {
    kp::PropertyListEncoder encoder;
    encoder.outputFormat = format;
    Record r = sample();
    const std::string written = run(script, encoder.encode(r));
    ASSERT_FALSE(written.empty());
    r.text += "!";
    Record back = kp::PropertyListDecoder().decode<Record>(kp::Data::fromString(written));
    EXPECT_NEAR(back.when.timeIntervalSince1970(), r.when.timeIntervalSince1970(), 1.0);
    back.when = r.when;
    EXPECT_EQ(back, r);
  }
}

// ---- Hostile property lists ----

TEST(HostilePropertyLists, GiveErrorsNotCrashes) {
  const kp::Data good = kp::PropertyListEncoder().encode(sample());
  // Every truncation fails cleanly.
  for (std::size_t n = 0; n < good.size(); n += 7) {
    EXPECT_THROW((void)kp::readPropertyList(good.bytes().first(n)), kp::CodingError) << n;
  }
  // An array holding itself.
  kp::Data cycle{'b', 'p', 'l', 'i', 's', 't', '0', '0', 0xA1, 0x00, 0x08};
  const std::uint8_t trailer[32] = {0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 1,
                                    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10};
  cycle.append(trailer, sizeof trailer);
  EXPECT_THROW((void)kp::readPropertyList(cycle.bytes()), kp::CodingError);
  // A count far larger than the data.
  kp::Data huge{'b',  'p',  'l',  'i',  's',  't',  '0',  '0',  0xAF, 0x13,
                0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x08};
  std::uint8_t t2[32] = {0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 1,
                         0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 18};
  huge.append(t2, sizeof t2);
  EXPECT_THROW((void)kp::readPropertyList(huge.bytes()), kp::CodingError);
  // Nesting thousands deep, in both forms.
  kp::Value deep;
  for (int i = 0; i < 600; ++i) deep = kp::Value::Array{std::move(deep)};
  EXPECT_THROW((void)kp::writePropertyList(deep), kp::CodingError);
  std::string xml = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
  for (int i = 0; i < 5000; ++i) xml += "<array>";
  EXPECT_THROW((void)kp::readPropertyList(kp::Data::fromString(xml).bytes()), kp::CodingError);
  EXPECT_THROW((void)kp::readPropertyList(kp::Data::fromString("not a plist").bytes()), kp::CodingError);
}

// A binary property list of `objects` (object 0 at the top), references two bytes wide.
kp::Data binaryPlist(const std::vector<std::vector<std::uint8_t>>& objects) {
  kp::Data out = kp::Data::fromString("bplist00");
  std::vector<std::uint32_t> offsets;
  for (const auto& object : objects) {
    offsets.push_back(static_cast<std::uint32_t>(out.size()));
    out.append(object.data(), object.size());
  }
  const auto tableOffset = static_cast<std::uint32_t>(out.size());
  for (const std::uint32_t o : offsets)
    out.append(kp::Data{std::uint8_t(o >> 24), std::uint8_t(o >> 16), std::uint8_t(o >> 8), std::uint8_t(o)});
  std::uint8_t trailer[32] = {};
  trailer[6] = 4;
  trailer[7] = 2;
  trailer[14] = static_cast<std::uint8_t>(objects.size() >> 8);
  trailer[15] = static_cast<std::uint8_t>(objects.size());
  for (int i = 0; i < 4; ++i) trailer[28 + i] = static_cast<std::uint8_t>(tableOffset >> (24 - 8 * i));
  out.append(trailer, sizeof trailer);
  return out;
}

TEST(BinaryPropertyLists, EightBitTextReadsAsLatin1) {
  EXPECT_EQ(kp::readPropertyList(binaryPlist({{0x56, 'Z', 0xFC, 'r', 'i', 'c', 'h'}}).bytes()),
            kp::Value(std::string("Z\xC3\xBCrich")));
  EXPECT_EQ(kp::readPropertyList(binaryPlist({{0x53, 'a', 'b', 'c'}}).bytes()), kp::Value(std::string("abc")));
}

// An array of `count` references to object `target`.
std::vector<std::uint8_t> arrayOf(std::size_t count, std::uint16_t target) {
  std::vector<std::uint8_t> a{0xAF, 0x11, std::uint8_t(count >> 8), std::uint8_t(count)};
  for (std::size_t i = 0; i < count; ++i) a.insert(a.end(), {std::uint8_t(target >> 8), std::uint8_t(target)});
  return a;
}

TEST(HostilePropertyLists, SharedObjectsAreBoundedByWhatTheyBuild) {
  // What the writer shares it reads back, however often one text repeats: within the
  // allowance as one object, beyond it as copies.
  for (const auto& [count, length] : {std::pair{25, 120'000}, std::pair{40, 1 << 20}}) {
    kp::Value::Dictionary entries;
    for (int i = 0; i < count; ++i) entries.emplace_back("k" + std::to_string(i), std::string(length, 'x'));
    const kp::Value tree(std::move(entries));
    const kp::Data bytes = kp::writePropertyList(tree);
    EXPECT_EQ(kp::readPropertyList(bytes.bytes()), tree) << count;
    if (count == 25) {
      EXPECT_LT(bytes.size(), 2U * length);  // the text is there once
    }
  }
  // A megabyte of text referenced a thousand times would build a gigabyte.
  std::vector<std::uint8_t> text{0x5F, 0x12, 0x00, 0x10, 0x00, 0x00};
  text.resize(text.size() + (1 << 20), 'x');
  EXPECT_THROW((void)kp::readPropertyList(binaryPlist({arrayOf(1000, 1), text}).bytes()), kp::CodingError);
  EXPECT_NO_THROW((void)kp::readPropertyList(binaryPlist({arrayOf(10, 1), text}).bytes()));
  // Arrays shared by reference: three levels of 200 make eight million nodes from 1.2 KB.
  const std::vector<std::uint8_t> leaf{0x10, 0x01};
  EXPECT_THROW(
      (void)kp::readPropertyList(binaryPlist({arrayOf(200, 1), arrayOf(200, 2), arrayOf(200, 3), leaf}).bytes()),
      kp::CodingError);
}

}  // namespace
