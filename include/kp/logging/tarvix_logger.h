// kp::TarvixLogger<Category>: the levelled logger with categories, and kp::TarvixLoggers::CL(),
// the library's own core log channel (category "General").
//
// A logger has a master switch (isEnabled), a threshold (logLevel), observers of both, and an
// owned writer. Its five level operations are deliberately empty: the library leaves them in
// every path where it notices a data problem, so they must cost nothing, and a host that wants
// entries drives a writer (tarvix_log_writers.h) itself. Every write of isEnabled or logLevel,
// changed or not, tells the live observers on the writing thread, in the order they were added;
// observers are held weakly and drop out when released.
//
// CL() never returns null. setCL() replaces the channel; every logger that has been CL stays
// alive until the process ends, so a pointer from CL() stays valid while another thread
// replaces it (replacements are expected a few times per process, not in a loop).
//
// Thread safety: every member may be called from any thread. The settings are atomic values;
// observers are called on the thread that wrote the setting.
//
// The writer a logger is made with is kept, never written to: the level operations that would
// feed it are empty by design, so nothing the library reports through CL() reaches any writer,
// the journal included. It is held so that a logger owns the writer it was configured with
// for its life (a writer tied to a logger lives exactly as long as the channel).
//
// Example:
//   // Costs one atomic load and writes nothing, by design:
//   kp::TarvixLoggers::CL()->error("Stored value is not a string");
//   // Settings and their observers are live:
//   auto logger = std::make_shared<kp::TarvixLoggers::CoreLogger>(
//       std::make_unique<kp::TarvixConsoleLogWriter>(), kp::TarvixLogLevel::debug, true);
//   kp::TarvixLoggers::setCL(logger);
#pragma once

#include <atomic>
#include <concepts>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kp/platform/date.h"
#include "kp/platform/export.h"
#include "kp/platform/weak_hash_table.h"
#include "tarvix/source_location.h"

namespace kp {

// Ordered by raw value.
enum class TarvixLogLevel : int { debug = 0, info = 1, notice = 2, error = 3, fault = 4 };

// The level with raw value `rawValue`; nothing outside 0...4.
[[nodiscard]] constexpr std::optional<TarvixLogLevel> tarvixLogLevel(int rawValue) noexcept {
  if (rawValue < 0 || rawValue > 4) return std::nullopt;
  return static_cast<TarvixLogLevel>(rawValue);
}

// Its name: "debug", "info", "notice", "error" or "fault".
[[nodiscard]] KP_EXPORT std::string_view name(TarvixLogLevel level) noexcept;

// One entry as a TarvixLogWriter receives it.
struct KP_EXPORT TarvixLogData {
  TarvixLogLevel level = TarvixLogLevel::debug;  // the level
  Date date;                                     // when it was logged
  std::string message;                           // the message
  std::string category;                          // the category's raw value
  std::string filename;                          // the caller's source path
  int line = 0;                                  // the caller's line
  std::string function;                          // the caller's function name or signature
};

// Where a logger's entries go (tarvix_log_writers.h has the library's own).
class KP_EXPORT TarvixLogWriter {
 public:
  virtual ~TarvixLogWriter() = default;
  // Writes one entry; called from any thread.
  virtual void log(const TarvixLogData& data) = 0;
};

// Hears of every write of a logger's settings.
class KP_EXPORT TarvixLoggerObserver {
 public:
  virtual ~TarvixLoggerObserver() = default;
  // The master switch was written (changed or not).
  virtual void isEnabledDidChange(bool isEnabled) = 0;
  // The threshold was written (changed or not).
  virtual void logLevelDidChange(TarvixLogLevel logLevel) = 0;
};

// A category type has text raw values, given by a rawValue(category) found next to the type.
template <class C>
concept TarvixLogCategory = std::copyable<C> && requires(const C& category) {
  { rawValue(category) } -> std::convertible_to<std::string_view>;
};

template <TarvixLogCategory Category>
class TarvixLogger {
 public:
  using Where = tarvix::SourceLocation;  // the calling place

  // REQUIRES: logWriter is not null.
  TarvixLogger(std::unique_ptr<TarvixLogWriter> logWriter, TarvixLogLevel logLevel, bool isEnabled)
      : logWriter_(std::move(logWriter)), isEnabled_(isEnabled), logLevel_(logLevel) {}
  TarvixLogger(const TarvixLogger&) = delete;
  TarvixLogger& operator=(const TarvixLogger&) = delete;

  // The master switch.
  [[nodiscard]] bool isEnabled() const noexcept { return isEnabled_.load(std::memory_order_relaxed); }
  // Writes the master switch and tells the observers.
  void setIsEnabled(bool isEnabled) {
    isEnabled_.store(isEnabled, std::memory_order_relaxed);
    observers_.forEach([isEnabled](const auto& observer) { observer->isEnabledDidChange(isEnabled); });
  }
  // The threshold.
  [[nodiscard]] TarvixLogLevel logLevel() const noexcept { return logLevel_.load(std::memory_order_relaxed); }
  // Writes the threshold and tells the observers.
  void setLogLevel(TarvixLogLevel logLevel) {
    logLevel_.store(logLevel, std::memory_order_relaxed);
    observers_.forEach([logLevel](const auto& observer) { observer->logLevelDidChange(logLevel); });
  }

  // Holds `observer` weakly until it is removed or released.
  void add(const std::shared_ptr<TarvixLoggerObserver>& observer) { observers_.add(observer); }
  // Stops telling `observer`.
  void remove(const std::shared_ptr<TarvixLoggerObserver>& observer) { observers_.remove(observer); }

  // Empty on purpose (see above): they neither filter nor reach the writer.
  void debug(std::string_view /*message*/, Where /*where*/ = Where::current()) const noexcept {}
  // Empty on purpose, as debug(message).
  void debug(const Category& /*category*/, std::string_view /*message*/,
             Where /*where*/ = Where::current()) const noexcept {}
  // Empty on purpose, as debug(message).
  void info(std::string_view /*message*/, Where /*where*/ = Where::current()) const noexcept {}
  // Empty on purpose, as debug(message).
  void info(const Category& /*category*/, std::string_view /*message*/,
            Where /*where*/ = Where::current()) const noexcept {}
  // Empty on purpose, as debug(message).
  void notice(std::string_view /*message*/, Where /*where*/ = Where::current()) const noexcept {}
  // Empty on purpose, as debug(message).
  void notice(const Category& /*category*/, std::string_view /*message*/,
              Where /*where*/ = Where::current()) const noexcept {}
  // Empty on purpose, as debug(message).
  void error(std::string_view /*message*/, Where /*where*/ = Where::current()) const noexcept {}
  // Empty on purpose, as debug(message).
  void error(const Category& /*category*/, std::string_view /*message*/,
             Where /*where*/ = Where::current()) const noexcept {}
  // Empty on purpose, as debug(message).
  void fault(std::string_view /*message*/, Where /*where*/ = Where::current()) const noexcept {}
  // Empty on purpose, as debug(message).
  void fault(const Category& /*category*/, std::string_view /*message*/,
             Where /*where*/ = Where::current()) const noexcept {}

 private:
  // Owned, never written to (see the top of this file).
  std::unique_ptr<TarvixLogWriter> logWriter_;
  WeakHashTable<TarvixLoggerObserver> observers_;
  std::atomic<bool> isEnabled_;
  std::atomic<TarvixLogLevel> logLevel_;
};

// The library's own category.
enum class TarvixCoreLogicLogCategory { general };
// "General".
[[nodiscard]] constexpr std::string_view rawValue(TarvixCoreLogicLogCategory) noexcept { return "General"; }

// The library's core log channel (see the top of this file).
class KP_EXPORT TarvixLoggers {
 public:
  using CoreLogger = TarvixLogger<TarvixCoreLogicLogCategory>;  // the channel's logger type

  // The subsystem of the default channel's writer (which, like every channel's, receives
  // nothing: see the top of this file).
  static constexpr std::string_view kSubsystem = "com.tarvix.KPFrameworkCoreLogic";

  // The core channel. Made on first use with a TarvixOSLogWriter over kSubsystem, enabled,
  // at level error.
  [[nodiscard]] static CoreLogger* CL() noexcept {
    if (CoreLogger* logger = current_.load(std::memory_order_acquire)) [[likely]] {
      return logger;
    }
    return makeCL();
  }
  // REQUIRES: logger is not null.
  static void setCL(std::shared_ptr<CoreLogger> logger);

 private:
  static CoreLogger* makeCL() noexcept;
  static std::atomic<CoreLogger*> current_;
};

}  // namespace kp
