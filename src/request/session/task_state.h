// The state of one session task: what any thread may read under the task's lock, what
// crosses threads as atomics, and what only the session's driver thread touches. Internal to
// the session layer; not installed.
//
// Thread safety: as marked on each group of members below.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

#include "kp/request/url_session.h"
#include "platform/mutex.h"
#include "platform/thread_annotations.h"
#include "request/session/response_head.h"
#include "request/session/transport.h"

namespace kp {

// The server a request's connection goes to instead of its URL's authority, or null. Only a
// URL with a port carries one: a sealed service URL names its authority "host:PORT", and the
// caller's server is recorded as the request's connect target.
inline const UrlRequest::ConnectTarget* connectTargetOf(const UrlRequest& request) {
  return request.connectTo && request.url.port() ? &*request.connectTo : nullptr;
}

struct UrlSessionTask::Impl {
  using Clock = internal::Clock;

  Impl(std::weak_ptr<UrlSession::Impl> owner, std::uint64_t identifier, UrlRequest request, bool isDownload)
      : session(std::move(owner)), id(identifier), download(isDownload), original(std::move(request)) {}

  const std::weak_ptr<UrlSession::Impl> session;
  const std::uint64_t id;
  const bool download;
  const UrlRequest original;
  UrlSessionTask* task = nullptr;

  // Read from any thread.
  mutable Mutex mutex;
  UrlSessionTaskState state GUARDED_BY(mutex) = UrlSessionTaskState::suspended;
  // The request of the latest redirect hop. The driver thread alone changes it, under the
  // lock, and reads it without.
  std::optional<UrlRequest> redirected;
  // The request of the current hop: the original one until a redirect is followed, so that a
  // request without redirects is held once.
  [[nodiscard]] const UrlRequest& current() const noexcept { return redirected ? *redirected : original; }
  std::shared_ptr<const HttpUrlResponse> response GUARDED_BY(mutex);
  ErrorPtr error GUARDED_BY(mutex);
  std::int64_t received GUARDED_BY(mutex) = 0;
  std::int64_t expected GUARDED_BY(mutex) = -1;
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
  curl_slist* connectTo = nullptr;
  Data body;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  bool inMulti = false;
  bool finished = false;
  internal::ResponseHeadParser head;
  std::shared_ptr<const HttpUrlResponse> hopResponse;
  std::optional<UrlRequest> redirectRequest;
  Data heldBody;
  // Body received during this driver pass, not yet handed to the delegate.
  Data passBody;
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
  // The head was too large or contradicted itself.
  bool badHead = false;
  bool trustCancelled = false;
  ErrorPtr trustError;
  std::FILE* file = nullptr;
  std::filesystem::path filePath;
};

namespace internal {

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
  // Driver thread only: the job ran there, as the idle delegate queue's item, and left the
  // settling of the task to deliverWhole.
  bool settleOnReturn = false;
};

}  // namespace internal

}  // namespace kp
