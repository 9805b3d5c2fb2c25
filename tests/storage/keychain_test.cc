// The keychain against a real Secret Service (GNOME Keyring on a private session bus), checked
// with secret-tool as another program sees the items.
#include "kp/storage/keychain.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <thread>

#include "kp/coding/property_list.h"
#include "kp/platform/application_info.h"
#include "support/assertion_capture.h"
#include "support/process.h"
#include "support/secret_service.h"

namespace {

using namespace std::chrono_literals;
using kp::KeychainAccess;
using kp::test::shellQuote;

constexpr const char* kBundle = "com.kp.tests.keychain";

struct Settings {
  std::string city;
  int zoom = 0;
};
BOOST_DESCRIBE_STRUCT(Settings, (), (city, zoom))

class KeychainTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { service_ = new kp::test::PrivateSecretService(); }
  static void TearDownTestSuite() {
    delete service_;
    service_ = nullptr;
  }

  // The secret that secret-tool finds for the item of `account` in `service`.
  static std::string lookup(const std::string& account, const std::string& service = kBundle) {
    return service_->secretTool({"lookup", "account", account, "service", service}).output;
  }
  // What secret-tool lists for the items of `account` in `service`.
  static std::string listing(const std::string& account, const std::string& service = kBundle) {
    return service_->secretTool({"search", "--all", "account", account, "service", service}).output;
  }
  static int count(const std::string& account, const std::string& service = kBundle) {
    const std::string items = listing(account, service);
    int n = 0;
    for (auto at = items.find("label = "); at != std::string::npos; at = items.find("label = ", at + 1)) ++n;
    return n;
  }

  static kp::test::PrivateSecretService* service_;
  kp::Keychain keychain_{kBundle, 5s};
};

kp::test::PrivateSecretService* KeychainTest::service_ = nullptr;

TEST_F(KeychainTest, ValuesRoundTripInTheirStoredForm) {
  const auto access = KeychainAccess::afterFirstUnlock;
  keychain_.setString(std::string("grüezi"), "text", access, std::nullopt);
  keychain_.setInt(-42, "int", access, std::nullopt);
  keychain_.setUInt(UINT64_MAX, "uint", access, std::nullopt);
  keychain_.setFloat(1.5F, "float", access, std::nullopt);
  keychain_.setDouble(2.25, "double", access, std::nullopt);
  keychain_.setBool(true, "bool", access, std::nullopt);
  const kp::Date when = kp::Date::fromTimeIntervalSince1970(1'700'000'000.5);
  keychain_.setDate(when, "date", access, std::nullopt);
  keychain_.setData(kp::Data::fromString("raw bytes"), "data", access, std::nullopt);
  keychain_.encode(std::optional<Settings>(Settings{"Bern", 3}), "settings", access, std::nullopt);

  EXPECT_EQ(keychain_.string("text", std::nullopt), "grüezi");
  EXPECT_EQ(keychain_.int_("int", std::nullopt), -42);
  EXPECT_EQ(keychain_.uint("uint", std::nullopt), UINT64_MAX);
  EXPECT_EQ(keychain_.int_("uint", std::nullopt), std::nullopt);  // beyond the signed range
  EXPECT_EQ(keychain_.float_("float", std::nullopt), 1.5F);
  EXPECT_EQ(keychain_.double_("double", std::nullopt), 2.25);
  EXPECT_EQ(keychain_.bool_("bool", std::nullopt), true);
  EXPECT_EQ(keychain_.date("date", std::nullopt), when);
  EXPECT_EQ(keychain_.data("data", std::nullopt), kp::Data::fromString("raw bytes"));
  auto settings = keychain_.decode<Settings>("settings", std::nullopt);
  ASSERT_TRUE(settings);
  EXPECT_EQ(settings->city, "Bern");
  EXPECT_EQ(settings->zoom, 3);

  // Another program sees generic passwords: account = key, service = the bundle, the data as
  // stored: raw bytes as they are, scalars as the binary property list {"v": value}.
  EXPECT_EQ(lookup("data"), "raw bytes");
  const std::string item = listing("int");
  EXPECT_NE(item.find("attribute.class = genp"), std::string::npos) << item;
  EXPECT_NE(item.find("attribute.accessible = kSecAttrAccessibleAfterFirstUnlock"), std::string::npos) << item;
  EXPECT_EQ(item.find("attribute.accessGroup"), std::string::npos) << item;
  const std::string wrappedInt = lookup("int");
  auto tree = kp::readPropertyList({reinterpret_cast<const std::uint8_t*>(wrappedInt.data()), wrappedInt.size()});
  ASSERT_NE(tree.find("v"), nullptr);
  EXPECT_EQ(*tree.find("v")->ifInteger(), -42);
}

TEST_F(KeychainTest, ReadsOnlyWhatTheItemHolds) {
  const auto access = KeychainAccess::whenUnlocked;
  keychain_.setBool(true, "flag", access, std::nullopt);
  EXPECT_EQ(keychain_.bool_("flag", std::nullopt), true);
  EXPECT_EQ(keychain_.int_("flag", std::nullopt), std::nullopt);  // the wrapper holds a boolean
  EXPECT_EQ(keychain_.string("flag", std::nullopt), std::nullopt);

  // Items other programs wrote: plain UTF-8 text reads as text only; garbage reads as nothing.
  ASSERT_EQ(
      service_
          ->secretTool({"store", "--label=plain", "class", "genp", "account", "plain", "service", kBundle}, "hunter2")
          .status,
      0);
  EXPECT_EQ(keychain_.string("plain", std::nullopt), "hunter2");
  EXPECT_EQ(keychain_.int_("plain", std::nullopt), std::nullopt);
  const std::string garbage("bplist00\xff\xfe\x00\x01\x80", 13);
  keychain_.setData(kp::Data::fromString(garbage), "garbage", access, std::nullopt);
  EXPECT_EQ(keychain_.string("garbage", std::nullopt), std::nullopt);
  EXPECT_EQ(keychain_.int_("garbage", std::nullopt), std::nullopt);
  EXPECT_EQ(keychain_.date("garbage", std::nullopt), std::nullopt);
  EXPECT_EQ(keychain_.decode<Settings>("garbage", std::nullopt), std::nullopt);
  EXPECT_EQ(keychain_.data("garbage", std::nullopt), kp::Data::fromString(garbage));
  EXPECT_EQ(keychain_.string("missing", std::nullopt), std::nullopt);
}

TEST_F(KeychainTest, WritingAgainUpdatesTheOneItem) {
  keychain_.setString(std::string("a"), "k", KeychainAccess::whenUnlockedThisDeviceOnly, std::nullopt);
  keychain_.setString(std::string("b"), "k", KeychainAccess::afterFirstUnlockCompat, std::nullopt);
  EXPECT_EQ(keychain_.string("k", std::nullopt), "b");
  EXPECT_EQ(count("k"), 1);
  // The compatibility value stores the same accessibility as the one it repeats.
  EXPECT_NE(listing("k").find("accessible = kSecAttrAccessibleAfterFirstUnlock\n"), std::string::npos);

  keychain_.setString(std::nullopt, "k", KeychainAccess::whenUnlocked, std::nullopt);
  EXPECT_EQ(keychain_.string("k", std::nullopt), std::nullopt);
  EXPECT_EQ(count("k"), 0);
  keychain_.setInt(1, "gone", KeychainAccess::whenUnlocked, std::nullopt);
  keychain_.remove("gone", std::nullopt);
  EXPECT_EQ(keychain_.int_("gone", std::nullopt), std::nullopt);
  keychain_.encode(std::optional<Settings>(), "gone", KeychainAccess::whenUnlocked, std::nullopt);  // no item: fine
}

TEST_F(KeychainTest, GroupItemsLiveInTheirService) {
  const kp::KeychainAccessGroupDetail shared("com.kp.tests.shared", "TEAM.com.kp.group");
  keychain_.setString(std::string("shared secret"), "token", KeychainAccess::afterFirstUnlock, shared);
  EXPECT_EQ(keychain_.string("token", shared), "shared secret");
  EXPECT_EQ(keychain_.string("token", std::nullopt), std::nullopt);  // looks in the bundle's service
  EXPECT_EQ(kp::Keychain("com.kp.tests.other", 5s).string("token", shared), "shared secret");
  const std::string item = listing("token", "com.kp.tests.shared");
  EXPECT_NE(item.find("attribute.accessGroup = TEAM.com.kp.group"), std::string::npos) << item;
  EXPECT_NE(item.find("attribute.synchronizable = true"), std::string::npos) << item;

  keychain_.setString(std::string("newer"), "token", KeychainAccess::afterFirstUnlock, shared);
  EXPECT_EQ(keychain_.string("token", shared), "newer");
  EXPECT_EQ(count("token", "com.kp.tests.shared"), 1);
  // An application that never set an identifier has none, and its items go to a fixed
  // service of their own.
  const auto saved = kp::ApplicationInfo::current();
  kp::ApplicationInfo::setCurrent(kp::ApplicationInfo::systemDefaults());
  EXPECT_EQ(kp::Keychain().bundleIdentifier(), "TarvixWorks-Keychain-Unknown-App");
  kp::ApplicationInfo::setCurrent(saved);
}

TEST_F(KeychainTest, HostileKeysAndLargeValues) {
  const auto access = KeychainAccess::whenUnlocked;
  // Keys the bus cannot carry fail like any keychain failure: nothing stored, nothing read.
  const std::string withNul("a\0b", 3);
  const std::string notUtf8("\xff\xfe", 2);
  keychain_.setString(std::string("x"), withNul, access, std::nullopt);
  keychain_.setString(std::string("x"), notUtf8, access, std::nullopt);
  EXPECT_EQ(keychain_.string(withNul, std::nullopt), std::nullopt);
  EXPECT_EQ(keychain_.string(notUtf8, std::nullopt), std::nullopt);
  keychain_.remove(notUtf8, kp::KeychainAccessGroupDetail(notUtf8, "g"));

  keychain_.setString(std::string("empty key"), "", access, std::nullopt);
  EXPECT_EQ(keychain_.string("", std::nullopt), "empty key");
  keychain_.setString(std::string("line\nbreak"), "ключ\t", access, std::nullopt);
  EXPECT_EQ(keychain_.string("ключ\t", std::nullopt), "line\nbreak");

  kp::Data big = kp::Data::zeros(1 << 20);
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::uint8_t>(i * 31);
  keychain_.setData(big, "big", access, std::nullopt);
  EXPECT_EQ(keychain_.data("big", std::nullopt), big);
}

TEST_F(KeychainTest, ValuesThatCannotBeEncodedRaiseTheAssertion) {
  kp::test::AssertionCapture capture;
  keychain_.setString(std::string("\xff"), "bad", KeychainAccess::whenUnlocked, std::nullopt);
  ASSERT_EQ(capture.messages().size(), 1U);
  EXPECT_EQ(capture.messages()[0].rfind("Failed to encode: ", 0), 0U) << capture.messages()[0];
  EXPECT_EQ(keychain_.data("bad", std::nullopt), std::nullopt);
}

TEST_F(KeychainTest, ProcessesSettingOneKeyAtOnceLeaveOneItem) {
  // Each finds no item and adds one; and with another accessibility each adds another item.
  for (const char* access : {"1", "0"}) {
    std::string script;
    for (int i = 0; i < 8; ++i) {
      script += std::string(KPCORE_PATH) + " keychain set race v" + std::to_string(i) + " --access " +
                (i % 2 == 0 ? access : "1") + " --service " + kBundle + " & ";
    }
    const auto all = kp::test::runCommand(script + "wait");
    EXPECT_EQ(all.status, 0) << all.output;
    EXPECT_EQ(count("race"), 1) << listing("race");
    EXPECT_EQ(keychain_.string("race", std::nullopt).value_or("?").front(), 'v');
    keychain_.remove("race", std::nullopt);
  }
}

TEST_F(KeychainTest, AServiceThatDoesNotAnswerFailsWithinTheTimeout) {
  kp::Keychain quick(kBundle, 300ms);
  quick.setString(std::string("before"), "slow", KeychainAccess::whenUnlocked, std::nullopt);
  service_->keyring().signal(SIGSTOP);
  const auto start = std::chrono::steady_clock::now();
  quick.setString(std::string("while stopped"), "slow", KeychainAccess::whenUnlocked, std::nullopt);
  EXPECT_EQ(quick.string("slow", std::nullopt), std::nullopt);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  service_->keyring().signal(SIGCONT);
  EXPECT_LT(elapsed, 4s);
  // A call that timed out may still reach the service once it runs again: the item then holds
  // one whole value or the other, never a torn one.
  const auto after = kp::Keychain(kBundle, 5s).string("slow", std::nullopt);
  EXPECT_TRUE(after == "before" || after == "while stopped") << after.value_or("(none)");
}

TEST_F(KeychainTest, ALockedKeyringIsNeitherUnlockedNorChanged) {
  keychain_.setString(std::string("before"), "locked", KeychainAccess::whenUnlocked, std::nullopt);
  ASSERT_TRUE(service_->lockDefaultCollection());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(keychain_.string("locked", std::nullopt), std::nullopt);
  keychain_.setString(std::string("after"), "locked", KeychainAccess::whenUnlocked, std::nullopt);
  keychain_.setString(std::string("new"), "fresh", KeychainAccess::whenUnlocked, std::nullopt);
  keychain_.remove("locked", std::nullopt);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);  // no prompt was waited for
  EXPECT_EQ(service_->itemCount("account", "locked"), 1);
  EXPECT_EQ(service_->itemCount("account", "fresh"), 0);
  // The tool says the keychain is locked, whether the item exists or not.
  for (const char* command : {"get locked", "set locked x", "set fresh x", "delete locked"}) {
    const auto tool =
        kp::test::runCommand(std::string(KPCORE_PATH) + " keychain " + command + " --service " + kBundle + " 2>&1");
    EXPECT_EQ(tool.status, 1) << command;
    EXPECT_NE(tool.output.find(": the keychain is locked\n"), std::string::npos) << command << ": " << tool.output;
  }
}

TEST_F(KeychainTest, KpcoreSetsGetsAndDeletesItems) {
  const auto kpcore = [](const std::string& arguments) {
    return kp::test::runCommand(std::string(KPCORE_PATH) + " keychain " + arguments + " 2>&1");
  };
  const auto set = kpcore("set token 's3 cret' --service com.kp.tests.tool");
  ASSERT_EQ(set.status, 0) << set.output;
  EXPECT_EQ(kpcore("get token --service com.kp.tests.tool").output, "s3 cret\n");
  EXPECT_EQ(kp::Keychain("com.kp.tests.tool", 5s).string("token", std::nullopt), "s3 cret");
  EXPECT_EQ(kpcore("get token --service com.kp.tests.tool --json").output, R"({"key":"token","value":"s3 cret"})"
                                                                           "\n");

  ASSERT_EQ(kpcore("set shared yes --service com.kp.tests.tool --access-group G --access 4").status, 0);
  EXPECT_EQ(keychain_.string("shared", kp::KeychainAccessGroupDetail("com.kp.tests.tool", "G")), "yes");
  EXPECT_NE(listing("shared", "com.kp.tests.tool").find("kSecAttrAccessibleWhenUnlockedThisDeviceOnly"),
            std::string::npos);

  ASSERT_EQ(kpcore("delete token --service com.kp.tests.tool").status, 0);
  const auto missing = kpcore("get token --service com.kp.tests.tool");
  EXPECT_NE(missing.status, 0);
  EXPECT_EQ(std::count(missing.output.begin(), missing.output.end(), '\n'), 1) << missing.output;
  EXPECT_EQ(kpcore("get x --access-group G").status, 2);
  EXPECT_EQ(kpcore("set x y --access 9").status, 2);
  EXPECT_EQ(kpcore("set x y --access 3x").status, 2);
  EXPECT_EQ(missing.output, "kpcore keychain: no item for key 'token' in com.kp.tests.tool\n");
  for (const char* notUtf8 : {R"x(set "$(printf '\377')" y)x", R"x(set k "$(printf '\377')")x"}) {
    const auto refused = kpcore(notUtf8);
    EXPECT_EQ(refused.status, 2) << notUtf8;
    EXPECT_NE(refused.output.find("is not UTF-8 text"), std::string::npos) << refused.output;
  }
  // Without a Secret Service the tool says so, rather than that there is no item.
  const auto alone = kp::test::runCommand("DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent " +
                                          std::string(KPCORE_PATH) + " keychain get token 2>&1");
  EXPECT_EQ(alone.status, 1);
  EXPECT_NE(alone.output.find("no keychain service answered"), std::string::npos) << alone.output;
}

}  // namespace
