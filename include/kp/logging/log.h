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

// The log (see the top of this file).
class KP_EXPORT Log {
 public:
  // In this order; rawValue() of each is also its mark in a console line.
  enum class LogType { debug, info, warning, error };

  // Which entries pass: a level's switch and isEnabled must both be on.
  struct Options {
    bool isEnabled = false;    // the main switch
    bool logDebug = false;     // debug entries
    bool logInfo = false;      // info entries
    bool logWarnings = false;  // warnings
    bool logErrors = false;    // errors

    static const Options default_;  // all on
    static const Options none;      // all off
    // Equal switches.
    friend constexpr bool operator==(const Options&, const Options&) = default;
  };

  // Shared by the writers that use it; the two switches are read at every line.
  class FormatOptions {
   public:
    // Lines start with the date in `dateFormat` when `prefixDate`, and name the caller's file,
    // function and line when `prefixFileFunctionAndLine`.
    FormatOptions(bool prefixDate, bool prefixFileFunctionAndLine, std::string dateFormat);
    // Whether lines start with the date.
    [[nodiscard]] bool prefixDate() const noexcept { return prefixDate_.load(std::memory_order_relaxed); }
    // Turns the date at the start of lines on or off.
    void setPrefixDate(bool on) noexcept { prefixDate_.store(on, std::memory_order_relaxed); }
    // Whether lines name the caller's file, function and line.
    [[nodiscard]] bool prefixFileFunctionAndLine() const noexcept {
      return prefixFileFunctionAndLine_.load(std::memory_order_relaxed);
    }
    // Turns the caller's file, function and line in lines on or off.
    void setPrefixFileFunctionAndLine(bool on) noexcept {
      prefixFileFunctionAndLine_.store(on, std::memory_order_relaxed);
    }
    // A pattern as kp::DateFormatter reads it (e.g. "yyyy-MM-dd HH:mm:ss.SSS").
    [[nodiscard]] std::string dateFormat() const;
    // Replaces the date pattern; lines written afterwards use it.
    void setDateFormat(std::string pattern);

   private:
    std::atomic<bool> prefixDate_;
    std::atomic<bool> prefixFileFunctionAndLine_;
    mutable std::mutex mutex_;
    std::string dateFormat_;  // guarded by mutex_
  };

  // One entry as the writer receives it (see the top of this file for how long it is valid).
  struct LogData {
    LogType type = LogType::debug;  // the level
    Date date;                      // when it was logged
    std::string_view message;       // the formatted message
    std::string_view filename;      // the caller's source path
    int line = 0;                   // the caller's line
    std::string_view function;      // the caller's function name or signature
  };

  // A log that writes to `logWriter` what `logOptions` let pass.
  Log(std::shared_ptr<LogWriter> logWriter, Options logOptions);
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  // Made on first use, with no writer and Options::none; lives until the process ends.
  [[nodiscard]] static Log& default_();
  // The level whose mark is `rawValue`; nothing for any other text.
  [[nodiscard]] static std::optional<LogType> logType(std::string_view rawValue) noexcept;

  [[nodiscard]] Options logOptions() const noexcept;           // which entries pass
  void setLogOptions(Options options) noexcept;                // changes which entries pass
  [[nodiscard]] std::shared_ptr<LogWriter> logWriter() const;  // null when none is set
  void setLogWriter(std::shared_ptr<LogWriter> writer);        // null silences the log

  // A debug entry: `format` with `args`.
  template <class... Args>
  void debug(LogFormat<Args...> format, const Args&... args) {
    log(LogType::debug, format, args...);
  }
  // An info entry: `format` with `args`.
  template <class... Args>
  void info(LogFormat<Args...> format, const Args&... args) {
    log(LogType::info, format, args...);
  }
  // A warning: `format` with `args`.
  template <class... Args>
  void warning(LogFormat<Args...> format, const Args&... args) {
    log(LogType::warning, format, args...);
  }
  // An error: `format` with `args`.
  template <class... Args>
  void error(LogFormat<Args...> format, const Args&... args) {
    log(LogType::error, format, args...);
  }
  // An entry at `type`: `format` with `args`, formatted only when the entry passes.
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

// Where a log's entries go: the console, the journal, or a host's own writer.
class KP_EXPORT LogWriter {
 public:
  virtual ~LogWriter() = default;
  // How the writer lays out its lines.
  [[nodiscard]] virtual std::shared_ptr<Log::FormatOptions> formatOptions() const = 0;
  // Replaces the layout options.
  virtual void setFormatOptions(std::shared_ptr<Log::FormatOptions> options) = 0;
  // Writes one entry; called from any thread.
  virtual void log(const Log::LogData& data) = 0;
};

// Accepted by logError() and ignored.
struct KP_EXPORT LogErrorTest {
  std::string_view text;  // ignored
};

// Log::default_().debug().
template <class... Args>
void logDebug(LogFormat<Args...> format, const Args&... args) {
  Log::default_().debug(format, args...);
}
// Log::default_().info().
template <class... Args>
void logInfo(LogFormat<Args...> format, const Args&... args) {
  Log::default_().info(format, args...);
}
// Log::default_().warning().
template <class... Args>
void logWarning(LogFormat<Args...> format, const Args&... args) {
  Log::default_().warning(format, args...);
}
// Log::default_().error().
template <class... Args>
void logError(LogFormat<Args...> format, const Args&... args) {
  Log::default_().error(format, args...);
}
// Log::default_().error(); the first argument is ignored.
template <class... Args>
void logError(LogErrorTest /*test*/, LogFormat<Args...> format, const Args&... args) {
  Log::default_().error(format, args...);
}

// For callers with a finished message: each logs through Log::default_() with `message` as
// the format and no arguments.
class KP_EXPORT LogBridge {
 public:
  LogBridge() = delete;
  // A debug entry from the calling place.
  static void debug(std::string_view message, LogSource source = tarvix::SourceLocation::current());
  // An info entry from the calling place.
  static void info(std::string_view message, LogSource source = tarvix::SourceLocation::current());
  // A warning from the calling place.
  static void warning(std::string_view message, LogSource source = tarvix::SourceLocation::current());
  // An error from the calling place.
  static void error(std::string_view message, LogSource source = tarvix::SourceLocation::current());
  // A debug entry from the place the caller names.
  static void debug(std::string_view message, std::string_view filename, int line, std::string_view function);
  // An info entry from the place the caller names.
  static void info(std::string_view message, std::string_view filename, int line, std::string_view function);
  // A warning from the place the caller names.
  static void warning(std::string_view message, std::string_view filename, int line, std::string_view function);
  // An error from the place the caller names.
  static void error(std::string_view message, std::string_view filename, int line, std::string_view function);
};

}  // namespace kp
