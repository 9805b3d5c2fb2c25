// The URL loading service over libcurl's multi interface.
//
// Each session owns one multi handle and one driver thread that runs curl_multi_poll, started
// when the first command arrives and ended after a few idle seconds or when the session ends.
// Every curl call for the session's transfers happens on that thread; other threads post
// commands (resume, cancel, the delegate's answers) and wake the poll. Delegate callbacks go
// from the driver thread to the delegate queue, so they arrive in order; when that queue is
// idle the driver runs a callback itself, as the queue's item. Drivers watch briefly for their
// next event before they sleep (see SpinWait), because a thread wake-up costs as much as a
// small exchange with a nearby server.
//
// Redirects are followed here, one hop at a time, so that the delegate sees each one. The
// server-trust decision is made inside the TLS handshake: the driver thread asks the
// delegate and waits for the answer (or the task's cancellation, or its timeout).
//
// Connections, DNS answers and TLS state: a session's multi handle pools its own
// connections while the session lives. When a session that made only plain HTTP connections
// ends, its multi handle, with the connections still open, goes to a small pool from which
// later sessions take theirs (see TransportPool): a session per request then still reuses
// connections, which nothing in the interface can observe. A multi handle that carried TLS
// is closed with its session instead, and TLS session resumption is off, so that every TLS
// connection meets its own session's trust challenge. DNS answers are shared by all
// sessions through one share handle.
#include "kp/request/url_session.h"

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <iterator>
#include <mutex>
#include <random>
#include <thread>
#include <unordered_map>

#include "platform/no_destructor.h"
#include "platform/openssl_lifetime.h"
#include "platform/spin_wait.h"

namespace kp {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMaximumRedirects = 16;
// Body bytes kept while the delegate decides about a response (or a redirect).
constexpr std::size_t kMaximumHeldBody = 1 << 20;
// Data handed to the delegate queue but not yet consumed; beyond it the transfer pauses.
constexpr std::int64_t kMaximumPendingBytes = 8 << 20;
constexpr std::int64_t kResumePendingBytes = 2 << 20;
// Easy handles a session keeps for later transfers.
constexpr std::size_t kSpareHandles = 4;
constexpr auto kIdleThreadLifetime = std::chrono::seconds(5);
// The longest a finished task waits for the driver to let go of it: the report comes without
// waking the driver, which usually has more to do soon anyway.
constexpr int kSettleWaitMs = 5;
// How long a driver watches for its next event before it sleeps (see SpinWait): about the
// time a small exchange with a nearby server takes.
constexpr std::chrono::microseconds kDriverSpin{100};
constexpr long kReceiveBufferSize = 256 * 1024;
// A response head beyond this size is refused.
constexpr std::size_t kMaximumHeadSize = 100 * 1024;

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n'))
    text.remove_suffix(1);
  return text;
}

// One share handle for DNS answers, used by every session's transfers.
class DnsShare {
 public:
  DnsShare() {
    internal::keepOpenSslUntilExit();
    curl_global_init(CURL_GLOBAL_DEFAULT);
    share_ = curl_share_init();
    curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, &DnsShare::lock);
    curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, &DnsShare::unlock);
    curl_share_setopt(share_, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  }
  [[nodiscard]] CURLSH* handle() const noexcept { return share_; }

  static DnsShare& instance() {
    static internal::NoDestructor<DnsShare> share;
    return *share;
  }

 private:
  static void lock(CURL*, curl_lock_data data, curl_lock_access, void* user) {
    static_cast<DnsShare*>(user)->mutexes_[static_cast<std::size_t>(data) % kLocks].lock();
  }
  static void unlock(CURL*, curl_lock_data data, void* user) {
    static_cast<DnsShare*>(user)->mutexes_[static_cast<std::size_t>(data) % kLocks].unlock();
  }
  static constexpr std::size_t kLocks = 8;
  CURLSH* share_ = nullptr;
  std::mutex mutexes_[kLocks];
};

// What a session transfers with: a multi handle (and the connections in its cache) and reset
// easy handles of ended transfers, which spare later transfers an allocation and warm up
// their buffers. Owns them: moving hands them on, destruction closes them.
struct Transport {
  CURLM* multi = nullptr;
  std::vector<CURL*> spareHandles;
  Clock::time_point idleSince;

  Transport() = default;
  Transport(Transport&& other) noexcept
      : multi(std::exchange(other.multi, nullptr)),
        spareHandles(std::exchange(other.spareHandles, {})),
        idleSince(other.idleSince) {}
  Transport& operator=(Transport&& other) noexcept {
    if (this != &other) {
      close();
      multi = std::exchange(other.multi, nullptr);
      spareHandles = std::exchange(other.spareHandles, {});
      idleSince = other.idleSince;
    }
    return *this;
  }
  ~Transport() { close(); }

  static Transport make() {
    Transport transport;
    transport.multi = curl_multi_init();
    return transport;
  }
  void close() noexcept {
    for (CURL* easy : spareHandles) curl_easy_cleanup(easy);
    spareHandles.clear();
    if (multi) curl_multi_cleanup(multi);
    multi = nullptr;
  }
};

// The transports of ended sessions whose connections later sessions may use. Few are kept,
// and none for long: an idle one is closed after kIdleConnectionLifetime, by whoever next
// uses the pool or by a driver thread that ends for want of work.
class TransportPool {
 public:
  static TransportPool& instance() {
    static internal::NoDestructor<TransportPool> pool;
    return *pool;
  }

  Transport acquire() {
    std::vector<Transport> expired;
    Transport transport;
    {
      std::lock_guard lock(mutex_);
      takeExpired(Clock::now() - kIdleConnectionLifetime, expired);
      if (!idle_.empty()) {
        transport = std::move(idle_.back());
        idle_.pop_back();
      }
    }
    expired.clear();  // closes them, outside the lock
    return transport.multi ? std::move(transport) : Transport::make();
  }

  // REQUIRES: no easy handle is in `transport`'s multi handle.
  void release(Transport transport) {
    transport.idleSince = Clock::now();
    {
      std::lock_guard lock(mutex_);
      if (idle_.size() < kCapacity) {
        idle_.push_back(std::move(transport));
      }
    }
    // A transport the pool had no room for closes here, outside the lock.
  }

  // Closes what has been idle for `age` or longer.
  void closeIdle(Clock::duration age) {
    std::vector<Transport> expired;
    {
      std::lock_guard lock(mutex_);
      takeExpired(Clock::now() - age, expired);
    }
  }

 private:
  static constexpr std::size_t kCapacity = 4;
  static constexpr auto kIdleConnectionLifetime = std::chrono::seconds(5);

  void takeExpired(Clock::time_point idleBefore, std::vector<Transport>& out) {
    auto expired =
        std::stable_partition(idle_.begin(), idle_.end(), [&](const Transport& t) { return t.idleSince > idleBefore; });
    std::move(expired, idle_.end(), std::back_inserter(out));
    idle_.erase(expired, idle_.end());
  }

  std::mutex mutex_;
  std::vector<Transport> idle_;  // guarded by mutex_
};

// Threads for the sessions' drivers. A session's driver runs until the session ends or has
// been idle for a while; its thread then waits here for the next session's driver instead
// of ending, which spares a short-lived session (one per request by default) a thread start.
class DriverThreads {
 public:
  static DriverThreads& instance() {
    static internal::NoDestructor<DriverThreads> threads;
    return *threads;
  }

  void run(std::function<void()> driver) {
    std::unique_lock lock(mutex_);
    drivers_.push_back(std::move(driver));
    queued_.store(drivers_.size(), std::memory_order_release);
    if (waiting_ >= drivers_.size()) {
      lock.unlock();
      available_.notify_one();
      return;
    }
    lock.unlock();
    std::thread([this] { serve(); }).detach();
  }

 private:
  static constexpr auto kIdleLifetime = std::chrono::seconds(5);

  void serve() {
    // A session made per request starts its driver right after the last one ended.
    internal::SpinWait spin(kDriverSpin);
    std::unique_lock lock(mutex_);
    for (;;) {
      ++waiting_;
      const auto started = Clock::now();
      if (drivers_.empty()) {
        lock.unlock();
        spin.spin([this] { return queued_.load(std::memory_order_acquire) > 0; });
        lock.lock();
      }
      const bool got = available_.wait_for(lock, kIdleLifetime, [this] { return !drivers_.empty(); });
      spin.record(Clock::now() - started);
      --waiting_;
      if (!got) {
        lock.unlock();
        // The last pooled connections may have been left by this thread's last session.
        TransportPool::instance().closeIdle(kIdleLifetime);
        return;
      }
      auto driver = std::move(drivers_.front());
      drivers_.pop_front();
      queued_.store(drivers_.size(), std::memory_order_relaxed);
      lock.unlock();
      driver();
      driver = nullptr;
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable available_;
  std::deque<std::function<void()>> drivers_;
  // drivers_.size(), for spinning threads to watch without the lock.
  std::atomic<std::size_t> queued_{0};
  std::size_t waiting_ = 0;
};

const char* descriptionOf(UrlError code) {
  switch (code) {
    case UrlError::cancelled:
      return "cancelled";
    case UrlError::badURL:
      return "unsupported URL";
    case UrlError::timedOut:
      return "The request timed out.";
    case UrlError::unsupportedURL:
      return "unsupported URL";
    case UrlError::cannotFindHost:
      return "A server with the specified hostname could not be found.";
    case UrlError::cannotConnectToHost:
      return "Could not connect to the server.";
    case UrlError::networkConnectionLost:
      return "The network connection was lost.";
    case UrlError::dnsLookupFailed:
      return "A server with the specified hostname could not be found.";
    case UrlError::httpTooManyRedirects:
      return "too many HTTP redirects";
    case UrlError::resourceUnavailable:
      return "The requested resource couldn’t be retrieved.";
    case UrlError::notConnectedToInternet:
      return "The Internet connection appears to be offline.";
    case UrlError::badServerResponse:
      return "The server returned a bad response.";
    case UrlError::cannotDecodeContentData:
      return "cannot decode raw data";
    case UrlError::cannotParseResponse:
      return "cannot parse response";
    case UrlError::dataLengthExceedsMaximum:
      return "resource exceeds maximum size";
    case UrlError::secureConnectionFailed:
      return "An SSL error has occurred and a secure connection to the server cannot be made.";
    case UrlError::serverCertificateUntrusted:
      return "The certificate for this server is invalid.";
    case UrlError::cannotCreateFile:
      return "cannot create file";
    case UrlError::cannotWriteToFile:
      return "cannot write to file";
    case UrlError::unknown:
      break;
  }
  return "An unknown error occurred.";
}

UrlError urlErrorOf(CURLcode code, long osErrno, bool httpScheme) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return UrlError::cannotFindHost;
    case CURLE_COULDNT_CONNECT:
      if (osErrno == ENETUNREACH || osErrno == ENETDOWN) return UrlError::notConnectedToInternet;
      return UrlError::cannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT:
      return UrlError::timedOut;
    case CURLE_URL_MALFORMAT:
      return UrlError::badURL;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return httpScheme ? UrlError::badServerResponse : UrlError::unsupportedURL;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_SHUTDOWN_FAILED:
      return UrlError::secureConnectionFailed;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
      return UrlError::serverCertificateUntrusted;
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return UrlError::networkConnectionLost;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_HTTP3:
      return UrlError::badServerResponse;
    case CURLE_BAD_CONTENT_ENCODING:
      return UrlError::cannotDecodeContentData;
    case CURLE_TOO_MANY_REDIRECTS:
      return UrlError::httpTooManyRedirects;
    case CURLE_FILESIZE_EXCEEDED:
      return UrlError::dataLengthExceedsMaximum;
    case CURLE_WRITE_ERROR:
      return UrlError::cannotWriteToFile;
    case CURLE_ABORTED_BY_CALLBACK:
      return UrlError::cancelled;
    default:
      return UrlError::unknown;
  }
}

std::string hostWithoutBrackets(const Url& url) {
  std::string host = url.host();
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  return host;
}

int portOf(const Url& url) {
  if (url.port()) return *url.port();
  return equalsIgnoringCase(url.scheme(), "https") ? 443 : 80;
}

bool isHttpScheme(const Url& url) {
  return equalsIgnoringCase(url.scheme(), "http") || equalsIgnoringCase(url.scheme(), "https");
}

// A small transfer that ended before its response was shown to the delegate: what the
// delegate gets once it allows the response, and the state of that answer.
struct WholeTransfer {
  static constexpr int kWaiting = 0;   // the delegate job is still in didReceiveResponse
  static constexpr int kAnswered = 1;  // answered before that returned: the job goes on
  static constexpr int kMovedOn = 2;   // returned unanswered: the answer posts the rest
  std::atomic<int> phase{kWaiting};
  std::atomic<int> answer{-1};
  Data body;
  ErrorPtr error;
};

// The answer to a trust challenge as the driver thread waits for it.
struct TrustAnswer {
  std::mutex mutex;
  std::condition_variable changed;
  std::optional<std::pair<AuthChallengeDisposition, std::shared_ptr<const UrlCredential>>> answer;
};

}  // namespace

ErrorPtr makeUrlError(UrlError code, const std::optional<Url>& failingUrl, ErrorPtr underlying) {
  Error::UserInfo info{{std::string(Error::kLocalizedDescriptionKey), descriptionOf(code)}};
  if (failingUrl) info.emplace(std::string(Error::kFailingURLStringKey), failingUrl->absoluteString());
  return Error::make(std::string(Error::kURLErrorDomain), static_cast<std::int64_t>(code), std::move(info),
                     std::move(underlying));
}

// MARK: - Responses

HttpUrlResponse::HttpUrlResponse(Url url, int statusCode, std::vector<HeaderField> headerFields)
    : url_(std::move(url)), statusCode_(statusCode), headerFields_(std::move(headerFields)) {
  for (const auto& field : headerFields_) {
    const auto& [name, value] = field;
    // Captures the pair, not the bindings: clang before 16 lets no lambda capture a
    // structured binding.
    auto it = std::find_if(allHeaderFields_.begin(), allHeaderFields_.end(),
                           [&field](const auto& entry) { return equalsIgnoringCase(entry.first, field.first); });
    if (it == allHeaderFields_.end()) {
      allHeaderFields_.emplace(name, value);
    } else {
      it->second += ", ";
      it->second += value;
    }
  }
  if (auto length = value("Content-Length")) {
    std::int64_t parsed = 0;
    const std::string_view text = trim(*length);
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (ec == std::errc() && end == text.data() + text.size() && parsed >= 0) expectedContentLength_ = parsed;
  }
}

std::optional<std::string> HttpUrlResponse::value(std::string_view field) const {
  for (const auto& [name, value] : allHeaderFields_) {
    if (equalsIgnoringCase(name, field)) return value;
  }
  return std::nullopt;
}

std::optional<std::string> HttpUrlResponse::mimeType() const {
  auto type = value("Content-Type");
  if (!type) return std::nullopt;
  std::string_view text = trim(std::string_view(*type).substr(0, type->find(';')));
  std::string out(text);
  for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// MARK: - Delegate defaults

void UrlSessionDelegate::didBecomeInvalid(UrlSession&, const ErrorPtr&) {}
void UrlSessionDelegate::didReceiveResponse(UrlSession&, UrlSessionDataTask&,
                                            const std::shared_ptr<const HttpUrlResponse>&,
                                            ResponseDispositionHandler completion) {
  completion(ResponseDisposition::allow);
}
void UrlSessionDelegate::didReceiveData(UrlSession&, UrlSessionDataTask&, const Data&) {}
void UrlSessionDelegate::willPerformHttpRedirection(UrlSession&, UrlSessionTask&,
                                                    const std::shared_ptr<const HttpUrlResponse>&,
                                                    UrlRequest newRequest, RedirectionHandler completion) {
  completion(std::move(newRequest));
}
void UrlSessionDelegate::didReceiveChallenge(UrlSession&, UrlSessionTask&, const UrlAuthenticationChallenge&,
                                             ChallengeHandler completion) {
  completion(AuthChallengeDisposition::performDefaultHandling, nullptr);
}
void UrlSessionDelegate::didWriteData(UrlSession&, UrlSessionDownloadTask&, std::int64_t, std::int64_t, std::int64_t) {}
void UrlSessionDelegate::didFinishDownloading(UrlSession&, UrlSessionDownloadTask&, const std::filesystem::path&) {}
void UrlSessionDelegate::didComplete(UrlSession&, UrlSessionTask&, const ErrorPtr&) {}

// MARK: - Task state

struct UrlSessionTask::Impl {
  Impl(std::weak_ptr<UrlSession::Impl> owner, std::uint64_t identifier, UrlRequest request, bool isDownload)
      : session(std::move(owner)),
        id(identifier),
        download(isDownload),
        original(request),
        current(std::move(request)) {}

  const std::weak_ptr<UrlSession::Impl> session;
  const std::uint64_t id;
  const bool download;
  const UrlRequest original;
  UrlSessionTask* task = nullptr;

  // Read from any thread.
  mutable std::mutex mutex;
  UrlSessionTaskState state = UrlSessionTaskState::suspended;
  UrlRequest current;
  std::shared_ptr<const HttpUrlResponse> response;
  ErrorPtr error;
  std::int64_t received = 0;
  std::int64_t expected = -1;
  std::atomic<bool> cancelRequested{false};
  // Taken by whoever reports the task's end to the delegate: the driver thread, or the
  // delegate queue when it runs a finished small transfer in one go (see deliverWhole).
  std::atomic<bool> outcomeTaken{false};
  // Counted among the session's resumed tasks (which keep the session alive).
  std::atomic<bool> counted{false};

  // Data handed to the delegate queue and not yet consumed.
  std::atomic<std::int64_t> pendingBytes{0};
  std::atomic<bool> backpressured{false};
  // Download progress not yet reported.
  std::atomic<std::int64_t> unreportedBytes{0};
  std::atomic<std::int64_t> writtenBytes{0};
  std::atomic<bool> progressPosted{false};

  // Driver thread only.
  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  Data body;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  bool inMulti = false;
  bool finished = false;
  int statusCode = 0;
  std::vector<HttpUrlResponse::HeaderField> fields;
  std::shared_ptr<const HttpUrlResponse> hopResponse;
  std::optional<UrlRequest> redirectRequest;
  Data heldBody;
  int redirects = 0;
  bool awaitingDisposition = false;
  // The head is complete and the question goes out at the end of this driver pass.
  bool dispositionDeferred = false;
  // The delegate queue reports the end (deliverWhole).
  bool handedOver = false;
  bool awaitingRedirect = false;
  bool paused = false;
  std::optional<CURLcode> doneCode;
  TimeInterval timeout = 60.0;
  Clock::time_point lastActivity;
  curl_off_t lastDownloaded = 0;
  curl_off_t lastUploaded = 0;
  // Set once the transfer left the queue of transfers waiting for a connection.
  bool begun = false;
  bool timedOut = false;
  bool headTooLarge = false;
  std::size_t headSize = 0;
  bool trustCancelled = false;
  ErrorPtr trustError;
  std::FILE* file = nullptr;
  std::filesystem::path filePath;
};

UrlSessionTask::UrlSessionTask(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) { impl_->task = this; }
UrlSessionTask::~UrlSessionTask() = default;
UrlSessionDataTask::UrlSessionDataTask(std::unique_ptr<Impl> impl) : UrlSessionTask(std::move(impl)) {}
UrlSessionDownloadTask::UrlSessionDownloadTask(std::unique_ptr<Impl> impl) : UrlSessionTask(std::move(impl)) {}

std::uint64_t UrlSessionTask::taskIdentifier() const noexcept { return impl_->id; }
const UrlRequest& UrlSessionTask::originalRequest() const noexcept { return impl_->original; }

UrlSessionTaskState UrlSessionTask::state() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->state;
}
UrlRequest UrlSessionTask::currentRequest() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->current;
}
std::shared_ptr<const HttpUrlResponse> UrlSessionTask::response() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->response;
}
ErrorPtr UrlSessionTask::error() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->error;
}
std::int64_t UrlSessionTask::countOfBytesReceived() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->received;
}
std::int64_t UrlSessionTask::countOfBytesExpectedToReceive() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->expected;
}

// MARK: - Session state

struct UrlSession::Impl : std::enable_shared_from_this<UrlSession::Impl> {
  using TaskPtr = std::shared_ptr<UrlSessionTask>;
  using Delivery = std::function<void(UrlSession&, UrlSessionDelegate&)>;

  Impl(UrlSessionConfiguration config, std::shared_ptr<UrlSessionDelegate> sessionDelegate,
       std::shared_ptr<DispatchQueue> queue)
      : configuration(std::move(config)), delegateQueue(std::move(queue)), delegate(std::move(sessionDelegate)) {
    DnsShare::instance();
    transport = TransportPool::instance().acquire();
    curl_multi_setopt(transport.multi, CURLMOPT_MAX_HOST_CONNECTIONS,
                      static_cast<long>(configuration.httpMaximumConnectionsPerHost));
  }
  ~Impl() { releaseTransport(std::move(transport)); }

  const UrlSessionConfiguration configuration;
  const std::shared_ptr<DispatchQueue> delegateQueue;
  std::weak_ptr<UrlSession> owner;
  // The driver thread uses it without the lock; it alone changes it, under the lock, when
  // the session has ended. Other threads only wake its multi handle, under the lock.
  Transport transport;

  mutable std::mutex mutex;
  std::shared_ptr<UrlSessionDelegate> delegate;
  std::shared_ptr<UrlSession> keepAlive;
  std::deque<std::function<void()>> commands;
  // !commands.empty(), for a spinning driver to watch without the lock.
  std::atomic<bool> pendingCommands{false};
  std::unordered_map<std::uint64_t, std::weak_ptr<UrlSessionTask>> liveTasks;
  std::uint64_t nextTaskIdentifier = 1;
  bool threadRunning = false;
  // The driver thread sleeps in curl_multi_poll (or is about to): commands must wake it.
  bool polling = false;
  bool invalidated = false;
  bool ended = false;
  std::size_t runningCount = 0;

  // Driver thread only.
  std::unordered_map<std::uint64_t, TaskPtr> running;
  // Heads completed during this pass whose disposition question is still to be asked.
  std::vector<TaskPtr> deferredHeads;
  // Tasks whose end the delegate queue reports (deliverWhole) and that have not settled yet.
  std::size_t handedOver = 0;
  // A transfer has used https (its connections must not outlive the session).
  bool carriedTls = false;
  bool invalidating = false;
  bool invalidationDone = false;
  internal::SpinWait transferSpin{kDriverSpin};
  internal::SpinWait idleSpin{kDriverSpin};

  // `urgent` false: the command may wait for the driver's next pass (see kSettleWaitMs).
  void post(std::function<void()> command, bool urgent = true) {
    bool start = false;
    {
      std::lock_guard lock(mutex);
      // An ended session has handed its transport on; nothing done to it can matter now.
      if (transport.multi == nullptr) return;
      commands.push_back(std::move(command));
      pendingCommands.store(true, std::memory_order_release);
      if (!threadRunning) {
        threadRunning = start = true;
      } else if (urgent && polling) {
        // A busy driver looks at the commands before it polls again.
        polling = false;
        curl_multi_wakeup(transport.multi);
      }
    }
    if (start) DriverThreads::instance().run([self = shared_from_this()] { self->run(); });
  }

  // Wakes the driver from its poll, if the session still has a transport.
  void wake() {
    std::lock_guard lock(mutex);
    if (transport.multi) curl_multi_wakeup(transport.multi);
  }

  // Queues a delegate callback; false when there is no delegate any more.
  // `mayRunHere` false: always on another thread, for body data, whose handling then overlaps
  // with receiving the next piece.
  bool deliver(Delivery call, bool mayRunHere = true) {
    std::shared_ptr<UrlSessionDelegate> target;
    {
      std::lock_guard lock(mutex);
      target = delegate;
    }
    auto session = owner.lock();
    if (!target || !session) return false;
    // An idle delegate queue runs the callback here: one thread hand-off less per callback,
    // which is most of the cost of a small transfer.
    if (mayRunHere && delegateQueue->runNowIfIdle([&] { call(*session, *target); })) return true;
    delegateQueue->async([target = std::move(target), session = std::move(session), call = std::move(call)] {
      call(*session, *target);
    });
    return true;
  }

  void run() {
    Clock::time_point idleSince = Clock::now();
    for (;;) {
      std::deque<std::function<void()>> batch;
      {
        std::lock_guard lock(mutex);
        if (commands.empty() && running.empty() && (ended || Clock::now() - idleSince > kIdleThreadLifetime)) {
          threadRunning = false;
          return;
        }
        batch.swap(commands);
        pendingCommands.store(false, std::memory_order_relaxed);
      }
      for (auto& command : batch) command();
      int stillRunning = 0;
      curl_multi_perform(transport.multi, &stillRunning);
      readMessages();
      askDeferred();
      int waitMs = expireTimeouts();
      if (invalidationDone) {
        endInvalidation();
        return;
      }
      if (handedOver > 0) waitMs = std::min(waitMs, kSettleWaitMs);
      if (!running.empty()) idleSince = Clock::now();
      if (waitMs > 0) waitForWork(waitMs);
    }
  }

  // The last task of an invalidated session has ended: the transport goes on to the next
  // session before the delegate hears of the end, so that a session made in answer (as a
  // session per request is) finds the connections waiting. Commands that come later find
  // no transport and are dropped: every task has ended and no new one can be made.
  void endInvalidation() {
    Transport handedOn;
    {
      std::lock_guard lock(mutex);
      handedOn = std::move(transport);
      threadRunning = false;
    }
    releaseTransport(std::move(handedOn));
    auto self = shared_from_this();
    const bool delivered = deliver([self](UrlSession& s, UrlSessionDelegate& d) {
      d.didBecomeInvalid(s, nullptr);
      self->releaseAfterInvalidation();
    });
    if (!delivered) releaseAfterInvalidation();
  }

  // A transport that carried TLS is closed (by going out of scope here).
  void releaseTransport(Transport done) {
    if (done.multi && !carriedTls) TransportPool::instance().release(std::move(done));
  }

  // Sleeps in the poll until a socket or a command needs the driver, or `waitMs` pass;
  // spins first when such waits have been short (see SpinWait).
  void waitForWork(int waitMs) {
    const bool transfers = !running.empty();
    internal::SpinWait& spin = transfers ? transferSpin : idleSpin;
    const auto started = Clock::now();
    const bool woken = spin.spin([&] {
      if (pendingCommands.load(std::memory_order_acquire)) return true;
      if (!transfers) return false;
      int ready = 0;
      curl_multi_poll(transport.multi, nullptr, 0, 0, &ready);
      return ready > 0;
    });
    if (!woken) waitInPoll(waitMs);
    spin.record(Clock::now() - started);
  }

  void waitInPoll(int waitMs) {
    {
      std::lock_guard lock(mutex);
      if (!commands.empty()) return;
      polling = true;
    }
    curl_multi_poll(transport.multi, nullptr, 0, waitMs, nullptr);
    std::lock_guard lock(mutex);
    polling = false;
  }

  // MARK: Commands (driver thread)

  void start(const TaskPtr& task) {
    auto& t = task->impl();
    if (t.finished) return;
    if (invalidating) {
      completeUnstarted(task);
      return;
    }
    running.emplace(t.id, task);
    const TimeInterval timeout = t.current.timeoutInterval;
    t.timeout = timeout > 0 ? timeout : configuration.timeoutIntervalForRequest;
    if (t.download && !openDownloadFile(t)) {
      finish(task, makeUrlError(UrlError::cannotCreateFile, t.current.url));
      return;
    }
    beginHop(task);
  }

  void beginHop(const TaskPtr& task) {
    auto& t = task->impl();
    if (!isHttpScheme(t.current.url) || t.current.url.host().empty()) {
      finish(task,
             makeUrlError(isHttpScheme(t.current.url) ? UrlError::badURL : UrlError::unsupportedURL, t.current.url));
      return;
    }
    configure(t);
    t.lastActivity = Clock::now();
    if (curl_multi_add_handle(transport.multi, t.easy) != CURLM_OK) {
      finish(task, makeUrlError(UrlError::unknown, t.current.url));
      return;
    }
    t.inMulti = true;
  }

  void cancel(const TaskPtr& task) {
    auto& t = task->impl();
    if (t.finished) return;
    if (running.count(t.id)) {
      finish(task, makeUrlError(UrlError::cancelled, t.current.url));
    } else {
      completeUnstarted(task);
    }
  }

  // A task that never ran ends with a cancellation.
  void completeUnstarted(const TaskPtr& task) {
    auto& t = task->impl();
    t.finished = true;
    ErrorPtr error = makeUrlError(UrlError::cancelled, t.current.url);
    {
      std::lock_guard lock(t.mutex);
      t.state = UrlSessionTaskState::completed;
      t.error = error;
    }
    deliver([task, error](UrlSession& s, UrlSessionDelegate& d) { d.didComplete(s, *task, error); });
    forget(t);
  }

  // Forgets a task that has completed; the last resumed one lets go of the session.
  void forget(UrlSessionTask::Impl& t) {
    std::shared_ptr<UrlSession> oldKeepAlive;
    {
      std::lock_guard lock(mutex);
      liveTasks.erase(t.id);
      if (t.counted.exchange(false) && --runningCount == 0 && !invalidated) oldKeepAlive = std::move(keepAlive);
    }
  }

  void answerResponse(const TaskPtr& task, ResponseDisposition disposition) {
    auto& t = task->impl();
    if (t.finished || !t.awaitingDisposition) return;
    t.awaitingDisposition = false;
    t.lastActivity = Clock::now();
    if (disposition != ResponseDisposition::allow) {
      finish(task, makeUrlError(UrlError::cancelled, t.current.url));
      return;
    }
    if (!t.heldBody.empty()) {
      Data held = std::move(t.heldBody);
      t.heldBody = Data();
      if (!consumeBody(task, held.data(), held.size())) return;
    }
    if (t.doneCode) {
      finish(task, errorFor(t, *t.doneCode));
    } else if (t.paused) {
      t.paused = false;
      curl_easy_pause(t.easy, CURLPAUSE_CONT);
    }
  }

  void answerRedirect(const TaskPtr& task, std::optional<UrlRequest> next) {
    auto& t = task->impl();
    if (t.finished || !t.awaitingRedirect) return;
    t.awaitingRedirect = false;
    t.redirectRequest.reset();
    if (next) {
      ++t.redirects;
      {
        std::lock_guard lock(t.mutex);
        t.current = std::move(*next);
      }
      t.heldBody = Data();
      beginHop(task);
      return;
    }
    // The redirect response itself is the answer.
    t.doneCode = CURLE_OK;
    if (t.download) {
      Data held = std::move(t.heldBody);
      t.heldBody = Data();
      if (consumeBody(task, held.data(), held.size())) finish(task, nullptr);
      return;
    }
    askForDisposition(task);
  }

  void unpause(const TaskPtr& task) {
    auto& t = task->impl();
    if (t.finished || !t.paused || t.awaitingDisposition || !t.easy) return;
    t.paused = false;
    curl_easy_pause(t.easy, CURLPAUSE_CONT);
  }

  void invalidate(bool cancelRunning) {
    if (invalidating) return;
    invalidating = true;
    std::vector<TaskPtr> unstarted;
    {
      std::lock_guard lock(mutex);
      for (auto& [id, weak] : liveTasks) {
        if (running.count(id)) continue;
        if (auto task = weak.lock()) unstarted.push_back(std::move(task));
      }
    }
    for (auto& task : unstarted) {
      if (!task->impl().finished) completeUnstarted(task);
    }
    if (cancelRunning) {
      std::vector<TaskPtr> all;
      for (auto& [id, task] : running) all.push_back(task);
      for (auto& task : all) finish(task, makeUrlError(UrlError::cancelled, task->impl().current.url));
    }
    checkInvalidationDone();
  }

  void checkInvalidationDone() {
    // The driver ends the session at the end of its pass (endInvalidation).
    if (!invalidating || invalidationDone || !running.empty()) return;
    invalidationDone = true;
  }

  void releaseAfterInvalidation() {
    std::shared_ptr<UrlSessionDelegate> oldDelegate;
    std::shared_ptr<UrlSession> oldKeepAlive;
    {
      std::lock_guard lock(mutex);
      oldDelegate = std::move(delegate);
      oldKeepAlive = std::move(keepAlive);
      ended = true;
    }
    wake();
  }

  // MARK: Transfers (driver thread)

  void configure(UrlSessionTask::Impl& t) {
    if (t.easy == nullptr && !transport.spareHandles.empty()) {
      t.easy = transport.spareHandles.back();
      transport.spareHandles.pop_back();
    } else if (t.easy == nullptr) {
      t.easy = curl_easy_init();
    } else {
      curl_easy_reset(t.easy);
    }
    if (t.headerList) {
      curl_slist_free_all(t.headerList);
      t.headerList = nullptr;
    }
    t.statusCode = 0;
    t.headSize = 0;
    t.fields.clear();
    t.hopResponse.reset();
    t.doneCode.reset();
    t.lastDownloaded = t.lastUploaded = 0;
    t.begun = false;
    t.errorBuffer[0] = '\0';

    CURL* e = t.easy;
    const UrlRequest& r = t.current;
    if (equalsIgnoringCase(r.url.scheme(), "https")) carriedTls = true;
    curl_easy_setopt(e, CURLOPT_URL, r.url.absoluteString().c_str());
    curl_easy_setopt(e, CURLOPT_PRIVATE, &t);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t.errorBuffer);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(e, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
    curl_easy_setopt(e, CURLOPT_SHARE, DnsShare::instance().handle());
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(t.timeout * 1000.0));
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &Impl::onHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, &t);
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &Impl::onWrite);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, &Impl::onProgress);
    curl_easy_setopt(e, CURLOPT_XFERINFODATA, &t);
    curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L);
    // Verification is decided in the handshake by the trust challenge (host name included).
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(e, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    curl_easy_setopt(e, CURLOPT_SSL_CTX_FUNCTION, &Impl::onSslContext);
    curl_easy_setopt(e, CURLOPT_SSL_CTX_DATA, &t);

    const std::string& method = r.httpMethod;
    if (r.httpBody) {
      t.body = *r.httpBody;
    } else {
      t.body = Data();
    }
    if (method == "GET") {
      curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
      curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
    } else {
      if (method != "POST") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, method.c_str());
      if (r.httpBody || method == "POST") {
        curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t.body.size()));
        curl_easy_setopt(e, CURLOPT_POSTFIELDS, t.body.empty() ? "" : reinterpret_cast<const char*>(t.body.data()));
      }
    }

    curl_slist* list = nullptr;
    for (const auto& [name, value] : configuration.httpAdditionalHeaders) {
      if (!r.value(name)) list = curl_slist_append(list, (name + ": " + value).c_str());
    }
    for (const auto& [name, value] : r.allHTTPHeaderFields()) {
      // "Name;" sends a field with an empty value.
      list = curl_slist_append(list, (value.empty() ? name + ";" : name + ": " + value).c_str());
    }
    list = curl_slist_append(list, "Expect:");
    t.headerList = list;
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, list);
  }

  static std::shared_ptr<Impl> sessionOf(UrlSessionTask::Impl& t) { return t.session.lock(); }

  static size_t onHeader(char* buffer, size_t size, size_t count, void* user) {
    auto& t = *static_cast<UrlSessionTask::Impl*>(user);
    const size_t length = size * count;
    t.lastActivity = Clock::now();
    t.headSize += length;
    if (t.headSize > kMaximumHeadSize) {
      t.headTooLarge = true;
      return 0;
    }
    std::string_view line(buffer, length);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    if (line.starts_with("HTTP/")) {
      t.headSize = length;
      t.fields.clear();
      t.statusCode = 0;
      const auto space = line.find(' ');
      if (space != std::string_view::npos) {
        std::string_view code = line.substr(space + 1, 3);
        std::from_chars(code.data(), code.data() + code.size(), t.statusCode);
      }
      return length;
    }
    if (line.empty()) {
      if (t.statusCode >= 100 && t.statusCode < 200) return length;
      if (auto session = sessionOf(t)) session->headComplete(t);
      return length;
    }
    if ((line.front() == ' ' || line.front() == '\t') && !t.fields.empty()) {
      t.fields.back().second += ' ';
      t.fields.back().second += trim(line);
      return length;
    }
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return length;
    t.fields.emplace_back(std::string(trim(line.substr(0, colon))), std::string(trim(line.substr(colon + 1))));
    return length;
  }

  void headComplete(UrlSessionTask::Impl& t) {
    auto response = std::make_shared<const HttpUrlResponse>(t.current.url, t.statusCode, std::move(t.fields));
    t.fields = {};
    t.hopResponse = response;
    {
      std::lock_guard lock(t.mutex);
      t.response = response;
      t.expected = response->expectedContentLength();
    }
    const int status = response->statusCode();
    const bool redirect = status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
    if (redirect) {
      if (auto location = response->value("Location")) {
        auto reference = Url::parse(trim(*location));
        auto target = reference ? reference->resolvedAgainst(t.current.url) : std::nullopt;
        if (target) {
          UrlRequest next = t.current;
          next.url = *target;
          const bool toGet = (status == 303 && next.httpMethod != "HEAD") ||
                             ((status == 301 || status == 302) && next.httpMethod == "POST");
          if (toGet) {
            next.httpMethod = "GET";
            next.httpBody.reset();
            next.setValue(std::nullopt, "Content-Type");
            next.setValue(std::nullopt, "Content-Length");
          }
          t.redirectRequest = std::move(next);
          return;
        }
      }
    }
    if (t.download) return;
    // Asked at the end of this pass: a small body often ends in the same pass, and then the
    // response, its body and the completion go to the delegate queue together.
    t.awaitingDisposition = true;
    t.dispositionDeferred = true;
    deferredHeads.push_back(running.at(t.id));
  }

  void askDeferred() {
    if (deferredHeads.empty()) return;
    std::vector<TaskPtr> heads;
    heads.swap(deferredHeads);
    for (auto& task : heads) {
      auto& t = task->impl();
      if (!t.dispositionDeferred) continue;
      t.dispositionDeferred = false;
      if (t.finished) continue;
      if (t.doneCode) {
        deliverWhole(task);
      } else {
        askForDisposition(task);
      }
    }
  }

  // The transfer has ended while its response head waited for the end of the pass. One job
  // on the delegate queue asks about the response and, when the delegate answers at once,
  // goes on with the body and the completion there, without a round trip to this thread.
  // The driver keeps the task among the running ones until that job reports back, so that a
  // cancel meanwhile still ends it with a cancellation; outcomeTaken decides who reports.
  void deliverWhole(const TaskPtr& task) {
    auto& t = task->impl();
    ErrorPtr error = errorFor(t, *t.doneCode);
    detach(t);
    releaseTransfer(t);
    Data body = std::move(t.heldBody);
    t.heldBody = Data();
    t.handedOver = true;
    ++handedOver;
    auto whole = std::make_shared<WholeTransfer>();
    whole->body = std::move(body);
    whole->error = error;
    auto self = shared_from_this();
    auto response = t.hopResponse;
    const bool delivered = deliver([self, task, response, whole](UrlSession& s, UrlSessionDelegate& d) {
      d.didReceiveResponse(
          s, static_cast<UrlSessionDataTask&>(*task), response, [self, task, whole](ResponseDisposition disposition) {
            int unanswered = -1;
            if (!whole->answer.compare_exchange_strong(unanswered, static_cast<int>(disposition))) return;
            int waiting = WholeTransfer::kWaiting;
            if (whole->phase.compare_exchange_strong(waiting, WholeTransfer::kAnswered)) return;
            // Answered later, from anywhere: go on on the delegate queue.
            self->deliver([self, task, disposition, whole](UrlSession& later, UrlSessionDelegate& target) {
              self->finishWhole(later, target, task, disposition, *whole);
            });
          });
      int waiting = WholeTransfer::kWaiting;
      if (whole->phase.compare_exchange_strong(waiting, WholeTransfer::kMovedOn)) return;
      self->finishWhole(s, d, task, static_cast<ResponseDisposition>(whole->answer.load()), *whole);
    });
    if (!delivered) {
      t.awaitingDisposition = false;
      finish(task, error);
    }
  }

  // Delegate queue: the rest of a finished small transfer once the delegate has answered.
  void finishWhole(UrlSession& s, UrlSessionDelegate& d, const TaskPtr& task, ResponseDisposition disposition,
                   WholeTransfer& whole) {
    auto& t = task->impl();
    const bool allowed = disposition == ResponseDisposition::allow;
    Data body = std::move(whole.body);
    whole.body = Data();
    ErrorPtr error;
    {
      std::lock_guard lock(t.mutex);
      // A cancel that came first is reported by the driver thread.
      if (t.state == UrlSessionTaskState::canceling || t.outcomeTaken.exchange(true)) return;
      error = allowed ? whole.error : makeUrlError(UrlError::cancelled, t.current.url);
      t.state = UrlSessionTaskState::completed;
      t.error = error;
      if (allowed) t.received += static_cast<std::int64_t>(body.size());
    }
    auto self = shared_from_this();
    post([self, task] { self->settle(task); }, false);
    if (allowed && !body.empty()) d.didReceiveData(s, static_cast<UrlSessionDataTask&>(*task), body);
    d.didComplete(s, *task, error);
  }

  // Driver thread: the delegate queue has reported the end of a task.
  void settle(const TaskPtr& task) {
    if (!task->impl().finished) finish(task, nullptr);
  }

  void askForDisposition(const TaskPtr& task) {
    auto& t = task->impl();
    t.awaitingDisposition = true;
    auto response = t.hopResponse;
    auto self = shared_from_this();
    const bool delivered = deliver([self, task, response](UrlSession& s, UrlSessionDelegate& d) {
      auto once = std::make_shared<std::atomic<bool>>(false);
      d.didReceiveResponse(s, static_cast<UrlSessionDataTask&>(*task), response,
                           [self, task, once](ResponseDisposition disposition) {
                             if (once->exchange(true)) return;
                             self->post([self, task, disposition] { self->answerResponse(task, disposition); });
                           });
    });
    if (!delivered) answerResponse(task, ResponseDisposition::allow);
  }

  static size_t onWrite(char* bytes, size_t size, size_t count, void* user) {
    auto& t = *static_cast<UrlSessionTask::Impl*>(user);
    const size_t length = size * count;
    t.lastActivity = Clock::now();
    if (t.redirectRequest) {
      const size_t room = kMaximumHeldBody - std::min(kMaximumHeldBody, t.heldBody.size());
      t.heldBody.append(bytes, std::min(room, length));
      return length;
    }
    if (t.awaitingDisposition) {
      // Small bodies wait in memory so that the transfer can end meanwhile; larger ones pause.
      if (!t.paused && t.heldBody.size() + length <= kMaximumHeldBody) {
        t.heldBody.append(bytes, length);
        return length;
      }
      t.paused = true;
      return CURL_WRITEFUNC_PAUSE;
    }
    auto session = sessionOf(t);
    if (!session) return 0;
    auto it = session->running.find(t.id);
    if (it == session->running.end()) return 0;
    if (!t.download && t.pendingBytes.load() >= kMaximumPendingBytes) {
      t.backpressured.store(true);
      // The delegate may have caught up in between; it only wakes us when it sees the flag.
      if (t.pendingBytes.load() >= kMaximumPendingBytes || !t.backpressured.exchange(false)) {
        t.paused = true;
        return CURL_WRITEFUNC_PAUSE;
      }
    }
    return session->consumeBody(it->second, bytes, length) ? length : 0;
  }

  // Hands a piece of body on: to the delegate (data tasks) or to the file (downloads).
  bool consumeBody(const TaskPtr& task, const void* bytes, size_t length) {
    auto& t = task->impl();
    if (length == 0) return true;
    {
      std::lock_guard lock(t.mutex);
      t.received += static_cast<std::int64_t>(length);
    }
    if (t.download) {
      if (std::fwrite(bytes, 1, length, t.file) != length) return false;
      t.writtenBytes += static_cast<std::int64_t>(length);
      t.unreportedBytes += static_cast<std::int64_t>(length);
      if (!t.progressPosted.exchange(true)) {
        const std::int64_t expected = t.hopResponse ? t.hopResponse->expectedContentLength() : -1;
        deliver([task, expected](UrlSession& s, UrlSessionDelegate& d) {
          auto& ti = task->impl();
          ti.progressPosted.store(false);
          const std::int64_t bytesWritten = ti.unreportedBytes.exchange(0);
          if (bytesWritten == 0) return;
          d.didWriteData(s, static_cast<UrlSessionDownloadTask&>(*task), bytesWritten, ti.writtenBytes.load(),
                         expected);
        });
      }
      return true;
    }
    const auto size = static_cast<std::int64_t>(length);
    t.pendingBytes += size;
    auto self = shared_from_this();
    deliver(
        [self, task, chunk = Data(bytes, length), size](UrlSession& s, UrlSessionDelegate& d) {
          d.didReceiveData(s, static_cast<UrlSessionDataTask&>(*task), chunk);
          auto& ti = task->impl();
          if (ti.pendingBytes.fetch_sub(size) - size <= kResumePendingBytes && ti.backpressured.exchange(false)) {
            self->post([self, task] { self->unpause(task); });
          }
        },
        false);
    return true;
  }

  static int onProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
    auto& t = *static_cast<UrlSessionTask::Impl*>(user);
    if (!t.begun) {
      t.begun = true;
      t.lastActivity = Clock::now();
    }
    if (downloaded != t.lastDownloaded || uploaded != t.lastUploaded) {
      t.lastDownloaded = downloaded;
      t.lastUploaded = uploaded;
      t.lastActivity = Clock::now();
    }
    return 0;
  }

  // MARK: Trust

  static CURLcode onSslContext(CURL*, void* context, void* user) {
    SSL_CTX_set_cert_verify_callback(static_cast<SSL_CTX*>(context), &Impl::onVerify, user);
    return CURLE_OK;
  }

  static int onVerify(X509_STORE_CTX* context, void* user) {
    auto& t = *static_cast<UrlSessionTask::Impl*>(user);
    auto session = sessionOf(t);
    const std::string host = hostWithoutBrackets(t.current.url);
    X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(context);
    if (X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) != 1) {
      X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size());
    }
    const bool trusted = X509_verify_cert(context) == 1;
    const int verifyError = X509_STORE_CTX_get_error(context);
    std::vector<Data> certificates;
    if (STACK_OF(X509)* chain = X509_STORE_CTX_get0_untrusted(context)) {
      for (int i = 0; i < sk_X509_num(chain); ++i) {
        unsigned char* der = nullptr;
        const int length = i2d_X509(sk_X509_value(chain, i), &der);
        if (length > 0) certificates.emplace_back(der, static_cast<size_t>(length));
        OPENSSL_free(der);
      }
    }
    auto trust = std::make_shared<const ServerTrust>(host, portOf(t.current.url), std::move(certificates), trusted,
                                                     trusted ? "" : X509_verify_cert_error_string(verifyError));
    auto answer = session ? session->askTrust(t, trust) : std::nullopt;
    t.lastActivity = Clock::now();
    if (!answer) {
      t.trustCancelled = true;
      return 0;
    }
    const auto [disposition, credential] = *answer;
    if (disposition == AuthChallengeDisposition::cancelAuthenticationChallenge) {
      t.trustCancelled = true;
      return 0;
    }
    if (disposition == AuthChallengeDisposition::useCredential && credential && credential->serverTrust() == trust) {
      X509_STORE_CTX_set_error(context, X509_V_OK);
      return 1;
    }
    if (trusted) return 1;
    t.trustError = makeUrlError(UrlError::serverCertificateUntrusted, t.current.url,
                                Error::make("OpenSSL", verifyError, trust->failureReason()));
    return 0;
  }

  // Asks the delegate and waits; nothing when the task was cancelled or timed out meanwhile.
  std::optional<std::pair<AuthChallengeDisposition, std::shared_ptr<const UrlCredential>>> askTrust(
      UrlSessionTask::Impl& t, const std::shared_ptr<const ServerTrust>& trust) {
    auto it = running.find(t.id);
    if (it == running.end()) return std::nullopt;
    auto task = it->second;
    UrlAuthenticationChallenge challenge;
    challenge.protectionSpace = {trust->host(), trust->port(), "https",
                                 std::string(UrlProtectionSpace::kAuthenticationMethodServerTrust), trust};
    auto box = std::make_shared<TrustAnswer>();
    const bool delivered = deliver([task, challenge, box](UrlSession& s, UrlSessionDelegate& d) {
      d.didReceiveChallenge(
          s, *task, challenge,
          [box](AuthChallengeDisposition disposition, std::shared_ptr<const UrlCredential> credential) {
            std::lock_guard lock(box->mutex);
            if (box->answer) return;
            box->answer.emplace(disposition, std::move(credential));
            box->changed.notify_all();
          });
    });
    if (!delivered) return std::pair{AuthChallengeDisposition::performDefaultHandling, nullptr};
    const auto deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(t.timeout));
    std::unique_lock lock(box->mutex);
    while (!box->answer) {
      if (t.cancelRequested.load()) return std::nullopt;
      if (Clock::now() >= deadline) {
        t.timedOut = true;
        return std::nullopt;
      }
      box->changed.wait_for(lock, std::chrono::milliseconds(20));
    }
    return box->answer;
  }

  // MARK: Completion

  void readMessages() {
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(transport.multi, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      UrlSessionTask::Impl* t = nullptr;
      curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &t);
      if (t == nullptr) continue;
      auto it = running.find(t->id);
      if (it == running.end()) continue;
      transferDone(it->second, message->data.result);
    }
  }

  void transferDone(const TaskPtr& task, CURLcode code) {
    auto& t = task->impl();
    if (t.redirectRequest && code == CURLE_OK) {
      detach(t);
      if (t.redirects >= kMaximumRedirects) {
        finish(task, makeUrlError(UrlError::httpTooManyRedirects, t.current.url));
        return;
      }
      t.awaitingRedirect = true;
      auto self = shared_from_this();
      auto response = t.hopResponse;
      const bool delivered =
          deliver([self, task, response, next = *t.redirectRequest](UrlSession& s, UrlSessionDelegate& d) {
            auto once = std::make_shared<std::atomic<bool>>(false);
            d.willPerformHttpRedirection(s, *task, response, next, [self, task, once](std::optional<UrlRequest> r) {
              if (once->exchange(true)) return;
              self->post([self, task, r = std::move(r)]() mutable { self->answerRedirect(task, std::move(r)); });
            });
          });
      if (!delivered) answerRedirect(task, *t.redirectRequest);
      return;
    }
    if (t.awaitingDisposition) {
      detach(t);
      t.doneCode = code;
      return;
    }
    finish(task, errorFor(t, code));
  }

  ErrorPtr errorFor(UrlSessionTask::Impl& t, CURLcode code) {
    if (t.cancelRequested.load() || t.trustCancelled) {
      return makeUrlError(t.timedOut ? UrlError::timedOut : UrlError::cancelled, t.current.url);
    }
    if (t.trustError) return t.trustError;
    if (t.timedOut) return makeUrlError(UrlError::timedOut, t.current.url);
    if (t.headTooLarge) return makeUrlError(UrlError::badServerResponse, t.current.url);
    if (code == CURLE_OK) return nullptr;
    long osErrno = 0;
    if (t.easy) curl_easy_getinfo(t.easy, CURLINFO_OS_ERRNO, &osErrno);
    const std::string detail = t.errorBuffer[0] ? t.errorBuffer : curl_easy_strerror(code);
    return makeUrlError(urlErrorOf(code, osErrno, isHttpScheme(t.current.url)), t.current.url,
                        Error::make("libcurl", code, detail));
  }

  void releaseTransfer(UrlSessionTask::Impl& t) {
    if (t.easy) {
      if (transport.spareHandles.size() < kSpareHandles) {
        curl_easy_reset(t.easy);
        transport.spareHandles.push_back(t.easy);
      } else {
        curl_easy_cleanup(t.easy);
      }
      t.easy = nullptr;
    }
    if (t.headerList) {
      curl_slist_free_all(t.headerList);
      t.headerList = nullptr;
    }
    t.body = Data();
  }

  void detach(UrlSessionTask::Impl& t) {
    if (t.inMulti) {
      curl_multi_remove_handle(transport.multi, t.easy);
      t.inMulti = false;
    }
  }

  void finish(const TaskPtr& taskRef, ErrorPtr error) {
    // `taskRef` may live in `running`, which this clears.
    const TaskPtr task = taskRef;
    auto& t = task->impl();
    if (t.finished) return;
    t.finished = true;
    if (t.handedOver) --handedOver;
    detach(t);
    releaseTransfer(t);
    t.heldBody = Data();
    if (t.outcomeTaken.exchange(true)) {
      // Reported on the delegate queue already.
      running.erase(t.id);
      forget(t);
      checkInvalidationDone();
      return;
    }
    {
      std::lock_guard lock(t.mutex);
      t.state = UrlSessionTaskState::completed;
      t.error = error;
    }
    if (t.file) {
      const bool closed = std::fclose(t.file) == 0;
      t.file = nullptr;
      if (!closed && !error) error = makeUrlError(UrlError::cannotWriteToFile, t.current.url);
    }
    if (t.download && !t.filePath.empty()) {
      auto path = t.filePath;
      t.filePath.clear();
      if (!error) {
        deliver([task, path](UrlSession& s, UrlSessionDelegate& d) {
          d.didFinishDownloading(s, static_cast<UrlSessionDownloadTask&>(*task), path);
        });
      }
      // Removed on the delegate queue, after the delegate had its chance to move it.
      if (!deliver([path](UrlSession&, UrlSessionDelegate&) {
            std::error_code ignored;
            std::filesystem::remove(path, ignored);
          })) {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
      }
    }
    deliver([task, error](UrlSession& s, UrlSessionDelegate& d) { d.didComplete(s, *task, error); });
    running.erase(t.id);
    forget(t);
    checkInvalidationDone();
  }

  bool openDownloadFile(UrlSessionTask::Impl& t) {
    std::error_code ec;
    const auto folder = std::filesystem::temp_directory_path(ec);
    if (ec) return false;
    static std::atomic<std::uint64_t> counter{0};
    std::random_device random;
    for (int attempt = 0; attempt < 8; ++attempt) {
      const auto name = "kp-download-" + std::to_string(random()) + "-" + std::to_string(++counter) + ".tmp";
      t.filePath = folder / name;
      t.file = std::fopen(t.filePath.c_str(), "wbx");
      if (t.file) return true;
    }
    t.filePath.clear();
    return false;
  }

  // Ends tasks that have been idle for longer than their timeout; returns how long the poll
  // may wait.
  int expireTimeouts() {
    const auto now = Clock::now();
    auto wait = std::chrono::milliseconds(1000);
    std::vector<TaskPtr> expired;
    for (auto& [id, task] : running) {
      auto& t = task->impl();
      // Waiting for the delegate or for a free connection does not count as idle.
      if (t.awaitingDisposition || t.awaitingRedirect || t.paused || !t.begun) continue;
      const auto deadline =
          t.lastActivity + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(t.timeout));
      if (deadline <= now) {
        expired.push_back(task);
      } else {
        wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(deadline - now));
      }
    }
    for (auto& task : expired) {
      task->impl().timedOut = true;
      finish(task, makeUrlError(UrlError::timedOut, task->impl().current.url));
    }
    return static_cast<int>(wait.count());
  }
};

// MARK: - Public operations

void UrlSessionTask::resume() {
  auto session = impl_->session.lock();
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->state != UrlSessionTaskState::suspended) return;
    impl_->state = UrlSessionTaskState::running;
  }
  if (!session) return;
  {
    std::lock_guard lock(session->mutex);
    ++session->runningCount;
    if (!session->keepAlive) session->keepAlive = session->owner.lock();
  }
  impl_->counted.store(true);
  session->post([session, task = shared_from_this()] { session->start(task); });
}

void UrlSessionTask::cancel() {
  auto session = impl_->session.lock();
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->state == UrlSessionTaskState::completed || impl_->state == UrlSessionTaskState::canceling) return;
    impl_->state = UrlSessionTaskState::canceling;
  }
  impl_->cancelRequested.store(true);
  if (!session) return;
  session->post([session, task = shared_from_this()] { session->cancel(task); });
}

UrlSession::UrlSession(UrlSessionConfiguration configuration, std::shared_ptr<UrlSessionDelegate> delegate,
                       std::shared_ptr<DispatchQueue> delegateQueue) {
  if (!delegateQueue) delegateQueue = SerialQueue::make("kp.urlsession.delegate");
  impl_ = std::make_shared<Impl>(std::move(configuration), std::move(delegate), std::move(delegateQueue));
}

std::shared_ptr<UrlSession> UrlSession::make(UrlSessionConfiguration configuration,
                                             std::shared_ptr<UrlSessionDelegate> delegate,
                                             std::shared_ptr<DispatchQueue> delegateQueue) {
  std::shared_ptr<UrlSession> session(
      new UrlSession(std::move(configuration), std::move(delegate), std::move(delegateQueue)));
  session->impl_->owner = session;
  return session;
}

UrlSession::~UrlSession() {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->ended = true;
  }
  impl_->wake();
}

namespace {
template <class TaskType>
std::shared_ptr<TaskType> makeTask(const std::shared_ptr<UrlSession::Impl>& session, UrlRequest request,
                                   bool download) {
  std::lock_guard lock(session->mutex);
  if (session->invalidated) return nullptr;
  const std::uint64_t id = session->nextTaskIdentifier++;
  auto task =
      std::make_shared<TaskType>(std::make_unique<UrlSessionTask::Impl>(session, id, std::move(request), download));
  session->liveTasks.emplace(id, task);
  return task;
}
}  // namespace

std::shared_ptr<UrlSessionDataTask> UrlSession::dataTask(UrlRequest request) {
  return makeTask<UrlSessionDataTask>(impl_, std::move(request), false);
}

std::shared_ptr<UrlSessionDownloadTask> UrlSession::downloadTask(UrlRequest request) {
  return makeTask<UrlSessionDownloadTask>(impl_, std::move(request), true);
}

void UrlSession::invalidateAndCancel() { invalidate(true); }

void UrlSession::finishTasksAndInvalidate() { invalidate(false); }

void UrlSession::invalidate(bool cancelRunningTasks) {
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->invalidated) return;
    impl_->invalidated = true;
    impl_->keepAlive = shared_from_this();
  }
  impl_->post([impl = impl_, cancelRunningTasks] { impl->invalidate(cancelRunningTasks); });
}

std::shared_ptr<UrlSessionDelegate> UrlSession::delegate() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->delegate;
}

const std::shared_ptr<DispatchQueue>& UrlSession::delegateQueue() const noexcept { return impl_->delegateQueue; }
const UrlSessionConfiguration& UrlSession::configuration() const noexcept { return impl_->configuration; }

}  // namespace kp
