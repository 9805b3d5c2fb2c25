// kp_soak: runs every load of the soak at once for the time given, checks the invariants
// after every kill and at the end, and prints the figures as its last lines (soak.h).
//
//   kp_soak [--minutes N | --seconds N] [--faults SPEC] [--seed N] [--threads N] [--dir DIR]
//           [--kpcore PATH] [--keep]
//
// Exit status 0 when everything held, 1 when anything did not (the breaches and their
// evidence precede the figures), 2 for a usage error.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "checks.h"
#include "child_process.h"
#include "kp/platform/dispatch.h"
#include "kp/storage/user_defaults.h"
#include "request_load.h"

#ifndef KPCORE_PATH
#define KPCORE_PATH "kpcore"
#endif

namespace kp::soak {
namespace {

// Every fault at once, often enough that each shows up within a minute.
constexpr std::string_view kDefaultFaults =
    "delay=0.04:2s,dribble=0.02:1s,cut=0.03,reset=0.03,500=0.03,503=0.03,envelope-error=0.03,wrong-key=0.03,"
    "oversize=0.01:8M,wrong-length=0.03";
// The faults after which a client may fail, or succeed without a payload.
constexpr std::string_view kSpoilingFaults[] = {"cut",       "reset",    "500",         "503", "envelope-error",
                                                "wrong-key", "oversize", "wrong-length"};

struct Settings {
  std::chrono::seconds duration{600};
  std::string faults;
  std::uint64_t seed = 1;
  unsigned threads = 4;
  fs::path dir;
  std::string kpcore = KPCORE_PATH;
  bool keep = false;
};

Settings parse(int argc, char** argv) {
  Settings settings;
  settings.faults = std::string(kDefaultFaults);
  std::vector<std::string> args(argv + 1, argv + argc);
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& name = args[i];
    if (name == "--keep") {
      settings.keep = true;
      continue;
    }
    if (i + 1 >= args.size()) throw std::invalid_argument(name + " needs a value");
    const std::string& value = args[++i];
    if (name == "--minutes") {
      settings.duration = std::chrono::seconds(static_cast<std::int64_t>(std::stod(value) * 60));
    } else if (name == "--seconds") {
      settings.duration = std::chrono::seconds(std::stoll(value));
    } else if (name == "--faults") {
      settings.faults = value;
    } else if (name == "--seed") {
      settings.seed = std::stoull(value);
    } else if (name == "--threads") {
      settings.threads = static_cast<unsigned>(std::clamp(std::stoi(value), 1, 32));
    } else if (name == "--dir") {
      settings.dir = value;
    } else if (name == "--kpcore") {
      settings.kpcore = value;
    } else {
      throw std::invalid_argument("unknown option " + name);
    }
  }
  if (settings.duration <= std::chrono::seconds(0)) throw std::invalid_argument("the run needs a positive time");
  return settings;
}

fs::path selfPath() { return fs::read_symlink("/proc/self/exe"); }

// Lines of `file` that say something broke, as breaches.
void scanForTrouble(const fs::path& file, const std::string& who, Breaches& breaches) {
  if (const auto text = readFile(file)) {
    for (const auto& line : troubleIn(*text)) breaches.add("report of " + who, line);
  }
}

// The killed child: started, killed with SIGKILL after a few seconds, checked, restarted.
class Killer {
 public:
  Killer(const Settings& settings, const fs::path& work, Breaches& breaches, Ledger& ledger, Acks& acks)
      : settings_(settings), work_(work), breaches_(breaches), ledger_(ledger), acks_(acks) {}
  void start() {
    thread_ = std::thread([this] { run(); });
  }
  void stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }

 private:
  void run() {
    Random random(settings_.seed ^ 0x4b111);
    const auto& cache = CacheController::sharedInstance();
    const fs::path suiteFile = UserDefaults::suite(kSuite)->filePath();
    for (std::int64_t run = 1; !stop_.load(); ++run) {
      const fs::path acks = work_ / ("acks-child-" + std::to_string(run));
      const fs::path err = work_ / ("child-" + std::to_string(run) + ".err");
      auto child = ChildProcess::start(
          {selfPath().string(), "child-writer", "--run", std::to_string(run), "--acks", acks.string(), "--seed",
           std::to_string(settings_.seed + run), "--seconds", std::to_string(settings_.duration.count() + 300)},
          work_ / "child.out", err);
      if (!child) {
        breaches_.add("child not started", "run " + std::to_string(run));
        return;
      }
      const auto end = Clock::now() + std::chrono::milliseconds(1000 + random.below(3000));
      while (!stop_.load() && Clock::now() < end) std::this_thread::sleep_for(20ms);
      const int status = child->kill();
      Breaches breaches;  // of this round
      const std::string when = "after kill " + std::to_string(run);
      if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
        breaches.add("killed child ended on its own", when + ": " + ChildProcess::describe(status));
      }
      ledger_.add("kills");
      for (const auto& problem : integrityProblems(cache->databasePath())) {
        breaches.add("database integrity", when + ": " + problem);
      }
      checkRowsAndFiles(
          *cache, [](const CacheRowSummary& row) { return row.group && row.group->starts_with(kChildGroupPrefix); },
          Date(), when, breaches, ledger_);
      checkSuiteFile(suiteFile, when, breaches);
      scanForTrouble(err, "the killed child (run " + std::to_string(run) + ")", breaches);
      mergeAcks(acks_, readAcks(acks));
      std::error_code ignored;
      fs::remove(acks, ignored);
      if (breaches.count() == 0) {
        ledger_.add("kills survived");
        fs::remove(err, ignored);
      }
      breaches_.absorb(breaches);
    }
  }

  const Settings& settings_;
  const fs::path work_;
  Breaches& breaches_;
  Ledger& ledger_;
  Acks& acks_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::string mib(std::size_t kib) { return std::to_string((kib + 512) / 1024); }

// "faults injected: answers=N delay=n ..." from the service's output.
std::map<std::string, std::uint64_t> injectedFaults(const fs::path& out) {
  std::map<std::string, std::uint64_t> counts;
  const auto text = readFile(out).value_or("");
  const std::size_t at = text.rfind("faults injected: ");
  if (at == std::string::npos) return counts;
  std::istringstream fields(text.substr(at + 17, text.find('\n', at) - at - 17));
  std::string field;
  while (fields >> field) {
    const std::size_t equals = field.find('=');
    if (equals != std::string::npos) counts[field.substr(0, equals)] = std::stoull(field.substr(equals + 1));
  }
  return counts;
}

int soak(const Settings& settings) {
  std::signal(SIGPIPE, SIG_IGN);
  fs::path work = settings.dir;
  if (work.empty()) {
    std::string pattern = (fs::temp_directory_path() / "kp-soak-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a work folder");
    work = pattern;
  }
  fs::create_directories(work);
  // Every store of the library under the work folder, in this process and its children.
  for (const char* name : {"XDG_CACHE_HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME"}) {
    ::setenv(name, (work / name).c_str(), 1);
  }
  std::cout << "soak: " << settings.duration.count() << " s, seed " << settings.seed << ", " << settings.threads
            << " request threads, in " << work.string() << "\n  faults " << settings.faults << std::endl;

  auto serve = ChildProcess::start({settings.kpcore, "serve", "--port", "0", "--quiet", "--faults",
                                    settings.faults + ",seed=" + std::to_string(settings.seed)},
                                   work / "serve.out", work / "serve.err");
  if (!serve) throw std::runtime_error("cannot start " + settings.kpcore);
  std::string baseUrl;
  for (const auto end = Clock::now() + 60s; baseUrl.empty() && Clock::now() < end;) {
    const auto text = readFile(work / "serve.out").value_or("");
    if (text.find('\n') != std::string::npos) baseUrl = text.substr(0, text.find('\n'));
    if (serve->wait(50ms)) break;
  }
  if (!baseUrl.starts_with("http")) {
    throw std::runtime_error("the service did not start: " + readFile(work / "serve.err").value_or(""));
  }

  Breaches breaches;
  Ledger ledger;
  Acks acks;
  // Made here, on the thread that drains the main queue.
  const auto& cache = CacheController::sharedInstance();
  const fs::path suiteFile = UserDefaults::suite(kSuite)->filePath();
  const auto startSelf = sampleProcess();
  const auto startFiles = openFiles();
  const auto startService = sampleProcess(serve->pid());
  ProcessFigures midSelf;
  ProcessFigures midService;

  auto steady = ChildProcess::start(
      {selfPath().string(), "defaults-writer", "--prefix", "s", "--run", "1", "--acks", (work / "acks-steady").string(),
       "--seed", std::to_string(settings.seed + 99), "--seconds", std::to_string(settings.duration.count() + 300)},
      work / "steady.out", work / "steady.err");
  Killer killer(settings, work, breaches, ledger, acks);
  CacheLoad cacheLoad(settings.seed, breaches, ledger);
  RequestLoad requests(baseUrl, settings.seed, breaches, ledger);
  std::atomic<bool> stopDefaults{false};
  Acks parentAcks;
  std::thread defaults(
      [&] { writeDefaults("p", 1, stopDefaults, settings.seed + 7, &parentAcks, {}, breaches, ledger); });
  killer.start();
  cacheLoad.start();
  requests.start(settings.threads);

  const auto begin = Clock::now();
  const auto end = begin + settings.duration;
  bool midTaken = false;
  auto lastProgress = begin;
  while (Clock::now() < end) {
    MainQueue::shared()->runFor(50ms);
    const auto now = Clock::now();
    if (!midTaken && now - begin >= settings.duration / 2) {
      midSelf = sampleProcess();
      midService = sampleProcess(serve->pid());
      midTaken = true;
    }
    if (now - lastProgress >= 60s) {
      lastProgress = now;
      std::cerr << "soak: " << std::chrono::duration_cast<std::chrono::seconds>(now - begin).count() << " s, "
                << ledger.get("requests started") << " requests, " << ledger.get("kills") << " kills, "
                << breaches.count() << " breaches" << std::endl;
    }
  }

  // Winding down: nothing new starts; what runs ends and is checked.
  requests.stopStarting();
  cacheLoad.stop();
  stopDefaults = true;
  defaults.join();
  killer.stop();
  if (steady) {
    steady->signal(SIGTERM);
    const auto status = steady->wait(60s);
    if (!status) {
      breaches.add("defaults writer did not stop", ChildProcess::describe(steady->kill()));
    } else if (!WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
      breaches.add("defaults writer failed", ChildProcess::describe(*status));
    }
  } else {
    breaches.add("defaults writer not started", "");
  }
  requests.settle(120s);
  cache->waitForBackgroundWork();

  mergeAcks(acks, parentAcks);
  mergeAcks(acks, readAcks(work / "acks-steady"));
  checkAcknowledged(suiteFile, acks, breaches, ledger);
  checkSuiteFile(suiteFile, "at the end", breaches);
  for (const auto& problem : integrityProblems(cache->databasePath())) breaches.add("database integrity", problem);
  checkRowsAndFiles(
      *cache, [](const CacheRowSummary&) { return true; }, cacheLoad.lastTrimEnd(), "at the end", breaches, ledger);

  // Idle connections close after 5 s, the library's idle sessions and threads after 10 s.
  ProcessFigures endSelf = sampleProcess();
  ProcessFigures endService = sampleProcess(serve->pid());
  for (const auto settled = Clock::now() + 20s; Clock::now() < settled;) {
    MainQueue::shared()->runFor(100ms);
    endSelf = sampleProcess();
    endService = sampleProcess(serve->pid());
    if (endSelf.descriptors <= startSelf.descriptors + 4 && endService.descriptors <= startService.descriptors + 4)
      break;
  }
  serve->signal(SIGTERM);
  if (const auto status = serve->wait(60s); !status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
    breaches.add("service did not stop cleanly", status ? ChildProcess::describe(*status) : "still running");
    if (!status) (void)serve->kill();
  }
  const auto injected = injectedFaults(work / "serve.out");
  for (const char* file : {"serve.err", "steady.err"}) scanForTrouble(work / file, file, breaches);

  // Figures.
  const auto counts = ledger.all();
  auto count = [&](const std::string& name) { return counts.contains(name) ? counts.at(name) : 0; };
  std::uint64_t failures = 0;
  std::uint64_t emptySuccesses = 0;
  std::ostringstream failed;
  std::ostringstream empty;
  for (const auto& [name, n] : counts) {
    if (name.starts_with("failed: ")) {
      failures += n;
      failed << " " << name.substr(8) << " " << n << ",";
    } else if (name.starts_with("succeeded without payload: ")) {
      emptySuccesses += n;
      empty << " " << name.substr(27) << " " << n << ",";
    }
  }
  std::uint64_t spoiling = 0;
  std::ostringstream faults;
  for (const auto& [name, n] : injected) faults << " " << name << " " << n << ",";
  if (injected.empty()) breaches.add("service did not say what it injected", (work / "serve.out").string());
  for (const auto name : kSpoilingFaults) {
    const auto found = injected.find(std::string(name));
    const std::uint64_t n = found == injected.end() ? 0 : found->second;
    spoiling += n;
    // Within a minute every fault shows up at the default rates.
    if (n == 0 && settings.duration >= 60s && settings.faults == kDefaultFaults) {
      breaches.add("fault never injected", std::string(name));
    }
  }
  // A client fails only where the service misbehaved; each HTTP failure status only as often
  // as it was injected.
  if (failures + emptySuccesses > spoiling) {
    breaches.add("more failures than faults", std::to_string(failures) + " failures and " +
                                                  std::to_string(emptySuccesses) + " empty successes, " +
                                                  std::to_string(spoiling) + " spoiling faults");
  }
  for (const auto* status : {"500", "503"}) {
    const auto seen = count("failed: http-" + std::string(status));
    const auto sent = injected.contains(status) ? injected.at(status) : 0;
    if (seen > sent)
      breaches.add("more failures than faults",
                   std::string("http-") + status + " " + std::to_string(seen) + " > " + std::to_string(sent));
  }
  auto injectedOf = [&](const std::string& name) { return injected.contains(name) ? injected.at(name) : 0; };
  if (count("failed: too-large") > injectedOf("oversize")) {
    breaches.add("more failures than faults", "too-large beyond the oversized answers");
  }
  // Only the envelope sent with HTTP 200 reaches the client as the service's failure.
  if (count("failed: service-or-decoding-500") > injectedOf("envelope-error")) {
    breaches.add("more failures than faults", "service failures 500 beyond the failure envelopes sent");
  }
  // What the process holds now that it did not hold at the start: the library's process-wide
  // parts made on first use (the pool, the timer thread, the watcher) and nothing else.
  std::vector<std::string> added;
  const auto endFiles = openFiles();
  std::set_difference(endFiles.begin(), endFiles.end(), startFiles.begin(), startFiles.end(),
                      std::back_inserter(added));
  std::string addedList;
  for (std::size_t i = 0; i < added.size() && i < 16; ++i) addedList += (i ? ", " : "") + added[i];
  if (endSelf.descriptors > startSelf.descriptors + 16) {
    breaches.add("descriptors grew", "soak " + std::to_string(startSelf.descriptors) + " -> " +
                                         std::to_string(endSelf.descriptors) + ", new: " + addedList);
  }
  if (endService.descriptors > startService.descriptors + 16) {
    breaches.add("descriptors grew", "service " + std::to_string(startService.descriptors) + " -> " +
                                         std::to_string(endService.descriptors));
  }
  // Memory may grow while caches and sanitizer quarantines fill; in the second half of the
  // run it must level off.
  for (const auto& [who, mid, last] :
       {std::tuple("soak", midSelf, endSelf), std::tuple("service", midService, endService)}) {
    if (last.residentKiB > mid.residentKiB + std::max<std::size_t>(mid.residentKiB / 2, 64 * 1024)) {
      breaches.add("resident memory grew", std::string(who) + " " + mib(mid.residentKiB) + " MiB at the middle, " +
                                               mib(last.residentKiB) + " MiB at the end");
    }
  }

  const bool passed = breaches.count() == 0;
  for (const auto& line : breaches.report()) std::cout << "BREACH " << line << "\n";
  std::cout << "requests: started " << count("requests started") << ", completed exactly once "
            << count("requests completed") << ", cancelled " << count("requests cancelled by ticket")
            << " by ticket and " << count("requests cancelled on their queue") << " on their queue ("
            << count("ticket cancels") << " ticket cancels, " << count("queue cancels") << " queue cancels, "
            << count("queue cancel-alls") << " cancel-alls)\n"
            << "  succeeded " << count("requests succeeded") << " (" << count("requests answered from the cache")
            << " from the cache, of them " << count("answered from the cache without payload") << " without payload; "
            << emptySuccesses << " from the network without payload:" << empty.str() << ")\n"
            << "  failed " << failures << " by kind:" << failed.str() << "\n"
            << "faults injected:" << faults.str() << " (" << spoiling << " that may fail a request)\n"
            << "kills survived: " << count("kills survived") << " of " << count("kills")
            << " (database integrity ok and no row without its file after each)\n"
            << "user defaults: " << count("defaults writes") << " writes by 3 processes, " << count("defaults syncs")
            << " synchronized; " << count("defaults keys acknowledged") << " keys acknowledged, "
            << (breaches.count("acknowledged defaults write lost") == 0 ? "every acknowledged write readable"
                                                                        : "acknowledged writes lost")
            << (breaches.count("defaults read went back") == 0 ? ", no read went back" : ", reads went back") << "\n"
            << "cache: " << count("cache sets") << " sets, " << count("cache reads") << " reads ("
            << count("cache hits") << " hits), " << count("cache removals") << " removals, "
            << count("cache group wipes") << " group wipes, " << count("cache size trims") << " trims, "
            << count("expired clean-ups") << " expired clean-ups, " << count("memory warnings") << " memory warnings, "
            << count("active/resign cycles") << " active/resign cycles\n"
            << "  rows without their file: " << count("rows without file: trimmed") << " trimmed, "
            << count("rows without file: expired") << " expired, none other\n"
            << "descriptors (start/middle/end): soak " << startSelf.descriptors << "/" << midSelf.descriptors << "/"
            << endSelf.descriptors << ", service " << startService.descriptors << "/" << midService.descriptors << "/"
            << endService.descriptors << (added.empty() ? "" : " (the soak's new: " + addedList + ")") << "\n"
            << "resident MiB (start/middle/end): soak " << mib(startSelf.residentKiB) << "/" << mib(midSelf.residentKiB)
            << "/" << mib(endSelf.residentKiB) << ", service " << mib(startService.residentKiB) << "/"
            << mib(midService.residentKiB) << "/" << mib(endService.residentKiB) << "\n"
            << "sanitizer and child reports: " << breaches.count("report of") << "\n"
            << (passed ? "soak: PASS" : "soak: FAIL, " + std::to_string(breaches.count()) + " breaches") << std::endl;
  if (passed && !settings.keep && settings.dir.empty()) {
    std::error_code ignored;
    fs::remove_all(work, ignored);
  } else {
    std::cout << "soak: files kept in " << work.string() << std::endl;
  }
  return passed ? 0 : 1;
}

}  // namespace
}  // namespace kp::soak

int main(int argc, char** argv) {
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "child-writer") return kp::soak::runChildWriter(argc, argv);
  if (mode == "defaults-writer") return kp::soak::runDefaultsWriter(argc, argv);
  try {
    return kp::soak::soak(kp::soak::parse(argc, argv));
  } catch (const std::invalid_argument& error) {
    std::cerr << "kp_soak: " << error.what() << "\n";
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "kp_soak: " << error.what() << "\n";
    return 1;
  }
}
