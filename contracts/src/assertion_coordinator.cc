// The assertion hook and its default handler.
#include "tarvix/assertion_coordinator.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

namespace tarvix {
namespace {

std::mutex& handlerMutex() {
  static std::mutex mutex;
  return mutex;
}

std::shared_ptr<const AssertionCoordinator::Handler>& installedHandler() {
  static std::shared_ptr<const AssertionCoordinator::Handler> handler;  // guarded by handlerMutex()
  return handler;
}

}  // namespace

void AssertionCoordinator::assertionFailure(std::string_view message, std::string_view file, int line) {
  std::shared_ptr<const Handler> handler;
  {
    std::lock_guard lock(handlerMutex());
    handler = installedHandler();
  }
  if (handler) {
    (*handler)(message, file, line);
  } else {
    defaultHandler(message, file, line);
  }
}

AssertionCoordinator::Handler AssertionCoordinator::setHandler(Handler handler) {
  auto next = handler ? std::make_shared<const Handler>(std::move(handler)) : nullptr;
  std::lock_guard lock(handlerMutex());
  auto previous = std::exchange(installedHandler(), std::move(next));
  return previous ? *previous : Handler{};
}

void AssertionCoordinator::defaultHandler(std::string_view message, std::string_view file, int line) {
#ifdef NDEBUG
  (void)message;
  (void)file;
  (void)line;
#else
  std::fprintf(stderr, "%.*s:%d: assertion failure: %.*s\n", static_cast<int>(file.size()), file.data(), line,
               static_cast<int>(message.size()), message.data());
  std::fflush(stderr);
  std::abort();
#endif
}

}  // namespace tarvix
