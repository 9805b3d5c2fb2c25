// Logging costs, each against a baseline in the same run:
// - a level operation of the core channel, against a call through a function pointer to an
//   empty function (what a non-inlined no-op costs);
// - a Log line through the console writer into /dev/null, against the same line formatted with
//   fmt and written with one fwrite;
// - the journal writer against a real journald, against sd_journal_send with the same fields.
//   Without a running system journal the benchmark starts systemd-journald (root only) in a
//   journal namespace and, in a private mount namespace of this process, mounts that
//   namespace's socket folder over /run/systemd/journal, so sd_journal_send reaches it too and
//   nothing outside this process sees it.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>

#include "kp/logging/log.h"
#include "kp/logging/log_console_writer.h"
#include "kp/logging/tarvix_log_writers.h"
#include "kp/logging/tarvix_logger.h"
#include "platform/system_log_internal.h"

namespace {

// ---- the core channel ------------------------------------------------------------------

void BM_CoreChannelErrorCall(benchmark::State& state) {
  for (auto _ : state) {
    auto* logger = kp::TarvixLoggers::CL();
    logger->error("Stored value is not a string");
    benchmark::DoNotOptimize(logger);
  }
}
BENCHMARK(BM_CoreChannelErrorCall);

void emptyFunction(const char*) {}
void (*volatile emptyCall)(const char*) = emptyFunction;

void BM_Baseline_CallToEmptyFunction(benchmark::State& state) {
  for (auto _ : state) emptyCall("Stored value is not a string");
}
BENCHMARK(BM_Baseline_CallToEmptyFunction);

// ---- Log with the console writer ---------------------------------------------------------

std::FILE* devNull() {
  static std::FILE* file = std::fopen("/dev/null", "w");
  return file;
}

void BM_LogConsoleLine(benchmark::State& state) {
  const bool dated = state.range(0) != 0;
  auto options = std::make_shared<kp::Log::FormatOptions>(dated, true, "yyyy-MM-dd HH:mm:ss.SSS");
  kp::Log log(std::make_shared<kp::LogConsoleWriter>(options, devNull()), kp::Log::Options::default_);
  int count = 0;
  for (auto _ : state) {
    log.info({"loaded %d items from %s", kp::LogSource("/src/app/Loader.src", 42, "load(url:)")}, ++count, "cache");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogConsoleLine)->Arg(0)->Arg(1);

// The dated line breaks the time down once per second, as the library's date formatter does.
void BM_Baseline_FmtAndFwrite(benchmark::State& state) {
  const bool dated = state.range(0) != 0;
  int count = 0;
  fmt::memory_buffer line;
  std::time_t brokenDown = -1;
  std::tm local{};
  for (auto _ : state) {
    line.clear();
    if (dated) {
      const auto now = std::chrono::system_clock::now();
      const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
      if (seconds != brokenDown) {
        localtime_r(&seconds, &local);
        brokenDown = seconds;
      }
      const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
      fmt::format_to(std::back_inserter(line), "{:%Y-%m-%d %H:%M:%S}.{:03d} ", local, millis);
    }
    fmt::format_to(std::back_inserter(line), "{}: {:04d} {} ({}): loaded {} items from {}\n", "\U0001F535", 42,
                   "Loader.src", "load", ++count, "cache");
    std::fwrite(line.data(), 1, line.size(), devNull());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Baseline_FmtAndFwrite)->Arg(0)->Arg(1);

// ---- the journal -----------------------------------------------------------------------------

constexpr const char* kSystemSocket = "/run/systemd/journal/socket";

// Makes sure a real journald listens at the system socket path for this process.
class BenchJournal {
 public:
  static BenchJournal& get() {
    static BenchJournal journal;
    return journal;
  }
  [[nodiscard]] bool ready() const { return ready_; }
  [[nodiscard]] const std::string& problem() const { return problem_; }

 private:
  BenchJournal() {
    if (std::filesystem::exists(kSystemSocket)) {
      ready_ = true;
      return;
    }
    const char* daemon = "/lib/systemd/systemd-journald";
    if (::geteuid() != 0 || ::access(daemon, X_OK) != 0) {
      problem_ = "no journal runs, and starting one needs root and systemd-journald";
      return;
    }
    namespace_ = "kpbench" + std::to_string(::getpid());
    const std::string folder = "/run/systemd/journal." + namespace_;
    pid_ = ::fork();
    if (pid_ == 0) {
      const int quiet = ::open("/dev/null", O_WRONLY);
      ::dup2(quiet, 2);
      ::execl(daemon, daemon, namespace_.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    for (int i = 0; i < 200 && !std::filesystem::exists(folder + "/socket"); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::error_code ec;
    createdMountPoint_ = std::filesystem::create_directories("/run/systemd/journal", ec);
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount(folder.c_str(), "/run/systemd/journal", nullptr, MS_BIND, nullptr) != 0) {
      problem_ = "cannot mount the benchmark journal's socket";
      return;
    }
    ready_ = std::filesystem::exists(kSystemSocket);
    if (!ready_) problem_ = "the benchmark journal did not start";
    std::atexit([] { get().stop(); });
  }

  void stop() {
    if (pid_ <= 0) return;
    ::umount("/run/systemd/journal");
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all("/run/systemd/journal." + namespace_, ignored);
    for (const auto& dir : std::filesystem::directory_iterator("/var/log/journal", ignored)) {
      if (dir.path().extension() == "." + namespace_) std::filesystem::remove_all(dir.path(), ignored);
    }
    if (createdMountPoint_) std::filesystem::remove("/run/systemd/journal", ignored);
    pid_ = 0;
  }

  bool ready_ = false;
  bool createdMountPoint_ = false;
  std::string problem_;
  std::string namespace_;
  pid_t pid_ = 0;
};

// Counts the entries the journal did not take (they go to /dev/null instead of stderr).
class CountingSystemLog final : public kp::SystemLog {
 public:
  CountingSystemLog() : log_(kp::internal::makeSystemLog(kSystemSocket, ::open("/dev/null", O_WRONLY))) {}
  bool write(const Entry& entry) noexcept override {
    const bool taken = log_->write(entry);
    if (!taken) spilled.fetch_add(1, std::memory_order_relaxed);
    return taken;
  }
  std::atomic<long> spilled{0};

 private:
  std::shared_ptr<kp::SystemLog> log_;
};

void BM_JournalWriter(benchmark::State& state) {
  if (!BenchJournal::get().ready()) {
    state.SkipWithError(BenchJournal::get().problem().c_str());
    return;
  }
  auto systemLog = std::make_shared<CountingSystemLog>();
  kp::TarvixOSLogWriter writer("com.example.bench", std::make_unique<kp::TarvixCoreLogicOSLogExecutor>(), systemLog);
  kp::TarvixLogData data{kp::TarvixLogLevel::notice,
                         kp::Date::now(),
                         "loaded 42 items from cache",
                         "General",
                         "/src/app/Loader.src",
                         42,
                         "load(url:)"};
  for (auto _ : state) writer.log(data);
  state.SetItemsProcessed(state.iterations());
  state.counters["spilled"] = static_cast<double>(systemLog->spilled.load());
}
BENCHMARK(BM_JournalWriter)->UseRealTime();

void BM_Baseline_SdJournalSend(benchmark::State& state) {
  if (!BenchJournal::get().ready()) {
    state.SkipWithError(BenchJournal::get().problem().c_str());
    return;
  }
  long failed = 0;
  for (auto _ : state) {
    failed += sd_journal_send("MESSAGE=%s", "L:0042 Loader.src (load): loaded 42 items from cache", "PRIORITY=%i", 5,
                              "SUBSYSTEM=%s", "com.example.bench", "CATEGORY=%s", "General", "CODE_FILE=%s",
                              "/src/app/Loader.src", "CODE_LINE=%i", 42, "CODE_FUNC=%s", "load(url:)", nullptr) < 0;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["spilled"] = static_cast<double>(failed);
}
BENCHMARK(BM_Baseline_SdJournalSend)->UseRealTime();

}  // namespace
