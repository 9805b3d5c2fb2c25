// kpcore get: runs requests through the library's typed requests, executor and queues, and
// prints what comes back: the body as bytes, as pretty-printed JSON, as text or as an image's
// size, optionally preceded by the redirects, the status line and the headers; or, with
// --output, downloads the body to a file. With --cache the shared cache answers and keeps
// results. Several URLs run through one request queue and print as they complete.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <mutex>

#include "command.h"
#include "kp/cache/cache_controller.h"
#include "kp/request/data_request.h"
#include "kp/request/file_request.h"
#include "kp/request/image_request.h"
#include "kp/request/json_request.h"
#include "kp/request/request_errors.h"
#include "kp/request/request_queue.h"
#include "kp/request/string_request.h"
#include "session_router.h"

namespace {

using namespace std::chrono_literals;

enum class Kind { data, json, string, image, file };

struct Options {
  std::optional<kp::HttpRequestMethod> method;
  std::vector<std::pair<std::string, std::string>> headers;
  std::optional<kp::Data> body;
  std::optional<double> timeout;
  std::optional<std::string> output;
  // Set when --output names a device or a pipe, which gets the body as it arrives.
  std::FILE* device = nullptr;
  Kind kind = Kind::data;
  bool insecure = false;
  bool include = false;
  bool progress = false;
  bool cache = false;
  kp::RequestPriority priority = kp::RequestPriority::normal;
  std::int64_t parallel = kp::RequestQueue::kDefaultMaxConcurrentRequests;
};

// Notes the redirects of each task, for --include.
class Router : public kpcore::SessionRouter {
 public:
  using SessionRouter::SessionRouter;

  void willPerformHttpRedirection(kp::UrlSession& session, kp::UrlSessionTask& task,
                                  const std::shared_ptr<const kp::HttpUrlResponse>& response, kp::UrlRequest next,
                                  kp::RedirectionHandler completion) override {
    {
      std::lock_guard lock(redirectsMutex_);
      redirects_[task.taskIdentifier()].push_back(std::to_string(response->statusCode()) + " " +
                                                  next.url.absoluteString());
    }
    SessionRouter::willPerformHttpRedirection(session, task, response, std::move(next), std::move(completion));
  }

  [[nodiscard]] std::vector<std::string> redirects(std::uint64_t taskIdentifier) {
    std::lock_guard lock(redirectsMutex_);
    const auto found = redirects_.find(taskIdentifier);
    return found == redirects_.end() ? std::vector<std::string>() : found->second;
  }

 private:
  std::mutex redirectsMutex_;
  std::map<std::uint64_t, std::vector<std::string>> redirects_;  // GUARDED_BY(redirectsMutex_)
};

void drawProgress(float fraction) {
  const int width = 40;
  const int filled = static_cast<int>(fraction * width);
  std::cerr << "\r[" << std::string(static_cast<size_t>(filled), '#')
            << std::string(static_cast<size_t>(width - filled), ' ') << "] " << static_cast<int>(fraction * 100) << "%"
            << std::flush;
}

void printError(const kp::ErrorPtr& error) {
  std::cerr << "error " << kpcore::printable(error->domain()) << " " << error->code() << ": "
            << kpcore::printable(error->localizedDescription()) << "\n";
}

kp::HttpRequestMethod parseMethod(const std::string& text) {
  std::string verb = text;
  for (auto& c : verb) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (int raw = 0; raw <= 4; ++raw) {
    const auto candidate = *kp::httpRequestMethodFromRawValue(raw);
    if (kp::httpVerb(candidate) == verb) return candidate;
  }
  throw kpcore::CommandError("unknown method: " + text, 2);
}

kp::RequestPriority parsePriority(const std::string& text) {
  if (text == "low") return kp::RequestPriority::low;
  if (text == "normal") return kp::RequestPriority::normal;
  if (text == "high") return kp::RequestPriority::high;
  throw kpcore::CommandError("unknown priority: " + text + " (low, normal or high)", 2);
}

Kind parseKind(const std::string& text) {
  if (text == "data") return Kind::data;
  if (text == "json") return Kind::json;
  if (text == "string") return Kind::string;
  if (text == "image") return Kind::image;
  throw kpcore::CommandError("unknown kind: " + text + " (data, json, string or image)", 2);
}

// One URL's request and what became of it.
class Job {
 public:
  Job(std::string url, const Options& options, std::shared_ptr<kp::UrlSession> session, std::shared_ptr<Router> router,
      std::shared_ptr<kp::RequestQueue> queue, bool titled)
      : url_(std::move(url)),
        options_(options),
        session_(std::move(session)),
        router_(std::move(router)),
        queue_(std::move(queue)),
        titled_(titled) {}

  // Starts the request; false when it failed before sending (its error is printed).
  bool start() {
    const auto parsed = kp::Url::parseEncodingInvalidCharacters(url_);
    switch (options_.kind) {
      case Kind::data:
        request_ = startKind<kp::DataRequest>(
            *parsed, [this](const kp::DataRequestResult& result) { return writeBody(result.dataAsData()); });
        break;
      case Kind::json:
        request_ = startKind<kp::JsonRequest>(*parsed, [](const kp::JsonRequestResult& result) {
          const auto* json = result.dataAsJson();
          if (!json) return fail("the body is not JSON");
          std::cout << kp::writeJson(json->toValue(), kp::DateStrategy::iso8601, true) << "\n";
          return true;
        });
        break;
      case Kind::string:
        request_ = startKind<kp::StringRequest>(*parsed, [](const kp::StringRequestResult& result) {
          const auto* text = result.dataAsString();
          if (!text) return fail("the body is not UTF-8 text");
          std::cout << *text;
          return true;
        });
        break;
      case Kind::image:
        request_ = startKind<kp::ImageRequest>(*parsed, [](const kp::ImageRequestResult& result) {
          const auto* image = result.dataAsImage();
          if (!image) return fail("the body is not an image");
          std::cout << "image " << image->size().width << "x" << image->size().height << " points at scale "
                    << image->scale() << " (" << image->pixelWidth() << "x" << image->pixelHeight() << " pixels)\n";
          return true;
        });
        break;
      case Kind::file:
        request_ = startKind<kp::FileRequest>(*parsed, [](const kp::FileRequestResult&) { return true; });
        break;
    }
    if (ticket_->failed()) {
      finish(ticket_->error());
      return false;
    }
    return true;
  }

  [[nodiscard]] bool done() const { return done_; }
  [[nodiscard]] bool succeeded() const { return succeeded_; }

 private:
  static bool fail(const std::string& message) {
    std::cerr << "error: " << message << "\n";
    return false;
  }

  bool writeBody(const kp::Data* bytes) const {
    if (!options_.device) {
      if (bytes) std::cout.write(bytes->view().data(), static_cast<std::streamsize>(bytes->size()));
      return true;
    }
    errno = 0;
    const bool written = (!bytes || std::fwrite(bytes->data(), 1, bytes->size(), options_.device) == bytes->size()) &&
                         std::fflush(options_.device) == 0;
    if (!written) return fail("cannot write " + kpcore::printable(*options_.output) + ": " + std::strerror(errno));
    return true;
  }

  template <class Request, class Print>
  std::shared_ptr<Request> startKind(const kp::Url& url, Print print) {
    auto request = Request::make(url);
    configure(*request);
    if constexpr (std::is_same_v<Request, kp::FileRequest>) {
      request->targetPath = options_.output;
    } else if (options_.cache) {
      request->generateCacheKey();
      // Looked up and kept on this thread, so that the entry is stored before the process ends.
      request->cacheConfig()->forceSynchronousLoad = true;
    }
    ticket_ = request->execute([this, print](const std::shared_ptr<typename Request::ResultType>& result) {
      title();
      printHead(*result);
      if (result->error) {
        finish(result->error);
        return;
      }
      if (result->fromCache()) noteCacheAge(*result);
      succeeded_ = print(*result);
      if (titled_) std::cout << "\n";
      std::cout.flush();
      done_ = true;
    });
    return request;
  }

  void configure(kp::BasicHttpRequest& request) {
    auto& config = *request.httpConfig();
    if (options_.method) config.method = *options_.method;
    for (const auto& [field, value] : options_.headers) config.setHeader(value, field);
    config.bodyData = options_.body;
    if (options_.timeout) config.timeoutInterval = *options_.timeout;
    request.setUrlSession(session_);
    request.setPriority(options_.priority);
    if (queue_) request.setQueue(queue_);
    const bool showProgress = options_.progress || (options_.kind == Kind::file && ::isatty(STDERR_FILENO) == 1);
    if (showProgress) {
      // Redrawn when the percentage moves, not at every chunk. The handler is copied for
      // each update, so what was shown lives outside it; updates run on the main thread.
      request.setProgressUpdateHandler([shown = std::make_shared<int>(-1)](float fraction) {
        const int percent = static_cast<int>(fraction * 100);
        if (percent == *shown) return;
        *shown = percent;
        drawProgress(fraction);
      });
    }
    showsProgress_ = showProgress;
  }

  void title() {
    if (showsProgress_) std::cerr << "\n";
    if (titled_) std::cout << "==> " << kpcore::printable(url_) << " <==\n";
  }

  void printHead(const kp::HttpRequestResult& result) {
    if (!options_.include || !result.response) return;
    if (auto handler = std::dynamic_pointer_cast<kp::HttpRequestHandler>(request_->handler());
        handler && handler->urlSessionTask) {
      for (const auto& hop : router_->redirects(handler->urlSessionTask->taskIdentifier())) {
        std::cout << "< redirect " << kpcore::printable(hop) << "\n";
      }
    }
    std::cout << "HTTP " << result.response->statusCode.value_or(0) << "\n";
    // Servers choose these bytes; escaped, they cannot drive the terminal.
    for (const auto& [name, value] : result.response->headers) {
      std::cout << kpcore::printable(name) << ": " << kpcore::printable(value) << "\n";
    }
    std::cout << "\n";
  }

  void noteCacheAge(const kp::HttpRequestResult& result) const {
    const auto* cacheable = dynamic_cast<const kp::CacheableRequestType*>(request_.get());
    const double maximumAge = cacheable && cacheable->cacheConfig() ? cacheable->cacheConfig()->maximumAge : 0;
    const kp::Date created = result.cacheExpirationDate->addingTimeInterval(-maximumAge);
    const auto age = static_cast<std::int64_t>(kp::Date::now().timeIntervalSince(created));
    std::cerr << "from cache: " << kpcore::printable(url_) << ", age " << age << " s\n";
  }

  void finish(const kp::ErrorPtr& error) {
    if (titled_) std::cerr << kpcore::printable(url_) << ": ";
    printError(error);
    done_ = true;
  }

  std::string url_;
  const Options& options_;
  std::shared_ptr<kp::UrlSession> session_;
  std::shared_ptr<Router> router_;
  std::shared_ptr<kp::RequestQueue> queue_;
  bool titled_;
  bool showsProgress_ = false;
  std::shared_ptr<kp::BasicHttpRequest> request_;
  std::shared_ptr<kp::RequestTicketType> ticket_;
  // Written by completions, which run on the main queue, which this thread drains.
  bool done_ = false;
  bool succeeded_ = false;
};

int runGet(kpcore::Args& args) {
  Options options;
  if (auto method = args.option("method")) options.method = parseMethod(*method);
  for (const auto& header : args.options("header")) {
    const auto colon = header.find(':');
    if (colon == std::string::npos) throw kpcore::CommandError("header without ':': " + header, 2);
    std::string value = header.substr(colon + 1);
    value.erase(0, value.find_first_not_of(" \t"));
    options.headers.emplace_back(header.substr(0, colon), value);
  }
  if (auto data = args.option("data")) {
    options.body = kp::Data::fromString(data->starts_with("@") ? kpcore::readInput(data->substr(1)) : *data);
  }
  if (auto timeout = args.option("timeout")) options.timeout = kpcore::secondsOption("timeout", *timeout);
  options.output = args.option("output");
  if (auto kind = args.option("as")) options.kind = parseKind(*kind);
  if (auto priority = args.option("priority")) options.priority = parsePriority(*priority);
  const auto parallel = args.option("parallel");
  if (parallel) options.parallel = kpcore::integerOption("parallel", *parallel, 1, 64);
  options.insecure = args.flag("insecure");
  options.include = args.flag("include");
  options.progress = args.flag("progress");
  options.cache = args.flag("cache");
  std::vector<std::string> urls;
  while (auto url = args.positional()) urls.push_back(*url);
  args.expectEnd();
  if (urls.empty()) throw kpcore::CommandError("missing URL", 2);
  // URLs as people type them: spaces and letters outside ASCII are encoded, host names too.
  for (const auto& text : urls) {
    const auto url = kp::Url::parseEncodingInvalidCharacters(text);
    if (!url || !url->isAbsolute()) throw kpcore::CommandError("not an absolute URL: " + text, 2);
  }
  struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  std::unique_ptr<std::FILE, CloseFile> device;
  if (options.output) {
    if (urls.size() > 1) throw kpcore::CommandError("--output takes one URL", 2);
    if (options.cache) throw kpcore::CommandError("downloads to a file are never cached: drop --cache", 2);
    // The library only ever replaces files; a device or a pipe (/dev/stdout, a FIFO) is
    // written to as it stands, so that its own errors (no space left) are the ones told.
    std::error_code ignored;
    const auto type = std::filesystem::status(*options.output, ignored).type();
    using Type = std::filesystem::file_type;
    if (type == Type::character || type == Type::block || type == Type::fifo || type == Type::socket) {
      device.reset(std::fopen(options.output->c_str(), "wb"));
      if (!device) throw kpcore::CommandError("cannot open " + *options.output + ": " + std::strerror(errno));
      options.device = device.get();
      options.kind = Kind::data;
    } else {
      options.kind = Kind::file;
    }
  }

  auto router = std::make_shared<Router>(options.insecure);
  auto session = kp::UrlSession::make(kp::UrlSessionConfiguration::defaultConfiguration(), router);
  std::shared_ptr<kp::RequestQueue> queue;
  if (urls.size() > 1 || parallel) {
    queue = kp::RequestQueue::make();
    queue->setMaxConcurrentRequests(options.parallel);
  }
  std::vector<std::unique_ptr<Job>> jobs;
  for (const auto& url : urls) {
    jobs.push_back(std::make_unique<Job>(url, options, session, router, queue, urls.size() > 1));
    (void)jobs.back()->start();
  }
  // Completions and progress run on the main queue, which this thread drains.
  auto allDone = [&] { return std::all_of(jobs.begin(), jobs.end(), [](const auto& job) { return job->done(); }); };
  while (!allDone()) kp::MainQueue::shared()->runFor(20ms);
  session->finishTasksAndInvalidate();
  router->waitForSessionEnd();
  if (options.cache) kp::CacheController::sharedInstance()->waitForBackgroundWork();
  const bool ok = std::all_of(jobs.begin(), jobs.end(), [](const auto& job) { return job->succeeded(); });
  return ok ? 0 : 1;
}

const kpcore::Registration registration{
    "get", "Run HTTP requests and print what comes back",
    "kpcore get URL... [--as data|json|string|image] [--output PATH] [--cache] [--priority low|normal|high] "
    "[--parallel N] [--method M] [--header 'Field: value']... [--data @FILE] [--insecure] [--timeout S] "
    "[--include] [--progress]",
    runGet};

}  // namespace
