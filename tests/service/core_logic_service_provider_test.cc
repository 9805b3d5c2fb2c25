// The library's own services registered into a container by one provider.
#include "kp/service/core_logic_service_provider.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "kp/cache/cache_controller.h"
#include "kp/connectivity/connectivity.h"
#include "kp/connectivity/connectivity_monitor.h"
#include "kp/container/default_service_container.h"
#include "kp/storage/dictionary_storage.h"
#include "kp/storage/user_defaults_storage.h"
#include "support/temp_dir.h"
#include "tarvix/date_service.h"

namespace {

TEST(CoreLogicServiceProvider, RegistersTheSharedServicesAndStopsAtTheFirstError) {
  // The shared cache and the standard defaults store make their folders on first use.
  static const kp::test::TempDir home;
  ::setenv("XDG_CACHE_HOME", (home.path() / "cache").c_str(), 1);
  ::setenv("XDG_CONFIG_HOME", (home.path() / "config").c_str(), 1);
  kp::DefaultServiceContainer container;
  kp::CoreLogicServiceProvider provider;
  container.register_(provider);
  EXPECT_NE(container.safeGet<tarvix::DateService>(), nullptr);
  EXPECT_NE(std::dynamic_pointer_cast<kp::UserDefaultsStorage>(container.safeGet<tarvix::KeyedStorageService>()),
            nullptr);
  EXPECT_EQ(container.safeGet<kp::CacheService>().get(),
            static_cast<kp::CacheService*>(kp::CacheController::sharedInstance().get()));
  EXPECT_EQ(container.safeGet<kp::ConnectivityService>().get(),
            static_cast<kp::ConnectivityService*>(kp::Connectivity::default_().get()));
  EXPECT_EQ(container.safeGet<kp::ConnectivityMonitorService>().get(),
            static_cast<kp::ConnectivityMonitorService*>(kp::ConnectivityMonitor::default_().get()));
  // Every instance type is registered already: the first registration fails.
  EXPECT_THROW(container.register_(provider), kp::DefaultServiceContainer::Error);

  // The host registered its own keyed storage: the date service stays, nothing after it comes.
  kp::DefaultServiceContainer host;
  host.registerInstance<tarvix::KeyedStorageService>(std::make_shared<kp::DictionaryStorage>());
  EXPECT_THROW(host.register_(provider), kp::DefaultServiceContainer::Error);
  EXPECT_NE(host.safeGet<tarvix::DateService>(), nullptr);
  EXPECT_THROW((void)host.safeGet<kp::CacheService>(), kp::DefaultServiceContainer::Error);
}

}  // namespace
