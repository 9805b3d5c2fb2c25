// kp::RequestTicket: the caller's handle on one execution of a request. It tells how the
// execution stands and lets the caller cancel it.
//
// States and what they read as:
//
//   state       isFinished  failed  isSuccess  isCancelled
//   idle        no          no      yes        no
//   invalid     yes         yes     no         no
//   failed      yes         yes     no         no
//   cancelled   no          no      no         yes
//   finished    yes         no      yes        no
//
// A fresh ticket is idle and so reads as a success before anything has happened. Nothing in
// the library sets `invalid`; it counts as failed and finished. `idle` leads to `finished`,
// `failed` or `cancelled`; a cancelled ticket still becomes `failed` when a failed result
// arrives after the cancel.
//
// Thread safety: every operation may be called from any thread.
//
// Example:
//   std::shared_ptr<kp::RequestTicketType> ticket = request->execute();
//   if (userLeftTheScreen) ticket->cancel();   // no completion is called afterwards
//   if (ticket->failed()) show(ticket->error()->localizedDescription());
#pragma once

#include <memory>
#include <mutex>

#include "kp/platform/error.h"
#include "kp/platform/export.h"

namespace kp {

class RequestExecutor;

// How an execution stands; the table at the top of this file says what each state reads as.
enum class RequestTicketState : int { idle = 0, invalid = 1, failed = 2, cancelled = 3, finished = 4 };

// The caller's handle on one execution, as an interface a host may implement.
class KP_EXPORT RequestTicketType {
 public:
  virtual ~RequestTicketType() = default;
  // How the execution stands now.
  [[nodiscard]] virtual RequestTicketState state() const = 0;
  // Why the execution failed; null unless it failed.
  [[nodiscard]] virtual ErrorPtr error() const = 0;
  // Stops the execution unless it already ended.
  virtual void cancel() = 0;

  // True when invalid, failed or finished.
  [[nodiscard]] bool isFinished() const;
  // True when invalid or failed.
  [[nodiscard]] bool failed() const;
  // True when idle or finished: a fresh ticket reads as a success.
  [[nodiscard]] bool isSuccess() const;
  // True when cancelled.
  [[nodiscard]] bool isCancelled() const;
};

class KP_EXPORT RequestTicket final : public RequestTicketType {
 public:
  // An idle ticket whose cancel() goes through `executor`.
  explicit RequestTicket(std::weak_ptr<RequestExecutor> executor) : executor_(std::move(executor)) {}

  [[nodiscard]] RequestTicketState state() const override;
  [[nodiscard]] ErrorPtr error() const override;
  // Only from idle (or a value outside the table): cancels the execution through the
  // executor, then becomes cancelled, unless the execution ended meanwhile.
  void cancel() override;

  // Only from idle (or a value outside the table) to finished.
  void setFinished();
  // Always: failed, with `error`.
  void setFailedWithError(ErrorPtr error);

  // True once cancel() has begun; the executor checks it around handing the request to its
  // queue, so that a cancel racing the hand-over still reaches the queue.
  [[nodiscard]] bool cancelRequested() const;

 private:
  std::weak_ptr<RequestExecutor> executor_;
  mutable std::mutex mutex_;
  RequestTicketState state_ = RequestTicketState::idle;  // guarded by mutex_
  ErrorPtr error_;                                       // guarded by mutex_
  bool cancelRequested_ = false;                         // guarded by mutex_
};

}  // namespace kp
