// The writers of TarvixLogger: to the unified log (one OSLogger per category) and to the
// console through a pluggable executable.
#include "kp/logging/tarvix_log_writers.h"

#include <cstdio>
#include <utility>

#include "logging/log_text.h"

namespace kp {

OSLogType osLogType(TarvixLogLevel level) noexcept {
  switch (level) {
    case TarvixLogLevel::debug:
      return OSLogType::debug;
    case TarvixLogLevel::info:
      return OSLogType::info;
    case TarvixLogLevel::notice:
      return OSLogType::default_;
    case TarvixLogLevel::error:
      return OSLogType::error;
    case TarvixLogLevel::fault:
      return OSLogType::fault;
  }
  return OSLogType::default_;
}

std::string_view mark(TarvixLogLevel level) noexcept {
  switch (level) {
    case TarvixLogLevel::debug:
      return internal::kDebugMark;
    case TarvixLogLevel::info:
      return internal::kInfoMark;
    case TarvixLogLevel::notice:
      return internal::kWarningMark;
    case TarvixLogLevel::error:
      return internal::kErrorMark;
    case TarvixLogLevel::fault:
      return internal::kFaultMark;
  }
  return "";
}

void TarvixCoreLogicOSLogExecutor::log(const OSLogger& logger, OSLogType level, std::string_view message,
                                       const OSLogCodeLocation& where) {
  if (logger.isEnabled(level)) logger.log(level, message, where);
}

TarvixOSLogWriter::TarvixOSLogWriter(std::string subsystem, std::unique_ptr<TarvixOSLogExecutable> logExecutable,
                                     std::shared_ptr<SystemLog> systemLog)
    : subsystem_(std::move(subsystem)), logExecutable_(std::move(logExecutable)), systemLog_(std::move(systemLog)) {}

const OSLogger& TarvixOSLogWriter::logger(const std::string& category) {
  std::lock_guard lock(mutex_);
  auto found = loggers_.find(category);
  if (found == loggers_.end()) {
    found = loggers_.emplace(category, std::make_unique<const OSLogger>(subsystem_, category, systemLog_)).first;
  }
  return *found->second;
}

void TarvixOSLogWriter::log(const TarvixLogData& data) {
  const std::string_view function = internal::functionName(data.function);
  const std::string_view file = internal::lastPathComponent(data.filename);
  internal::LineBuffer buffer;
  std::string& message = buffer.text();
  message.append("L:");
  internal::appendLineNumber(message, data.line);
  message.push_back(' ');
  message.append(file);
  message.append(" (");
  message.append(function);
  message.append("): ");
  message.append(data.message);
  logExecutable_->log(logger(data.category), osLogType(data.level), message,
                      OSLogCodeLocation{data.filename, data.line, data.function});
}

void DefaultTarvixConsoleLogExecutor::log(std::string_view message) {
  internal::LineBuffer buffer;
  std::string& line = buffer.text();
  line.append(message);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stdout);
}

TarvixConsoleLogWriter::TarvixConsoleLogWriter(std::shared_ptr<TarvixConsoleLogExecutable> logExecutable)
    : logExecutable_(std::move(logExecutable)) {}

void TarvixConsoleLogWriter::log(const TarvixLogData& data) {
  internal::LineBuffer buffer;
  std::string& line = buffer.text();
  line.push_back('[');
  dateFormatter_.append(line, data.date);
  line.push_back(' ');
  line.append(mark(data.level));
  line.append("] - ");
  line.append(data.category);
  line.append(" - ");
  line.append(internal::lastPathComponent(data.filename));
  line.push_back(' ');
  line.append(internal::functionName(data.function));
  line.append(" L:");
  internal::appendLineNumber(line, data.line);
  line.append(" - ");
  line.append(data.message);
  logExecutable_->log(line);
}

}  // namespace kp
