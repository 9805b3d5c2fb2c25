// The smallest host: posts work to the main queue and the background pool, drains the main
// queue, and prints the library version.
#include <atomic>
#include <chrono>
#include <iostream>

#include "kp/foundation/dispatch.h"
#include "kp/version.h"

int main() {
  std::atomic<int> done{0};
  kp::runInBackground([&] {
    kp::MainQueue::shared()->async([&] {
      done = 1;
      kp::MainQueue::shared()->stop();
    });
  });
  kp::MainQueue::shared()->runFor(std::chrono::seconds(5));
  if (done != 1) {
    std::cerr << "main queue did not run the work\n";
    return 1;
  }
  std::cout << "KPFrameworkCoreLogic " << KP_VERSION_STRING << "\n";
  return 0;
}
