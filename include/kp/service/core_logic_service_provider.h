// kp::CoreLogicServiceProvider: registers the library's own process-wide services into the
// host's container in one call, so that code resolves them through kp::Services instead of
// reaching for the shared instances:
//   tarvix::DateService          a new kp::DefaultDateService
//   tarvix::KeyedStorageService  a new kp::UserDefaultsStorage over the standard store
//   kp::CacheService             kp::CacheController::sharedInstance()
//   kp::ConnectivityService      kp::Connectivity::default_()
//   kp::ConnectivityMonitorService  kp::ConnectivityMonitor::default_()
// in this order. The first registration that throws ends the call with its error; those made
// before it stay. The application and the non-fatal exception reporter are the host's to
// register. A successful call also starts reading the device facts on a background queue, so
// that the first kp::TarvixWebServiceParameters need not wait for the system's services.
//
// Thread safety: stateless; the container serialises the registrations.
//
// Example:
//   kp::CoreLogicServiceProvider provider;
//   kp::Services::default_()->register_(provider);
//   auto online = kp::Services::default_()->safeGet<kp::ConnectivityService>()->isOnline();
#pragma once

#include "kp/platform/export.h"
#include "tarvix/service_container.h"

namespace kp {

class KP_EXPORT CoreLogicServiceProvider final : public tarvix::ServiceProvider {
 public:
  void register_(tarvix::ServiceContainer& services) override;
};

}  // namespace kp
