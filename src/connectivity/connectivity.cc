// Connectivity: the connection kind of the shared reachability object, as a service.
#include "kp/connectivity/connectivity.h"

#include <utility>

#include "kp/logging/tarvix_logger.h"
#include "platform/no_destructor.h"

namespace kp {

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
    // The answers still work: they read the flags on demand.
    TarvixLoggers::CL()->error(error.what());
  }
}

}  // namespace kp
