// The writers of the levelled logger: line layouts, the journal protocol on a real socket, and
// what happens when the journal is missing, full, gone or hammered from many threads.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kp/logging/tarvix_log_writers.h"
#include "platform/system_log_internal.h"
#include "support/journal_socket.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace kp {
namespace {

using namespace std::chrono_literals;

TarvixLogData entry(TarvixLogLevel level, std::string message, std::string category = "General", int line = 42,
                    std::string function = "load(url:)", std::string file = "/src/app/Loader.src") {
  return TarvixLogData{level,
                       Date::fromTimeIntervalSince1970(1795442587.125),
                       std::move(message),
                       std::move(category),
                       std::move(file),
                       line,
                       std::move(function)};
}

struct RecordedCall {
  const OSLogger* logger;
  OSLogType type;
  std::string message;
};

struct RecordingExecutable final : TarvixOSLogExecutable {
  void log(const OSLogger& logger, OSLogType level, std::string_view message, const OSLogCodeLocation&) override {
    std::lock_guard lock(mutex);
    calls.push_back({&logger, level, std::string(message)});
  }
  std::mutex mutex;
  std::vector<RecordedCall> calls;
};

struct CollectingConsole final : TarvixConsoleLogExecutable {
  void log(std::string_view message) override { lines.emplace_back(message); }
  std::vector<std::string> lines;
};

// A pipe standing in for standard error.
struct Pipe {
  Pipe() { EXPECT_EQ(::pipe2(fds, O_NONBLOCK), 0); }
  ~Pipe() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  std::string read() {
    std::string all;
    char chunk[4096];
    for (ssize_t n; (n = ::read(fds[0], chunk, sizeof chunk)) > 0;) all.append(chunk, static_cast<std::size_t>(n));
    return all;
  }
  int fds[2] = {-1, -1};
};

TEST(TarvixConsoleLogWriterTest, LineCarriesTheEntrysOwnTimeMarkCategoryAndPosition) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  auto console = std::make_shared<CollectingConsole>();
  TarvixConsoleLogWriter writer(console);
  writer.log(entry(TarvixLogLevel::error, "failed"));
  writer.log(entry(TarvixLogLevel::fault, "f", "Net", 7, "plain", "File.src"));
  writer.log(entry(TarvixLogLevel::debug, "d", "General", 12345));
  writer.log(entry(TarvixLogLevel::info, "i"));
  writer.log(entry(TarvixLogLevel::notice, "n"));
  EXPECT_EQ(console->lines, (std::vector<std::string>{
                                "[14:03:07.125 \u26D4\uFE0F] - General - Loader.src load L:0042 - failed",
                                "[14:03:07.125 \U0001F525] - Net - File.src plain L:0007 - f",
                                "[14:03:07.125 \u26AB\uFE0F] - General - Loader.src load L:12345 - d",
                                "[14:03:07.125 \U0001F535] - General - Loader.src load L:0042 - i",
                                "[14:03:07.125 \u2622\uFE0F] - General - Loader.src load L:0042 - n",
                            }));
}

// (Which level becomes which priority is seen in the journal entries below.)
TEST(TarvixOSLogWriterTest, MessageLayoutAndOneLoggerPerCategory) {
  auto recording = std::make_unique<RecordingExecutable>();
  RecordingExecutable& calls = *recording;
  TarvixOSLogWriter writer("com.example.test", std::move(recording), nullptr);
  writer.log(entry(TarvixLogLevel::notice, "done"));
  writer.log(entry(TarvixLogLevel::debug, "x", "General", 7, "plain"));
  writer.log(entry(TarvixLogLevel::info, "x", "Net", 12345));
  writer.log(entry(TarvixLogLevel::error, "x", "Net"));
  writer.log(entry(TarvixLogLevel::fault, "x"));
  ASSERT_EQ(calls.calls.size(), 5u);
  EXPECT_EQ(calls.calls[1].message, "L:0007 Loader.src (plain): x");
  EXPECT_EQ(calls.calls[2].message, "L:12345 Loader.src (load): x");
  EXPECT_EQ(calls.calls[0].logger, calls.calls[1].logger);
  EXPECT_EQ(calls.calls[0].logger, calls.calls[4].logger);
  EXPECT_EQ(calls.calls[2].logger, calls.calls[3].logger);
  EXPECT_NE(calls.calls[0].logger, calls.calls[2].logger);
  EXPECT_EQ(calls.calls[2].logger->category(), "Net");
  EXPECT_EQ(calls.calls[2].logger->subsystem(), "com.example.test");
}

class JournalWriterTest : public ::testing::Test {
 protected:
  std::filesystem::path socketPath() const { return dir.path() / "socket"; }
  TarvixOSLogWriter writerFor(int fallbackDescriptor) {
    return TarvixOSLogWriter("com.example.test", std::make_unique<TarvixCoreLogicOSLogExecutor>(),
                             internal::makeSystemLog(socketPath().string(), fallbackDescriptor));
  }
  test::TempDir dir;
  Pipe fallback;
};

TEST_F(JournalWriterTest, EntriesArriveAsNativeProtocolFieldsWithSyslogPriorities) {
  test::JournalSocket journal(socketPath());
  auto writer = writerFor(fallback.fds[1]);
  const TarvixLogLevel levels[] = {TarvixLogLevel::debug, TarvixLogLevel::info, TarvixLogLevel::notice,
                                   TarvixLogLevel::error, TarvixLogLevel::fault};
  for (TarvixLogLevel level : levels) writer.log(entry(level, "done"));
  std::vector<std::string> priorities;
  for (int i = 0; i < 5; ++i) {
    auto fields = journal.receive();
    ASSERT_TRUE(fields);
    priorities.push_back((*fields)["PRIORITY"]);
    if (i == 0) {
      EXPECT_EQ((*fields)["MESSAGE"], "L:0042 Loader.src (load): done");
      EXPECT_EQ((*fields)["SUBSYSTEM"], "com.example.test");
      EXPECT_EQ((*fields)["CATEGORY"], "General");
      EXPECT_EQ((*fields)["CODE_FILE"], "/src/app/Loader.src");
      EXPECT_EQ((*fields)["CODE_LINE"], "42");
      EXPECT_EQ((*fields)["CODE_FUNC"], "load(url:)");
    }
  }
  EXPECT_EQ(priorities, (std::vector<std::string>{"7", "6", "5", "3", "2"}));
  EXPECT_EQ(fallback.read(), "");
}

TEST_F(JournalWriterTest, HostileMessagesArriveWholeReadableAndBounded) {
  test::JournalSocket journal(socketPath());
  auto writer = writerFor(fallback.fds[1]);
  writer.log(
      entry(TarvixLogLevel::error, std::string("two\nlines, a \0 NUL, bad \xC3\x28 and 100% %s %n", 41), "Cat\negory"));
  const std::string twoMegabytes(2 << 20, 'm');
  writer.log(entry(TarvixLogLevel::error, twoMegabytes));
  writer.log(entry(TarvixLogLevel::error, std::string(9 << 20, 'h')));

  auto hostile = journal.receive();
  ASSERT_TRUE(hostile);
  EXPECT_EQ((*hostile)["MESSAGE"],
            "L:0042 Loader.src (load): two\nlines, a \xEF\xBF\xBD NUL, bad \xEF\xBF\xBD( and 100% %s %n");
  EXPECT_EQ((*hostile)["CATEGORY"], "Cat\negory");
  auto large = journal.receive();
  ASSERT_TRUE(large);
  EXPECT_EQ((*large)["MESSAGE"], "L:0042 Loader.src (load): " + twoMegabytes);
  auto huge = journal.receive();
  ASSERT_TRUE(huge);
  EXPECT_LT((*huge)["MESSAGE"].size(), (8u << 20) + 8);
  EXPECT_EQ((*huge)["MESSAGE"].substr((*huge)["MESSAGE"].size() - 3), "\xE2\x80\xA6");
  EXPECT_EQ(fallback.read(), "");
}

TEST_F(JournalWriterTest, WithoutAJournalEachEntryIsOneFallbackLineAndAReturningJournalIsFound) {
  auto writer = writerFor(fallback.fds[1]);
  writer.log(entry(TarvixLogLevel::error, "first\nsecond \x01"));
  writer.log(entry(TarvixLogLevel::notice, "next", "Net"));
  EXPECT_EQ(fallback.read(),
            "com.example.test[General] error: L:0042 Loader.src (load): first\nsecond \xEF\xBF\xBD\n"
            "com.example.test[Net] default: L:0042 Loader.src (load): next\n");

  {
    test::JournalSocket journal(socketPath());
    writer.log(entry(TarvixLogLevel::error, "up"));
    auto fields = journal.receive();
    ASSERT_TRUE(fields);
    EXPECT_EQ((*fields)["MESSAGE"], "L:0042 Loader.src (load): up");
  }
  writer.log(entry(TarvixLogLevel::error, "gone"));  // the journal closed mid-run
  EXPECT_EQ(fallback.read(), "com.example.test[General] error: L:0042 Loader.src (load): gone\n");
  test::JournalSocket restarted(socketPath());
  writer.log(entry(TarvixLogLevel::error, "back"));
  auto fields = restarted.receive();
  ASSERT_TRUE(fields);
  EXPECT_EQ((*fields)["MESSAGE"], "L:0042 Loader.src (load): back");
}

TEST_F(JournalWriterTest, FullJournalHoldsAnEntryBrieflyThenFallsBackWithoutWaitingAgain) {
  test::JournalSocket journal(socketPath());
  auto writer = writerFor(fallback.fds[1]);
  const auto start = std::chrono::steady_clock::now();
  // More entries than a datagram queue holds (net.unix.max_dgram_qlen, 10 to 512).
  for (int i = 0; i < 1000; ++i) writer.log(entry(TarvixLogLevel::error, std::string(4000, 'f')));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  // One wait of 100 ms at most, not one per entry.
  EXPECT_LT(elapsed, 2s);
  const std::string spilled = fallback.read();
  EXPECT_GT(spilled.size(), 0u);
  EXPECT_GT(journal.drain(), 0);
  writer.log(entry(TarvixLogLevel::error, "room again"));
  auto fields = journal.receive();
  ASSERT_TRUE(fields);
  EXPECT_EQ((*fields)["MESSAGE"], "L:0042 Loader.src (load): room again");
}

TEST_F(JournalWriterTest, ManyThreadsLoggingWhileCategoriesAreAddedLoseNothing) {
  test::JournalSocket journal(socketPath());
  auto writer = writerFor(fallback.fds[1]);
  constexpr int kThreads = 4;
  constexpr int kEach = 150;
  std::atomic<int> received{0};
  std::set<std::string> categories;
  std::thread reader([&] {
    while (received < kThreads * kEach) {
      auto fields = journal.receive(10s);
      if (!fields) break;
      categories.insert((*fields)["CATEGORY"]);
      ++received;
    }
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        writer.log(entry(TarvixLogLevel::info, "m", "C" + std::to_string((t * kEach + i) % 50)));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  reader.join();
  const std::string spilled = fallback.read();
  std::size_t spilledLines = 0;
  for (char c : spilled) spilledLines += c == '\n' ? 1 : 0;
  EXPECT_EQ(static_cast<std::size_t>(received.load()) + spilledLines, static_cast<std::size_t>(kThreads * kEach));
  EXPECT_EQ(categories.size(), 50u);
}

// A real journald in a namespace of its own, queried with journalctl.
TEST(RealJournalTest, EntriesAreFoundBySubsystemAndCategory) {
  const char* daemon = "/lib/systemd/systemd-journald";
  if (::geteuid() != 0 || ::access(daemon, X_OK) != 0 || ::access("/usr/bin/journalctl", X_OK) != 0) {
    GTEST_SKIP() << "needs root and systemd-journald";
  }
  const std::string ns = "kptest" + std::to_string(::getpid());
  const std::filesystem::path socket = "/run/systemd/journal." + ns + "/socket";
  const auto daemonPid = ::fork();
  ASSERT_GE(daemonPid, 0);
  if (daemonPid == 0) {
    const int quiet = ::open("/dev/null", O_WRONLY);
    ::dup2(quiet, 2);
    ::execl(daemon, daemon, ns.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  (void)test::eventually([&] { return std::filesystem::exists(socket); }, 2s);
  const std::string subsystem = "com.example." + ns;
  {
    TarvixOSLogWriter writer(subsystem, std::make_unique<TarvixCoreLogicOSLogExecutor>(),
                             SystemLog::make(socket.string()));
    writer.log(entry(TarvixLogLevel::notice, "journal line\nsecond"));
    writer.log(entry(TarvixLogLevel::fault, "other category", "Net"));
  }
  std::string output;
  (void)test::eventually(
      [&] {
        output = test::runCommand("journalctl --namespace=" + ns + " -o json SUBSYSTEM=" + subsystem +
                                  " CATEGORY=General 2>/dev/null")
                     .output;
        return output.find("journal line") != std::string::npos;
      },
      3s);
  ::kill(daemonPid, SIGTERM);
  ::waitpid(daemonPid, nullptr, 0);
  std::error_code ignored;
  std::filesystem::remove_all(socket.parent_path(), ignored);
  for (const auto& dir : std::filesystem::directory_iterator("/var/log/journal", ignored)) {
    if (dir.path().extension() == "." + ns) std::filesystem::remove_all(dir.path(), ignored);
  }
  EXPECT_NE(output.find(R"j("MESSAGE":"L:0042 Loader.src (load): journal line\nsecond")j"), std::string::npos)
      << output;
  EXPECT_NE(output.find(R"j("PRIORITY":"5")j"), std::string::npos);
  EXPECT_NE(output.find(R"j("CODE_FUNC":"load(url:)")j"), std::string::npos);
  EXPECT_EQ(output.find("other category"), std::string::npos);
}

}  // namespace
}  // namespace kp
