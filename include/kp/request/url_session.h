// kp::UrlSession: the URL loading service. A session runs HTTP(S) transfers (data tasks that
// hand the body to the delegate in chunks, download tasks that write it to a temporary file)
// and reports every step to its delegate on one serial delegate queue, in order.
//
// The session follows redirects itself, one hop at a time, asking the delegate before each
// hop. Each new TLS connection raises a server-trust challenge whose answer decides whether
// the certificate is verified (default handling), accepted (a credential made from the
// trust) or the task cancelled. Transfer failures arrive as kp::Error in the URL-loading
// domain (kp::Error::kURLErrorDomain) with the platform's codes (UrlError below).
//
// Ownership: the session holds its delegate strongly until it has been invalidated and has
// told the delegate so. A session with running tasks stays alive while they run, even when
// the caller lets go of it. Tasks are owned by the caller and by the session while running.
//
// Thread safety: every operation of sessions and tasks may be called from any thread. The
// delegate's callbacks run one at a time on the delegate queue. A completion callback handed
// to the delegate may be called from any thread; only its first call counts. When the delegate
// queue is idle, the session's own transfer thread may run a callback (as the queue's item,
// so isCurrent() holds): a callback must therefore not block waiting for another transfer of
// the same session.
//
// Example:
//   auto session = kp::UrlSession::make(kp::UrlSessionConfiguration::defaultConfiguration(), delegate);
//   auto task = session->dataTask(kp::UrlRequest(*kp::Url::parse("http://127.0.0.1:8080/")));
//   task->resume();                    // delegate: response, data..., completed
//   session->finishTasksAndInvalidate();
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kp/platform/data.h"
#include "kp/platform/date.h"
#include "kp/platform/dispatch.h"
#include "kp/platform/error.h"
#include "kp/platform/export.h"
#include "kp/platform/url.h"
#include "kp/request/http_cookie_storage.h"
#include "kp/request/url_request.h"

namespace kp {

class UrlSession;
class UrlSessionTask;
class UrlSessionDataTask;
class UrlSessionDownloadTask;

// Codes of the URL-loading error domain.
enum class UrlError : std::int64_t {
  unknown = -1,
  cancelled = -999,
  badURL = -1000,
  timedOut = -1001,
  unsupportedURL = -1002,
  cannotFindHost = -1003,
  cannotConnectToHost = -1004,
  networkConnectionLost = -1005,
  dnsLookupFailed = -1006,
  httpTooManyRedirects = -1007,
  resourceUnavailable = -1008,
  notConnectedToInternet = -1009,
  badServerResponse = -1011,
  cannotDecodeContentData = -1016,
  cannotParseResponse = -1017,
  dataLengthExceedsMaximum = -1103,
  secureConnectionFailed = -1200,
  serverCertificateUntrusted = -1202,
  cannotCreateFile = -3000,
  cannotWriteToFile = -3003,
};

// The error of `code` in the URL-loading domain, with the platform's description and the
// failing URL in its user info.
[[nodiscard]] KP_EXPORT ErrorPtr makeUrlError(UrlError code, const std::optional<Url>& failingUrl = std::nullopt,
                                              ErrorPtr underlying = nullptr);

// Session settings. No response cache exists.
struct KP_EXPORT UrlSessionConfiguration {
  // The settings below as they are initialised.
  [[nodiscard]] static UrlSessionConfiguration defaultConfiguration() { return {}; }

  // Used when a request's own timeout is not positive. Timeouts are idle times: the task
  // fails when nothing moves for that long. Infinity and values beyond ten years mean ten
  // years, which is no limit in practice.
  TimeInterval timeoutIntervalForRequest = 60.0;
  // Sent with every request unless the request sets the field itself.
  std::map<std::string, std::string> httpAdditionalHeaders;
  // Further transfers to the same host wait for a free connection.
  int httpMaximumConnectionsPerHost = 6;
  // Keeps the cookies of every response (redirects included) and gives requests those that
  // match them; null: the session neither sends nor keeps cookies.
  std::shared_ptr<HttpCookieStorage> httpCookieStorage = HttpCookieStorage::shared();
};

// A received HTTP response head.
//
// Field names take one canonical spelling whatever the server wrote (HTTP/2 sends every name
// in lower case, and HTTP/1 servers write "Content-type" and the like): the usual spelling of
// well-known names ("ETag", "WWW-Authenticate") and otherwise each hyphen-separated word
// capitalised ("content-type" -> "Content-Type", "x-request-id" -> "X-Request-Id"), so that
// exact lookups in allHeaderFields() find what the server sent.
class KP_EXPORT HttpUrlResponse {
 public:
  using HeaderField = std::pair<std::string, std::string>;  // a field's name and value

  // Gives the names of `headerFields` their canonical spelling.
  HttpUrlResponse(Url url, int statusCode, std::vector<HeaderField> headerFields);

  // The URL of the hop that answered.
  [[nodiscard]] const Url& url() const noexcept { return url_; }
  // The HTTP status code.
  [[nodiscard]] int statusCode() const noexcept { return statusCode_; }
  // Every field as received, in order, duplicates kept; names in canonical spelling.
  [[nodiscard]] const std::vector<HeaderField>& headerFields() const noexcept { return headerFields_; }
  // One entry per canonical field name; repeated fields (also "Set-Cookie", whose reader
  // splits them again) joined with ", " in the order received.
  [[nodiscard]] const std::map<std::string, std::string>& allHeaderFields() const noexcept { return allHeaderFields_; }
  // Looks the field up without regard to case.
  [[nodiscard]] std::optional<std::string> value(std::string_view field) const;
  // Content-Length, or -1 when unknown.
  [[nodiscard]] std::int64_t expectedContentLength() const noexcept { return expectedContentLength_; }
  // The media type of Content-Type, lower case, without parameters.
  [[nodiscard]] std::optional<std::string> mimeType() const;

 private:
  Url url_;
  int statusCode_;
  std::vector<HeaderField> headerFields_;
  std::map<std::string, std::string> allHeaderFields_;
  std::int64_t expectedContentLength_ = -1;
};

// A delegate's answer to a response head: go on loading the body, or cancel the task.
enum class ResponseDisposition : int { cancel = 0, allow = 1 };
// A delegate's answer to a server-trust challenge: useCredential with a credential made from
// the challenge's trust accepts the server whatever the verification said; cancel ends the
// task cancelled; any other answer keeps the outcome of the default verification.
enum class AuthChallengeDisposition : int {
  useCredential = 0,
  performDefaultHandling = 1,
  cancelAuthenticationChallenge = 2,
  rejectProtectionSpace = 3,
};

// The certificate chain a server presented on one TLS connection, with the outcome of the
// default verification (trust store, validity, host name).
class KP_EXPORT ServerTrust {
 public:
  // The chain of `host`:`port`, and whether it verified (with the reason when not).
  ServerTrust(std::string host, int port, std::vector<Data> certificates, bool trusted, std::string failureReason)
      : host_(std::move(host)),
        port_(port),
        certificates_(std::move(certificates)),
        trusted_(trusted),
        failureReason_(std::move(failureReason)) {}
  // The host the connection was made to.
  [[nodiscard]] const std::string& host() const noexcept { return host_; }
  // The port the connection was made to.
  [[nodiscard]] int port() const noexcept { return port_; }
  // DER certificates, the server's own first.
  [[nodiscard]] const std::vector<Data>& certificates() const noexcept { return certificates_; }
  // True when the default verification accepted the chain.
  [[nodiscard]] bool evaluatesAsTrusted() const noexcept { return trusted_; }
  // Why the verification failed; empty when it did not.
  [[nodiscard]] const std::string& failureReason() const noexcept { return failureReason_; }

 private:
  std::string host_;
  int port_;
  std::vector<Data> certificates_;
  bool trusted_;
  std::string failureReason_;
};

// What a delegate answers a server-trust challenge with to accept the server.
class KP_EXPORT UrlCredential {
 public:
  // Accepts exactly the trust it was made from.
  [[nodiscard]] static std::shared_ptr<const UrlCredential> make(std::shared_ptr<const ServerTrust> trust) {
    return std::make_shared<const UrlCredential>(std::move(trust));
  }
  // See make().
  explicit UrlCredential(std::shared_ptr<const ServerTrust> trust) : trust_(std::move(trust)) {}
  // The trust the credential accepts.
  [[nodiscard]] const std::shared_ptr<const ServerTrust>& serverTrust() const noexcept { return trust_; }

 private:
  std::shared_ptr<const ServerTrust> trust_;
};

// What a challenge is about: the server and the kind of authentication.
struct KP_EXPORT UrlProtectionSpace {
  // The authentication method of server-trust challenges.
  static constexpr std::string_view kAuthenticationMethodServerTrust = "NSURLAuthenticationMethodServerTrust";

  std::string host;                  // the server's host
  int port = 0;                      // the server's port
  std::string protocol;              // "https"
  std::string authenticationMethod;  // kAuthenticationMethodServerTrust for server trust
  // Present for server-trust challenges.
  std::shared_ptr<const ServerTrust> serverTrust;
};

// A question to the delegate during a transfer.
struct KP_EXPORT UrlAuthenticationChallenge {
  UrlProtectionSpace protectionSpace;  // what the challenge is about
  int previousFailureCount = 0;        // how often this challenge failed before
};

// Takes the delegate's answer to a response head.
using ResponseDispositionHandler = std::function<void(ResponseDisposition)>;
// Takes the request of the next redirect hop, or nothing to stop at the redirect.
using RedirectionHandler = std::function<void(std::optional<UrlRequest>)>;
// Takes the delegate's answer to a challenge; the first answer counts.
using ChallengeHandler = std::function<void(AuthChallengeDisposition, std::shared_ptr<const UrlCredential>)>;

// Receives a session's events. Every callback has a default that lets the transfer go on as
// the platform would without a delegate.
class KP_EXPORT UrlSessionDelegate {
 public:
  virtual ~UrlSessionDelegate() = default;

  // The last callback of a session; the session lets go of its delegate after it.
  virtual void didBecomeInvalid(UrlSession& session, const ErrorPtr& error);
  // Data tasks only. Nothing more arrives for the task until `completion` is called;
  // `cancel` ends it with UrlError::cancelled without loading the body.
  virtual void didReceiveResponse(UrlSession& session, UrlSessionDataTask& task,
                                  const std::shared_ptr<const HttpUrlResponse>& response,
                                  ResponseDispositionHandler completion);
  // Data tasks only: the next piece of the body. By default dropped.
  virtual void didReceiveData(UrlSession& session, UrlSessionDataTask& task, const Data& data);
  // Before each redirect hop. Completing with a request follows it (possibly changed);
  // with nothing, the redirect response itself becomes the task's response.
  virtual void willPerformHttpRedirection(UrlSession& session, UrlSessionTask& task,
                                          const std::shared_ptr<const HttpUrlResponse>& response, UrlRequest newRequest,
                                          RedirectionHandler completion);
  // A TLS handshake waits for the answer, bounded by the task's timeout and cancellation. By
  // default: performDefaultHandling.
  virtual void didReceiveChallenge(UrlSession& session, UrlSessionTask& task,
                                   const UrlAuthenticationChallenge& challenge, ChallengeHandler completion);
  // totalBytesExpectedToWrite is -1 when unknown.
  virtual void didWriteData(UrlSession& session, UrlSessionDownloadTask& task, std::int64_t bytesWritten,
                            std::int64_t totalBytesWritten, std::int64_t totalBytesExpectedToWrite);
  // The file is removed when this returns: move or copy it before.
  virtual void didFinishDownloading(UrlSession& session, UrlSessionDownloadTask& task,
                                    const std::filesystem::path& location);
  // The last callback of a task; `error` is null on success.
  virtual void didComplete(UrlSession& session, UrlSessionTask& task, const ErrorPtr& error);
};

// Where a task stands.
enum class UrlSessionTaskState : int { running = 0, suspended = 1, canceling = 2, completed = 3 };

// One transfer of a session; made suspended.
class KP_EXPORT UrlSessionTask : public std::enable_shared_from_this<UrlSessionTask> {
 public:
  virtual ~UrlSessionTask();
  UrlSessionTask(const UrlSessionTask&) = delete;
  UrlSessionTask& operator=(const UrlSessionTask&) = delete;

  // Unique within the session.
  [[nodiscard]] std::uint64_t taskIdentifier() const noexcept;
  // Starts a suspended task; does nothing otherwise.
  void resume();
  // Ends the task with UrlError::cancelled (also before it started); does nothing once it
  // has completed.
  void cancel();
  // Where the task stands now.
  [[nodiscard]] UrlSessionTaskState state() const;
  // The request the task was made with.
  [[nodiscard]] const UrlRequest& originalRequest() const noexcept;
  // The request of the current redirect hop.
  [[nodiscard]] UrlRequest currentRequest() const;
  // The last response head received; null before the first.
  [[nodiscard]] std::shared_ptr<const HttpUrlResponse> response() const;
  // Why the task failed; null unless it completed with an error.
  [[nodiscard]] ErrorPtr error() const;
  // Body bytes received so far.
  [[nodiscard]] std::int64_t countOfBytesReceived() const;
  // The announced body length; -1 when unknown.
  [[nodiscard]] std::int64_t countOfBytesExpectedToReceive() const;

  struct Impl;
  // The session's state of the task; for the session's own code.
  [[nodiscard]] Impl& impl() const noexcept { return *impl_; }

 protected:
  // Made by the session.
  explicit UrlSessionTask(std::unique_ptr<Impl> impl);

 private:
  std::unique_ptr<Impl> impl_;
};

// A transfer whose body goes to the delegate piece by piece.
class KP_EXPORT UrlSessionDataTask final : public UrlSessionTask {
 public:
  // Made by the session (UrlSession::dataTask()).
  explicit UrlSessionDataTask(std::unique_ptr<Impl> impl);
};

// A transfer whose body goes to a temporary file.
class KP_EXPORT UrlSessionDownloadTask final : public UrlSessionTask {
 public:
  // Made by the session (UrlSession::downloadTask()).
  explicit UrlSessionDownloadTask(std::unique_ptr<Impl> impl);
};

class KP_EXPORT UrlSession : public std::enable_shared_from_this<UrlSession> {
 public:
  // Without a delegate queue the session makes a private serial queue.
  [[nodiscard]] static std::shared_ptr<UrlSession> make(UrlSessionConfiguration configuration,
                                                        std::shared_ptr<UrlSessionDelegate> delegate,
                                                        std::shared_ptr<DispatchQueue> delegateQueue = nullptr);
  ~UrlSession();
  UrlSession(const UrlSession&) = delete;
  UrlSession& operator=(const UrlSession&) = delete;

  // Suspended tasks; nothing once the session has been invalidated.
  [[nodiscard]] std::shared_ptr<UrlSessionDataTask> dataTask(UrlRequest request);
  // A suspended download task; nothing once the session has been invalidated.
  [[nodiscard]] std::shared_ptr<UrlSessionDownloadTask> downloadTask(UrlRequest request);

  // Cancels every task, then tells the delegate that the session became invalid.
  void invalidateAndCancel();
  // Lets running tasks finish (suspended ones are cancelled), then tells the delegate.
  void finishTasksAndInvalidate();

  // Null once the session has told the delegate that it became invalid.
  [[nodiscard]] std::shared_ptr<UrlSessionDelegate> delegate() const;
  // Where the delegate's callbacks run, in order.
  [[nodiscard]] const std::shared_ptr<DispatchQueue>& delegateQueue() const noexcept;
  // The settings the session was made with.
  [[nodiscard]] const UrlSessionConfiguration& configuration() const noexcept;

  struct Impl;

 private:
  UrlSession(UrlSessionConfiguration configuration, std::shared_ptr<UrlSessionDelegate> delegate,
             std::shared_ptr<DispatchQueue> delegateQueue);
  // Marks the session invalid once and hands the rest to its driver.
  void invalidate(bool cancelRunningTasks);
  std::shared_ptr<Impl> impl_;
};

}  // namespace kp
