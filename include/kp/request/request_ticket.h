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

enum class RequestTicketState : int { idle = 0, invalid = 1, failed = 2, cancelled = 3, finished = 4 };

class KP_EXPORT RequestTicketType {
 public:
  virtual ~RequestTicketType() = default;
  [[nodiscard]] virtual RequestTicketState state() const = 0;
  [[nodiscard]] virtual ErrorPtr error() const = 0;
  // Stops the execution unless it already ended.
  virtual void cancel() = 0;

  [[nodiscard]] bool isFinished() const;
  [[nodiscard]] bool failed() const;
  [[nodiscard]] bool isSuccess() const;
  [[nodiscard]] bool isCancelled() const;
};

class KP_EXPORT RequestTicket final : public RequestTicketType {
 public:
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
