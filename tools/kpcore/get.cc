// kpcore get: runs one request through the HTTP handler (or, with --output, a download task)
// and prints the body, optionally preceded by the redirects, the status line and the headers.
#include <condition_variable>
#include <fstream>
#include <iostream>
#include <mutex>

#include "command.h"
#include "kp/request/request_errors.h"
#include "kp/request/request_handler.h"
#include "kp/request/url_request_factory.h"

namespace {

using namespace std::chrono_literals;

struct Outcome {
  std::mutex mutex;
  std::condition_variable invalidated;
  bool finished = false;
  bool invalid = false;
  std::shared_ptr<kp::HttpRequestResult> result;
  std::vector<std::string> redirects;
  std::shared_ptr<const kp::HttpUrlResponse> response;
  kp::ErrorPtr error;

  void finish() {
    std::lock_guard lock(mutex);
    finished = true;
  }
  bool isFinished() {
    std::lock_guard lock(mutex);
    return finished;
  }
  void sessionEnded() {
    std::lock_guard lock(mutex);
    invalid = true;
    invalidated.notify_all();
  }
  // The session's thread may still be closing its connections; the process waits for it
  // rather than ending under it.
  void waitForSessionEnd() {
    std::unique_lock lock(mutex);
    invalidated.wait_for(lock, 5s, [this] { return invalid; });
  }
};

void drawProgress(double fraction) {
  const int width = 40;
  const int filled = static_cast<int>(fraction * width);
  std::cerr << "\r[" << std::string(static_cast<size_t>(filled), '#')
            << std::string(static_cast<size_t>(width - filled), ' ') << "] " << static_cast<int>(fraction * 100) << "%"
            << std::flush;
}

// Answers a server-trust challenge with a credential made from the trust: the certificate
// is accepted whatever it is.
void acceptAnyCertificate(const kp::UrlAuthenticationChallenge& challenge, const kp::ChallengeHandler& completion) {
  completion(kp::AuthChallengeDisposition::useCredential,
             kp::UrlCredential::make(challenge.protectionSpace.serverTrust));
}

bool isServerTrust(const kp::UrlAuthenticationChallenge& challenge) {
  const auto& space = challenge.protectionSpace;
  return space.serverTrust && space.authenticationMethod == kp::UrlProtectionSpace::kAuthenticationMethodServerTrust;
}

// Routes the session's callbacks to the handler and notes the redirects and the end of the
// task. With --insecure it accepts untrusted certificates itself: the handler's own answer
// for requests that accept them cancels the challenge, and with it the transfer.
class Router : public kp::HttpRequestURLSessionDelegateHandler {
 public:
  Router(std::shared_ptr<Outcome> outcome, bool insecure) : outcome_(std::move(outcome)), insecure_(insecure) {}
  void didReceiveChallenge(kp::UrlSession& session, kp::UrlSessionTask& task,
                           const kp::UrlAuthenticationChallenge& challenge, kp::ChallengeHandler completion) override {
    if (insecure_ && isServerTrust(challenge)) return acceptAnyCertificate(challenge, completion);
    HttpRequestURLSessionDelegateHandler::didReceiveChallenge(session, task, challenge, std::move(completion));
  }
  void willPerformHttpRedirection(kp::UrlSession& session, kp::UrlSessionTask& task,
                                  const std::shared_ptr<const kp::HttpUrlResponse>& response, kp::UrlRequest next,
                                  kp::RedirectionHandler completion) override {
    {
      std::lock_guard lock(outcome_->mutex);
      outcome_->redirects.push_back(std::to_string(response->statusCode()) + " " + next.url.absoluteString());
    }
    HttpRequestURLSessionDelegateHandler::willPerformHttpRedirection(session, task, response, std::move(next),
                                                                     std::move(completion));
  }
  void didComplete(kp::UrlSession& session, kp::UrlSessionTask& task, const kp::ErrorPtr& error) override {
    HttpRequestURLSessionDelegateHandler::didComplete(session, task, error);
    {
      std::lock_guard lock(outcome_->mutex);
      if (!outcome_->error) outcome_->error = error;
    }
    outcome_->finish();
  }
  void didBecomeInvalid(kp::UrlSession&, const kp::ErrorPtr&) override { outcome_->sessionEnded(); }

 private:
  std::shared_ptr<Outcome> outcome_;
  bool insecure_;
};

// Writes the download to its destination.
class Downloader : public kp::UrlSessionDelegate {
 public:
  Downloader(std::shared_ptr<Outcome> outcome, std::string destination, bool insecure, bool progress)
      : outcome_(std::move(outcome)), destination_(std::move(destination)), insecure_(insecure), progress_(progress) {}
  void willPerformHttpRedirection(kp::UrlSession&, kp::UrlSessionTask&,
                                  const std::shared_ptr<const kp::HttpUrlResponse>& response, kp::UrlRequest next,
                                  kp::RedirectionHandler completion) override {
    {
      std::lock_guard lock(outcome_->mutex);
      outcome_->redirects.push_back(std::to_string(response->statusCode()) + " " + next.url.absoluteString());
    }
    completion(std::move(next));
  }
  void didReceiveChallenge(kp::UrlSession&, kp::UrlSessionTask&, const kp::UrlAuthenticationChallenge& challenge,
                           kp::ChallengeHandler completion) override {
    if (insecure_ && isServerTrust(challenge)) return acceptAnyCertificate(challenge, completion);
    completion(kp::AuthChallengeDisposition::performDefaultHandling, nullptr);
  }
  void didWriteData(kp::UrlSession&, kp::UrlSessionDownloadTask&, std::int64_t, std::int64_t total,
                    std::int64_t expected) override {
    if (progress_ && expected > 0)
      drawProgress(std::min(1.0, static_cast<double>(total) / static_cast<double>(expected)));
  }
  void didFinishDownloading(kp::UrlSession&, kp::UrlSessionDownloadTask& task,
                            const std::filesystem::path& location) override {
    auto response = task.response();
    if (response && response->statusCode() >= 400) return;
    std::error_code ec;
    std::filesystem::rename(location, destination_, ec);
    if (ec) {
      std::filesystem::copy_file(location, destination_, std::filesystem::copy_options::overwrite_existing, ec);
    }
    if (ec) {
      std::lock_guard lock(outcome_->mutex);
      outcome_->error = kp::makeUrlError(kp::UrlError::cannotWriteToFile, task.currentRequest().url);
    }
  }
  void didComplete(kp::UrlSession&, kp::UrlSessionTask& task, const kp::ErrorPtr& error) override {
    {
      std::lock_guard lock(outcome_->mutex);
      outcome_->response = task.response();
      if (!outcome_->error) outcome_->error = error;
    }
    outcome_->finish();
  }
  void didBecomeInvalid(kp::UrlSession&, const kp::ErrorPtr&) override { outcome_->sessionEnded(); }

 private:
  std::shared_ptr<Outcome> outcome_;
  std::string destination_;
  bool insecure_;
  bool progress_;
};

void printHead(const std::vector<std::string>& redirects, int status,
               const std::map<std::string, std::string>& headers) {
  for (const auto& hop : redirects) std::cout << "< redirect " << hop << "\n";
  std::cout << "HTTP " << status << "\n";
  for (const auto& [name, value] : headers) std::cout << name << ": " << value << "\n";
  std::cout << "\n";
}

int fail(const kp::ErrorPtr& error) {
  std::cerr << "error " << error->domain() << " " << error->code() << ": " << error->localizedDescription() << "\n";
  return 1;
}

int runGet(kpcore::Args& args) {
  const auto method = args.option("method");
  const auto headers = args.options("header");
  const auto data = args.option("data");
  const auto output = args.option("output");
  const bool insecure = args.flag("insecure");
  const auto timeout = args.option("timeout");
  const bool include = args.flag("include");
  const bool progress = args.flag("progress");
  const auto urlText = args.positional();
  if (!urlText) throw kpcore::CommandError("missing URL", 2);
  args.expectEnd();
  const auto url = kp::Url::parse(*urlText);
  if (!url || !url->isAbsolute()) throw kpcore::CommandError("not an absolute URL: " + *urlText, 2);

  auto request = kp::HttpRequest::make(*url);
  auto& config = *request->httpConfig();
  if (method) {
    std::string verb = *method;
    for (auto& c : verb) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    bool found = false;
    for (int raw = 0; raw <= 4 && !found; ++raw) {
      const auto candidate = *kp::httpRequestMethodFromRawValue(raw);
      if (kp::httpVerb(candidate) == verb) config.method = candidate, found = true;
    }
    if (!found) throw kpcore::CommandError("unknown method: " + *method, 2);
  }
  for (const auto& header : headers) {
    const auto colon = header.find(':');
    if (colon == std::string::npos) throw kpcore::CommandError("header without ':': " + header, 2);
    std::string value = header.substr(colon + 1);
    value.erase(0, value.find_first_not_of(" \t"));
    config.setHeader(value, header.substr(0, colon));
  }
  if (data) {
    config.bodyData = kp::Data::fromString(data->starts_with("@") ? kpcore::readInput(data->substr(1)) : *data);
  }
  if (timeout) {
    try {
      config.timeoutInterval = std::stod(*timeout);
    } catch (const std::exception&) {
      throw kpcore::CommandError("not a number of seconds: " + *timeout, 2);
    }
  }

  auto outcome = std::make_shared<Outcome>();
  std::shared_ptr<kp::HttpRequestHandler> handler;
  std::shared_ptr<kp::UrlSession> session;
  if (output) {
    session = kp::UrlSession::make(kp::UrlSessionConfiguration::defaultConfiguration(),
                                   std::make_shared<Downloader>(outcome, *output, insecure, progress));
    session->downloadTask(kp::UrlRequestFactory::createUrlRequest(*request))->resume();
    session->finishTasksAndInvalidate();
  } else {
    if (progress) request->setProgressUpdateHandler([](float fraction) { drawProgress(fraction); });
    session = kp::UrlSession::make(kp::UrlSessionConfiguration::defaultConfiguration(),
                                   std::make_shared<Router>(outcome, insecure));
    request->setUrlSession(session);
    handler = std::make_shared<kp::HttpRequestHandler>();
    if (auto error = handler->canHandle(request)) return fail(error);
    handler->handle(request, [outcome](const std::shared_ptr<kp::RequestResult>& result) {
      std::lock_guard lock(outcome->mutex);
      outcome->result = std::dynamic_pointer_cast<kp::HttpRequestResult>(result);
    });
  }
  // Progress arrives on the main queue, which this thread drains.
  while (!outcome->isFinished()) kp::MainQueue::shared()->runFor(20ms);
  kp::MainQueue::shared()->runPending();
  if (progress) std::cerr << "\n";
  if (!output) session->finishTasksAndInvalidate();
  outcome->waitForSessionEnd();

  std::lock_guard lock(outcome->mutex);
  if (output) {
    if (outcome->error) return fail(outcome->error);
    if (outcome->response && outcome->response->statusCode() >= 400) {
      return fail(kp::RequestErrors::statusCodeErrorWith(outcome->response->statusCode()));
    }
    if (include && outcome->response) {
      printHead(outcome->redirects, outcome->response->statusCode(), outcome->response->allHeaderFields());
    }
    return 0;
  }
  // A cancelled transfer delivers no result.
  if (!outcome->result) return fail(outcome->error ? outcome->error : kp::makeUrlError(kp::UrlError::cancelled, *url));
  const auto& result = *outcome->result;
  if (include && result.response) {
    printHead(outcome->redirects, result.response->statusCode.value_or(0), result.response->headers);
  }
  if (result.error) return fail(result.error);
  if (const auto* body = std::any_cast<kp::Data>(&result.data))
    std::cout.write(body->view().data(), static_cast<std::streamsize>(body->size()));
  std::cout.flush();
  return 0;
}

const kpcore::Registration registration{
    "get", "Run one HTTP request and print the body",
    "kpcore get URL [--method M] [--header 'Field: value']... [--data @FILE] [--output PATH] [--insecure] "
    "[--timeout S] [--include] [--progress]",
    runGet};

}  // namespace
