// kp::Log: the printf-style log. A Log filters each entry by level and hands what passes, as a
// LogData record, to its one LogWriter. Log::default_() is the process-wide log, silent until
// the host gives it both a writer and options. kp::logDebug/logInfo/logWarning/logError log
// through it; kp::LogBridge does the same for callers that can pass only a finished message.
//
// An entry at a level passes when that level's option is on, a writer is set and isEnabled is
// on; only then is the message formatted (see log_format.h for directives and their checks).
// A LogData refers to the caller's texts and to the formatted message; it is valid while the
// writer's log() runs, and a writer that keeps entries copies them.
//
// Thread safety: every member may be called from any thread. Options and the writer are meant
// to be set at start-up, but changing them while others log is safe: an entry sees the old or
// the new setting. LogBridge messages are formats too: a "%" in them is read as a directive.
//
// Example:
//   auto options = std::make_shared<kp::Log::FormatOptions>(true, true, "HH:mm:ss.SSS");
//   kp::Log::default_().setLogWriter(std::make_shared<kp::LogConsoleWriter>(options));
//   kp::Log::default_().setLogOptions(kp::Log::Options::default_);
//   kp::logInfo("loaded %d items from %s", count, url);
//   // 14:03:07.125 🔵: 0042 Loader.cc (load): loaded 3 items from https://example.com
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "kp/logging/log_format.h"
#include "kp/platform/date.h"
#include "kp/platform/export.h"

namespace kp {

class LogWriter;

class KP_EXPORT Log {
 public:
  // In this order; rawValue() of each is also its mark in a console line.
  enum class LogType { debug, info, warning, error };

  struct Options {
    bool isEnabled = false;
    bool logDebug = false;
    bool logInfo = false;
    bool logWarnings = false;
    bool logErrors = false;

    static const Options default_;  // all on
    static const Options none;      // all off
    friend constexpr bool operator==(const Options&, const Options&) = default;
  };

  // Shared by the writers that use it; the two switches are read at every line.
  class FormatOptions {
   public:
    FormatOptions(bool prefixDate, bool prefixFileFunctionAndLine, std::string dateFormat);
    [[nodiscard]] bool prefixDate() const noexcept { return prefixDate_.load(std::memory_order_relaxed); }
    void setPrefixDate(bool on) noexcept { prefixDate_.store(on, std::memory_order_relaxed); }
    [[nodiscard]] bool prefixFileFunctionAndLine() const noexcept {
      return prefixFileFunctionAndLine_.load(std::memory_order_relaxed);
    }
    void setPrefixFileFunctionAndLine(bool on) noexcept {
      prefixFileFunctionAndLine_.store(on, std::memory_order_relaxed);
    }
    // A pattern as kp::DateFormatter reads it (e.g. "yyyy-MM-dd HH:mm:ss.SSS").
    [[nodiscard]] std::string dateFormat() const;
    void setDateFormat(std::string pattern);

   private:
    std::atomic<bool> prefixDate_;
    std::atomic<bool> prefixFileFunctionAndLine_;
    mutable std::mutex mutex_;
    std::string dateFormat_;  // guarded by mutex_
  };

  struct LogData {
    LogType type = LogType::debug;
    Date date;
    std::string_view message;
    std::string_view filename;  // the caller's source path
    int line = 0;
    std::string_view function;  // the caller's function name or signature
  };

  Log(std::shared_ptr<LogWriter> logWriter, Options logOptions);
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  // Made on first use, with no writer and Options::none; lives until the process ends.
  [[nodiscard]] static Log& default_();
  // The level whose mark is `rawValue`; nothing for any other text.
  [[nodiscard]] static std::optional<LogType> logType(std::string_view rawValue) noexcept;

  [[nodiscard]] Options logOptions() const noexcept;
  void setLogOptions(Options options) noexcept;
  [[nodiscard]] std::shared_ptr<LogWriter> logWriter() const;
  void setLogWriter(std::shared_ptr<LogWriter> writer);

  template <class... Args>
  void debug(LogFormat<Args...> format, const Args&... args) {
    log(LogType::debug, format, args...);
  }
  template <class... Args>
  void info(LogFormat<Args...> format, const Args&... args) {
    log(LogType::info, format, args...);
  }
  template <class... Args>
  void warning(LogFormat<Args...> format, const Args&... args) {
    log(LogType::warning, format, args...);
  }
  template <class... Args>
  void error(LogFormat<Args...> format, const Args&... args) {
    log(LogType::error, format, args...);
  }
  template <class... Args>
  void log(LogType type, LogFormat<Args...> format, const Args&... args) {
    if (!levelIsOn(type)) return;
    const std::array<LogArg, sizeof...(Args)> erased{internal::makeLogArg(args)...};
    write(type, format.text(), erased.data(), erased.size(), format.source());
  }

 private:
  [[nodiscard]] bool levelIsOn(LogType type) const noexcept {
    return (options_.load(std::memory_order_relaxed) >> (static_cast<unsigned>(type) + 1)) & 1u;
  }
  void write(LogType type, std::string_view format, const LogArg* args, std::size_t count, const LogSource& source);

  // Bit 0 isEnabled, bits 1-4 the levels in LogType order.
  std::atomic<std::uint8_t> options_;
  mutable std::mutex writerMutex_;
  std::shared_ptr<LogWriter> writer_;  // guarded by writerMutex_
};

inline const Log::Options Log::Options::default_{true, true, true, true, true};
inline const Log::Options Log::Options::none{false, false, false, false, false};

// The mark of `type`: "⚫️", "🔵", "☢️" or "⛔️".
[[nodiscard]] KP_EXPORT std::string_view rawValue(Log::LogType type) noexcept;

class KP_EXPORT LogWriter {
 public:
  virtual ~LogWriter() = default;
  [[nodiscard]] virtual std::shared_ptr<Log::FormatOptions> formatOptions() const = 0;
  virtual void setFormatOptions(std::shared_ptr<Log::FormatOptions> options) = 0;
  virtual void log(const Log::LogData& data) = 0;
};

// Accepted by logError() and ignored.
struct KP_EXPORT LogErrorTest {
  std::string_view text;
};

template <class... Args>
void logDebug(LogFormat<Args...> format, const Args&... args) {
  Log::default_().debug(format, args...);
}
template <class... Args>
void logInfo(LogFormat<Args...> format, const Args&... args) {
  Log::default_().info(format, args...);
}
template <class... Args>
void logWarning(LogFormat<Args...> format, const Args&... args) {
  Log::default_().warning(format, args...);
}
template <class... Args>
void logError(LogFormat<Args...> format, const Args&... args) {
  Log::default_().error(format, args...);
}
template <class... Args>
void logError(LogErrorTest /*test*/, LogFormat<Args...> format, const Args&... args) {
  Log::default_().error(format, args...);
}

// For callers with a finished message: each logs through Log::default_() with `message` as
// the format and no arguments.
class KP_EXPORT LogBridge {
 public:
  LogBridge() = delete;
  static void debug(std::string_view message, LogSource source = tarvix::SourceLocation::current());
  static void info(std::string_view message, LogSource source = tarvix::SourceLocation::current());
  static void warning(std::string_view message, LogSource source = tarvix::SourceLocation::current());
  static void error(std::string_view message, LogSource source = tarvix::SourceLocation::current());
  static void debug(std::string_view message, std::string_view filename, int line, std::string_view function);
  static void info(std::string_view message, std::string_view filename, int line, std::string_view function);
  static void warning(std::string_view message, std::string_view filename, int line, std::string_view function);
  static void error(std::string_view message, std::string_view filename, int line, std::string_view function);
};

}  // namespace kp
