#include "support/assertion_capture.h"

namespace kp::test {

AssertionCapture::AssertionCapture()
    : previous_(tarvix::AssertionCoordinator::setHandler([this](std::string_view message, std::string_view, int) {
        std::lock_guard lock(mutex_);
        messages_.emplace_back(message);
      })) {}

AssertionCapture::~AssertionCapture() { tarvix::AssertionCoordinator::setHandler(std::move(previous_)); }

std::vector<std::string> AssertionCapture::messages() const {
  std::lock_guard lock(mutex_);
  return messages_;
}

}  // namespace kp::test
