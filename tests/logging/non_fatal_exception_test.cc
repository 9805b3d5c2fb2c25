// Non-fatal exceptions: reporting through Services and the hook, with one message block per
// part the exception has.
#include "kp/logging/non_fatal_exception.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kp/container/dependency.h"
#include "kp/container/services.h"
#include "support/assertion_capture.h"

namespace kp {
namespace {

using UserInfo = NonFatalException::UserInfo;

struct RecordingReporter final : NonFatalExceptionReporter {
  void report(const NonFatalException& exception) override { descriptions.emplace_back(exception.description()); }
  std::vector<std::string> descriptions;
};

TEST(NonFatalExceptionTest, ReportsGoToTheOverrideOrBaseReporterAndAlwaysRaiseTheAssertion) {
  test::AssertionCapture capture;
  nonFatalException("Nobody listens", "no reporter");

  auto scoped = std::make_shared<RecordingReporter>();
  withDependencies([&](DefaultServiceContainer& c) { c.registerInstance<NonFatalExceptionReporter>(scoped); },
                   [] { nonFatalException("Inside"); });
  nonFatalException("Outside");
  EXPECT_EQ(scoped->descriptions, (std::vector<std::string>{"Inside"}));

  // The base reporter's factory fails once, with something that is not a std::exception.
  auto base = std::make_shared<RecordingReporter>();
  bool failNext = true;
  Services::default_()->register_<NonFatalExceptionReporter>([&](tarvix::ServiceContainer&) {
    if (std::exchange(failNext, false)) throw 42;
    return base;
  });
  nonFatalException("Lookup fails");
  nonFatalException("To base", std::nullopt, std::nullopt, UserInfo{{"k", "v"}});
  EXPECT_EQ(base->descriptions, (std::vector<std::string>{"To base"}));

  EXPECT_EQ(
      capture.messages(),
      (std::vector<std::string>{"Description:\n  - Nobody listens\n\nFailure Reason:\n  - no reporter",
                                "Description:\n  - Inside", "Description:\n  - Outside",
                                "Description:\n  - Lookup fails", "Description:\n  - To base\n\nUserInfo:\n  - k: v"}));

  // The hook hears the same place every time, whichever caller reports.
  std::string file;
  int line = 0;
  auto previous = tarvix::AssertionCoordinator::setHandler([&](std::string_view, std::string_view f, int l) {
    file = f;
    line = l;
  });
  nonFatalException("Where");
  tarvix::AssertionCoordinator::setHandler(std::move(previous));
  EXPECT_TRUE(file.ends_with("non_fatal_exception.cc")) << file;
  EXPECT_EQ(line, 68);
}

}  // namespace
}  // namespace kp
