// kp_soak: the library as a busy application uses it, for minutes, with faults arriving from
// every side at once, and what held, in figures (scripts/soak runs it).
//
// The parent process drives, at once: threads of typed and service requests through request
// queues of every priority, with random cancels, against `kpcore serve --faults` with the
// cache on; cache sets, reads, group wipes, size trims, memory warnings and active/resign
// cycles; user-defaults writes (as one of three processes writing the suite); a child that
// writes the cache and the defaults and is killed with SIGKILL every few seconds, then
// restarted; and a child that writes the defaults steadily. It checks its invariants after
// every kill and at the end, prints the figures as its last lines and exits non-zero when
// anything did not hold, with the evidence.
//
// Thread safety: Random belongs to one thread; Breaches and Ledger may be used from any thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "kp/platform/data.h"

namespace kp::soak {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}
  // 0 ... n-1 (0 for n of 0).
  std::uint64_t below(std::uint64_t n) { return n == 0 ? 0 : engine_() % n; }
  bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(engine_) < p; }
  template <class T>
  const T& pick(const std::vector<T>& items) {
    return items[below(items.size())];
  }
  std::uint64_t next() { return engine_(); }

 private:
  std::mt19937_64 engine_;
};

// What did not hold, with its evidence; the first few of each kind are kept whole.
class Breaches {
 public:
  // Also written to standard error at once ("BREACH kind: evidence"), for a process that may
  // be killed before it could report them.
  explicit Breaches(bool echo = false) : echo_(echo) {}
  void add(const std::string& kind, const std::string& evidence);
  [[nodiscard]] std::size_t count() const;
  // Takes over what `other` holds.
  void absorb(const Breaches& other);
  // Of the kinds that start with `prefix`.
  [[nodiscard]] std::size_t count(std::string_view prefix) const;
  // "kind: evidence" lines, at most `perKind` of each kind, then how many more there were.
  [[nodiscard]] std::vector<std::string> report(std::size_t perKind = 5) const;

 private:
  const bool echo_;
  mutable std::mutex mutex_;
  std::map<std::string, std::vector<std::string>> byKind_;  // GUARDED_BY(mutex_)
  std::map<std::string, std::size_t> counts_;               // GUARDED_BY(mutex_)
};

// Counters by name, for the figures.
class Ledger {
 public:
  void add(const std::string& name, std::uint64_t n = 1);
  [[nodiscard]] std::uint64_t get(const std::string& name) const;
  [[nodiscard]] std::map<std::string, std::uint64_t> all() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::uint64_t> counts_;  // GUARDED_BY(mutex_)
};

// A payload that checks itself: "key|seq|size|digest\n" and `size` bytes that the digest
// covers, so that a reader can tell another key's bytes, a cut-off file and a torn one.
[[nodiscard]] Data makePayload(std::string_view key, std::uint64_t seq, std::size_t size);
// Nothing when `bytes` is a whole payload of `key`; otherwise what is wrong.
[[nodiscard]] std::optional<std::string> checkPayload(std::string_view key, const Data& bytes);

// Descriptors and resident memory of a process (this one when pid is 0).
struct ProcessFigures {
  std::size_t descriptors = 0;
  std::size_t residentKiB = 0;
};
[[nodiscard]] ProcessFigures sampleProcess(pid_t pid = 0);
// What the process's descriptors lead to ("socket:[123]", a path, ...).
[[nodiscard]] std::vector<std::string> openFiles(pid_t pid = 0);

// The whole file, or nothing.
[[nodiscard]] std::optional<std::string> readFile(const fs::path& path);

// Acknowledged user-defaults writes: "key value" lines, one per write that synchronize()
// confirmed. The highest value per key.
using Acks = std::map<std::string, std::int64_t>;
void mergeAcks(Acks& into, const Acks& from);
[[nodiscard]] Acks readAcks(const fs::path& path);

// The user-defaults suite that the three writers share, and its keys.
inline constexpr std::string_view kSuite = "soak";
inline constexpr int kKeysPerWriter = 8;

// Writes defaults as `prefix` (its keys "<prefix>.0" ... "<prefix>.7", values that grow with
// `run` and every write) until `stop`; appends each acknowledged write to `acks` (a file
// when `ackFile` is set). Checks, on the way, that no key it reads ever goes back.
void writeDefaults(const std::string& prefix, std::int64_t run, const std::atomic<bool>& stop, std::uint64_t seed,
                   Acks* acks, const fs::path& ackFile, Breaches& breaches, Ledger& ledger);

// What a child process wrote to standard error that says something broke: sanitizer reports
// and the breaches it echoed; the first lines of each.
[[nodiscard]] std::vector<std::string> troubleIn(const std::string& text);

// The child modes of kp_soak (argv[1]).
int runChildWriter(int argc, char** argv);
int runDefaultsWriter(int argc, char** argv);

// Cache writes as the killed child makes them: keys "child/<g>/<n>" in groups "child-<g>".
inline constexpr std::string_view kChildGroupPrefix = "child-";

}  // namespace kp::soak
