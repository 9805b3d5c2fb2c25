// Handlers run one request's transfer on a kp::UrlSession and turn what arrives into an
// HttpRequestResult.
//
// RequestHandler is the abstract base. HttpRequestHandler is the HTTP implementation and the
// base of the typed handlers: it builds the wire request, picks a session (its own private
// one by default, the request's session when set, or a session shared through a
// HttpRequestURLSessionDelegateHandler), collects the body, reports progress on the main
// thread and completes once, on the session's delegate queue, letting go of the completion
// callback then. Status codes of 400 and above end in the status-code error without loading
// the body; a cancelled transfer delivers nothing at all, and lets go of the callback uncalled.
// HttpRequestURLSessionDelegateHandler routes the callbacks of one shared session to the handler that owns each task.
//
// Ownership: a private session holds its handler as delegate until the transfer ends and the
// handler invalidates it. A request holds its handler; the handler holds the request weakly
// and stops without completion when the request is gone.
//
// Thread safety: handle() and cancel() are called from the caller's thread, the session
// callbacks arrive on the session's delegate queue. The session and task fields are guarded
// against cancel() racing a callback; the rest belongs to the transfer.
//
// Example:
//   auto request = kp::HttpRequest::make(*kp::Url::parse("https://example.com/now.json"));
//   auto handler = std::make_shared<kp::HttpRequestHandler>();
//   if (!handler->canHandle(request)) {
//     handler->handle(request, [](const std::shared_ptr<kp::RequestResult>& result) { ... });
//   }
#pragma once

#include <any>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "kp/platform/data.h"
#include "kp/platform/export.h"
#include "kp/request/http_request.h"
#include "kp/request/request_result.h"
#include "kp/request/request_types.h"
#include "kp/request/url_request.h"
#include "kp/request/url_session.h"

namespace kp {

// Tells result post-processing that the transfer was cancelled. Never goes back to false.
class KP_EXPORT CancelledFlag {
 public:
  // True once cancel() has run.
  [[nodiscard]] bool isCancelled() const noexcept { return cancelled_.load(); }
  // Sets the flag, for good.
  void cancel() noexcept { cancelled_.store(true); }

 private:
  std::atomic<bool> cancelled_{false};
};

// The abstract base of handlers: handles nothing until a subclass says how.
class KP_EXPORT RequestHandler : public RequestHandlerInterface {
 public:
  // Receives the result of the transfer; the handler lets go of it once called.
  RequestHandlerCompletion completionHandler;

  [[nodiscard]] ErrorPtr canHandle(const std::shared_ptr<RequestType>&) override { return nullptr; }
  void handle(const std::shared_ptr<RequestType>&, RequestHandlerCompletion) override {}
  void cancel() override {}
};

class HttpRequestHandler;

// The delegate of a session that many handlers share: each callback goes to the handler
// registered under the task's identifier.
class KP_EXPORT HttpRequestURLSessionDelegateHandler : public UrlSessionDelegate {
 public:
  // Routes the callbacks of the task `taskIdentifier` to `handler`.
  void add(std::shared_ptr<HttpRequestHandler> handler, std::uint64_t taskIdentifier);
  // Forgets the handler of the task `taskIdentifier`.
  void removeHandler(std::uint64_t taskIdentifier);
  // The handler of the task `taskIdentifier`; null when none is registered.
  [[nodiscard]] std::shared_ptr<HttpRequestHandler> handler(std::uint64_t taskIdentifier) const;

  // Forwards, then forgets the handler.
  void didComplete(UrlSession& session, UrlSessionTask& task, const ErrorPtr& error) override;
  // Without a handler: cancel.
  void didReceiveResponse(UrlSession& session, UrlSessionDataTask& task,
                          const std::shared_ptr<const HttpUrlResponse>& response,
                          ResponseDispositionHandler completion) override;
  // Without a handler the data is dropped.
  void didReceiveData(UrlSession& session, UrlSessionDataTask& task, const Data& data) override;
  // Without a handler the redirection is followed.
  void willPerformHttpRedirection(UrlSession& session, UrlSessionTask& task,
                                  const std::shared_ptr<const HttpUrlResponse>& response, UrlRequest newRequest,
                                  RedirectionHandler completion) override;
  // Without a handler: cancel the challenge.
  void didReceiveChallenge(UrlSession& session, UrlSessionTask& task, const UrlAuthenticationChallenge& challenge,
                           ChallengeHandler completion) override;
  void didWriteData(UrlSession& session, UrlSessionDownloadTask& task, std::int64_t bytesWritten,
                    std::int64_t totalBytesWritten, std::int64_t totalBytesExpectedToWrite) override;
  void didFinishDownloading(UrlSession& session, UrlSessionDownloadTask& task,
                            const std::filesystem::path& location) override;

 private:
  mutable std::mutex lock_;
  std::map<std::uint64_t, std::shared_ptr<HttpRequestHandler>> handlers_;
};

// The HTTP handler, and the base of the typed handlers (see the top of this file).
class KP_EXPORT HttpRequestHandler : public RequestHandler,
                                     public UrlSessionDelegate,
                                     public std::enable_shared_from_this<HttpRequestHandler> {
 public:
  HttpRequestHandler() : HttpRequestHandler(std::make_shared<HttpRequestResult>()) {}
  [[nodiscard]] ErrorPtr canHandle(const std::shared_ptr<RequestType>& request) override;
  void handle(const std::shared_ptr<RequestType>& request, RequestHandlerCompletion completion) override;
  void cancel() override;

  // Picks the session: the shared one when useSharedURLSession is set, the request's when it
  // has one, otherwise a private session with this handler as its delegate.
  virtual void setupUrlSession();
  // Creates the data task for urlRequest and registers this handler with the session's
  // delegate handler, if any.
  virtual void setupUrlTask();
  // The result's data from the collected body: receivedData, or nothing.
  [[nodiscard]] virtual std::any processReceivedData();

  // Session callbacks.
  void didReceiveResponse(UrlSession& session, UrlSessionDataTask& task,
                          const std::shared_ptr<const HttpUrlResponse>& response,
                          ResponseDispositionHandler completion) override;
  // Collects the body, up to maximumReceivedDataLength, and reports progress.
  void didReceiveData(UrlSession& session, UrlSessionDataTask& task, const Data& data) override;
  void willPerformHttpRedirection(UrlSession& session, UrlSessionTask& task,
                                  const std::shared_ptr<const HttpUrlResponse>& response, UrlRequest newRequest,
                                  RedirectionHandler completion) override;
  // Server trust as the request's configuration says (see acceptUntrustedSSLCertificate);
  // other challenges get the default handling, and one that failed before is cancelled.
  void didReceiveChallenge(UrlSession& session, UrlSessionTask& task, const UrlAuthenticationChallenge& challenge,
                           ChallengeHandler completion) override;
  void didComplete(UrlSession& session, UrlSessionTask& task, const ErrorPtr& error) override;
  void didBecomeInvalid(UrlSession& session, const ErrorPtr& error) override;

  // Made on first use: the session delegate handler and the session that it serves.
  [[nodiscard]] const std::shared_ptr<HttpRequestURLSessionDelegateHandler>& sharedURLSessionDelegateHandler();
  // The session that sharedURLSessionDelegateHandler() serves.
  [[nodiscard]] const std::shared_ptr<UrlSession>& sharedURLSession();

  std::shared_ptr<UrlSession> urlSession;          // the session of the transfer
  std::shared_ptr<UrlSessionTask> urlSessionTask;  // the transfer's task
  std::optional<UrlRequest> urlRequest;            // the wire request, made by canHandle()
  std::optional<Data> receivedData;                // the body collected so far
  // Of the kind's result type; filled as the transfer goes.
  std::shared_ptr<HttpRequestResult> result;
  std::weak_ptr<HttpRequestType> request;  // the request being handled
  // Set when the transfer is cancelled, for the body handlers to stop early.
  std::shared_ptr<CancelledFlag> cancelledFlag = std::make_shared<CancelledFlag>();
  std::int64_t expectedContentLength = -1;  // the announced body length; -1 when unknown
  std::int64_t numberOfBytesReceived = 0;   // body bytes received so far
  // A body longer than this (announced or received) ends the transfer with
  // UrlError::dataLengthExceedsMaximum: the body is held in memory, and its length is the
  // server's to choose.
  std::int64_t maximumReceivedDataLength = kDefaultMaximumReceivedDataLength;
  static constexpr std::int64_t kDefaultMaximumReceivedDataLength = std::int64_t{256} << 20;  // 256 MiB
  // True when the transfer runs on a session that is not the handler's own, which it then
  // leaves open when it ends.
  bool usingCustomURLSession = false;
  // Runs the transfer on sharedURLSession() instead of a private session.
  bool useSharedURLSession = false;
  // The router of the session the transfer runs on, when that session is shared.
  std::shared_ptr<HttpRequestURLSessionDelegateHandler> sessionDelegateHandler;

 protected:
  // Typed handlers start from an empty result of their own type.
  explicit HttpRequestHandler(std::shared_ptr<HttpRequestResult> emptyResult) : result(std::move(emptyResult)) {}

  // Makes the result from the response head (status, all header fields, cookies).
  void initializeResult(const HttpUrlResponse& response);
  // Tells the request's progress handler, on the main thread, how much of the announced
  // body has arrived.
  void updateProgress();
  // Makes the result's error UrlError::dataLengthExceedsMaximum and lets go of the body.
  void refuseOversizedBody(const std::optional<Url>& url);
  // Calls the completion callback with the result, once: the handler lets go of it.
  void complete();
  // Lets go of the completion callback uncalled: the transfer ended without a result.
  void endWithoutResult();
  // Creates the task for urlRequest on urlSession with `makeTask` and registers this handler
  // with the session's delegate handler, if any.
  void installTask(const std::function<std::shared_ptr<UrlSessionTask>(UrlSession&, const UrlRequest&)>& makeTask);

  // Guards urlSession, urlSessionTask and completionHandler between cancel() and the
  // callbacks.
  std::recursive_mutex sessionLock_;

 private:
  std::shared_ptr<HttpRequestURLSessionDelegateHandler> sharedDelegateHandler_;
  std::shared_ptr<UrlSession> sharedSession_;
};

// The base of the typed handlers: an HttpRequestHandler whose result is a Result.
template <class Result>
class KP_EXPORT TypedRequestHandler : public HttpRequestHandler {
 public:
  TypedRequestHandler() : HttpRequestHandler(std::make_shared<Result>()) {}
};

}  // namespace kp
