// The application wrapper: every member forwards to the host's application.
#include "kp/container/core_services.h"

#include <stdexcept>
#include <utility>

namespace kp {

BridgedApplication::BridgedApplication(std::shared_ptr<tarvix::Application> host) : host_(std::move(host)) {
  if (!host_) throw std::invalid_argument("BridgedApplication needs the host's application");
}

std::shared_ptr<void> BridgedApplication::applicationWindow() const { return host_->applicationWindow(); }
tarvix::ApplicationState BridgedApplication::applicationState() const { return host_->applicationState(); }
tarvix::InterfaceOrientation BridgedApplication::statusBarOrientation() const { return host_->statusBarOrientation(); }
bool BridgedApplication::isIdleTimerDisabled() const { return host_->isIdleTimerDisabled(); }
void BridgedApplication::setIdleTimerDisabled(bool disabled) { host_->setIdleTimerDisabled(disabled); }
bool BridgedApplication::canOpenURL(std::string_view url) const { return host_->canOpenURL(url); }
void BridgedApplication::open(std::string_view url) { host_->open(url); }
void BridgedApplication::open(std::string_view url, const OpenOptions& options, std::function<void(bool)> completion) {
  host_->open(url, options, std::move(completion));
}

}  // namespace kp
