// Connectivity: the connection kind of the shared reachability object, as a service.
#include "kp/connectivity/connectivity.h"

#include <string>
#include <utility>

#include "platform/no_destructor.h"

namespace kp {
namespace {

void reportNotifierFailure(const std::string& description) { (void)description; }

}  // namespace

const std::shared_ptr<Connectivity>& Connectivity::default_() {
  static internal::NoDestructor<std::shared_ptr<Connectivity>> instance(std::make_shared<Connectivity>());
  return *instance;
}

Connectivity::Connectivity() : Connectivity(Reachability::make()) {}

Connectivity::Connectivity(std::shared_ptr<Reachability> reachability) : reachability_(std::move(reachability)) {
  if (!reachability_) return;
  try {
    reachability_->startNotifier();
  } catch (const Reachability::Error& error) {
    reportNotifierFailure(error.what());
  }
}

}  // namespace kp
