// kp::soak::RequestLoad: threads that start typed and service requests against the faulty
// service, through shared and private request queues of every priority, the direct queue and
// synchronous execution, with the cache on for half of them, and cancel some at random; and
// the bookkeeping that checks each request: completed exactly once (never after its ticket
// was cancelled), its ticket agreeing with its result, a success carrying the forecast of the
// place it asked for.
//
// Thread safety: start(), stopStarting(), settle() and the figures from the owning thread,
// which must be the thread that drains the main queue (completions run there).
#pragma once

#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "soak.h"

namespace kp::soak {

class RequestLoad {
 public:
  RequestLoad(std::string baseUrl, std::uint64_t seed, Breaches& breaches, Ledger& ledger);
  ~RequestLoad();
  RequestLoad(const RequestLoad&) = delete;
  RequestLoad& operator=(const RequestLoad&) = delete;

  void start(unsigned threads);
  // Stops starting requests and joins the threads that start them.
  void stopStarting();
  // Drains the main queue until every request started has ended, at most `timeout`; then
  // checks the rest (a request that never ended is a breach).
  void settle(Clock::duration timeout);

  struct Shared;

 private:
  void run(unsigned index);

  std::shared_ptr<Shared> shared_;
  std::vector<std::thread> threads_;
};

}  // namespace kp::soak
