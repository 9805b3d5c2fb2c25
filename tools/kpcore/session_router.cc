// The delegate of kpcore's sessions.
#include "session_router.h"

#include <chrono>

namespace kpcore {

void SessionRouter::didReceiveChallenge(kp::UrlSession& session, kp::UrlSessionTask& task,
                                        const kp::UrlAuthenticationChallenge& challenge,
                                        kp::ChallengeHandler completion) {
  const auto& space = challenge.protectionSpace;
  if (insecure_ && space.serverTrust &&
      space.authenticationMethod == kp::UrlProtectionSpace::kAuthenticationMethodServerTrust) {
    completion(kp::AuthChallengeDisposition::useCredential, kp::UrlCredential::make(space.serverTrust));
    return;
  }
  HttpRequestURLSessionDelegateHandler::didReceiveChallenge(session, task, challenge, std::move(completion));
}

void SessionRouter::didBecomeInvalid(kp::UrlSession&, const kp::ErrorPtr&) {
  std::lock_guard lock(mutex_);
  ended_ = true;
  endedChanged_.notify_all();
}

void SessionRouter::waitForSessionEnd() {
  std::unique_lock lock(mutex_);
  endedChanged_.wait_for(lock, std::chrono::seconds(5), [this] { return ended_; });
}

}  // namespace kpcore
