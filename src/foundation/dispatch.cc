// The dispatch helpers over the platform's executors.
#include "kp/foundation/dispatch.h"

#include <map>
#include <string>

#include "platform/no_destructor.h"

namespace kp {

void runOnMainThread(Work work) {
  if (isMainThread()) {
    work();
  } else {
    MainQueue::shared()->async(std::move(work));
  }
}

void runInBackground(Work work) { globalQueue()->async(std::move(work)); }

void runOnce(std::string_view token, const std::function<void()>& block) {
  // The registry only grows, and a map's nodes stay where they are, so a token's flag may be
  // used after the lock is let go; the lock is never held while a block runs, which may use
  // other tokens.
  static std::mutex mutex;
  static internal::NoDestructor<std::map<std::string, Once, std::less<>>> tokens;
  Once* once = nullptr;
  {
    std::lock_guard lock(mutex);
    auto found = tokens->find(token);
    if (found == tokens->end()) found = tokens->try_emplace(std::string(token)).first;
    once = &found->second;
  }
  once->run(block);
}

}  // namespace kp
