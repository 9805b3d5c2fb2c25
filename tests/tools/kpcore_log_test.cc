// `kpcore log` as a user runs it: a separate process writing to a journal socket, to standard
// error without one, or to the console.
#include <gtest/gtest.h>

#include <regex>

#include "support/journal_socket.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using kp::test::runCommand;
using kp::test::shellQuote;

std::string kpcoreLog(const std::string& arguments) { return std::string(KPCORE_PATH) + " log " + arguments; }

TEST(KpcoreLog, WritesToTheJournalSocketOrStandardErrorWithoutOne) {
  kp::test::TempDir dir;
  const auto socket = dir.path() / "socket";
  {
    kp::test::JournalSocket journal(socket);
    auto sent =
        runCommand(kpcoreLog("--json --level fault --category Net --file /src/Loader.src --line 7 "
                             "--function 'load(url:)' --socket " +
                             shellQuote(socket.string()) + " cannot reach 100%"));
    EXPECT_EQ(sent.status, 0);
    EXPECT_EQ(
        sent.output,
        R"({"destination":"journal","subsystem":"com.tarvix.KPFrameworkCoreLogic","category":"Net","level":"fault"})"
        "\n");
    auto fields = journal.receive();
    ASSERT_TRUE(fields);
    EXPECT_EQ((*fields)["MESSAGE"], "L:0007 Loader.src (load): cannot reach 100%");
    EXPECT_EQ((*fields)["PRIORITY"], "2");
  }
  auto spilled = runCommand(kpcoreLog("--socket " + shellQuote(socket.string()) +
                                      " --line 3 --file a/b.src --function f" + " 2>&1 >/dev/null"),
                            "from stdin\n");
  EXPECT_EQ(spilled.status, 0);
  EXPECT_EQ(spilled.output, "com.tarvix.KPFrameworkCoreLogic[General] default: L:0003 b.src (f): from stdin\n");

  // The JSON stays JSON when the words given are not UTF-8.
  auto odd =
      runCommand(kpcoreLog("--json --category 'N\xff"
                           "et' --socket " +
                           shellQuote(socket.string()) + " x 2>/dev/null"));
  EXPECT_EQ(odd.output, R"({"destination":"stderr","subsystem":"com.tarvix.KPFrameworkCoreLogic","category":"N)"
                        "\uFFFD"
                        R"(et","level":"notice"})"
                        "\n");
}

TEST(KpcoreLog, ConsoleLayoutAndOneLineErrors) {
  auto console = runCommand(kpcoreLog("--console --level error --category Cache --line 12345 hello"));
  EXPECT_EQ(console.status, 0);
  EXPECT_TRUE(std::regex_match(console.output,
                               std::regex("\\[\\d\\d:\\d\\d:\\d\\d\\.\\d{3} \u26D4\uFE0F\\] - Cache - log\\.cc runLog "
                                          "L:12345 - hello\n")))
      << console.output;

  auto bad = runCommand(kpcoreLog("--level loud x 2>&1"));
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.output, "kpcore log: unknown level 'loud' (debug, info, notice, error or fault)\n");
  auto badLine = runCommand(kpcoreLog("--line -5 x 2>&1"));
  EXPECT_EQ(badLine.status, 2);
  EXPECT_EQ(badLine.output, "kpcore log: --line takes 1 to 2147483647: -5\n");

  // Standard input is read up to the largest message the journal takes, and no further.
  const std::string eightMiB = "head -c 8388608 /dev/zero | tr '\\0' x";
  auto largest = runCommand("(" + eightMiB + "; echo) | " + kpcoreLog("--console | wc -c"));
  EXPECT_EQ(largest.status, 0);
  EXPECT_GT(std::stoul(largest.output), 8388608U);
  auto larger = runCommand("(" + eightMiB + "; echo xy) | " + kpcoreLog("--console 2>&1 >/dev/null"));
  EXPECT_EQ(larger.status, 1);
  EXPECT_EQ(larger.output, "kpcore log: the message on standard input is longer than 8 MiB\n");
}

}  // namespace
