// The plain types of the service protocol: content info (expiry, content headers, archived and
// coded forms) and the common parameters with their defaults.
#include <gtest/gtest.h>

#include <cmath>

#include "kp/coding/json.h"
#include "kp/service/tarvix_service_content_info.h"
#include "kp/service/tarvix_web_service_parameters.h"
#include "support/process.h"

namespace kp {
namespace {

const Date kT0 = Date::fromTimeIntervalSince1970(1'700'000'000);

TEST(ContentInfo, ExpiryNeedsAnIntervalAndIsStrictlyLater) {
  TarvixServiceContentInfo info;
  info.localCreatedAt = kT0;
  info.remoteCreatedAt = kT0.addingTimeInterval(-30);
  EXPECT_FALSE(info.localExpiresAt());
  EXPECT_FALSE(info.isLocalExpired(Date::distantFuture()));  // open-ended, however old
  EXPECT_FALSE(info.isRemoteExpired(Date::distantFuture()));

  info.expiryInterval = 60;
  EXPECT_EQ(info.localExpiresAt(), kT0.addingTimeInterval(60));
  EXPECT_EQ(info.remoteExpiresAt(), kT0.addingTimeInterval(30));
  EXPECT_FALSE(info.isLocalExpired(kT0.addingTimeInterval(60)));
  EXPECT_TRUE(info.isLocalExpired(kT0.addingTimeInterval(60.001)));
  EXPECT_TRUE(info.isRemoteExpired(kT0.addingTimeInterval(31)));

  info.remoteCreatedAt.reset();
  EXPECT_FALSE(info.remoteExpiresAt());
  EXPECT_FALSE(info.isRemoteExpired(Date::distantFuture()));
}

TEST(ContentInfo, HeadersAreReadInBothSpellingsAndGarbageIsIgnored) {
  TarvixServiceContentInfo info;
  info.applyContentHeaders(
      std::map<std::string, std::string>{{"Tarvix-Content-Format", "+7"},
                                         {"tarvix-content-format", "9"},
                                         {"tarvix-content-max-age", "1.5e3"},
                                         {"TARVIX-CONTENT-CREATED", "1700000000"}});  // neither spelling: ignored
  EXPECT_EQ(info.formatVersion, 7);
  EXPECT_EQ(info.expiryInterval, 1500.0);
  EXPECT_FALSE(info.remoteCreatedAt);

  info.applyContentHeaders(std::map<std::string, std::string>{{"Tarvix-Content-Created", "-12.25"}});
  EXPECT_EQ(info.remoteCreatedAt, Date::fromTimeIntervalSince1970(-12.25));

  const TarvixServiceContentInfo before = info;
  for (const std::string bad : {"", " 5", "5 ", "abc", "1.5", "+-5", "--5", "0x10", "99999999999999999999"}) {
    info.applyContentHeaders(std::map<std::string, std::string>{{"Tarvix-Content-Format", bad}});
  }
  for (const std::string bad : {"", "nan", "inf", "-infinity", "1e999", "12s", "+", "1,5"}) {
    info.applyContentHeaders(
        std::map<std::string, std::string>{{"Tarvix-Content-Max-Age", bad}, {"Tarvix-Content-Created", bad}});
  }
  EXPECT_EQ(info, before);
}

// (The archived form travels inside the service result's archive, tested there.)
TEST(ContentInfo, CodedFormRoundTrips) {
  TarvixServiceContentInfo info;
  info.localCreatedAt = kT0;
  info.formatVersion = 3;
  info.expiryInterval = 90.5;
  info.remoteCreatedAt = kT0.addingTimeInterval(-5);
  // The envelope's keys, dates as seconds since 1970; a missing local time is the moment of
  // decoding.
  JsonDecoder decoder;
  decoder.dateStrategy = DateStrategy::secondsSince1970;
  const auto decoded = decoder.decode<TarvixServiceContentInfo>(
      R"({"formatVersion": 2, "expiryInterval": 60, "createdTimestamp": 1700000000})");
  EXPECT_EQ(decoded.formatVersion, 2);
  EXPECT_EQ(decoded.expiryInterval, 60.0);
  EXPECT_EQ(decoded.remoteCreatedAt, kT0);
  EXPECT_LT(std::fabs(decoded.localCreatedAt.timeIntervalSinceNow()), 60);
  EXPECT_THROW((void)decoder.decode<TarvixServiceContentInfo>(R"({"formatVersion": "2"})"), CodingError);

  JsonEncoder encoder;
  encoder.dateStrategy = DateStrategy::secondsSince1970;
  EXPECT_EQ(decoder.decode<TarvixServiceContentInfo>(encoder.encode(info)), info);
  const auto sparse = JsonValue::parse(encoder.encode(TarvixServiceContentInfo()).view());
  EXPECT_EQ(sparse->size(), 1u);  // only localCreatedAt
}

TEST(ContentInfo, HostileArchivesYieldNothing) {
  // A class of its own name whose fields hold the wrong kinds of value.
  class Impostor : public Archivable {
   public:
    explicit Impostor(ArchiveValue v) : value(std::move(v)) {}
    ArchiveValue value;
    std::string archiveClassName() const override { return "KPTarvixServiceContentInfo"; }
    void encode(ArchiveEncoder& coder) const override { coder.encodeObject(key, value); }
    std::string key;
  };
  for (const auto& [key, value] : std::vector<std::pair<std::string, ArchiveValue>>{{"formatVersionObjC", "7"},
                                                                                    {"formatVersionObjC", 1.5},
                                                                                    {"expiryIntervalObjC", "60"},
                                                                                    {"remoteCreatedAt", 12},
                                                                                    {"localCreatedAt", "now"}}) {
    auto impostor = std::make_shared<Impostor>(value);
    impostor->key = key;
    auto data = KeyedArchiver::archivedData(impostor);
    ASSERT_TRUE(data);
    EXPECT_FALSE(
        KeyedUnarchiver::unarchivedObject<TarvixServiceContentInfo>(*data, {"KPTarvixServiceContentInfo", "NSDate"}))
        << key;
  }
}

TEST(WebServiceParameters, ComeFromTheApplicationInformationInTheServersOrder) {
  ApplicationInfo info;
  info.identifier = "com.example.weather";
  info.version = "5.2.0";
  info.systemName = "Linux";
  info.systemVersion = "6.1.0-18-amd64";
  info.deviceModel = "Standard PC (Q35 + ICH9, 2009)";
  info.idiom = UserInterfaceIdiom::pad;
  info.screenScale = 2;
  info.localeIdentifier = "nl_NL";
  info.timeZone = "Europe/Amsterdam";
  info.currencyCode = "EUR";
  info.preferredLanguages = {"nl-NL", "en"};
  TarvixWebServiceParameters parameters(info);
  EXPECT_EQ(HttpRequestParameter::makeParameterString(parameters.queryParameters(), false),
            "appId=com.example.weather&appVersion=5.2.0&platform=linux&device=ipad"
            "&machineIdentifier=Standard PC (Q35 + ICH9, 2009)&systemVersion=6.1.0-18-amd64&locale=nl_NL"
            "&currencyCode=EUR&timeZone=Europe/Amsterdam&preferredLanguages=nl-NL,en&displayScale=2.0");

  parameters.consent = false;
  EXPECT_EQ(parameters.queryParameters().back(), HttpRequestParameter("consent", "0"));
  parameters.displayScale = 1.5;
  parameters.consent = true;
  const auto list = parameters.queryParameters();
  EXPECT_EQ(list[list.size() - 2], HttpRequestParameter("displayScale", "1.5"));
  EXPECT_EQ(list.back(), HttpRequestParameter("consent", "1"));

  // Facts nobody knows travel as empty values; an unnamed idiom is a desktop.
  const TarvixWebServiceParameters bare{ApplicationInfo{}};
  EXPECT_EQ(HttpRequestParameter::makeParameterString(bare.queryParameters()),
            "appId=&appVersion=&platform=&device=desktop&machineIdentifier=&systemVersion=&locale="
            "&currencyCode=&timeZone=&preferredLanguages=&displayScale=1.0");
}

TEST(WebServiceParameters, LinuxDefaultsNameTheEnvironment) {
  if (test::inTestChild()) {
    const TarvixWebServiceParameters parameters;
    EXPECT_EQ(parameters.platform, "linux");
    EXPECT_EQ(parameters.locale, "nl_NL");
    EXPECT_EQ(parameters.preferredLanguages, (std::vector<std::string>{"nl-BE", "fr", "en-GB"}));
    EXPECT_EQ(parameters.timeZoneName, "Europe/Brussels");
    EXPECT_FALSE(parameters.currencyCode);  // LC_MONETARY=C
    return;
  }
  const auto child = test::runThisTestInChild(
      "-u LC_ALL -u LC_MESSAGES LANG=nl_NL.UTF-8 LC_MONETARY=C LANGUAGE=nl_BE:fr::en_GB.UTF-8@euro "
      "TZ=:Europe/Brussels");
  EXPECT_EQ(child.status, 0) << child.output;
}

}  // namespace
}  // namespace kp
