// The driver of a session: one thread per session (borrowed from DriverThreads) that runs
// curl_multi_poll, the commands other threads post, task starts and cancellations,
// timeouts, and the end of the session.
//
// Every curl call for the session's transfers happens on this thread; other threads post
// commands (resume, cancel, the delegate's answers) and wake the poll, which is woken only
// when it is blocked. Nothing spins: on a machine whose other CPUs are busy, a spinning
// driver takes the time that the caller and the server need.
#include <algorithm>

#include "request/session/session_state.h"
#include "request/session/url_errors.h"

namespace kp {

namespace {

using internal::Clock;

constexpr auto kIdleThreadLifetime = std::chrono::seconds(5);
// Longer timeouts mean no limit in practice; cut to this, they stay far from overflowing the
// clock arithmetic (nanoseconds of a steady clock span about 292 years).
constexpr TimeInterval kMaximumTimeout = 10 * 365 * 24 * 3600.0;
// The longest a finished task waits for the driver to let go of it: the report comes without
// waking the driver, which usually has more to do soon anyway.
constexpr int kSettleWaitMs = 5;

// The session whose loop this thread runs, if any.
thread_local const UrlSession::Impl* drivenSession = nullptr;

}  // namespace

UrlSession::Impl::Impl(UrlSessionConfiguration config, std::shared_ptr<UrlSessionDelegate> sessionDelegate,
                       std::shared_ptr<DispatchQueue> queue)
    : configuration(std::move(config)), delegateQueue(std::move(queue)), delegate(std::move(sessionDelegate)) {
  internal::DnsShare::instance();
  transport = internal::TransportPool::instance().acquire();
  curl_multi_setopt(transport.multi, CURLMOPT_MAX_HOST_CONNECTIONS,
                    static_cast<long>(configuration.httpMaximumConnectionsPerHost));
}

UrlSession::Impl::~Impl() { releaseTransport(std::move(transport)); }

void UrlSession::Impl::post(std::function<void()> command, bool urgent) {
  enqueue(Command{nullptr, std::move(command)}, urgent);
}

void UrlSession::Impl::postStart(TaskPtr task) { enqueue(Command{std::move(task), nullptr}, true); }

void UrlSession::Impl::enqueue(Command command, bool urgent) {
  bool start = false;
  bool wakeDriver = false;
  {
    MutexLock lock(mutex);
    // An ended session has handed its transport on; nothing done to it can matter now.
    if (transport.multi == nullptr) return;
    commands.push_back(std::move(command));
    if (!threadRunning) {
      threadRunning = start = true;
    } else if (urgent && polling) {
      // A busy driver looks at the commands before it polls again.
      polling = false;
      wakeDriver = true;
    }
  }
  // Outside the lock: the woken driver's first step is to take it.
  if (wakeDriver) wake();
  if (start) internal::DriverThreads::instance().run([self = shared_from_this()] { self->run(); });
}

void UrlSession::Impl::wake() {
  if (wakeup.signal()) return;
  MutexLock lock(mutex);
  if (transport.multi) curl_multi_wakeup(transport.multi);
}

bool UrlSession::Impl::onDriverThread() const noexcept { return drivenSession == this; }

void UrlSession::Impl::run() {
  struct Driving {
    explicit Driving(const Impl* session) { drivenSession = session; }
    ~Driving() { drivenSession = nullptr; }
    Driving(const Driving&) = delete;
    Driving& operator=(const Driving&) = delete;
  } driving(this);
  Clock::time_point idleSince = Clock::now();
  for (;;) {
    {
      MutexLock lock(mutex);
      if (commands.empty() && running.empty() && (ended || Clock::now() - idleSince > kIdleThreadLifetime)) {
        threadRunning = false;
        return;
      }
      commandBatch.swap(commands);
    }
    // A command may post more; those go to `commands` and wait for the next pass.
    for (auto& command : commandBatch) {
      if (command.start) {
        start(command.start);
      } else {
        command.work();
      }
    }
    commandBatch.clear();
    int stillRunning = 0;
    curl_multi_perform(transport.multi, &stillRunning);
    readMessages();
    askDeferred();
    int waitMs = expireTimeouts();
    handOnGatheredBodies();
    if (invalidationDone) {
      endInvalidation();
      return;
    }
    if (handedOver > 0) waitMs = std::min(waitMs, kSettleWaitMs);
    if (!running.empty()) idleSince = Clock::now();
    if (waitMs > 0) waitInPoll(waitMs);
  }
}

// The last task of an invalidated session has ended: the transport goes on to the next
// session before the delegate hears of the end, so that a session made in answer (as a
// session per request is) finds the connections waiting. Commands that come later find
// no transport and are dropped: every task has ended and no new one can be made.
void UrlSession::Impl::endInvalidation() {
  internal::Transport handedOn;
  {
    MutexLock lock(mutex);
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
void UrlSession::Impl::releaseTransport(internal::Transport done) {
  if (done.multi && !carriedTls) internal::TransportPool::instance().release(std::move(done));
}

// Sleeps in the poll until a socket or a command needs the driver, or `waitMs` pass.
void UrlSession::Impl::waitInPoll(int waitMs) {
  {
    MutexLock lock(mutex);
    if (!commands.empty()) return;
    polling = true;
  }
  curl_waitfd event{wakeup.descriptor(), CURL_WAIT_POLLIN, 0};
  curl_multi_poll(transport.multi, wakeup.valid() ? &event : nullptr, wakeup.valid() ? 1 : 0, waitMs, nullptr);
  if (event.revents != 0) wakeup.clear();
  MutexLock lock(mutex);
  polling = false;
}

// MARK: - Commands

void UrlSession::Impl::start(const TaskPtr& task) {
  auto& t = task->impl();
  if (t.finished) return;
  if (invalidating) {
    completeUnstarted(task);
    return;
  }
  running.emplace(t.id, task);
  // A timeout that is not positive (or not a number) falls back on the session's, then on the
  // default; infinity and huge values become the maximum.
  TimeInterval timeout =
      t.current().timeoutInterval > 0 ? t.current().timeoutInterval : configuration.timeoutIntervalForRequest;
  if (!(timeout > 0)) timeout = UrlSessionConfiguration().timeoutIntervalForRequest;
  t.timeout = std::min(timeout, kMaximumTimeout);
  if (t.download && !openDownloadFile(t)) {
    finish(task, makeUrlError(UrlError::cannotCreateFile, t.current().url));
    return;
  }
  beginHop(task);
}

void UrlSession::Impl::beginHop(const TaskPtr& task) {
  auto& t = task->impl();
  if (!internal::isHttpScheme(t.current().url) || t.current().url.host().empty()) {
    finish(task, makeUrlError(internal::isHttpScheme(t.current().url) ? UrlError::badURL : UrlError::unsupportedURL,
                              t.current().url));
    return;
  }
  if (t.current().httpMethod == "HEAD" && t.current().httpBody) {
    // libcurl cannot send a body and still read a HEAD answer, whose content has no meaning
    // anyway; refused with the platform's code for a GET or HEAD with a body.
    finish(task, internal::makeUrlError(UrlError::dataLengthExceedsMaximum, t.current().url,
                                        "A HEAD request cannot carry a body."));
    return;
  }
  configure(t);
  t.lastActivity = Clock::now();
  if (curl_multi_add_handle(transport.multi, t.easy) != CURLM_OK) {
    finish(task, makeUrlError(UrlError::unknown, t.current().url));
    return;
  }
  t.inMulti = true;
}

void UrlSession::Impl::cancel(const TaskPtr& task) {
  auto& t = task->impl();
  if (t.finished) return;
  if (running.count(t.id)) {
    finish(task, makeUrlError(UrlError::cancelled, t.current().url));
  } else {
    completeUnstarted(task);
  }
}

// Forgets a task that has completed; the last resumed one lets go of the session.
void UrlSession::Impl::forget(UrlSessionTask::Impl& t) {
  std::shared_ptr<UrlSession> oldKeepAlive;
  {
    MutexLock lock(mutex);
    liveTasks.erase(t.id);
    if (t.counted.exchange(false) && --runningCount == 0 && !invalidated) oldKeepAlive = std::move(keepAlive);
  }
}

void UrlSession::Impl::invalidate(bool cancelRunning) {
  if (invalidating) return;
  invalidating = true;
  std::vector<TaskPtr> unstarted;
  {
    MutexLock lock(mutex);
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
    for (auto& task : all) finish(task, makeUrlError(UrlError::cancelled, task->impl().current().url));
  }
  checkInvalidationDone();
}

void UrlSession::Impl::checkInvalidationDone() {
  // The driver ends the session at the end of its pass (endInvalidation).
  if (!invalidating || invalidationDone || !running.empty()) return;
  invalidationDone = true;
}

void UrlSession::Impl::releaseAfterInvalidation() {
  std::shared_ptr<UrlSessionDelegate> oldDelegate;
  std::shared_ptr<UrlSession> oldKeepAlive;
  {
    MutexLock lock(mutex);
    oldDelegate = std::move(delegate);
    oldKeepAlive = std::move(keepAlive);
    ended = true;
  }
  wake();
}

// MARK: - Ends of transfers

void UrlSession::Impl::readMessages() {
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

void UrlSession::Impl::transferDone(const TaskPtr& task, CURLcode code) {
  auto& t = task->impl();
  if (t.redirectRequest && code == CURLE_OK) {
    detach(t);
    if (t.redirects >= internal::kMaximumRedirects) {
      finish(task, makeUrlError(UrlError::httpTooManyRedirects, t.current().url));
      return;
    }
    askForRedirect(task);
    return;
  }
  if (t.awaitingDisposition) {
    detach(t);
    t.doneCode = code;
    return;
  }
  finish(task, errorFor(t, code));
}

// Ends tasks that have been idle for longer than their timeout; returns how long the poll
// may wait.
int UrlSession::Impl::expireTimeouts() {
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
    finish(task, makeUrlError(UrlError::timedOut, task->impl().current().url));
  }
  return static_cast<int>(wait.count());
}

}  // namespace kp
