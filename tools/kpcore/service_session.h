// What the service subcommands (service, clientinfo, demo) share: one session for their
// calls, the main queue drained while they wait, and the content info as text.
//
// The session names kpcore as the user agent, is routed by a SessionRouter, and is ended,
// its connections closed, before the command returns.
//
// Example:
//   kpcore::ServiceSession session(insecure);
//   service.urlSession = session.session();
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kp/platform/date.h"
#include "kp/platform/dispatch.h"
#include "kp/request/url_session.h"
#include "kp/service/tarvix_service_content_info.h"
#include "session_router.h"

namespace kpcore {

class ServiceSession {
 public:
  explicit ServiceSession(bool insecure);
  // Lets the running tasks finish and waits (up to 5 s) until the session has ended.
  ~ServiceSession();
  ServiceSession(const ServiceSession&) = delete;
  ServiceSession& operator=(const ServiceSession&) = delete;

  [[nodiscard]] const std::shared_ptr<kp::UrlSession>& session() const noexcept { return session_; }

 private:
  std::shared_ptr<SessionRouter> router_;
  std::shared_ptr<kp::UrlSession> session_;
};

// Runs the main queue on this thread until `done` holds; false when `limit` passed first.
bool drainMainQueueUntil(const std::function<bool()>& done, kp::Duration limit);

// One line per fact: format, max age, created, expiry by both clocks and whether it passed.
[[nodiscard]] std::string describeContentInfo(const kp::TarvixServiceContentInfo& info, kp::Date now = kp::Date::now());

// Throws CommandError (status 2) for a key the cipher refuses.
void checkKey(const std::string& key);

}  // namespace kpcore
