// The writers of TarvixLogger entries.
//
// TarvixOSLogWriter sends each entry to the system log (the journal, see
// kp/platform/system_log.h) through one OSLogger per category, made on first use and kept, with
// the message "L:0042 Loader.cc (load): done" and the entry's source position as fields.
// TarvixConsoleLogWriter formats "[14:03:07.125 ⛔️] - General - Loader.cc load L:0042 - failed"
// (the entry's own time, local) and hands it to its executable, by default one that prints it
// to standard output. Function names are cut at their first "(", file names are the last
// component of the path.
//
// The executables are the seams: TarvixCoreLogicOSLogExecutor emits to the OSLogger when it
// has the type enabled; DefaultTarvixConsoleLogExecutor prints one line with one write.
//
// Thread safety: the writers may be called from any thread; the OS writer serialises its
// category map, and executables are called on the logging thread.
//
// Example:
//   kp::TarvixOSLogWriter writer(std::string(kp::TarvixLoggers::kSubsystem),
//                                std::make_unique<kp::TarvixCoreLogicOSLogExecutor>());
//   writer.log({.level = kp::TarvixLogLevel::notice, .date = kp::Date::now(), .message = "Cache purged",
//               .category = "General", .filename = __FILE__, .line = __LINE__, .function = __func__});
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "kp/logging/tarvix_logger.h"
#include "kp/platform/date_formatter.h"
#include "kp/platform/export.h"
#include "kp/platform/system_log.h"

namespace kp {

// The type under which an entry of `level` reaches the system log.
[[nodiscard]] KP_EXPORT OSLogType osLogType(TarvixLogLevel level) noexcept;
// The console mark of `level`: "⚫️", "🔵", "☢️", "⛔️" or "🔥".
[[nodiscard]] KP_EXPORT std::string_view mark(TarvixLogLevel level) noexcept;

// Hands one entry to a system logger; a seam for tests.
class KP_EXPORT TarvixOSLogExecutable {
 public:
  virtual ~TarvixOSLogExecutable() = default;
  // Writes `message` at `level` through `logger`.
  virtual void log(const OSLogger& logger, OSLogType level, std::string_view message,
                   const OSLogCodeLocation& where) = 0;
};

// Writes through the logger when it is enabled for the level.
class KP_EXPORT TarvixCoreLogicOSLogExecutor final : public TarvixOSLogExecutable {
 public:
  // Writes `message` at `level` through `logger` when the logger takes that level.
  void log(const OSLogger& logger, OSLogType level, std::string_view message, const OSLogCodeLocation& where) override;
};

// Writes a logger's entries to the system log, one system logger per category.
class KP_EXPORT TarvixOSLogWriter final : public TarvixLogWriter {
 public:
  // REQUIRES: logExecutable is not null. Entries go to `systemLog` (the system journal unless
  // another is given, e.g. SystemLog::make(socketPath) for a journal namespace).
  TarvixOSLogWriter(std::string subsystem, std::unique_ptr<TarvixOSLogExecutable> logExecutable,
                    std::shared_ptr<SystemLog> systemLog = SystemLog::shared());

  [[nodiscard]] const std::string& subsystem() const noexcept { return subsystem_; }  // the entries' subsystem
  void log(const TarvixLogData& data) override;

 private:
  const OSLogger& logger(const std::string& category);

  const std::string subsystem_;
  const std::unique_ptr<TarvixOSLogExecutable> logExecutable_;
  const std::shared_ptr<SystemLog> systemLog_;
  std::mutex mutex_;
  // Only grows; loggers are never moved, so references stay valid. Guarded by mutex_.
  std::map<std::string, std::unique_ptr<const OSLogger>, std::less<>> loggers_;
};

// Prints one console line; a seam for tests.
class KP_EXPORT TarvixConsoleLogExecutable {
 public:
  virtual ~TarvixConsoleLogExecutable() = default;
  // Prints `message` as one line.
  virtual void log(std::string_view message) = 0;
};

// Prints each message and a line feed to standard output with one write.
class KP_EXPORT DefaultTarvixConsoleLogExecutor final : public TarvixConsoleLogExecutable {
 public:
  void log(std::string_view message) override;  // one write of the message and a line feed
};

// Writes a logger's entries as console lines: time, mark, category, the caller's place and
// the message.
class KP_EXPORT TarvixConsoleLogWriter final : public TarvixLogWriter {
 public:
  // Lines go to `logExecutable`; standard output by default.
  explicit TarvixConsoleLogWriter(
      std::shared_ptr<TarvixConsoleLogExecutable> logExecutable = std::make_shared<DefaultTarvixConsoleLogExecutor>());

  void log(const TarvixLogData& data) override;

 private:
  DateFormatter dateFormatter_{"HH:mm:ss.SSS"};
  std::shared_ptr<TarvixConsoleLogExecutable> logExecutable_;
};

}  // namespace kp
