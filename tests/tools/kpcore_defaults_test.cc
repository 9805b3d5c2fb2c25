// `kpcore defaults` and `kpcore plist` as a user runs them, on suites of a configuration folder
// of their own and on property lists given on standard input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "kp/coding/property_list.h"
#include "kp/storage/user_defaults.h"
#include "storage/suite_store.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using kp::test::runCommand;

class KpcoreDefaults : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("XDG_CONFIG_HOME", dir_.path().c_str(), 1); }  // NOLINT(concurrency-mt-unsafe)
  // Every suite is written before the folder goes, so that no late write brings it back.
  void TearDown() override { kp::storage_detail::SuiteStore::synchronizeAll(); }
  static kp::test::ProcessResult kpcore(const std::string& arguments) {
    return runCommand(std::string(KPCORE_PATH) + " defaults " + arguments + " 2>&1");
  }

  kp::test::TempDir dir_;
};

TEST_F(KpcoreDefaults, ReadsWritesAndDeletesTypedValues) {
  ASSERT_EQ(kpcore("write --suite tool when -date 2024-05-01T12:00:00Z").status, 0);
  ASSERT_EQ(kpcore("write --suite tool blob -data 00ff10").status, 0);
  ASSERT_EQ(kpcore("write --suite tool ratio -float 0.5").status, 0);
  ASSERT_EQ(kpcore("write --suite tool tiny -float 1e-320").status, 0);  // subnormal
  EXPECT_EQ(kpcore("read --suite tool tiny").output, "1e-320\n");
  // What the file could hold but no reader could show is refused, and so is what is not
  // wholly one number.
  for (const char* refused : {"-float inf", "-float nan", "-float 1e999", "-date 0000-01-01T00:00:00Z", "-int +-3",
                              "-float +-1", "-float ''", "-int 12abc"}) {
    EXPECT_EQ(kpcore(std::string("write --suite tool odd ") + refused).status, 2) << refused;
  }
  ASSERT_EQ(kpcore("write --suite tool name Bern").status, 0);
  EXPECT_EQ(kpcore("read --suite tool blob").output, "<00ff10>\n");
  EXPECT_EQ(kpcore("read --suite tool when --json").output, "\"2024-05-01T12:00:00Z\"\n");
  auto defaults = kp::UserDefaults::suite("tool");
  EXPECT_EQ(defaults->double_("ratio"), 0.5);
  EXPECT_EQ(defaults->string("name"), "Bern");
  // Stored text reaches the terminal with its control characters escaped.
  defaults->setObject(std::string("line\nnext \x1b[31mred"), "odd");
  ASSERT_TRUE(defaults->synchronize());
  EXPECT_EQ(kpcore("read --suite tool odd").output, "line\\x0anext \\x1b[31mred\n");
  // Such values written elsewhere are still shown, with the rest of the suite.
  defaults->setDouble(-INFINITY, "odd");
  defaults->setObject(kp::Value::Dictionary{{"n", NAN}, {"x", 86400.0}}, "nested");
  ASSERT_TRUE(defaults->synchronize());
  EXPECT_EQ(kpcore("read --suite tool odd").output, "-inf\n");
  EXPECT_EQ(kpcore("read --suite tool nested --json").output, "{\"n\":\"nan\",\"x\":86400}\n");
  const auto all = kpcore("read --suite tool");
  EXPECT_EQ(all.status, 0);
  EXPECT_NE(all.output.find("\"odd\" : \"-inf\""), std::string::npos) << all.output;
  EXPECT_NE(all.output.find("\"ratio\" : 0.5,"), std::string::npos) << all.output;

  // Failures, and what the store refuses, are one line of error, not a success that changed
  // nothing.
  for (const char* failing :
       {"read --suite tool nothing", "write --suite tool n -int twelve", "write --suite tool name \xff",
        "write --suite tool '\xfe' text", "read --suite ../escape"}) {
    const auto failed = kpcore(failing);
    EXPECT_NE(failed.status, 0) << failing;
    EXPECT_EQ(std::count(failed.output.begin(), failed.output.end(), '\n'), 1) << failed.output;
  }
  EXPECT_EQ(kpcore("read --suite tool name").output, "Bern\n");
  ASSERT_EQ(kpcore("delete --suite tool").status, 0);
  EXPECT_EQ(kpcore("read --suite tool").output, "{}\n");
}

TEST(KpcorePlist, ConvertsBetweenFormatsAndFailsWithOneLine) {
  kp::Value v = kp::Value::Dictionary{};
  v.set("when", kp::Value(kp::Date::fromTimeIntervalSince1970(1700000000)));
  v.set("blob", kp::Value(kp::Data{0, 1, 2}));
  v.set("n", kp::Value(std::int64_t{3}));
  const std::string binary = kp::writePropertyList(v).toString();
  const std::string tool = KPCORE_PATH;

  auto json = runCommand(tool + " plist --to json");
  EXPECT_NE(json.status, 0);  // no input at all is not a property list
  json = runCommand(tool + " plist --to json", binary);
  ASSERT_EQ(json.status, 0);
  EXPECT_NE(json.output.find("\"2023-11-14T22:13:20Z\""), std::string::npos) << json.output;
  EXPECT_NE(json.output.find("\"AAEC\""), std::string::npos) << json.output;

  auto xml = runCommand(tool + " plist --to xml", binary);
  ASSERT_EQ(xml.status, 0);
  auto back = runCommand(tool + " plist --to binary", xml.output);
  ASSERT_EQ(back.status, 0);
  EXPECT_EQ(kp::readPropertyList(kp::Data::fromString(back.output).bytes()), v);

  auto bad = runCommand(tool + " plist 2>&1 >/dev/null", "bplist00 truncated");
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(std::count(bad.output.begin(), bad.output.end(), '\n'), 1) << bad.output;
}

}  // namespace
