// tarvix::DateService: the source of the current date, so that code that reads the clock
// can be given another one in tests.
//
// Thread safety: implementations may be called from any thread.
//
// Example:
//   auto dates = services.safeGet<tarvix::DateService>();
//   auto now = dates->now();
#pragma once

#include <chrono>

#include "tarvix/service.h"

namespace tarvix {

// Where the current date comes from, so that tests can fix it.
class DateService : public virtual Service {
 public:
  // The current time.
  [[nodiscard]] virtual std::chrono::system_clock::time_point now() const = 0;
};

}  // namespace tarvix
