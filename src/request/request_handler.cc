// The HTTP transfer handler and the session delegate router.
#include "kp/request/request_handler.h"

#include <algorithm>
#include <utility>

#include "kp/foundation/dispatch.h"
#include "kp/request/request_errors.h"
#include "kp/request/url_request_factory.h"

namespace kp {

namespace {
// The body buffer is sized from Content-Length, but never more than this up front.
constexpr std::int64_t kMaximumInitialCapacity = 64 << 20;

UrlSessionConfiguration defaultConfigurationWithoutCache() {
  // Sessions here never cache responses.
  return UrlSessionConfiguration::defaultConfiguration();
}
}  // namespace

// MARK: - Delegate router

void HttpRequestURLSessionDelegateHandler::add(std::shared_ptr<HttpRequestHandler> handler,
                                               std::uint64_t taskIdentifier) {
  std::lock_guard lock(lock_);
  handlers_[taskIdentifier] = std::move(handler);
}

void HttpRequestURLSessionDelegateHandler::removeHandler(std::uint64_t taskIdentifier) {
  std::shared_ptr<HttpRequestHandler> removed;
  std::lock_guard lock(lock_);
  auto it = handlers_.find(taskIdentifier);
  if (it == handlers_.end()) return;
  removed = std::move(it->second);
  handlers_.erase(it);
}

std::shared_ptr<HttpRequestHandler> HttpRequestURLSessionDelegateHandler::handler(std::uint64_t taskIdentifier) const {
  std::lock_guard lock(lock_);
  auto it = handlers_.find(taskIdentifier);
  return it == handlers_.end() ? nullptr : it->second;
}

void HttpRequestURLSessionDelegateHandler::didComplete(UrlSession& session, UrlSessionTask& task,
                                                       const ErrorPtr& error) {
  auto target = handler(task.taskIdentifier());
  if (!target) return;
  target->didComplete(session, task, error);
  removeHandler(task.taskIdentifier());
}

void HttpRequestURLSessionDelegateHandler::didReceiveResponse(UrlSession& session, UrlSessionDataTask& task,
                                                              const std::shared_ptr<const HttpUrlResponse>& response,
                                                              ResponseDispositionHandler completion) {
  if (auto target = handler(task.taskIdentifier())) {
    target->didReceiveResponse(session, task, response, std::move(completion));
  } else {
    completion(ResponseDisposition::cancel);
  }
}

void HttpRequestURLSessionDelegateHandler::didReceiveData(UrlSession& session, UrlSessionDataTask& task,
                                                          const Data& data) {
  if (auto target = handler(task.taskIdentifier())) target->didReceiveData(session, task, data);
}

void HttpRequestURLSessionDelegateHandler::willPerformHttpRedirection(
    UrlSession& session, UrlSessionTask& task, const std::shared_ptr<const HttpUrlResponse>& response,
    UrlRequest newRequest, RedirectionHandler completion) {
  if (auto target = handler(task.taskIdentifier())) {
    target->willPerformHttpRedirection(session, task, response, std::move(newRequest), std::move(completion));
  } else {
    completion(std::move(newRequest));
  }
}

void HttpRequestURLSessionDelegateHandler::didReceiveChallenge(UrlSession& session, UrlSessionTask& task,
                                                               const UrlAuthenticationChallenge& challenge,
                                                               ChallengeHandler completion) {
  if (auto target = handler(task.taskIdentifier())) {
    target->didReceiveChallenge(session, task, challenge, std::move(completion));
  } else {
    completion(AuthChallengeDisposition::cancelAuthenticationChallenge, nullptr);
  }
}

void HttpRequestURLSessionDelegateHandler::didWriteData(UrlSession& session, UrlSessionDownloadTask& task,
                                                        std::int64_t bytesWritten, std::int64_t totalBytesWritten,
                                                        std::int64_t totalBytesExpectedToWrite) {
  if (auto target = handler(task.taskIdentifier())) {
    target->didWriteData(session, task, bytesWritten, totalBytesWritten, totalBytesExpectedToWrite);
  }
}

void HttpRequestURLSessionDelegateHandler::didFinishDownloading(UrlSession& session, UrlSessionDownloadTask& task,
                                                                const std::filesystem::path& location) {
  if (auto target = handler(task.taskIdentifier())) target->didFinishDownloading(session, task, location);
}

// MARK: - Handler set-up

ErrorPtr HttpRequestHandler::canHandle(const std::shared_ptr<RequestType>& candidate) {
  auto httpRequest = std::dynamic_pointer_cast<HttpRequestType>(candidate);
  if (!httpRequest) return RequestErrors::invalidRequestProtocolError();
  urlRequest = UrlRequestFactory::createUrlRequest(*httpRequest);
  if (!urlRequest) return RequestErrors::couldNotCreateUrlRequestError();
  return nullptr;
}

void HttpRequestHandler::handle(const std::shared_ptr<RequestType>& candidate, RequestHandlerCompletion completion) {
  request = std::dynamic_pointer_cast<HttpRequestType>(candidate);
  {
    std::lock_guard lock(sessionLock_);
    completionHandler = std::move(completion);
  }
  setupUrlSession();
  setupUrlTask();
  std::lock_guard lock(sessionLock_);
  if (urlSessionTask) urlSessionTask->resume();
}

const std::shared_ptr<HttpRequestURLSessionDelegateHandler>& HttpRequestHandler::sharedURLSessionDelegateHandler() {
  if (!sharedDelegateHandler_) sharedDelegateHandler_ = std::make_shared<HttpRequestURLSessionDelegateHandler>();
  return sharedDelegateHandler_;
}

const std::shared_ptr<UrlSession>& HttpRequestHandler::sharedURLSession() {
  if (!sharedSession_) {
    sharedSession_ = UrlSession::make(defaultConfigurationWithoutCache(), sharedURLSessionDelegateHandler());
  }
  return sharedSession_;
}

void HttpRequestHandler::setupUrlSession() {
  auto current = request.lock();
  if (useSharedURLSession && current) current->setUrlSession(sharedURLSession());
  bool routesElsewhere = false;
  {
    std::lock_guard lock(sessionLock_);
    if (current && current->urlSession()) {
      urlSession = current->urlSession();
      usingCustomURLSession = true;
      sessionDelegateHandler = std::dynamic_pointer_cast<HttpRequestURLSessionDelegateHandler>(urlSession->delegate());
      routesElsewhere = !sessionDelegateHandler;
    } else {
      urlSession = UrlSession::make(defaultConfigurationWithoutCache(), shared_from_this());
    }
  }
  // A session that routes elsewhere never calls back here: the caller gets the (still empty)
  // result at once, and the transfer still runs. Outside the lock, so that a completion that
  // waits on another thread touching this handler (a cancel, say) does not wait forever.
  if (routesElsewhere) complete();
}

void HttpRequestHandler::setupUrlTask() {
  installTask([](UrlSession& session, const UrlRequest& wire) -> std::shared_ptr<UrlSessionTask> {
    return session.dataTask(wire);
  });
}

void HttpRequestHandler::installTask(
    const std::function<std::shared_ptr<UrlSessionTask>(UrlSession&, const UrlRequest&)>& makeTask) {
  std::lock_guard lock(sessionLock_);
  if (!urlSession || !urlRequest) return;
  urlSessionTask = makeTask(*urlSession, *urlRequest);
  if (urlSessionTask && sessionDelegateHandler) {
    sessionDelegateHandler->add(shared_from_this(), urlSessionTask->taskIdentifier());
  }
}

std::any HttpRequestHandler::processReceivedData() {
  if (!receivedData) return {};
  return *receivedData;
}

// MARK: - Callbacks

void HttpRequestHandler::initializeResult(const HttpUrlResponse& response) {
  auto parsed = std::make_shared<HttpResponse>();
  parsed->statusCode = response.statusCode();
  parsed->headers = response.allHeaderFields();
  parsed->cookies = HttpCookie::cookies(parsed->headers, response.url());
  result->response = std::move(parsed);
}

void HttpRequestHandler::didReceiveResponse(UrlSession&, UrlSessionDataTask&,
                                            const std::shared_ptr<const HttpUrlResponse>& response,
                                            ResponseDispositionHandler completion) {
  initializeResult(*response);
  if (response->statusCode() >= 400) {
    completion(ResponseDisposition::cancel);
    return;
  }
  expectedContentLength = response->expectedContentLength();
  // The length of a HEAD, 204 or 304 answer describes a body that does not follow.
  const int status = response->statusCode();
  const bool bodyFollows = !(urlRequest && urlRequest->httpMethod == "HEAD") && status != 204 && status != 304;
  if (bodyFollows && expectedContentLength > maximumReceivedDataLength) {
    refuseOversizedBody(response->url());
    completion(ResponseDisposition::cancel);
    return;
  }
  if (expectedContentLength >= 1 && !receivedData) {
    receivedData.emplace();
    receivedData->reserve(static_cast<std::size_t>(std::min(expectedContentLength, kMaximumInitialCapacity)));
  }
  completion(ResponseDisposition::allow);
}

void HttpRequestHandler::didReceiveData(UrlSession&, UrlSessionDataTask& task, const Data& data) {
  // Pieces already on their way after the refusal are dropped.
  if (result->error) return;
  const std::size_t held = receivedData ? receivedData->size() : 0;
  if (static_cast<std::int64_t>(held + data.size()) > maximumReceivedDataLength) {
    refuseOversizedBody(task.currentRequest().url);
    task.cancel();
    return;
  }
  if (!receivedData) receivedData.emplace();
  receivedData->append(data);
  numberOfBytesReceived += static_cast<std::int64_t>(data.size());
  updateProgress();
}

void HttpRequestHandler::refuseOversizedBody(const std::optional<Url>& url) {
  // Set before the task is cancelled, so that its completion reports this error rather than
  // ending silently as a cancelled task does.
  result->error = makeUrlError(UrlError::dataLengthExceedsMaximum, url);
  receivedData.reset();
}

void HttpRequestHandler::updateProgress() {
  auto current = request.lock();
  if (!current || !current->progressUpdateHandler() || expectedContentLength <= 0) return;
  const float fraction =
      std::clamp(static_cast<float>(numberOfBytesReceived) / static_cast<float>(expectedContentLength), 0.0f, 1.0f);
  runOnMainThread([progress = current->progressUpdateHandler(), fraction] { progress(fraction); });
}

void HttpRequestHandler::willPerformHttpRedirection(UrlSession&, UrlSessionTask&,
                                                    const std::shared_ptr<const HttpUrlResponse>&,
                                                    UrlRequest newRequest, RedirectionHandler completion) {
  if (result->response) result->response->addRedirect(newRequest.url);
  completion(std::move(newRequest));
}

void HttpRequestHandler::didReceiveChallenge(UrlSession&, UrlSessionTask&, const UrlAuthenticationChallenge& challenge,
                                             ChallengeHandler completion) {
  // A challenge that failed before is refused, and the steps below still run: the answer
  // may thus be given twice, and the first one counts.
  if (challenge.previousFailureCount >= 1) {
    completion(AuthChallengeDisposition::cancelAuthenticationChallenge, nullptr);
  }
  const auto& space = challenge.protectionSpace;
  if (space.authenticationMethod != UrlProtectionSpace::kAuthenticationMethodServerTrust) {
    completion(AuthChallengeDisposition::performDefaultHandling, nullptr);
    return;
  }
  auto current = request.lock();
  if (current && current->httpConfigOrDefault().acceptUntrustedSSLCertificate && space.serverTrust) {
    // Deliberately the cancel disposition with a credential: the challenge, and so the task,
    // is cancelled, and a cancelled task completes silently.
    completion(AuthChallengeDisposition::cancelAuthenticationChallenge, UrlCredential::make(space.serverTrust));
    return;
  }
  completion(AuthChallengeDisposition::performDefaultHandling, nullptr);
}

void HttpRequestHandler::didComplete(UrlSession&, UrlSessionTask&, const ErrorPtr& error) {
  {
    std::lock_guard lock(sessionLock_);
    if (!usingCustomURLSession && urlSession) urlSession->invalidateAndCancel();
    urlSession = nullptr;
  }
  auto current = request.lock();
  if (!current) {
    endWithoutResult();
    return;
  }
  if (result->response && result->response->statusCode && *result->response->statusCode >= 400) {
    result->error = RequestErrors::statusCodeErrorWith(*result->response->statusCode);
    complete();
    return;
  }
  if (result->error) {
    complete();
    return;
  }
  if (error) {
    if (error->code() == static_cast<std::int64_t>(UrlError::notConnectedToInternet)) {
      result->error = RequestErrors::noConnectionError();
    } else if (error->code() == static_cast<std::int64_t>(UrlError::cancelled)) {
      endWithoutResult();
      return;
    } else {
      result->error = error;
    }
    complete();
    return;
  }
  std::any data = processReceivedData();
  if (current->processReceivedDataHandler() && result->response) {
    const Data* bytes = std::any_cast<Data>(&data);
    std::any processed = current->processReceivedDataHandler()(bytes ? std::optional<Data>(*bytes) : std::nullopt,
                                                               result->response, cancelledFlag);
    if (processed.has_value()) data = std::move(processed);
  }
  result->data = std::move(data);
  complete();
}

void HttpRequestHandler::complete() {
  RequestHandlerCompletion completion;
  {
    std::lock_guard lock(sessionLock_);
    completion = std::exchange(completionHandler, nullptr);
  }
  if (completion) completion(result);
}

void HttpRequestHandler::endWithoutResult() {
  RequestHandlerCompletion dropped;
  {
    std::lock_guard lock(sessionLock_);
    dropped = std::exchange(completionHandler, nullptr);
  }
  // `dropped` goes here, outside the lock: letting go of it tells its owner that no result comes.
}

void HttpRequestHandler::cancel() {
  {
    std::lock_guard lock(sessionLock_);
    if (!urlSessionTask) return;
    if (sessionDelegateHandler) sessionDelegateHandler->removeHandler(urlSessionTask->taskIdentifier());
    cancelledFlag->cancel();
    urlSessionTask->cancel();
    if (!usingCustomURLSession && urlSession) urlSession->invalidateAndCancel();
    urlSessionTask = nullptr;
    urlSession = nullptr;
  }
  endWithoutResult();
}

void HttpRequestHandler::didBecomeInvalid(UrlSession&, const ErrorPtr& error) {
  // Debug diagnostic only; the library writes it nowhere.
  [[maybe_unused]] const std::string diagnostic =
      "Session did become invalid with error (" + (error ? error->localizedDescription() : std::string()) + ").";
}

}  // namespace kp
