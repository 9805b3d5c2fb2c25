// Routing netlink datagrams: any bytes either update the links or are reported as malformed,
// and the flag word that follows is computed without reading past what was given. The first
// byte splits the input into a notification datagram and a route dump payload.
#include <algorithm>
#include <cstdlib>

#include "platform/linux/rtnetlink_state.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t split = std::min<std::size_t>(data[0], size - 1) + 1;
  const kp::platform::rtnl::Bytes notifications(data + 1, split - 1);
  const kp::platform::rtnl::Bytes payload(data + split, size - split);

  kp::platform::rtnl::NetworkState state([](const std::string& name, int) { return name.size() == 5; });
  (void)state.applyNotifications(notifications);
  std::vector<kp::platform::rtnl::DefaultRoute> routes;
  if (auto route = kp::platform::rtnl::parseRoute(payload)) routes.push_back(route->route);
  if (auto link = kp::platform::rtnl::parseLink(payload)) {
    std::map<int, kp::platform::rtnl::Link> links = state.links();
    state.addDumpedLink(links, *link);
    state.replaceLinks(std::move(links));
  }
  state.replaceDefaultRoutes(std::move(routes));
  const kp::ReachabilityFlags flags = state.flags();
  if ((flags & ~(kp::ReachabilityFlag::reachable | kp::ReachabilityFlag::connectionRequired |
                 kp::ReachabilityFlag::isWWAN)) != 0) {
    std::abort();
  }
  return 0;
}
