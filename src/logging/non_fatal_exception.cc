// Non-fatal exceptions: the reporter looked up through the service container, then the
// assertion hook.
#include "kp/logging/non_fatal_exception.h"

#include <exception>
#include <utility>

#include "kp/container/services.h"
#include "kp/logging/tarvix_logger.h"
#include "tarvix/assertion_coordinator.h"

namespace kp {

NonFatalException::NonFatalException(StaticText description, std::optional<std::string> failureReason,
                                     std::optional<std::string> recoverySuggestion, std::optional<UserInfo> userInfo)
    : description_(description),
      failureReason_(std::move(failureReason)),
      recoverySuggestion_(std::move(recoverySuggestion)),
      userInfo_(std::move(userInfo)) {}

std::string NonFatalException::assertionFailureMessage() const {
  std::string message = "Description:\n  - ";
  message.append(description());
  if (failureReason_) message.append("\n\nFailure Reason:\n  - ").append(*failureReason_);
  if (recoverySuggestion_) message.append("\n\nRecovery Suggestion:\n  - ").append(*recoverySuggestion_);
  if (userInfo_ && !userInfo_->empty()) {
    message.append("\n\nUserInfo:");
    for (const auto& [key, value] : *userInfo_) message.append("\n  - ").append(key).append(": ").append(value);
  }
  return message;
}

void nonFatalException(StaticText description, std::optional<std::string> failureReason,
                       std::optional<std::string> recoverySuggestion,
                       std::optional<NonFatalException::UserInfo> userInfo) noexcept {
  try {
    const NonFatalException exception(description, std::move(failureReason), std::move(recoverySuggestion),
                                      std::move(userInfo));
    std::shared_ptr<NonFatalExceptionReporter> reporter;
    try {
      reporter = Services::default_()->safeGet<NonFatalExceptionReporter>();
    } catch (...) {
      // Whatever the lookup throws (a factory may throw anything), the report is dropped and
      // the assertion below is raised all the same.
      TarvixLoggers::CL()->error("No NonFatalExceptionReporter could be resolved; the report is dropped.");
    }
    if (reporter) {
      try {
        reporter->report(exception);
      } catch (...) {
        // The reporter's failure is its own; the assertion below is raised all the same.
      }
    }
    // The assertion names this function rather than the caller: the message says what failed.
    // Hosts group assertion reports by file and line, so the line is a fixed 68 rather than
    // wherever the call happens to sit, and edits to this file do not split their groups.
    constexpr int kReportedLine = 68;
    tarvix::AssertionCoordinator::assertionFailure(exception.assertionFailureMessage(), __FILE__, kReportedLine);
  } catch (...) {
    // A reporter or hook that throws, or no memory: the report ends here, the caller goes on.
  }
}

}  // namespace kp
