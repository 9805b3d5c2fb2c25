// The delegate of kpcore's sessions: routes each task to its request's handler, accepts any
// server certificate with --insecure, and tells when the session has ended.
//
// --insecure answers the trust challenge with a credential made from the server's trust; the
// handler's own answer for requests that accept untrusted certificates would cancel the
// transfer instead. A command waits for the session's end before it returns, because the
// session's thread may still be closing connections and the process must not end under it.
//
// Thread safety: the session calls it from its delegate queue; waitForSessionEnd() may be
// called from any thread.
//
// Example:
//   auto router = std::make_shared<kpcore::SessionRouter>(insecure);
//   auto session = kp::UrlSession::make(configuration, router);
//   ...
//   session->finishTasksAndInvalidate();
//   router->waitForSessionEnd();
#pragma once

#include <condition_variable>
#include <mutex>

#include "kp/request/request_handler.h"

namespace kpcore {

class SessionRouter : public kp::HttpRequestURLSessionDelegateHandler {
 public:
  explicit SessionRouter(bool insecure) : insecure_(insecure) {}

  void didReceiveChallenge(kp::UrlSession& session, kp::UrlSessionTask& task,
                           const kp::UrlAuthenticationChallenge& challenge, kp::ChallengeHandler completion) override;
  void didBecomeInvalid(kp::UrlSession& session, const kp::ErrorPtr& error) override;

  // Waits up to 5 s for the session to announce that it became invalid.
  void waitForSessionEnd();

 private:
  const bool insecure_;
  std::mutex mutex_;
  std::condition_variable endedChanged_;
  bool ended_ = false;  // GUARDED_BY(mutex_)
};

}  // namespace kpcore
