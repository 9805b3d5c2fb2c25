// kp::weather::FaultSpec and FaultPlan: the faults the local weather service injects into its
// answers when asked to (`kpcore serve --faults SPEC`), so that a host can see its screens
// meet a service that misbehaves, and a soak can load a client with every fault at once.
//
// SPEC is a comma-separated list of KIND=RATE[:PARAM] and seed=N, e.g.
//   delay=0.05:2s,dribble=0.02,cut=0.02,reset=0.02,500=0.03,503=0.03,envelope-error=0.02,
//   wrong-key=0.02,oversize=0.01:2M,wrong-length=0.02,seed=42
// RATE is the fraction of answers (0 to 1; the rates add up to at most 1) that get the fault:
//   delay           the answer waits a random time up to PARAM (a duration, "2s", "250ms";
//                   2s by default), then goes out as usual.
//   dribble         the answer goes out a byte per write, spread over PARAM (1s by default).
//   cut             the head and part of the body go out, then the connection closes.
//   reset           part of the answer (possibly none of it) goes out, then the connection is
//                   reset (RST).
//   500, 503        the answer becomes that status: half of them with the failure envelope
//                   (plain JSON), half with a plain-text body and no envelope.
//   envelope-error  HTTP 200 with the failure envelope (code 500), sealed as the method's
//                   answers are.
//   wrong-key       the answer's body sealed (again) with a key the client does not have.
//   oversize        200 with a body of PARAM bytes ("300M" by default; K, M, G are binary
//                   units) of filler, half of them announced by Content-Length, half chunked.
//   wrong-length    the answer with a Content-Length the body does not have: longer (the
//                   connection then closes), shorter, or two different Content-Length fields.
// seed=N (0 by default) makes the plan: the n-th answer of the service gets the same fault,
// and the same parameters, in every run with that seed, whatever the timing of the clients.
// Faults touch only answers of the protocol; refusals of the transport (400, 413, 431, ...)
// go out as they are. The service counts what it injected (FaultPlan::counts()).
//
// Thread safety: FaultSpec is a value. FaultPlan::next() and counts() may be called from any
// thread at once.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kp::weather {

enum class FaultKind : int {
  delay,
  dribble,
  cut,
  reset,
  status500,
  status503,
  envelopeError,
  wrongKey,
  oversize,
  wrongLength,
};
inline constexpr std::size_t kFaultKindCount = 10;

// The name of a kind in SPEC and in the counts ("delay", "500", "envelope-error", ...).
[[nodiscard]] std::string_view faultName(FaultKind kind) noexcept;

struct FaultSpec {
  std::array<double, kFaultKindCount> rates{};
  std::chrono::milliseconds longestDelay{2000};
  std::chrono::milliseconds dribbleTime{1000};
  std::uint64_t oversizeBytes = 300ull << 20;
  std::uint64_t seed = 0;

  // The spec of SPEC text; nothing, with the reason in `error`, when it cannot be read.
  [[nodiscard]] static std::optional<FaultSpec> parse(std::string_view text, std::string* error = nullptr);
  [[nodiscard]] bool empty() const noexcept;
};

// One fault to inject, with the random bits its parameters and variant are drawn from.
struct Fault {
  FaultKind kind;
  std::uint64_t bits;
};

class FaultPlan {
 public:
  explicit FaultPlan(FaultSpec spec) : spec_(spec) {}

  // The fault of the next answer, if it gets one; counted.
  [[nodiscard]] std::optional<Fault> next();
  [[nodiscard]] const FaultSpec& spec() const noexcept { return spec_; }
  // Answers planned so far, and the faults injected of each kind.
  [[nodiscard]] std::uint64_t answers() const noexcept { return answers_.load(); }
  [[nodiscard]] std::array<std::uint64_t, kFaultKindCount> counts() const noexcept;
  // {"answers":N,"seed":S,"injected":{"delay":n,...}}
  [[nodiscard]] std::string countsJson() const;
  // "answers=N delay=n dribble=n ..."
  [[nodiscard]] std::string countsText() const;

 private:
  FaultSpec spec_;
  std::atomic<std::uint64_t> answers_{0};
  std::array<std::atomic<std::uint64_t>, kFaultKindCount> counts_{};
};

}  // namespace kp::weather
