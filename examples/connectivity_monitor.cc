// Whether the device is online and over which link, then every change while the program
// runs: a delegate of the connectivity monitor hears of them on the main queue, which the
// program drains.
//   kp_connectivity_monitor [SECONDS]   (watches for SECONDS, 0 by default)
#include "kp/connectivity/connectivity_monitor.h"

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>

#include "kp/connectivity/connectivity.h"
#include "kp/platform/dispatch.h"

namespace {

const char* name(kp::ConnectionType type) {
  switch (type) {
    case kp::ConnectionType::wifi:
      return "wifi";
    case kp::ConnectionType::cellular:
      return "cellular";
    case kp::ConnectionType::none:
      break;
  }
  return "none";
}

// Hears of every change of kind, and of going online and offline.
class Printer final : public kp::ConnectivityChangeDelegate,
                      public kp::ConnectivityOnlineDelegate,
                      public kp::ConnectivityOfflineDelegate {
 public:
  void connectivity(kp::ConnectionType changedTo, kp::ConnectionType oldType) override {
    std::cout << "changed: " << name(oldType) << " -> " << name(changedTo) << std::endl;
  }
  void connectivityWentOnline() override { std::cout << "online" << std::endl; }
  void connectivityWentOffline() override { std::cout << "offline" << std::endl; }
};

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 0;
  if (argc > 2 || seconds < 0) {
    std::cerr << "usage: kp_connectivity_monitor [SECONDS]\n";
    return 2;
  }
  std::cout << "connection: " << name(kp::Connectivity::currentType())
            << (kp::Connectivity::isCurrentlyOnline() ? " (online)" : " (offline)") << std::endl;

  // The monitor holds its delegates weakly: the program keeps this one alive.
  auto printer = std::make_shared<Printer>();
  kp::ConnectivityMonitor::default_()->addDelegate(printer);
  if (seconds > 0) kp::MainQueue::shared()->runFor(std::chrono::seconds(seconds));
  kp::ConnectivityMonitor::default_()->removeDelegate(printer);
  return 0;
}
