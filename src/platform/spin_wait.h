// SpinWait: a bounded, adaptive spin before a thread goes to sleep waiting for an event.
// Internal; not installed.
//
// Waking a sleeping thread (a futex, or a poll that a socket or an eventfd ends) costs tens
// of microseconds on small virtual machines, as much as a whole small HTTP exchange on
// loopback. A thread that expects its event soon therefore watches for it for a short while
// first. It does so only while its recent waits were short enough for a spin to have caught
// them, so that a thread whose events come seldom (the usual case in an app) sleeps at once
// and burns nothing; and never on a single CPU, where spinning only delays the thread it
// waits for.
//
// Thread safety: one instance per waiting thread (or per object whose waits one thread does
// at a time); not safe for concurrent use.
//
// Example:
//   SpinWait spin(std::chrono::microseconds(50));
//   const auto started = SpinWait::Clock::now();
//   bool ready = spin.spin([&] { return flag.load(); });   // false: go to sleep
//   if (!ready) sleepUntilWoken();
//   spin.record(SpinWait::Clock::now() - started);
#pragma once

#include <chrono>
#include <thread>

namespace kp::internal {

class SpinWait {
 public:
  using Clock = std::chrono::steady_clock;

  explicit SpinWait(std::chrono::microseconds budget) noexcept : budget_(budget) {}

  // Calls `ready` until it answers true or the budget is spent; true when it answered true.
  // Spins not at all after a long wait, or on a single CPU.
  template <class Ready>
  bool spin(Ready&& ready) {
    if (!worthSpinning_ || !multipleCpus()) return false;
    const auto until = Clock::now() + budget_;
    do {
      if (ready()) return true;
      relax();
    } while (Clock::now() < until);
    return false;
  }

  // The whole wait, spin and sleep, that just ended: decides whether the next one spins.
  void record(Clock::duration waited) noexcept { worthSpinning_ = waited <= budget_; }

 private:
  static bool multipleCpus() noexcept {
    static const bool multiple = std::thread::hardware_concurrency() > 1;
    return multiple;
  }
  static void relax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
  }

  const std::chrono::microseconds budget_;
  bool worthSpinning_ = true;
};

}  // namespace kp::internal
