// kpcore serve: runs the local weather service until interrupted. The first line on standard
// output is the base URL, so that scripts can start it on a free port and read where it is.
// With --faults it spoils a share of its answers (faults.h) and, when it stops, prints what it
// injected as its last line.
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <iostream>
#include <thread>

#include "command.h"
#include "weather_service.h"

namespace {

// Set by the signal handler; a lock-free atomic is safe to touch there.
std::atomic<bool> gStopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void requestStop(int) { gStopRequested.store(true); }

// Each connection is a descriptor, and the usual soft limit (1024) is below the service's
// own connection limit: take what the hard limit allows, up to a little above it.
void raiseDescriptorLimit() {
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur >= 8192 || files.rlim_cur >= files.rlim_max) return;
  files.rlim_cur = std::min<rlim_t>(files.rlim_max, 8192);
  (void)::setrlimit(RLIMIT_NOFILE, &files);
}

int runServe(kpcore::Args& args) {
  kp::weather::WeatherServiceOptions options;
  if (auto port = args.option("port")) options.port = static_cast<int>(kpcore::integerOption("port", *port, 0, 65535));
  if (auto host = args.option("host")) options.host = *host;
  // An empty host would listen everywhere and print a URL that leads nowhere.
  if (options.host.empty()) throw kpcore::CommandError("--host needs a name or an address", 2);
  if (auto certificate = args.option("cert")) options.certificatePath = *certificate;
  if (auto key = args.option("key")) options.privateKeyPath = *key;
  if (options.certificatePath.empty() != options.privateKeyPath.empty()) {
    throw kpcore::CommandError("--cert and --key go together", 2);
  }
  if (auto key = args.option("query-key")) options.queryKey = *key;
  if (auto key = args.option("body-key")) options.forecastBodyKey = *key;
  if (auto key = args.option("response-key")) options.forecastResponseKey = *key;
  for (const auto* key : {&options.queryKey, &options.forecastBodyKey, &options.forecastResponseKey}) {
    if (key->size() > 32) throw kpcore::CommandError("keys are at most 32 bytes", 2);
  }
  if (auto spec = args.option("faults")) {
    std::string error;
    auto faults = kp::weather::FaultSpec::parse(*spec, &error);
    if (!faults) throw kpcore::CommandError("--faults: " + error, 2);
    options.faults = *faults;
  }
  const bool quiet = args.flag("quiet");
  const bool json = args.flag("json");
  args.expectEnd();

  kp::weather::WeatherService::AccessLog log;
  if (!quiet) {
    log = [](const std::string& method, const std::string& target, int status) {
      // The query is ciphertext; the path says which method ran.
      std::cerr << method << " " << target.substr(0, target.find('?')) << " " << status << "\n";
    };
  }
  raiseDescriptorLimit();
  kp::weather::WeatherService service(options, log);
  // Installed before the serving threads exist, so that whichever thread the signal meets
  // only sets the flag.
  std::signal(SIGINT, requestStop);
  std::signal(SIGTERM, requestStop);
  service.start();
  if (json) {
    std::cout << "{\"url\":" << kpcore::jsonQuote(service.baseUrl()) << "}" << std::endl;
  } else {
    std::cout << service.baseUrl() << std::endl;
  }
  while (!gStopRequested.load()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  service.stop();
  if (!quiet) std::cerr << "stopped\n";
  if (const auto* faults = service.faults()) {
    if (json) {
      std::cout << "{\"faults\":" << faults->countsJson() << "}" << std::endl;
    } else {
      std::cout << "faults injected: " << faults->countsText() << std::endl;
    }
  }
  return 0;
}

const kpcore::Registration registration{
    "serve", "Run the local weather service (basicInfo, forecast) until interrupted",
    "kpcore serve [--port N] [--host 127.0.0.1] [--cert PEM --key PEM] [--query-key K] [--body-key K]\n"
    "                    [--response-key K] [--faults SPEC] [--quiet] [--json]\n"
    "  Prints the base URL as its first line; stops on SIGINT or SIGTERM.\n"
    "  --body-key and --response-key set the forecast's keys (empty for plain).\n"
    "  --faults SPEC spoils a share of the answers, for testing clients against a service that\n"
    "  misbehaves. SPEC is KIND=RATE[:PARAM],... and seed=N, RATE the fraction of answers (the\n"
    "  rates add up to at most 1):\n"
    "    delay=R[:2s]        wait up to the time given (s or ms), then answer\n"
    "    dribble=R[:1s]      send the answer a byte per write, spread over the time given\n"
    "    cut=R               send the head and part of the body, then close\n"
    "    reset=R             send part of the answer, then reset the connection\n"
    "    500=R, 503=R        answer that status, half with the failure envelope, half without\n"
    "    envelope-error=R    answer 200 with the failure envelope (code 500)\n"
    "    wrong-key=R         seal the answer with a key the client does not have\n"
    "    oversize=R[:300M]   answer that many bytes (K, M, G), announced or chunked\n"
    "    wrong-length=R      send a Content-Length the body does not have\n"
    "    seed=N              the same N spoils the same answers (by their order) in every run\n"
    "  e.g. --faults delay=0.05:2s,cut=0.02,reset=0.02,500=0.03,wrong-key=0.02,seed=42\n"
    "  GET /_faults answers the counts so far; the last line, when the service stops, is\n"
    "  \"faults injected: answers=N delay=n dribble=n ...\" (JSON with --json).",
    runServe};

}  // namespace
