// The soak's load on the cache, and the checks of what the cache and the defaults left on
// the disk: the database's integrity, rows whose files are missing, the suite file.
//
// Thread safety: CacheLoad from its owning thread; the checks from any thread.
#pragma once

#include <thread>

#include "kp/cache/cache_controller.h"
#include "soak.h"

namespace kp::soak {

// A thread of cache work on the shared controller: sets, reads (each read checks its bytes),
// removals, group wipes, size trims, expired clean-ups, memory warnings and active/resign
// cycles (posted on the main queue, as a host posts them).
class CacheLoad {
 public:
  CacheLoad(std::uint64_t seed, Breaches& breaches, Ledger& ledger);
  ~CacheLoad();
  void start();
  void stop();
  // When the last size trim finished: a trimmed file's row stays until it is read.
  [[nodiscard]] Date lastTrimEnd() const;

 private:
  void run();
  void set(Random& random, const std::string& key, const std::optional<std::string>& group);

  const std::uint64_t seed_;
  Breaches& breaches_;
  Ledger& ledger_;
  std::atomic<bool> stop_{false};
  std::atomic<double> lastTrimEnd_{0};
  std::uint64_t seq_ = 0;
  std::thread thread_;
};

// "ok", or what `PRAGMA integrity_check` (or opening the file) said.
[[nodiscard]] std::vector<std::string> integrityProblems(const fs::path& database);

// Counts the rows of file-backed entries whose file is missing and reports as breaches those
// outside the documented cases: an expired entry (its clean-up removes the file first), and
// an entry outside a group older than the last size trim (`lastTrimEnd`; the trim leaves the
// rows of the files it removed until they are read). Only rows that `which` selects.
void checkRowsAndFiles(CacheController& cache, const std::function<bool(const CacheRowSummary&)>& which,
                       Date lastTrimEnd, const std::string& when, Breaches& breaches, Ledger& ledger);

// The suite file reads as a dictionary, and nothing was set aside as damaged.
void checkSuiteFile(const fs::path& file, const std::string& when, Breaches& breaches);

// Every acknowledged write is in the suite file, or a later value of its key.
void checkAcknowledged(const fs::path& file, const Acks& acks, Breaches& breaches, Ledger& ledger);

}  // namespace kp::soak
