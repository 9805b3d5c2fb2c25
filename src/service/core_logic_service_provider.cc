// The library's own services, registered in a fixed order.
#include "kp/service/core_logic_service_provider.h"

#include <memory>

#include "kp/cache/cache_controller.h"
#include "kp/connectivity/connectivity.h"
#include "kp/connectivity/connectivity_monitor.h"
#include "kp/container/core_services.h"
#include "kp/storage/user_defaults_storage.h"

namespace kp {

void CoreLogicServiceProvider::register_(tarvix::ServiceContainer& services) {
  services.registerInstance<tarvix::DateService>(std::make_shared<DefaultDateService>());
  services.registerInstance<tarvix::KeyedStorageService>(
      std::make_shared<UserDefaultsStorage>(UserDefaults::standard()));
  services.registerInstance<CacheService>(CacheController::sharedInstance());
  services.registerInstance<ConnectivityService>(Connectivity::default_());
  services.registerInstance<ConnectivityMonitorService>(ConnectivityMonitor::default_());
}

}  // namespace kp
