// The state of a session and the work of its driver, split by job over the files of this
// folder:
//   session_driver.cc    the driver loop, its commands, timeouts and invalidation
//   session_transfer.cc  libcurl set-up of a hop, and the head, body and progress callbacks
//   session_delivery.cc  delegate callbacks in order, the delegate's answers, task ends
//   session_trust.cc     the server-trust question inside the TLS handshake
//   session_cookies.cc   the cookies a hop sends and keeps
// Internal to the session layer; not installed.
//
// Thread safety: members GUARDED_BY(mutex) may be used from any thread with the lock held;
// members marked "driver thread only" belong to the session's driver, which also runs every
// member function except post(), wake() and deliver() (any thread) and the delegate-queue
// steps named so.
#pragma once

#include <curl/curl.h>
#include <openssl/ssl.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kp/request/url_session.h"
#include "platform/mutex.h"
#include "platform/thread_annotations.h"
#include "platform/wakeup_event.h"
#include "request/header_text.h"
#include "request/session/delivery.h"
#include "request/session/task_state.h"
#include "request/session/transport.h"

namespace kp {

namespace internal {

inline constexpr int kMaximumRedirects = 16;
// Body bytes kept while the delegate decides about a response (or a redirect).
inline constexpr std::size_t kMaximumHeldBody = 1 << 20;
// Data handed to the delegate queue but not yet consumed; beyond it the transfer pauses.
inline constexpr std::int64_t kMaximumPendingBytes = 8 << 20;
inline constexpr std::int64_t kResumePendingBytes = 2 << 20;
// Body gathered within one driver pass before it goes to the delegate queue regardless.
inline constexpr std::size_t kMaximumGatheredBody = 256 << 10;

using TrustDecision = std::pair<AuthChallengeDisposition, std::shared_ptr<const UrlCredential>>;

[[nodiscard]] inline bool isHttpScheme(const Url& url) {
  return equalsIgnoringCase(url.scheme(), "http") || equalsIgnoringCase(url.scheme(), "https");
}

}  // namespace internal

struct UrlSession::Impl : std::enable_shared_from_this<UrlSession::Impl> {
  using Clock = internal::Clock;
  using TaskPtr = std::shared_ptr<UrlSessionTask>;
  using Delivery = internal::Delivery;
  // What other threads ask of the driver, in the order asked: a task to start (the one
  // command of every request, kept without a closure on the heap) or any other work.
  struct Command {
    TaskPtr start;
    std::function<void()> work;
  };

  Impl(UrlSessionConfiguration config, std::shared_ptr<UrlSessionDelegate> sessionDelegate,
       std::shared_ptr<DispatchQueue> queue);
  ~Impl();

  const UrlSessionConfiguration configuration;
  const std::shared_ptr<DispatchQueue> delegateQueue;
  std::weak_ptr<UrlSession> owner;
  // The driver thread uses it without the lock; it alone changes it, under the lock, when
  // the session has ended.
  internal::Transport transport;
  // What other threads wake the driver's poll with; without a descriptor, they use the multi
  // handle's own wake-up, under the lock.
  platform::WakeupEvent wakeup;

  mutable Mutex mutex;
  std::shared_ptr<UrlSessionDelegate> delegate GUARDED_BY(mutex);
  std::shared_ptr<UrlSession> keepAlive GUARDED_BY(mutex);
  std::vector<Command> commands GUARDED_BY(mutex);
  std::unordered_map<std::uint64_t, std::weak_ptr<UrlSessionTask>> liveTasks GUARDED_BY(mutex);
  std::uint64_t nextTaskIdentifier GUARDED_BY(mutex) = 1;
  bool threadRunning GUARDED_BY(mutex) = false;
  // The driver thread sleeps in curl_multi_poll (or is about to): commands must wake it.
  bool polling GUARDED_BY(mutex) = false;
  bool invalidated GUARDED_BY(mutex) = false;
  bool ended GUARDED_BY(mutex) = false;
  std::size_t runningCount GUARDED_BY(mutex) = 0;

  // Driver thread only.
  std::unordered_map<std::uint64_t, TaskPtr> running;
  // Heads completed during this pass whose disposition question is still to be asked.
  std::vector<TaskPtr> deferredHeads;
  // Tasks whose body received during this pass has not gone to the delegate yet.
  std::vector<TaskPtr> gatheredBodies;
  // The lists above and the commands, taken over by the driver for the step that works
  // through them. They keep their room from pass to pass, so that a pass allocates nothing
  // for its bookkeeping.
  std::vector<Command> commandBatch;
  std::vector<TaskPtr> askedHeads;
  std::vector<TaskPtr> handedBodies;
  // Tasks whose end the delegate queue reports (deliverWhole) and that have not settled yet.
  std::size_t handedOver = 0;
  // A transfer has used https (its connections must not outlive the session).
  bool carriedTls = false;
  bool invalidating = false;
  bool invalidationDone = false;

  // MARK: Any thread (session_driver.cc, session_delivery.cc)

  // `urgent` false: the command may wait for the driver's next pass (see kSettleWaitMs).
  void post(std::function<void()> command, bool urgent = true) EXCLUDES(mutex);
  // Posts the start of a resumed task.
  void postStart(TaskPtr task) EXCLUDES(mutex);
  void enqueue(Command command, bool urgent) EXCLUDES(mutex);
  // Wakes the driver from its poll. Called without `mutex` held: the woken driver takes it.
  void wake() EXCLUDES(mutex);
  // Queues a delegate callback; false when there is no delegate any more.
  // `mayRunHere` false: always on the delegate queue's own thread, for body data, whose
  // handling then overlaps with receiving the next piece.
  bool deliver(Delivery call, bool mayRunHere = true) EXCLUDES(mutex);

  // MARK: The driver (session_driver.cc)

  void run();
  // Whether the calling thread is this session's driver, within its loop.
  [[nodiscard]] bool onDriverThread() const noexcept;
  void endInvalidation();
  void releaseTransport(internal::Transport done);
  void waitInPoll(int waitMs);
  void start(const TaskPtr& task);
  void beginHop(const TaskPtr& task);
  void cancel(const TaskPtr& task);
  void forget(UrlSessionTask::Impl& t);
  void invalidate(bool cancelRunning);
  void checkInvalidationDone();
  void releaseAfterInvalidation();
  void readMessages();
  void transferDone(const TaskPtr& task, CURLcode code);
  int expireTimeouts();

  // MARK: Transfers (session_transfer.cc)

  void configure(UrlSessionTask::Impl& t);
  static std::shared_ptr<Impl> sessionOf(UrlSessionTask::Impl& t) { return t.session.lock(); }
  static size_t onHeader(char* buffer, size_t size, size_t count, void* user);
  void headComplete(UrlSessionTask::Impl& t);
  static size_t onWrite(char* bytes, size_t size, size_t count, void* user);
  bool consumeBody(const TaskPtr& task, const void* bytes, size_t length);
  // Hands the body gathered in this pass to the delegate queue's own thread.
  void handOnBody(const TaskPtr& task);
  void handOnGatheredBodies();
  Delivery bodyDelivery(const TaskPtr& task, Data chunk);
  static int onProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded);
  ErrorPtr errorFor(UrlSessionTask::Impl& t, CURLcode code);
  void releaseTransfer(UrlSessionTask::Impl& t);
  void detach(UrlSessionTask::Impl& t);
  bool openDownloadFile(UrlSessionTask::Impl& t);

  // MARK: Cookies (session_cookies.cc)

  // The "Cookie" field line for a hop of `request`, or nothing.
  [[nodiscard]] std::optional<std::string> cookieField(const UrlRequest& request) const;
  void keepCookies(const UrlRequest& request, const HttpUrlResponse& response) const;

  // MARK: Delegate callbacks and answers (session_delivery.cc)

  void completeUnstarted(const TaskPtr& task);
  void answerResponse(const TaskPtr& task, ResponseDisposition disposition);
  void askForRedirect(const TaskPtr& task);
  void answerRedirect(const TaskPtr& task, std::optional<UrlRequest> next);
  void unpause(const TaskPtr& task);
  void askDeferred();
  void deliverWhole(const TaskPtr& task);
  // Delegate queue. `fromWholeJob`: called by deliverWhole's own job, which may have run on
  // the driver thread.
  void finishWhole(UrlSession& s, UrlSessionDelegate& d, const TaskPtr& task, ResponseDisposition disposition,
                   internal::WholeTransfer& whole, bool fromWholeJob = false);
  void settle(const TaskPtr& task);
  void askForDisposition(const TaskPtr& task);
  void finish(const TaskPtr& taskRef, ErrorPtr error);

  // MARK: Trust (session_trust.cc)

  static CURLcode onSslContext(CURL*, void* context, void* user);
  static int onVerify(X509_STORE_CTX* context, void* user);
  // Asks the delegate and waits; nothing when the task was cancelled or timed out meanwhile.
  std::optional<internal::TrustDecision> askTrust(UrlSessionTask::Impl& t,
                                                  const std::shared_ptr<const ServerTrust>& trust);
};

}  // namespace kp
