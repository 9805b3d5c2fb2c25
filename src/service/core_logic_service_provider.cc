// The library's own services, registered in a fixed order.
#include "kp/service/core_logic_service_provider.h"

#include <memory>

#include "kp/cache/cache_controller.h"
#include "kp/connectivity/connectivity.h"
#include "kp/connectivity/connectivity_monitor.h"
#include "kp/container/core_services.h"
#include "kp/device/device_information.h"
#include "kp/platform/dispatch.h"
#include "kp/storage/user_defaults_storage.h"

namespace kp {

void CoreLogicServiceProvider::register_(tarvix::ServiceContainer& services) {
  services.registerInstance<tarvix::DateService>(std::make_shared<DefaultDateService>());
  services.registerInstance<tarvix::KeyedStorageService>(
      std::make_shared<UserDefaultsStorage>(UserDefaults::standard()));
  services.registerInstance<CacheService>(CacheController::sharedInstance());
  services.registerInstance<ConnectivityService>(Connectivity::default_());
  services.registerInstance<ConnectivityMonitorService>(ConnectivityMonitor::default_());
  // The first web service's parameters need the device facts, whose read may wait for
  // hostnamed (up to a second when the bus must start it first): it starts now, off the
  // host's thread, and a reader that comes before it ends waits for it instead of reading again.
  globalQueue()->async([] { (void)DeviceInformation::shared().facts(); });
}

}  // namespace kp
