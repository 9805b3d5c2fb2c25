// Delegate callbacks and the delegate's answers. Every callback goes, in order, to the
// session's serial delegate queue, so the callbacks of one task never overlap; when that
// queue is idle the driver runs a callback itself, as the queue's item. Answers come back
// from any thread as commands for the driver. A small transfer that ended within one driver
// pass reaches the delegate as one job (deliverWhole), and so do the body that arrived in the
// pass that ended its transfer and the completion.
#include "request/session/session_state.h"
#include "request/session/url_errors.h"

namespace kp {

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

// MARK: - Delivery

bool UrlSession::Impl::deliver(Delivery call, bool mayRunHere) {
  std::shared_ptr<UrlSessionDelegate> target;
  {
    MutexLock lock(mutex);
    target = delegate;
  }
  auto session = owner.lock();
  if (!target || !session) return false;
  // An idle delegate queue runs the callback here: one thread hand-off less per callback,
  // which is most of the cost of a small transfer.
  // The job captures one pointer, so that std::function keeps it inline rather than on the heap.
  if (mayRunHere) {
    const auto here = [&] { call(*session, *target); };
    if (delegateQueue->runNowIfIdle(std::cref(here))) return true;
  }
  // The queue takes copyable work only; the callback goes along behind one shared pointer.
  struct Queued {
    std::shared_ptr<UrlSessionDelegate> target;
    std::shared_ptr<UrlSession> session;
    Delivery call;
  };
  auto queued = std::make_shared<Queued>(Queued{std::move(target), std::move(session), std::move(call)});
  delegateQueue->async([queued = std::move(queued)] { queued->call(*queued->session, *queued->target); });
  return true;
}

// A task that never ran ends with a cancellation.
void UrlSession::Impl::completeUnstarted(const TaskPtr& task) {
  auto& t = task->impl();
  t.finished = true;
  ErrorPtr error = makeUrlError(UrlError::cancelled, t.current().url);
  {
    MutexLock lock(t.mutex);
    t.state = UrlSessionTaskState::completed;
    t.error = error;
  }
  deliver([task, error](UrlSession& s, UrlSessionDelegate& d) { d.didComplete(s, *task, error); });
  forget(t);
}

// MARK: - Responses

void UrlSession::Impl::askDeferred() {
  if (deferredHeads.empty()) return;
  askedHeads.swap(deferredHeads);
  for (auto& task : askedHeads) {
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
  askedHeads.clear();
}

void UrlSession::Impl::askForDisposition(const TaskPtr& task) {
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

void UrlSession::Impl::answerResponse(const TaskPtr& task, ResponseDisposition disposition) {
  auto& t = task->impl();
  if (t.finished || !t.awaitingDisposition) return;
  t.awaitingDisposition = false;
  t.lastActivity = Clock::now();
  if (disposition != ResponseDisposition::allow) {
    finish(task, makeUrlError(UrlError::cancelled, t.current().url));
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

void UrlSession::Impl::unpause(const TaskPtr& task) {
  auto& t = task->impl();
  if (t.finished || !t.paused || t.awaitingDisposition || !t.easy) return;
  t.paused = false;
  curl_easy_pause(t.easy, CURLPAUSE_CONT);
}

// The transfer has ended while its response head waited for the end of the pass. One job
// on the delegate queue asks about the response and, when the delegate answers at once,
// goes on with the body and the completion there, without a round trip to this thread.
// The driver keeps the task among the running ones until that job reports back, so that a
// cancel meanwhile still ends it with a cancellation; outcomeTaken decides who reports.
void UrlSession::Impl::deliverWhole(const TaskPtr& task) {
  using internal::WholeTransfer;
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
    self->finishWhole(s, d, task, static_cast<ResponseDisposition>(whole->answer.load()), *whole, true);
  });
  if (!delivered) {
    t.awaitingDisposition = false;
    finish(task, error);
  } else if (whole->settleOnReturn) {
    settle(task);
  }
}

// Delegate queue: the rest of a finished small transfer once the delegate has answered.
void UrlSession::Impl::finishWhole(UrlSession& s, UrlSessionDelegate& d, const TaskPtr& task,
                                   ResponseDisposition disposition, internal::WholeTransfer& whole, bool fromWholeJob) {
  auto& t = task->impl();
  const bool allowed = disposition == ResponseDisposition::allow;
  Data body = std::move(whole.body);
  whole.body = Data();
  ErrorPtr error;
  {
    MutexLock lock(t.mutex);
    // A cancel that came first is reported by the driver thread.
    if (t.state == UrlSessionTaskState::canceling || t.outcomeTaken.exchange(true)) return;
    error = allowed ? whole.error : makeUrlError(UrlError::cancelled, t.current().url);
    t.state = UrlSessionTaskState::completed;
    t.error = error;
    if (allowed) t.received += static_cast<std::int64_t>(body.size());
  }
  if (fromWholeJob && onDriverThread()) {
    // The driver runs this job itself and settles the task once it returns: no command, and
    // no pass of the driver for it.
    whole.settleOnReturn = true;
  } else {
    auto self = shared_from_this();
    post([self, task] { self->settle(task); }, false);
  }
  if (allowed && !body.empty()) d.didReceiveData(s, static_cast<UrlSessionDataTask&>(*task), body);
  d.didComplete(s, *task, error);
}

// Driver thread: the delegate queue has reported the end of a task.
void UrlSession::Impl::settle(const TaskPtr& task) {
  if (!task->impl().finished) finish(task, nullptr);
}

// MARK: - Redirects

void UrlSession::Impl::askForRedirect(const TaskPtr& task) {
  auto& t = task->impl();
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
}

void UrlSession::Impl::answerRedirect(const TaskPtr& task, std::optional<UrlRequest> next) {
  auto& t = task->impl();
  if (t.finished || !t.awaitingRedirect) return;
  t.awaitingRedirect = false;
  t.redirectRequest.reset();
  if (next) {
    ++t.redirects;
    {
      MutexLock lock(t.mutex);
      t.redirected = std::move(*next);
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

// MARK: - Ends of tasks

void UrlSession::Impl::finish(const TaskPtr& taskRef, ErrorPtr error) {
  // `taskRef` may live in `running`, which this clears.
  const TaskPtr task = taskRef;
  auto& t = task->impl();
  if (t.finished) return;
  t.finished = true;
  if (t.handedOver) --handedOver;
  detach(t);
  releaseTransfer(t);
  t.heldBody = Data();
  Data lastBody = std::exchange(t.passBody, Data());
  if (t.outcomeTaken.exchange(true)) {
    // Reported on the delegate queue already.
    running.erase(t.id);
    forget(t);
    checkInvalidationDone();
    return;
  }
  if (t.file) {
    // The last buffered bytes reach the disk here, so closing can fail as a write does.
    const bool closed = std::fclose(t.file) == 0;
    t.file = nullptr;
    if (!closed && !error) error = makeUrlError(UrlError::cannotWriteToFile, t.current().url);
  }
  {
    MutexLock lock(t.mutex);
    t.state = UrlSessionTaskState::completed;
    t.error = error;
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
  if (lastBody.empty()) {
    deliver([task, error](UrlSession& s, UrlSessionDelegate& d) { d.didComplete(s, *task, error); });
  } else {
    // The rest of the body and the end as one job: a small body that came after its head
    // costs no thread hand-off more than one that came with it.
    deliver([task, error, body = bodyDelivery(task, std::move(lastBody))](UrlSession& s, UrlSessionDelegate& d) {
      body(s, d);
      d.didComplete(s, *task, error);
    });
  }
  running.erase(t.id);
  forget(t);
  checkInvalidationDone();
}

}  // namespace kp
