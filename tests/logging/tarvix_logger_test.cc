// The levelled logger: levels, observers, the core channel and its replacement.
#include "kp/logging/tarvix_logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kp/logging/tarvix_log_writers.h"

namespace kp {
namespace {

struct CollectingWriter final : TarvixLogWriter {
  void log(const TarvixLogData& data) override { entries.push_back(data); }
  std::vector<TarvixLogData> entries;
};

struct RecordingObserver final : TarvixLoggerObserver {
  void isEnabledDidChange(bool isEnabled) override { events.push_back(isEnabled ? "enabled" : "disabled"); }
  void logLevelDidChange(TarvixLogLevel level) override { events.push_back(std::string(name(level))); }
  std::vector<std::string> events;
};

using CoreLogger = TarvixLoggers::CoreLogger;

std::shared_ptr<CoreLogger> makeLogger(CollectingWriter** writer = nullptr) {
  auto collecting = std::make_unique<CollectingWriter>();
  if (writer) *writer = collecting.get();
  return std::make_shared<CoreLogger>(std::move(collecting), TarvixLogLevel::error, true);
}

TEST(TarvixLoggerTest, EveryWriteNotifiesLiveObserversInOrderAndReleasedOnesDropOut) {
  auto logger = makeLogger();
  auto first = std::make_shared<RecordingObserver>();
  auto second = std::make_shared<RecordingObserver>();
  auto released = std::make_shared<RecordingObserver>();
  logger->add(first);
  logger->add(released);
  logger->add(second);
  logger->add(first);  // already there: still told once
  released.reset();

  logger->setIsEnabled(true);  // unchanged, still told
  logger->setLogLevel(TarvixLogLevel::debug);
  logger->setIsEnabled(false);
  EXPECT_EQ(first->events, (std::vector<std::string>{"enabled", "debug", "disabled"}));
  EXPECT_EQ(second->events, first->events);
  EXPECT_FALSE(logger->isEnabled());
  EXPECT_EQ(logger->logLevel(), TarvixLogLevel::debug);

  logger->remove(first);
  logger->setLogLevel(TarvixLogLevel::fault);
  EXPECT_EQ(first->events.size(), 3u);
  EXPECT_EQ(second->events.back(), "fault");
}

TEST(TarvixLoggerTest, LevelOperationsNeverReachTheWriter) {
  CollectingWriter* writer = nullptr;
  auto logger = makeLogger(&writer);
  logger->setLogLevel(TarvixLogLevel::debug);
  logger->debug("d");
  logger->info(TarvixCoreLogicLogCategory::general, "i");
  logger->notice("n");
  logger->error("e");
  logger->fault(TarvixCoreLogicLogCategory::general, "f");
  EXPECT_TRUE(writer->entries.empty());
}

TEST(TarvixLoggersTest, CoreChannelStartsEnabledAtErrorAndStaysValidWhileReplaced) {
  TarvixLoggers::CoreLogger* initial = TarvixLoggers::CL();
  ASSERT_NE(initial, nullptr);
  EXPECT_EQ(TarvixLoggers::CL(), initial);

  std::atomic<bool> stop{false};
  std::vector<std::thread> callers;
  for (int i = 0; i < 2; ++i) {
    callers.emplace_back([&] {
      while (!stop.load()) {
        TarvixLoggers::CoreLogger* logger = TarvixLoggers::CL();
        logger->error("text");
        (void)logger->logLevel();
      }
    });
  }
  std::shared_ptr<CoreLogger> last;
  for (int i = 0; i < 50; ++i) {
    last = makeLogger();
    TarvixLoggers::setCL(last);
  }
  stop = true;
  for (auto& t : callers) t.join();
  EXPECT_EQ(TarvixLoggers::CL(), last.get());
  // The first channel is still alive: its settings are still readable.
  EXPECT_EQ(initial->logLevel(), TarvixLogLevel::error);
  EXPECT_TRUE(initial->isEnabled());
}

}  // namespace
}  // namespace kp
