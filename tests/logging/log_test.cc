// The printf-style log: filtering, formatting of arguments, the console line and the bridge.
#include "kp/logging/log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kp/logging/log_console_writer.h"

namespace kp {
namespace {

struct Entry {
  Log::LogType type;
  std::string message;
  std::string filename;
  int line;
  std::string function;
};

class CollectingWriter final : public LogWriter {
 public:
  std::shared_ptr<Log::FormatOptions> formatOptions() const override { return options_; }
  void setFormatOptions(std::shared_ptr<Log::FormatOptions> options) override { options_ = std::move(options); }
  void log(const Log::LogData& data) override {
    entries.push_back(
        {data.type, std::string(data.message), std::string(data.filename), data.line, std::string(data.function)});
  }
  std::vector<Entry> entries;

 private:
  std::shared_ptr<Log::FormatOptions> options_ = std::make_shared<Log::FormatOptions>(false, false, "");
};

// Everything written to a temporary stream.
class CapturedStream {
 public:
  CapturedStream() : file_(std::tmpfile()) {}
  ~CapturedStream() { std::fclose(file_); }
  std::FILE* get() const { return file_; }
  std::string text() const {
    std::fflush(file_);
    std::rewind(file_);
    std::string all;
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, file_)) > 0;) all.append(chunk, n);
    return all;
  }

 private:
  std::FILE* file_;
};

struct Described {
  std::string description() const { return "<thing>"; }
};

template <class... Args>
std::string formatted(LogFormat<Args...> format, const Args&... args) {
  auto writer = std::make_shared<CollectingWriter>();
  Log log(writer, Log::Options::default_);
  log.info(format, args...);
  return writer->entries.empty() ? "<nothing>" : writer->entries.back().message;
}

TEST(LogTest, EachOfLevelOptionWriterAndSwitchSilencesAnEntry) {
  auto writer = std::make_shared<CollectingWriter>();
  Log log(nullptr, Log::Options::default_);
  log.error("no writer");
  log.setLogWriter(writer);
  log.setLogOptions({false, true, true, true, true});
  log.error("switched off");
  log.setLogOptions({true, false, true, false, true});
  log.debug("debug off");
  log.info("info on");
  log.warning("warnings off");
  log.error("errors on");
  log.setLogOptions(Log::Options::default_);
  log.debug("all on");
  log.warning("all on");

  std::vector<std::string> messages;
  for (const auto& e : writer->entries) messages.push_back(e.message);
  EXPECT_EQ(messages, (std::vector<std::string>{"info on", "errors on", "all on", "all on"}));
  EXPECT_EQ(writer->entries[1].type, Log::LogType::error);
  EXPECT_EQ(writer->entries[2].type, Log::LogType::debug);
  EXPECT_EQ(log.logOptions(), Log::Options::default_);
}

TEST(LogTest, DefaultLogIsSilentUntilWriterAndOptionsAreBothSet) {
  Log& log = Log::default_();
  EXPECT_EQ(log.logOptions(), Log::Options::none);
  EXPECT_EQ(log.logWriter(), nullptr);
  auto writer = std::make_shared<CollectingWriter>();
  logError("untouched");
  log.setLogWriter(writer);
  logError("writer only");
  log.setLogOptions(Log::Options::default_);
  logDebug("d %d", 1);
  logInfo("i");
  logWarning("w");
  logError("e");
  logError(LogErrorTest{"anything"}, "e %s", "with test");
  LogBridge::info("bridged");
  log.setLogWriter(nullptr);
  log.setLogOptions(Log::Options::none);

  std::vector<std::string> messages;
  for (const auto& e : writer->entries) messages.push_back(e.message);
  EXPECT_EQ(messages, (std::vector<std::string>{"d 1", "i", "w", "e", "e with test", "bridged"}));
  EXPECT_EQ(writer->entries[4].type, Log::LogType::error);
}

TEST(LogTest, CallerPositionIsTakenAtTheCallSite) {
  auto writer = std::make_shared<CollectingWriter>();
  Log log(writer, Log::Options::default_);
  const int line = __LINE__ + 1;
  log.warning("here %d", 1);
  log.warning({"there", LogSource("/src/Other.src", 9, "other(x:)")});
  ASSERT_EQ(writer->entries.size(), 2u);
  EXPECT_EQ(writer->entries[0].line, line);
  EXPECT_NE(writer->entries[0].filename.find("log_test.cc"), std::string::npos);
  EXPECT_NE(writer->entries[0].function.find("TestBody"), std::string::npos);
  EXPECT_EQ(writer->entries[1].filename, "/src/Other.src");
  EXPECT_EQ(writer->entries[1].function, "other(x:)");
}

TEST(LogFormatTest, CheckedDirectivesFormatAsPrintfWithTheArgumentsOwnTypes) {
  EXPECT_EQ(formatted("%d|%i|%u|%5d|%-5d|%05d|%+d|%.3d", 42, -7, 7u, 42, 42, 42, 42, 5),
            "42|-7|7|   42|42   |00042|+42|005");
  EXPECT_EQ(formatted("%x %X %o %#x %lld %zu", 255, 255, 8, 255, 1LL << 40, std::size_t{9}),
            "ff FF 10 0xff 1099511627776 9");
  // Unsigned conversions see a negative value in its own width; hh and h narrow.
  EXPECT_EQ(formatted("%x %x %hhd %hu", -1, std::int64_t{-1}, 300, 70000), "ffffffff ffffffffffffffff 44 4464");
  EXPECT_EQ(formatted("%f %.2f %8.3f %e %g", 1.5, 2.345, -3.14159, 1234.5, 0.0001),
            "1.500000 2.35   -3.142 1.234500e+03 0.0001");
  EXPECT_EQ(formatted("%s|%8s|%-4s|%.2s|%s", "abc", std::string("right"), std::string_view("l"), "cut",
                      static_cast<const char*>(nullptr)),
            "abc|   right|l   |cu|(null)");
  EXPECT_EQ(formatted("%c%c %% %@ %@ %@ %@", 'o', 'k', Described{}, 12, std::optional<Described>{}, "text"),
            "ok % <thing> 12 (null) text");
  EXPECT_EQ(formatted("%*d|%-*d|%.*s", 4, 7, 3, 7, 2, "xyz"), "   7|7  |xy");
  EXPECT_EQ(formatted("%p", static_cast<const void*>(nullptr)), "0x0");
  EXPECT_EQ(formatted("%.3s", "\xC3\xA9\xC3\xA9"), "\xC3\xA9");  // never cuts inside a character
  EXPECT_EQ(formatted("%d %s", true, "x"), "1 x");
}

TEST(LogFormatTest, RuntimeFormatsWriteUnfittingDirectivesAsTheyStand) {
  auto run = [](std::string_view format, auto... args) {
    return formatted<decltype(args)...>(runtimeLogFormat(format), args...);
  };
  EXPECT_EQ(run("100%"), "100%");
  EXPECT_EQ(run("%d and %s", 5), "5 and %s");
  EXPECT_EQ(run("%s", 5), "%s");
  EXPECT_EQ(run("%n%1$d%k%"), "%n%1$d%k%");
  EXPECT_EQ(run("%99999999d|%.99999999f", 1, 2.0), "%99999999d|%.99999999f");
  EXPECT_EQ(run("%*d", 100000, 1), "%*d");
  EXPECT_EQ(run(std::string_view("a\0b %d", 6), 1), std::string("a\0b 1", 5));
  const std::string megabyte(1 << 20, 'x');
  EXPECT_EQ(run("%s%s", megabyte, megabyte).size(), 2u << 20);
}

TEST(LogConsoleWriterTest, LineLayoutFollowsTheSwitchesReadAtEveryLine) {
  CapturedStream out;
  auto options = std::make_shared<Log::FormatOptions>(false, true, "'D:'yyyy");
  auto writer = std::make_shared<LogConsoleWriter>(options, out.get());
  Log log(writer, Log::Options::default_);
  log.info({"done", LogSource("/src/app/Loader.src", 7, "load(url:)")});
  log.error({"big", LogSource("Loader.src", 12345, "plain")});
  log.debug({"neg", LogSource("", -7, "")});
  options->setPrefixFileFunctionAndLine(false);
  log.warning({"short", LogSource("x", 1, "f")});
  options->setDateFormat("'other'");  // the writer's formatter was fixed when it was made
  options->setPrefixDate(true);
  writer->setFormatOptions(std::make_shared<Log::FormatOptions>(true, false, "'ignored'"));
  log.info({"dated", LogSource("x", 1, "f")});

  const std::string year = Date::now().iso8601().substr(0, 4);
  EXPECT_EQ(out.text(),
            "\U0001F535: 0007 Loader.src (load): done\n"
            "\u26D4\uFE0F: 12345 Loader.src (plain): big\n"
            "\u26AB\uFE0F: -007  (): neg\n"
            "\u2622\uFE0F: short\n"
            "D:" +
                year + " \U0001F535: dated\n");
}

TEST(LogConsoleWriterTest, LinesFromManyThreadsStayWhole) {
  CapturedStream out;
  auto writer =
      std::make_shared<LogConsoleWriter>(std::make_shared<Log::FormatOptions>(true, true, "HH:mm:ss.SSS"), out.get());
  Log log(writer, Log::Options::default_);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&log, t] {
      for (int i = 0; i < 500; ++i) log.info("thread %d line %d %s", t, i, std::string(100, 'a' + t));
    });
  }
  for (auto& thread : threads) thread.join();
  const std::string text = out.text();
  std::size_t lines = 0;
  for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1, ++lines) {
    const std::string line = text.substr(start, end - start);
    const std::size_t at = line.find(": thread ");
    ASSERT_NE(at, std::string::npos) << line;
    const char letter = static_cast<char>('a' + (line[at + 9] - '0'));
    EXPECT_EQ(line.substr(line.size() - 101), " " + std::string(100, letter)) << line;
  }
  EXPECT_EQ(lines, 2000u);
}

TEST(LogBridgeTest, MessagesAreFormatsWithoutArguments) {
  auto writer = std::make_shared<CollectingWriter>();
  Log::default_().setLogWriter(writer);
  Log::default_().setLogOptions(Log::Options::default_);
  LogBridge::warning("50%");
  LogBridge::error("%d%%", "/objc/Bridge.m", 3, "-[Bridge run]");
  Log::default_().setLogOptions(Log::Options::none);
  ASSERT_EQ(writer->entries.size(), 2u);
  EXPECT_EQ(writer->entries[0].message, "50%");
  EXPECT_EQ(writer->entries[1].message, "%d%");
  EXPECT_EQ(writer->entries[1].filename, "/objc/Bridge.m");
  EXPECT_EQ(writer->entries[1].line, 3);
  EXPECT_EQ(Log::logType("\u2622\uFE0F"), Log::LogType::warning);
  EXPECT_FALSE(Log::logType("warning"));
}

}  // namespace
}  // namespace kp
