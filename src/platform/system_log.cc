// The host-independent half of the system log: type names and per-category loggers.
#include "kp/platform/system_log.h"

#include <utility>

namespace kp {

std::string_view name(OSLogType type) noexcept {
  switch (type) {
    case OSLogType::debug:
      return "debug";
    case OSLogType::info:
      return "info";
    case OSLogType::default_:
      return "default";
    case OSLogType::error:
      return "error";
    case OSLogType::fault:
      return "fault";
  }
  return "default";
}

OSLogger::OSLogger(std::string subsystem, std::string category, std::shared_ptr<SystemLog> systemLog)
    : subsystem_(std::move(subsystem)), category_(std::move(category)), systemLog_(std::move(systemLog)) {}

bool OSLogger::isEnabled(OSLogType) const noexcept { return true; }

void OSLogger::log(OSLogType type, std::string_view message, const OSLogCodeLocation& where) const noexcept {
  if (systemLog_) systemLog_->write(SystemLog::Entry{subsystem_, category_, type, message, where});
}

}  // namespace kp
