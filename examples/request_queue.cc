// Requests through one queue by priority: the queue runs one request at a time, and of those
// waiting it starts the high-priority one first, then normal, then low, whatever the order
// they were added in. Completions run on the main queue, which the program drains.
//   kp_request_queue URL
#include "kp/request/request_queue.h"

#include <chrono>
#include <iostream>
#include <string>
#include <utility>

#include "kp/platform/dispatch.h"
#include "kp/request/data_request.h"

int main(int argc, char** argv) {
  const auto url = argc == 2 ? kp::Url::parse(argv[1]) : std::nullopt;
  if (!url || !url->isAbsolute()) {
    std::cerr << "usage: kp_request_queue URL\n";
    return 2;
  }
  auto queue = kp::RequestQueue::make();
  // Paused while the requests are added, so that all of them wait and priority decides.
  queue->setMaxConcurrentRequests(0);

  const std::pair<const char*, kp::RequestPriority> requests[] = {
      {"low", kp::RequestPriority::low}, {"normal", kp::RequestPriority::normal}, {"high", kp::RequestPriority::high}};
  int finished = 0;
  for (const auto& [name, priority] : requests) {
    auto request = kp::DataRequest::make(*url);
    request->setQueue(queue);
    request->setPriority(priority);
    (void)request->execute([&finished, name = std::string(name)](const std::shared_ptr<kp::DataRequestResult>& result) {
      // An HTTP error status is a failed request that still has its response.
      std::cout << name << ": ";
      if (result->response) {
        const kp::Data* body = result->dataAsData();
        std::cout << "HTTP " << result->response->statusCode.value_or(0) << ", " << (body ? body->size() : 0)
                  << " bytes\n";
      } else {
        std::cout << result->error->localizedDescription() << "\n";
      }
      if (++finished == 3) kp::MainQueue::shared()->stop();
    });
  }
  queue->setMaxConcurrentRequests(1);
  kp::MainQueue::shared()->runFor(std::chrono::seconds(30));
  return finished == 3 ? 0 : 1;
}
