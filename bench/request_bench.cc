// Building the wire request (12 query and 4 body parameters, both parts encrypted), transfers
// through the handler and the session against raw libcurl on a loopback server, and requests
// run end to end: cache hits against a bare cache read, a request queue against handlers
// alone, and downloads through the file kind against libcurl writing a file.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <httplib.h>
#include <sys/resource.h>

#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <mutex>
#include <thread>

#include "kp/cache/cache_controller.h"
#include "kp/request/data_request.h"
#include "kp/request/file_request.h"
#include "kp/request/request_executor.h"
#include "kp/request/request_handler.h"
#include "kp/request/request_queue.h"
#include "kp/request/url_request_factory.h"
#include "kp/service/encryption.h"
#include "scratch_folder.h"

namespace {

const std::string kQueryKey = "Qw7rT2mZx9LpB4nVc8KdS1hYf6GjU3aE";
const std::string kBodyKey = "Hn4Xk9PzR2wLq7TbM5vC8dJs1YgF6uAe";

std::shared_ptr<kp::HttpRequest> makeRequest() {
  auto request = kp::HttpRequest::make(*kp::Url::parse("https://api.example.com/v3/forecast/hourly"));
  auto& config = *request->httpConfig();
  const char* names[] = {"lat", "lon", "lang", "units", "days", "hours", "tz", "app", "ver", "os", "device", "id"};
  const char* values[] = {"52.5200",       "13.4050", "de-DE", "metric",    "7",        "48",
                          "Europe/Berlin", "weather", "5.2.0", "Linux 6.1", "Desk Top", "a1b2c3d4e5f6"};
  for (int i = 0; i < 12; ++i) config.addQuery(values[i], names[i]);
  config.addBody("push token with spaces & symbols", "token");
  config.addBody("1", "consent");
  config.addBody("2024-06-11T10:00:00Z", "since");
  config.addBody(std::nullopt, "flag");
  config.method = kp::HttpRequestMethod::post;
  config.setHeader("application/x-www-form-urlencoded", "Content-Type");
  config.etag = "\"abc\"";
  return request;
}

void BM_CreateUrlRequest_Encrypted(benchmark::State& state) {
  auto request = makeRequest();
  for (auto _ : state) benchmark::DoNotOptimize(kp::UrlRequestFactory::createUrlRequest(*request, kQueryKey, kBodyKey));
}
void BM_CreateUrlRequest_Plain(benchmark::State& state) {
  auto request = makeRequest();
  for (auto _ : state) benchmark::DoNotOptimize(kp::UrlRequestFactory::createUrlRequest(*request));
}
// The parts, to see what dominates.
void BM_Part_AppendQuery(benchmark::State& state) {
  auto request = makeRequest();
  for (auto _ : state) benchmark::DoNotOptimize(request->completeUrl());
}
void BM_Part_EncryptUrl(benchmark::State& state) {
  const kp::Url url = makeRequest()->completeUrl();
  for (auto _ : state) benchmark::DoNotOptimize(kp::TarvixServiceEncryptionHelper::encrypt(url, kQueryKey));
}
void BM_Part_UrlParse(benchmark::State& state) {
  const std::string text = makeRequest()->completeUrl().absoluteString();
  for (auto _ : state) benchmark::DoNotOptimize(kp::Url::parse(text));
}
void BM_Part_Aes256Encrypt300Bytes(benchmark::State& state) {
  const std::string text(300, 'x');
  for (auto _ : state) benchmark::DoNotOptimize(kp::aes256EncryptString(text, kQueryKey));
}
void BM_Part_CacheKey(benchmark::State& state) {
  auto request = makeRequest();
  for (auto _ : state) benchmark::DoNotOptimize(kp::HttpRequestTypeCacheKeyGenerator::generate(*request));
}

BENCHMARK(BM_CreateUrlRequest_Encrypted);
BENCHMARK(BM_CreateUrlRequest_Plain);
BENCHMARK(BM_Part_AppendQuery);
BENCHMARK(BM_Part_EncryptUrl);
BENCHMARK(BM_Part_UrlParse);
BENCHMARK(BM_Part_Aes256Encrypt300Bytes);
BENCHMARK(BM_Part_CacheKey);

}  // namespace

// MARK: - Transfers against a loopback server, with raw libcurl as the baseline.

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kLargeBody = 256u << 20;

// One server for every transfer benchmark: 1 KiB bodies and a 256 MiB body made on the fly.
class BenchServer {
 public:
  BenchServer() {
    server_.set_tcp_nodelay(true);
    // Keep connections open for good (the default closes one after five requests), so that
    // "reused" means reused on both sides.
    server_.set_keep_alive_max_count(1u << 30);
    server_.Get("/small", [](const httplib::Request&, httplib::Response& r) {
      r.set_content(std::string(1024, 's'), "application/octet-stream");
    });
    server_.Get("/large", [](const httplib::Request&, httplib::Response& r) {
      static const std::string block(1 << 20, 'L');
      r.set_content_provider(kLargeBody, "application/octet-stream",
                             [](size_t offset, size_t length, httplib::DataSink& sink) {
                               sink.write(block.data(), std::min(length, block.size() - offset % block.size()));
                               return true;
                             });
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(1ms);
  }
  ~BenchServer() {
    server_.stop();
    thread_.join();
  }
  static BenchServer& shared() {
    static BenchServer server;
    return server;
  }
  std::string url(const char* path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

// Runs one request through a handler and waits for its result.
std::shared_ptr<kp::HttpRequestResult> runHandler(const std::string& url,
                                                  const std::shared_ptr<kp::UrlSession>& session) {
  auto request = kp::HttpRequest::make(*kp::Url::parse(url));
  request->setCompletionDispatchQueue(nullptr);
  if (session) request->setUrlSession(session);
  auto handler = std::make_shared<kp::HttpRequestHandler>();
  // The waiter's state is shared with the callback, so the callback can wake it after it let
  // go of everything. A mutex and condition variable, not std::binary_semaphore: libstdc++ 12's
  // semaphore backs off with sleeps and turns a wake-up of microseconds into hundreds.
  struct Completion {
    std::mutex mutex;
    std::condition_variable ready;
    bool done = false;  // guarded by mutex
    std::shared_ptr<kp::HttpRequestResult> result;
  };
  auto completion = std::make_shared<Completion>();
  (void)handler->canHandle(request);
  handler->handle(request, [completion](const std::shared_ptr<kp::RequestResult>& result) {
    {
      std::lock_guard lock(completion->mutex);
      completion->result = std::dynamic_pointer_cast<kp::HttpRequestResult>(result);
      completion->done = true;
    }
    completion->ready.notify_one();
  });
  std::unique_lock lock(completion->mutex);
  completion->ready.wait(lock, [&] { return completion->done; });
  return completion->result;
}

size_t appendToString(char* bytes, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(bytes, size * count);
  return size * count;
}

void setCommonOptions(CURL* easy, const std::string& url) {
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
}

// One request on a new easy handle; its connections go to `share` when given.
std::string fetchWithNewEasy(const std::string& url, CURLSH* share) {
  CURL* easy = curl_easy_init();
  setCommonOptions(easy, url);
  if (share != nullptr) curl_easy_setopt(easy, CURLOPT_SHARE, share);
  std::string body;
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &appendToString);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
  curl_easy_perform(easy);
  curl_easy_cleanup(easy);
  return body;
}

// CPU time of the whole process (every thread, the in-process server's too), in seconds.
double processCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The process's CPU time and context switches so far, every thread's (the in-process server's
// too). Voluntary switches are a thread going to sleep, involuntary ones preemption; a sleep
// and its wake-up cost more CPU here than most of the work of a small request.
struct ProcessUsage {
  double cpuSeconds = processCpuSeconds();
  long voluntarySwitches = 0;
  long involuntarySwitches = 0;
  ProcessUsage() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    voluntarySwitches = usage.ru_nvcsw;
    involuntarySwitches = usage.ru_nivcsw;
  }
};

// Requests per second, and CPU time and context switches per request since `atStart`:
// figures that the load of a shared machine skews far less than wall time.
void countRequests(benchmark::State& state, const ProcessUsage& atStart) {
  const ProcessUsage now;
  const auto iterations = static_cast<double>(state.iterations());
  state.counters["requests/s"] = benchmark::Counter(iterations, benchmark::Counter::kIsRate);
  state.counters["cpu_us/req"] = (now.cpuSeconds - atStart.cpuSeconds) * 1e6 / iterations;
  state.counters["vcsw/req"] = static_cast<double>(now.voluntarySwitches - atStart.voluntarySwitches) / iterations;
  state.counters["ivcsw/req"] = static_cast<double>(now.involuntarySwitches - atStart.involuntarySwitches) / iterations;
}

void smallGetsOnOneSession(benchmark::State& state, std::shared_ptr<kp::HttpCookieStorage> cookies) {
  const std::string url = BenchServer::shared().url("/small");
  const ProcessUsage atStart;
  auto router = std::make_shared<kp::HttpRequestURLSessionDelegateHandler>();
  auto configuration = kp::UrlSessionConfiguration::defaultConfiguration();
  configuration.httpCookieStorage = std::move(cookies);
  auto session = kp::UrlSession::make(configuration, router);
  for (auto _ : state) benchmark::DoNotOptimize(runHandler(url, session));
  session->invalidateAndCancel();
  countRequests(state, atStart);
}

void BM_Transfer_SmallGets_Handler_SharedSession(benchmark::State& state) {
  smallGetsOnOneSession(state, kp::HttpCookieStorage::shared());
}

// The same without a cookie store: what an empty store costs a request.
void BM_Transfer_SmallGets_Handler_SharedSession_NoCookieStore(benchmark::State& state) {
  smallGetsOnOneSession(state, nullptr);
}

void smallGetsOnReusedEasy(benchmark::State& state, bool acceptEncodings) {
  const std::string url = BenchServer::shared().url("/small");
  const ProcessUsage atStart;
  CURL* easy = curl_easy_init();
  setCommonOptions(easy, url);
  if (acceptEncodings) curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  std::string body;
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &appendToString);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
  for (auto _ : state) {
    body.clear();
    curl_easy_perform(easy);
    benchmark::DoNotOptimize(body);
  }
  curl_easy_cleanup(easy);
  countRequests(state, atStart);
}

void BM_Transfer_SmallGets_RawCurl_ReusedEasy(benchmark::State& state) { smallGetsOnReusedEasy(state, false); }

// The same request on the wire as the session's: it offers every encoding libcurl can decode
// (the header alone costs both ends a few microseconds per request).
void BM_Transfer_SmallGets_RawCurl_ReusedEasy_SameHeaders(benchmark::State& state) {
  smallGetsOnReusedEasy(state, true);
}

// A reused easy handle on a multi handle that a thread of its own drives, woken by
// curl_multi_wakeup and answering through a condition variable: the two thread hand-offs
// that any session with a driver thread pays, and nothing else.
void BM_Transfer_SmallGets_RawCurl_MultiOnThread(benchmark::State& state) {
  const std::string url = BenchServer::shared().url("/small");
  const ProcessUsage atStart;
  CURLM* multi = curl_multi_init();
  CURL* easy = curl_easy_init();
  setCommonOptions(easy, url);
  std::string body;
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &appendToString);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
  std::mutex mutex;
  std::condition_variable finished;
  bool wanted = false;  // guarded by mutex
  bool done = false;    // guarded by mutex
  bool stop = false;    // guarded by mutex
  std::thread driver([&] {
    bool running = false;
    for (;;) {
      {
        std::lock_guard lock(mutex);
        if (stop) break;
        if (wanted) {
          wanted = false;
          curl_multi_add_handle(multi, easy);
          running = true;
        }
      }
      int active = 0;
      curl_multi_perform(multi, &active);
      int left = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        curl_multi_remove_handle(multi, easy);
        running = false;
        {
          std::lock_guard lock(mutex);
          done = true;
        }
        finished.notify_one();
      }
      curl_multi_poll(multi, nullptr, 0, running ? 1000 : 5000, nullptr);
    }
  });
  for (auto _ : state) {
    body.clear();
    {
      std::lock_guard lock(mutex);
      wanted = true;
      done = false;
    }
    curl_multi_wakeup(multi);
    std::unique_lock lock(mutex);
    finished.wait(lock, [&] { return done; });
    benchmark::DoNotOptimize(body);
  }
  {
    std::lock_guard lock(mutex);
    stop = true;
  }
  curl_multi_wakeup(multi);
  driver.join();
  curl_easy_cleanup(easy);
  curl_multi_cleanup(multi);
  countRequests(state, atStart);
}

void BM_Transfer_SmallGets_Handler_PrivateSession(benchmark::State& state) {
  const std::string url = BenchServer::shared().url("/small");
  const ProcessUsage atStart;
  for (auto _ : state) benchmark::DoNotOptimize(runHandler(url, nullptr));
  countRequests(state, atStart);
}

void BM_Transfer_SmallGets_RawCurl_NewEasy(benchmark::State& state) {
  const std::string url = BenchServer::shared().url("/small");
  const ProcessUsage atStart;
  for (auto _ : state) benchmark::DoNotOptimize(fetchWithNewEasy(url, nullptr));
  countRequests(state, atStart);
}

// New easy handles whose connections live in a share handle: what a connection pool beneath
// short-lived sessions would gain over a new connection per request.
void BM_Transfer_SmallGets_RawCurl_NewEasy_PooledConnection(benchmark::State& state) {
  const std::string url = BenchServer::shared().url("/small");
  const ProcessUsage atStart;
  CURLSH* share = curl_share_init();
  curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
  curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  for (auto _ : state) benchmark::DoNotOptimize(fetchWithNewEasy(url, share));
  curl_share_cleanup(share);
  countRequests(state, atStart);
}

void BM_Transfer_Large_Handler_ToMemory(benchmark::State& state) {
  const std::string url = BenchServer::shared().url("/large");
  for (auto _ : state) {
    auto result = runHandler(url, nullptr);
    if (std::any_cast<kp::Data>(&result->data)->size() != kLargeBody) state.SkipWithError("short body");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kLargeBody));
}

void BM_Transfer_Large_RawCurl_ToMemory(benchmark::State& state) {
  const std::string url = BenchServer::shared().url("/large");
  for (auto _ : state) {
    CURL* easy = curl_easy_init();
    setCommonOptions(easy, url);
    std::string body;
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &appendToString);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
    curl_easy_perform(easy);
    curl_easy_cleanup(easy);
    if (body.size() != kLargeBody) state.SkipWithError("short body");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kLargeBody));
}

// Peak resident memory since the last reset, in MiB.
double peakResidentMiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("VmHWM:")) return std::stod(line.substr(6)) / 1024.0;
  }
  return 0;
}
double residentMiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("VmRSS:")) return std::stod(line.substr(6)) / 1024.0;
  }
  return 0;
}
void resetPeakResident() { std::ofstream("/proc/self/clear_refs") << "5"; }

class FileWriter : public kp::UrlSessionDelegate {
 public:
  explicit FileWriter(std::filesystem::path destination) : destination_(std::move(destination)) {}
  void didFinishDownloading(kp::UrlSession&, kp::UrlSessionDownloadTask&,
                            const std::filesystem::path& location) override {
    std::filesystem::rename(location, destination_);
  }
  void didComplete(kp::UrlSession&, kp::UrlSessionTask&, const kp::ErrorPtr& error) override {
    std::lock_guard lock(mutex);
    finished = true;
    failed = error != nullptr;
    done.notify_all();
  }
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  bool failed = false;

 private:
  std::filesystem::path destination_;
};

void BM_Transfer_Large_Session_ToFile(benchmark::State& state) {
  const std::string url = BenchServer::shared().url("/large");
  const auto path = kp::bench::scratchFolder() / "download";
  double peakGrowth = 0;
  for (auto _ : state) {
    std::filesystem::remove(path);
    resetPeakResident();
    const double before = residentMiB();
    auto writer = std::make_shared<FileWriter>(path);
    auto session = kp::UrlSession::make(kp::UrlSessionConfiguration::defaultConfiguration(), writer);
    session->downloadTask(kp::UrlRequest(*kp::Url::parse(url)))->resume();
    session->finishTasksAndInvalidate();
    std::unique_lock lock(writer->mutex);
    writer->done.wait(lock, [&] { return writer->finished; });
    peakGrowth = std::max(peakGrowth, peakResidentMiB() - before);
    if (writer->failed || std::filesystem::file_size(path) != kLargeBody) state.SkipWithError("download failed");
  }
  std::filesystem::remove(path);
  state.counters["peakGrowthMiB"] = peakGrowth;
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kLargeBody));
}

void BM_Transfer_Large_RawCurl_ToFile(benchmark::State& state) {
  const std::string url = BenchServer::shared().url("/large");
  const auto path = kp::bench::scratchFolder() / "download-raw";
  for (auto _ : state) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    CURL* easy = curl_easy_init();
    setCommonOptions(easy, url);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, file);
    curl_easy_perform(easy);
    curl_easy_cleanup(easy);
    std::fclose(file);
    if (std::filesystem::file_size(path) != kLargeBody) state.SkipWithError("download failed");
  }
  std::filesystem::remove(path);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kLargeBody));
}

BENCHMARK(BM_Transfer_SmallGets_Handler_SharedSession)->Iterations(2000)->UseRealTime();
BENCHMARK(BM_Transfer_SmallGets_Handler_SharedSession_NoCookieStore)->Iterations(2000)->UseRealTime();
BENCHMARK(BM_Transfer_SmallGets_RawCurl_ReusedEasy)->Iterations(2000)->UseRealTime();
BENCHMARK(BM_Transfer_SmallGets_RawCurl_ReusedEasy_SameHeaders)->Iterations(2000)->UseRealTime();
BENCHMARK(BM_Transfer_SmallGets_RawCurl_MultiOnThread)->Iterations(2000)->UseRealTime();
BENCHMARK(BM_Transfer_SmallGets_Handler_PrivateSession)->Iterations(2000)->UseRealTime();
BENCHMARK(BM_Transfer_SmallGets_RawCurl_NewEasy)->Iterations(2000)->UseRealTime();
BENCHMARK(BM_Transfer_SmallGets_RawCurl_NewEasy_PooledConnection)->Iterations(2000)->UseRealTime();
BENCHMARK(BM_Transfer_Large_Handler_ToMemory)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Transfer_Large_RawCurl_ToMemory)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Transfer_Large_Session_ToFile)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Transfer_Large_RawCurl_ToFile)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

// MARK: - Execution: cache hits end to end, requests through the request queue, downloads
// through the file kind.

namespace {

// The shared cache keeps its files in a folder of this run's own.
void useTemporaryCacheFolder() {
  static const bool ready = [] {
    const auto folder = kp::bench::freshFolder("cache");
    ::setenv("XDG_CACHE_HOME", folder.c_str(), 1);
    return true;
  }();
  (void)ready;
}

const std::string kHitKey = "bench/forecast";

// A 1 KiB data result with a response of a few headers, stored as the executor stores it.
const std::shared_ptr<kp::CacheController>& cacheWithEntry() {
  useTemporaryCacheFolder();
  const auto& cache = kp::CacheController::sharedInstance();
  if (!cache->getCacheItem(kHitKey)) {
    kp::DataRequestResult result;
    result.data = kp::Data::fromString(std::string(1024, 'f'));
    result.response = std::make_shared<kp::HttpResponse>();
    result.response->statusCode = 200;
    result.response->headers = {{"Content-Type", "application/json"}, {"ETag", "\"v1\""}, {"Date", "now"}};
    cache->set(kp::RequestExecutor::cacheItemFor(result, kp::RequestCacheConfig()), kHitKey);
  }
  return cache;
}

void BM_Execution_CacheHit_EndToEnd(benchmark::State& state) {
  const auto& cache = cacheWithEntry();
  (void)cache;
  const kp::Url url = *kp::Url::parse("https://api.example.com/v3/forecast/hourly?lat=52.52&lon=13.40");
  std::int64_t hits = 0;
  for (auto _ : state) {
    auto request = kp::DataRequest::make(url);
    request->cacheConfig()->key = kHitKey;
    request->cacheConfig()->forceSynchronousLoad = true;
    request->setCompletionDispatchQueue(nullptr);
    (void)request->execute([&](const std::shared_ptr<kp::DataRequestResult>& result) { hits += result->fromCache(); });
  }
  if (hits != static_cast<std::int64_t>(state.iterations())) state.SkipWithError("not every run was a hit");
  state.counters["hits/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_Execution_CacheHit_Baseline_GetCacheItem(benchmark::State& state) {
  const auto& cache = cacheWithEntry();
  for (auto _ : state) benchmark::DoNotOptimize(cache->getCacheItem(kHitKey));
  state.counters["hits/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// Counts completions and wakes the waiting benchmark thread at the last one.
class Countdown {
 public:
  explicit Countdown(int count) : left_(count) {}
  void done() {
    std::lock_guard lock(mutex_);
    if (--left_ == 0) zero_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    zero_.wait(lock, [&] { return left_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable zero_;
  int left_;
};

constexpr int kBatch = 64;

// A batch of small GETs, two at a time through a request queue on one shared session.
void BM_Execution_SmallGets_RequestQueue(benchmark::State& state) {
  const auto url = *kp::Url::parse(BenchServer::shared().url("/small"));
  auto router = std::make_shared<kp::HttpRequestURLSessionDelegateHandler>();
  auto session = kp::UrlSession::make(kp::UrlSessionConfiguration::defaultConfiguration(), router);
  auto queue = kp::RequestQueue::make();
  const ProcessUsage atStart;
  for (auto _ : state) {
    Countdown countdown(kBatch);
    for (int i = 0; i < kBatch; ++i) {
      auto request = kp::HttpRequest::make(url);
      request->setUrlSession(session);
      request->setQueue(queue);
      request->setCompletionDispatchQueue(nullptr);
      (void)request->execute([&](const std::shared_ptr<kp::HttpRequestResultType>&) { countdown.done(); });
    }
    countdown.wait();
  }
  session->invalidateAndCancel();
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kBatch);
  state.counters["cpu_us/req"] =
      (ProcessUsage().cpuSeconds - atStart.cpuSeconds) * 1e6 / static_cast<double>(state.iterations() * kBatch);
}

// The same batch through handlers alone, two at a time: each completion starts the next.
void BM_Execution_SmallGets_HandlerAlone(benchmark::State& state) {
  const auto url = *kp::Url::parse(BenchServer::shared().url("/small"));
  auto router = std::make_shared<kp::HttpRequestURLSessionDelegateHandler>();
  auto session = kp::UrlSession::make(kp::UrlSessionConfiguration::defaultConfiguration(), router);
  const ProcessUsage atStart;
  for (auto _ : state) {
    Countdown countdown(kBatch);
    std::atomic<int> next{0};
    std::function<void()> startNext = [&] {
      if (next.fetch_add(1) >= kBatch) return;
      auto request = kp::HttpRequest::make(url);
      request->setUrlSession(session);
      auto handler = std::make_shared<kp::HttpRequestHandler>();
      (void)handler->canHandle(request);
      // The request rides along in the completion, as a queue would hold it. The next one
      // starts before this one counts as done: the last count ends the batch, and with it
      // the frame that startNext and the countdown live in.
      handler->handle(request, [&, request](const std::shared_ptr<kp::RequestResult>&) {
        startNext();
        countdown.done();
      });
    };
    startNext();
    startNext();
    countdown.wait();
  }
  session->invalidateAndCancel();
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kBatch);
  state.counters["cpu_us/req"] =
      (ProcessUsage().cpuSeconds - atStart.cpuSeconds) * 1e6 / static_cast<double>(state.iterations() * kBatch);
}

void BM_Transfer_Large_FileRequest(benchmark::State& state) {
  const auto url = *kp::Url::parse(BenchServer::shared().url("/large"));
  const auto path = kp::bench::scratchFolder() / "download-file-request";
  double peakGrowth = 0;
  for (auto _ : state) {
    resetPeakResident();
    const double before = residentMiB();
    auto request = kp::FileRequest::make(url);
    request->targetPath = path.string();
    request->setCompletionDispatchQueue(nullptr);
    Countdown countdown(1);
    bool ok = false;
    (void)request->execute([&](const std::shared_ptr<kp::FileRequestResult>& result) {
      ok = result->isSuccess();
      countdown.done();
    });
    countdown.wait();
    peakGrowth = std::max(peakGrowth, peakResidentMiB() - before);
    if (!ok || std::filesystem::file_size(path) != kLargeBody) state.SkipWithError("download failed");
  }
  std::filesystem::remove(path);
  state.counters["peakGrowthMiB"] = peakGrowth;
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kLargeBody));
}

BENCHMARK(BM_Execution_CacheHit_EndToEnd);
BENCHMARK(BM_Execution_CacheHit_Baseline_GetCacheItem);
BENCHMARK(BM_Execution_SmallGets_RequestQueue)->Iterations(40)->UseRealTime();
BENCHMARK(BM_Execution_SmallGets_HandlerAlone)->Iterations(40)->UseRealTime();
BENCHMARK(BM_Transfer_Large_FileRequest)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
