// tarvix::AssertionCoordinator: the hook through which code reports a condition it survives
// but that should never happen. The default handler prints the message with its location to
// standard error and aborts in a debug build; in a release build (NDEBUG) it does nothing.
// Hosts and tests install their own handler.
//
// Thread safety: every member may be called from any thread; the handler is called on the
// reporting thread.
//
// Example:
//   auto previous = tarvix::AssertionCoordinator::setHandler(
//       [](std::string_view message, std::string_view file, int line) { log(message); });
//   tarvix::AssertionCoordinator::assertionFailure("Failed to encode: ...", __FILE__, __LINE__);
#pragma once

#include <functional>
#include <string_view>

namespace tarvix {

class AssertionCoordinator {
 public:
  // Receives a failed assertion's message and place.
  using Handler = std::function<void(std::string_view message, std::string_view file, int line)>;

  // Hands a failed assertion to the installed handler.
  static void assertionFailure(std::string_view message, std::string_view file, int line);
  // Installs `handler` ({} restores the default) and returns the one it replaces.
  static Handler setHandler(Handler handler);
  // What runs without a handler of the host's: stops a debug build, ignored in a release build.
  static void defaultHandler(std::string_view message, std::string_view file, int line);
};

}  // namespace tarvix
