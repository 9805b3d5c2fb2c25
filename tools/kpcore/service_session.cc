// The service subcommands' session, main-queue waiting and content-info text.
#include "service_session.h"

#include <sstream>

#include "command.h"
#include "kp/service/tarvix_web_service_parameters.h"
#include "kp/version.h"

namespace kpcore {

using namespace std::chrono_literals;

namespace {

// "3600 s", "1.5 s".
std::string seconds(double value) {
  std::string text = kp::shortestDecimalText(value);
  if (text.ends_with(".0")) text.resize(text.size() - 2);
  return text + " s";
}

}  // namespace

ServiceSession::ServiceSession(bool insecure) : router_(std::make_shared<SessionRouter>(insecure)) {
  auto configuration = kp::UrlSessionConfiguration::defaultConfiguration();
  configuration.httpAdditionalHeaders["User-Agent"] = std::string("kpcore/") + KP_VERSION_STRING;
  session_ = kp::UrlSession::make(configuration, router_);
}

ServiceSession::~ServiceSession() {
  session_->finishTasksAndInvalidate();
  router_->waitForSessionEnd();
}

bool drainMainQueueUntil(const std::function<bool()>& done, kp::Duration limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    kp::MainQueue::shared()->runFor(10ms);
  }
  return true;
}

std::string describeContentInfo(const kp::TarvixServiceContentInfo& info, kp::Date now) {
  auto yesNo = [](bool flag) { return flag ? "yes" : "no"; };
  std::ostringstream out;
  out << "format:   " << (info.formatVersion ? std::to_string(*info.formatVersion) : "unknown") << "\n";
  out << "max age:  " << (info.expiryInterval ? seconds(*info.expiryInterval) : "unknown") << "\n";
  out << "created:  " << (info.remoteCreatedAt ? info.remoteCreatedAt->iso8601() : "unknown") << " (server), "
      << info.localCreatedAt.iso8601() << " (received)\n";
  if (const auto expiry = info.remoteExpiresAt()) {
    out << "expires:  " << expiry->iso8601() << " (server clock), expired: " << yesNo(info.isRemoteExpired(now))
        << "\n";
  }
  if (const auto expiry = info.localExpiresAt()) {
    out << "expires:  " << expiry->iso8601() << " (device clock), expired: " << yesNo(info.isLocalExpired(now)) << "\n";
  } else {
    out << "expires:  never (no max age)\n";
  }
  return out.str();
}

void checkKey(const std::string& key) {
  if (key.size() > 32) throw CommandError("keys are at most 32 bytes", 2);
}

}  // namespace kpcore
