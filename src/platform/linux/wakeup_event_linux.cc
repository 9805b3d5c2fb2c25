// WakeupEvent on an eventfd: a counter that is readable while it is not zero.
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "platform/wakeup_event.h"

namespace kp::platform {

WakeupEvent::WakeupEvent() noexcept : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

WakeupEvent::~WakeupEvent() {
  if (fd_ >= 0) ::close(fd_);
}

bool WakeupEvent::signal() noexcept {
  if (fd_ < 0) return false;
  const std::uint64_t one = 1;
  // Fails only when the counter is about to overflow, which leaves it readable anyway.
  while (::write(fd_, &one, sizeof one) < 0 && errno == EINTR) {
  }
  return true;
}

void WakeupEvent::clear() noexcept {
  if (fd_ < 0) return;
  std::uint64_t count = 0;
  while (::read(fd_, &count, sizeof count) < 0 && errno == EINTR) {
  }
}

}  // namespace kp::platform
