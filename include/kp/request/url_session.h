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
  using HeaderField = std::pair<std::string, std::string>;

  // Gives the names of `headerFields` their canonical spelling.
  HttpUrlResponse(Url url, int statusCode, std::vector<HeaderField> headerFields);

  [[nodiscard]] const Url& url() const noexcept { return url_; }
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

enum class ResponseDisposition : int { cancel = 0, allow = 1 };
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
  ServerTrust(std::string host, int port, std::vector<Data> certificates, bool trusted, std::string failureReason)
      : host_(std::move(host)),
        port_(port),
        certificates_(std::move(certificates)),
        trusted_(trusted),
        failureReason_(std::move(failureReason)) {}
  [[nodiscard]] const std::string& host() const noexcept { return host_; }
  [[nodiscard]] int port() const noexcept { return port_; }
  // DER certificates, the server's own first.
  [[nodiscard]] const std::vector<Data>& certificates() const noexcept { return certificates_; }
  [[nodiscard]] bool evaluatesAsTrusted() const noexcept { return trusted_; }
  [[nodiscard]] const std::string& failureReason() const noexcept { return failureReason_; }

 private:
  std::string host_;
  int port_;
  std::vector<Data> certificates_;
  bool trusted_;
  std::string failureReason_;
};

class KP_EXPORT UrlCredential {
 public:
  // Accepts exactly the trust it was made from.
  [[nodiscard]] static std::shared_ptr<const UrlCredential> make(std::shared_ptr<const ServerTrust> trust) {
    return std::make_shared<const UrlCredential>(std::move(trust));
  }
  explicit UrlCredential(std::shared_ptr<const ServerTrust> trust) : trust_(std::move(trust)) {}
  [[nodiscard]] const std::shared_ptr<const ServerTrust>& serverTrust() const noexcept { return trust_; }

 private:
  std::shared_ptr<const ServerTrust> trust_;
};

struct KP_EXPORT UrlProtectionSpace {
  static constexpr std::string_view kAuthenticationMethodServerTrust = "NSURLAuthenticationMethodServerTrust";

  std::string host;
  int port = 0;
  std::string protocol;
  std::string authenticationMethod;
  // Present for server-trust challenges.
  std::shared_ptr<const ServerTrust> serverTrust;
};

struct KP_EXPORT UrlAuthenticationChallenge {
  UrlProtectionSpace protectionSpace;
  int previousFailureCount = 0;
};

using ResponseDispositionHandler = std::function<void(ResponseDisposition)>;
using RedirectionHandler = std::function<void(std::optional<UrlRequest>)>;
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
  virtual void didReceiveData(UrlSession& session, UrlSessionDataTask& task, const Data& data);
  // Before each redirect hop. Completing with a request follows it (possibly changed);
  // with nothing, the redirect response itself becomes the task's response.
  virtual void willPerformHttpRedirection(UrlSession& session, UrlSessionTask& task,
                                          const std::shared_ptr<const HttpUrlResponse>& response, UrlRequest newRequest,
                                          RedirectionHandler completion);
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

enum class UrlSessionTaskState : int { running = 0, suspended = 1, canceling = 2, completed = 3 };

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
  [[nodiscard]] UrlSessionTaskState state() const;
  [[nodiscard]] const UrlRequest& originalRequest() const noexcept;
  // The request of the current redirect hop.
  [[nodiscard]] UrlRequest currentRequest() const;
  [[nodiscard]] std::shared_ptr<const HttpUrlResponse> response() const;
  [[nodiscard]] ErrorPtr error() const;
  [[nodiscard]] std::int64_t countOfBytesReceived() const;
  [[nodiscard]] std::int64_t countOfBytesExpectedToReceive() const;

  struct Impl;
  [[nodiscard]] Impl& impl() const noexcept { return *impl_; }

 protected:
  explicit UrlSessionTask(std::unique_ptr<Impl> impl);

 private:
  std::unique_ptr<Impl> impl_;
};

class KP_EXPORT UrlSessionDataTask final : public UrlSessionTask {
 public:
  explicit UrlSessionDataTask(std::unique_ptr<Impl> impl);
};

class KP_EXPORT UrlSessionDownloadTask final : public UrlSessionTask {
 public:
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
  [[nodiscard]] std::shared_ptr<UrlSessionDownloadTask> downloadTask(UrlRequest request);

  // Cancels every task, then tells the delegate that the session became invalid.
  void invalidateAndCancel();
  // Lets running tasks finish (suspended ones are cancelled), then tells the delegate.
  void finishTasksAndInvalidate();

  // Null once the session has told the delegate that it became invalid.
  [[nodiscard]] std::shared_ptr<UrlSessionDelegate> delegate() const;
  [[nodiscard]] const std::shared_ptr<DispatchQueue>& delegateQueue() const noexcept;
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
