// Start-up timing lines on standard output.
#include "timing.h"

#include <cstdio>
#include <ctime>

namespace weatherapp {
namespace {

bool enabled = false;

long long nanoseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<long long>(now.tv_sec) * 1'000'000'000LL + now.tv_nsec;
}

}  // namespace

void enableTimingReports() { enabled = true; }

bool timingReportsEnabled() { return enabled; }

void report(const char* kind, const char* name) {
  if (!enabled) return;
  const long long wall = nanoseconds(CLOCK_MONOTONIC);
  std::printf("%s %s %lld %lld\n", kind, name, wall, nanoseconds(CLOCK_PROCESS_CPUTIME_ID));
  std::fflush(stdout);
}

}  // namespace weatherapp
