// The core channel: made once on first use, and every logger that has been the channel kept
// for the rest of the process, which is what lets CL() hand out a plain pointer that another
// thread's setCL() cannot invalidate.
#include "kp/logging/tarvix_logger.h"

#include <mutex>
#include <vector>

#include "kp/logging/tarvix_log_writers.h"
#include "platform/no_destructor.h"

namespace kp {
namespace {

struct Channel {
  std::mutex mutex;
  std::vector<std::shared_ptr<TarvixLoggers::CoreLogger>> loggers;  // guarded by mutex
};

Channel& channel() {
  static internal::NoDestructor<Channel> instance;
  return *instance;
}

}  // namespace

std::atomic<TarvixLoggers::CoreLogger*> TarvixLoggers::current_{nullptr};

std::string_view name(TarvixLogLevel level) noexcept {
  switch (level) {
    case TarvixLogLevel::debug:
      return "debug";
    case TarvixLogLevel::info:
      return "info";
    case TarvixLogLevel::notice:
      return "notice";
    case TarvixLogLevel::error:
      return "error";
    case TarvixLogLevel::fault:
      return "fault";
  }
  return "notice";
}

TarvixLoggers::CoreLogger* TarvixLoggers::makeCL() noexcept {
  Channel& shared = channel();
  std::lock_guard lock(shared.mutex);
  if (CoreLogger* logger = current_.load(std::memory_order_acquire)) return logger;
  auto logger = std::make_shared<CoreLogger>(
      std::make_unique<TarvixOSLogWriter>(std::string(kSubsystem), std::make_unique<TarvixCoreLogicOSLogExecutor>()),
      TarvixLogLevel::error, true);
  shared.loggers.push_back(logger);
  current_.store(logger.get(), std::memory_order_release);
  return logger.get();
}

void TarvixLoggers::setCL(std::shared_ptr<CoreLogger> logger) {
  if (!logger) return;
  Channel& shared = channel();
  std::lock_guard lock(shared.mutex);
  CoreLogger* next = logger.get();
  shared.loggers.push_back(std::move(logger));
  current_.store(next, std::memory_order_release);
}

}  // namespace kp
