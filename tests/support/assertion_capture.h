// Test helper: captures assertion-hook reports while in scope, instead of aborting.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "tarvix/assertion_coordinator.h"

namespace kp::test {

class AssertionCapture {
 public:
  AssertionCapture();
  ~AssertionCapture();
  AssertionCapture(const AssertionCapture&) = delete;
  AssertionCapture& operator=(const AssertionCapture&) = delete;

  [[nodiscard]] std::vector<std::string> messages() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
  tarvix::AssertionCoordinator::Handler previous_;
};

}  // namespace kp::test
