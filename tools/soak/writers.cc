// The writers that other processes run: the user-defaults writer (in every process), and the
// child modes of kp_soak: one that writes the defaults steadily and stops when asked, and one
// that writes the cache and the defaults until it is killed.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <iostream>
#include <thread>

#include "kp/cache/cache_controller.h"
#include "kp/storage/user_defaults.h"
#include "soak.h"

namespace kp::soak {
namespace {

// Set by SIGTERM; a lock-free atomic is safe to touch in a signal handler.
std::atomic<bool> gStop{false};
static_assert(std::atomic<bool>::is_always_lock_free);
extern "C" void requestStop(int) { gStop.store(true); }

// "--name value" pairs after the mode.
std::map<std::string, std::string> options(int argc, char** argv) {
  std::map<std::string, std::string> out;
  for (int i = 2; i + 1 < argc; i += 2) {
    std::string name = argv[i];
    if (name.starts_with("--")) out[name.substr(2)] = argv[i + 1];
  }
  return out;
}

std::int64_t number(const std::map<std::string, std::string>& options, const std::string& name, std::int64_t fallback) {
  const auto found = options.find(name);
  return found == options.end() ? fallback : std::stoll(found->second);
}

void acknowledge(int fd, Acks* acks, const std::map<std::string, std::int64_t>& written) {
  for (const auto& [key, value] : written) {
    if (acks != nullptr) mergeAcks(*acks, {{key, value}});
    if (fd < 0) continue;
    // One write per line, so that a kill leaves whole lines and at most one cut short.
    const std::string line = key + " " + std::to_string(value) + "\n";
    (void)!::write(fd, line.data(), line.size());
  }
}

// Cache writes of the killed child, in its groups, until the time is up.
void writeCache(std::int64_t run, std::uint64_t seed, Clock::time_point end) {
  const auto& cache = CacheController::sharedInstance();
  Random random(seed);
  auto seq = static_cast<std::uint64_t>(run) * 1'000'000'000ull;
  while (Clock::now() < end) {
    const std::string g = std::to_string(random.below(4));
    const std::string key = "child/" + g + "/" + std::to_string(random.below(64));
    const std::string group = std::string(kChildGroupPrefix) + g;
    const auto op = random.below(100);
    if (op < 85) {
      CacheItemConfiguration policy(30 * 86400.0);
      policy.retainInBackStore = true;
      policy.groupName = group;
      const auto type = random.chance(0.7) ? CacheItemType::rawDataToFile : CacheItemType::serialized;
      auto payload = makePayload(key, ++seq, 1 + random.below(64 * 1024));
      cache->set(std::make_shared<CacheItem>(ArchiveValue(std::move(payload)), std::move(policy), type), key);
    } else if (op < 95) {
      cache->removeCacheItem(key);
    } else if (op < 97) {
      cache->wipeCompleteCache(group);
    } else if (auto item = cache->getCacheItem(key)) {
      const Data* bytes = item->item ? item->item->get<Data>() : nullptr;
      const auto problem = bytes ? checkPayload(key, *bytes) : std::optional<std::string>("no payload");
      if (problem) {
        std::cerr << "BREACH child cache read: " << key << ": " << *problem << std::endl;
        std::_Exit(3);
      }
    }
    std::this_thread::sleep_for(std::chrono::microseconds(random.below(3000)));
  }
}

}  // namespace

void writeDefaults(const std::string& prefix, std::int64_t run, const std::atomic<bool>& stop, std::uint64_t seed,
                   Acks* acks, const fs::path& ackFile, Breaches& breaches, Ledger& ledger) {
  const auto defaults = UserDefaults::suite(kSuite);
  const int fd = ackFile.empty() ? -1 : ::open(ackFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  Random random(seed);
  std::map<std::string, std::int64_t> pending;
  std::map<std::string, std::int64_t> seen;
  auto sync = [&] {
    if (defaults->synchronize()) {
      acknowledge(fd, acks, pending);
      pending.clear();
      ledger.add("defaults syncs");
    } else {
      ledger.add("defaults syncs refused");
    }
  };
  for (std::int64_t i = 1; !stop.load(); ++i) {
    const std::string key = prefix + "." + std::to_string(random.below(kKeysPerWriter));
    const std::int64_t value = run * 1'000'000'000 + i;  // above every value of an earlier run
    defaults->setInteger(value, key);
    pending[key] = value;
    ledger.add("defaults writes");
    if (random.chance(0.2)) sync();
    // Every key of every writer reads as it was or later, never earlier.
    for (const char* writer : {"p", "s", "c"}) {
      for (int k = 0; k < kKeysPerWriter; ++k) {
        const std::string name = std::string(writer) + "." + std::to_string(k);
        const std::int64_t now = defaults->integer(name);
        auto& before = seen[name];
        if (now < before) {
          breaches.add("defaults read went back",
                       prefix + " read " + name + " = " + std::to_string(now) + " after " + std::to_string(before));
        }
        before = std::max(before, now);
      }
    }
    std::this_thread::sleep_for(std::chrono::microseconds(random.below(10'000)));
  }
  sync();
  if (fd >= 0) ::close(fd);
}

int runDefaultsWriter(int argc, char** argv) {
  const auto given = options(argc, argv);
  std::signal(SIGTERM, requestStop);
  std::atomic<bool> stop{false};
  std::thread timer([&] {
    const auto end = Clock::now() + std::chrono::seconds(number(given, "seconds", 60));
    while (!gStop.load() && Clock::now() < end) std::this_thread::sleep_for(20ms);
    stop = true;
  });
  Breaches breaches(true);
  Ledger ledger;
  writeDefaults(given.at("prefix"), number(given, "run", 1), stop, static_cast<std::uint64_t>(number(given, "seed", 1)),
                nullptr, given.at("acks"), breaches, ledger);
  timer.join();
  std::cout << "defaults writes " << ledger.get("defaults writes") << ", syncs " << ledger.get("defaults syncs")
            << std::endl;
  return breaches.count() == 0 ? 0 : 1;
}

int runChildWriter(int argc, char** argv) {
  const auto given = options(argc, argv);
  const std::int64_t run = number(given, "run", 1);
  const auto seed = static_cast<std::uint64_t>(number(given, "seed", 1));
  // Bounded, should the parent be gone without its kill.
  const auto end = Clock::now() + std::chrono::seconds(number(given, "seconds", 60));
  std::atomic<bool> stop{false};
  Breaches breaches(true);
  Ledger ledger;
  std::thread defaults([&] { writeDefaults("c", run, stop, seed, nullptr, given.at("acks"), breaches, ledger); });
  writeCache(run, seed ^ 0x5eed, end);
  stop = true;
  defaults.join();
  return breaches.count() == 0 ? 0 : 1;
}

}  // namespace kp::soak
