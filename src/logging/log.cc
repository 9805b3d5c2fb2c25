// The printf-style log: the default (silent) instance, options packed in one atomic word,
// and lines formatted once and handed to the writer.
#include "kp/logging/log.h"

#include <utility>

#include "kp/logging/log_console_writer.h"
#include "logging/log_text.h"
#include "platform/no_destructor.h"

namespace kp {
namespace {

constexpr std::uint8_t packOptions(const Log::Options& o) noexcept {
  return static_cast<std::uint8_t>((o.isEnabled ? 1u : 0u) | (o.logDebug ? 2u : 0u) | (o.logInfo ? 4u : 0u) |
                                   (o.logWarnings ? 8u : 0u) | (o.logErrors ? 16u : 0u));
}

void bridge(Log::LogType type, std::string_view message, const LogSource& source) {
  Log::default_().log(type, LogFormat<>(runtimeLogFormat(message), source));
}

}  // namespace

std::string_view rawValue(Log::LogType type) noexcept {
  switch (type) {
    case Log::LogType::debug:
      return internal::kDebugMark;
    case Log::LogType::info:
      return internal::kInfoMark;
    case Log::LogType::warning:
      return internal::kWarningMark;
    case Log::LogType::error:
      return internal::kErrorMark;
  }
  return "";
}

std::optional<Log::LogType> Log::logType(std::string_view rawValue) noexcept {
  for (LogType type : {LogType::debug, LogType::info, LogType::warning, LogType::error}) {
    if (kp::rawValue(type) == rawValue) return type;
  }
  return std::nullopt;
}

Log::FormatOptions::FormatOptions(bool prefixDate, bool prefixFileFunctionAndLine, std::string dateFormat)
    : prefixDate_(prefixDate),
      prefixFileFunctionAndLine_(prefixFileFunctionAndLine),
      dateFormat_(std::move(dateFormat)) {}

std::string Log::FormatOptions::dateFormat() const {
  std::lock_guard lock(mutex_);
  return dateFormat_;
}

void Log::FormatOptions::setDateFormat(std::string pattern) {
  std::lock_guard lock(mutex_);
  dateFormat_ = std::move(pattern);
}

Log::Log(std::shared_ptr<LogWriter> logWriter, Options logOptions)
    : options_(packOptions(logOptions)), writer_(std::move(logWriter)) {}

Log& Log::default_() {
  static internal::NoDestructor<Log> instance(nullptr, Options::none);
  return *instance;
}

Log::Options Log::logOptions() const noexcept {
  const unsigned bits = options_.load(std::memory_order_relaxed);
  return Options{(bits & 1u) != 0, (bits & 2u) != 0, (bits & 4u) != 0, (bits & 8u) != 0, (bits & 16u) != 0};
}

void Log::setLogOptions(Options options) noexcept { options_.store(packOptions(options), std::memory_order_relaxed); }

std::shared_ptr<LogWriter> Log::logWriter() const {
  std::lock_guard lock(writerMutex_);
  return writer_;
}

void Log::setLogWriter(std::shared_ptr<LogWriter> writer) {
  std::lock_guard lock(writerMutex_);
  writer_ = std::move(writer);
}

void Log::write(LogType type, std::string_view format, const LogArg* args, std::size_t count, const LogSource& source) {
  const std::shared_ptr<LogWriter> writer = logWriter();
  if (!writer) return;
  if ((options_.load(std::memory_order_relaxed) & 1u) == 0) return;
  internal::LineBuffer buffer;
  std::string& message = buffer.text();
  appendLogFormatted(message, format, args, count);
  writer->log(LogData{type, Date::now(), message, source.filename, source.line, source.function});
}

void LogBridge::debug(std::string_view message, LogSource source) { bridge(Log::LogType::debug, message, source); }
void LogBridge::info(std::string_view message, LogSource source) { bridge(Log::LogType::info, message, source); }
void LogBridge::warning(std::string_view message, LogSource source) { bridge(Log::LogType::warning, message, source); }
void LogBridge::error(std::string_view message, LogSource source) { bridge(Log::LogType::error, message, source); }
void LogBridge::debug(std::string_view message, std::string_view filename, int line, std::string_view function) {
  bridge(Log::LogType::debug, message, LogSource(filename, line, function));
}
void LogBridge::info(std::string_view message, std::string_view filename, int line, std::string_view function) {
  bridge(Log::LogType::info, message, LogSource(filename, line, function));
}
void LogBridge::warning(std::string_view message, std::string_view filename, int line, std::string_view function) {
  bridge(Log::LogType::warning, message, LogSource(filename, line, function));
}
void LogBridge::error(std::string_view message, std::string_view filename, int line, std::string_view function) {
  bridge(Log::LogType::error, message, LogSource(filename, line, function));
}

LogConsoleWriter::LogConsoleWriter(std::shared_ptr<Log::FormatOptions> formatOptions, std::FILE* stream)
    : formatOptions_(std::move(formatOptions)),
      dateFormatter_(formatOptions_ ? formatOptions_->dateFormat() : std::string()),
      stream_(stream) {}

std::shared_ptr<Log::FormatOptions> LogConsoleWriter::formatOptions() const {
  std::lock_guard lock(mutex_);
  return formatOptions_;
}

void LogConsoleWriter::setFormatOptions(std::shared_ptr<Log::FormatOptions> options) {
  std::lock_guard lock(mutex_);
  formatOptions_ = std::move(options);
}

void LogConsoleWriter::log(const Log::LogData& data) {
  bool prefixDate = false;
  bool prefixPosition = false;
  {
    std::lock_guard lock(mutex_);
    if (formatOptions_) {
      prefixDate = formatOptions_->prefixDate();
      prefixPosition = formatOptions_->prefixFileFunctionAndLine();
    }
  }
  internal::LineBuffer buffer;
  std::string& line = buffer.text();
  if (prefixDate) {
    // The time of writing, not of the entry.
    dateFormatter_.append(line, Date::now());
    line.push_back(' ');
  }
  line.append(rawValue(data.type));
  line.append(": ");
  if (prefixPosition) {
    internal::appendLineNumber(line, data.line);
    line.push_back(' ');
    line.append(internal::lastPathComponent(data.filename));
    line.append(" (");
    line.append(internal::functionName(data.function));
    line.append("): ");
  }
  line.append(data.message);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stream_);
}

}  // namespace kp
