// The public face of the URL loading service: sessions and tasks, whose operations post
// commands to the session's driver (see request/session/). The session layer lives in
// request/session/: the driver and its loop, task state and delegate callbacks, TLS trust,
// response heads, error mapping, and the pools of connections and threads.
//
// Redirects are followed by the session, one hop at a time, so that the delegate sees each
// one. Connections and TLS state: a session's multi handle pools its own connections while
// the session lives. When a session that made only plain HTTP connections ends, its multi
// handle, with the connections still open, goes to a small pool from which later sessions
// take theirs (see TransportPool): a session per request then still reuses connections,
// which nothing in the interface can observe. A multi handle that carried TLS is closed with
// its session instead, and TLS session resumption is off, so that every TLS connection meets
// its own session's trust challenge. DNS answers are shared by all sessions through one
// share handle.
#include "kp/request/url_session.h"

#include "request/session/session_state.h"

namespace kp {

// MARK: - Tasks

UrlSessionTask::UrlSessionTask(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) { impl_->task = this; }
UrlSessionTask::~UrlSessionTask() = default;
UrlSessionDataTask::UrlSessionDataTask(std::unique_ptr<Impl> impl) : UrlSessionTask(std::move(impl)) {}
UrlSessionDownloadTask::UrlSessionDownloadTask(std::unique_ptr<Impl> impl) : UrlSessionTask(std::move(impl)) {}

std::uint64_t UrlSessionTask::taskIdentifier() const noexcept { return impl_->id; }
const UrlRequest& UrlSessionTask::originalRequest() const noexcept { return impl_->original; }

UrlSessionTaskState UrlSessionTask::state() const {
  MutexLock lock(impl_->mutex);
  return impl_->state;
}
UrlRequest UrlSessionTask::currentRequest() const {
  MutexLock lock(impl_->mutex);
  return impl_->current();
}
std::shared_ptr<const HttpUrlResponse> UrlSessionTask::response() const {
  MutexLock lock(impl_->mutex);
  return impl_->response;
}
ErrorPtr UrlSessionTask::error() const {
  MutexLock lock(impl_->mutex);
  return impl_->error;
}
std::int64_t UrlSessionTask::countOfBytesReceived() const {
  MutexLock lock(impl_->mutex);
  return impl_->received;
}
std::int64_t UrlSessionTask::countOfBytesExpectedToReceive() const {
  MutexLock lock(impl_->mutex);
  return impl_->expected;
}

// MARK: - Public operations

void UrlSessionTask::resume() {
  auto session = impl_->session.lock();
  {
    MutexLock lock(impl_->mutex);
    if (impl_->state != UrlSessionTaskState::suspended) return;
    impl_->state = UrlSessionTaskState::running;
  }
  if (!session) return;
  {
    MutexLock lock(session->mutex);
    ++session->runningCount;
    if (!session->keepAlive) session->keepAlive = session->owner.lock();
  }
  impl_->counted.store(true);
  session->postStart(shared_from_this());
}

void UrlSessionTask::cancel() {
  auto session = impl_->session.lock();
  {
    MutexLock lock(impl_->mutex);
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
    MutexLock lock(impl_->mutex);
    impl_->ended = true;
  }
  impl_->wake();
}

namespace {
template <class TaskType>
std::shared_ptr<TaskType> makeTask(const std::shared_ptr<UrlSession::Impl>& session, UrlRequest request,
                                   bool download) {
  MutexLock lock(session->mutex);
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
    MutexLock lock(impl_->mutex);
    if (impl_->invalidated) return;
    impl_->invalidated = true;
    impl_->keepAlive = shared_from_this();
  }
  impl_->post([impl = impl_, cancelRunningTasks] { impl->invalidate(cancelRunningTasks); });
}

std::shared_ptr<UrlSessionDelegate> UrlSession::delegate() const {
  MutexLock lock(impl_->mutex);
  return impl_->delegate;
}

const std::shared_ptr<DispatchQueue>& UrlSession::delegateQueue() const noexcept { return impl_->delegateQueue; }
const UrlSessionConfiguration& UrlSession::configuration() const noexcept { return impl_->configuration; }

}  // namespace kp
