// What the kernel's routing netlink says about reaching the internet: the links and the
// default routes, parsed from rtnetlink messages (dump replies and notifications alike), and
// the reachability flag word that follows from them.
//
// Every message is hostile until checked: lengths are bounded by the bytes present, fixed
// headers and attribute payloads must be complete, strings need not be terminated. A
// malformed datagram is reported rather than partly trusted, so that the caller reads the
// whole state anew.
//
// Flags (for the default routes of both IPv4 and IPv6, in any routing table):
//   reachable           a unicast default route leads over a link that is up, has carrier
//                       and is not dormant;
//   connectionRequired  no such route, but one leads over a link that is up with carrier and
//                       dormant (waiting for an outside event such as authentication: the
//                       driver says so, or a supplicant holds the link's state at dormant);
//   isWWAN              the link of the best such route (lowest metric; IPv4 before IPv6 on a
//                       tie) is a cellular modem: device type raw IP, link kind "wwan" or
//                       "rmnet", or a device the system files show as of type or class wwan.
// The kernel cannot tell connections made on traffic or on demand, or ones that need the
// user's intervention (dialling and login live in user-space daemons), so those bits, and the
// transient, local-address and direct bits, stay clear.
//
// Thread safety: none; the owner serialises every call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kp/platform/network_reachability.h"

namespace kp::platform::rtnl {

using Bytes = std::span<const std::uint8_t>;

// One netlink message whose length has been checked against its datagram.
struct Message {
  std::uint16_t type = 0;
  std::uint16_t flags = 0;
  std::uint32_t seq = 0;
  std::uint32_t portId = 0;
  Bytes payload;
};

// Calls `each` for every message of `datagram`, in order; false when the datagram is
// truncated or a length is impossible (the messages before that point have been seen).
bool forEachMessage(Bytes datagram, const std::function<void(const Message&)>& each);

struct Link {
  std::string name;
  std::uint32_t flags = 0;     // IFF_* bits
  std::uint8_t operState = 0;  // IF_OPER_*; 0 (unknown) when not given
  std::uint16_t deviceType = 0;
  std::string kind;  // of the link's driver, when it says ("veth", "wwan")
  bool cellular = false;
};

struct NextHop {
  int interfaceIndex = 0;
  bool dead = false;
};

struct DefaultRoute {
  std::uint8_t family = 0;
  std::uint32_t table = 0;
  std::uint32_t metric = 0;
  std::vector<NextHop> nextHops;
};

// Parsed from the payload of RTM_NEWLINK / RTM_DELLINK; nothing when malformed.
struct ParsedLink {
  int index = 0;
  Link link;
};
std::optional<ParsedLink> parseLink(Bytes payload);

// Parsed from the payload of RTM_NEWROUTE / RTM_DELROUTE.
struct ParsedRoute {
  bool isDefault = false;  // IPv4 or IPv6, destination length 0
  bool isUnicast = false;
  DefaultRoute route;
};
std::optional<ParsedRoute> parseRoute(Bytes payload);

// Tells whether a link is a cellular modem from the system's device files; the default
// looks under /sys. Must cope with the link vanishing or being renamed meanwhile.
using CellularProbe = std::function<bool(const std::string& name, int index)>;
[[nodiscard]] CellularProbe sysfsCellularProbe(std::filesystem::path sysRoot = "/sys");

class NetworkState {
 public:
  explicit NetworkState(CellularProbe probe = sysfsCellularProbe());

  struct Outcome {
    bool malformed = false;    // the datagram cannot be trusted: read everything anew
    bool routesStale = false;  // default routes may have changed: read them anew
  };
  // Applies the notifications of one datagram: links are kept up to date; a change of
  // addresses, of a default route or of a link's state makes the routes stale (the kernel
  // drops IPv4 routes of a link that goes down without telling).
  Outcome applyNotifications(Bytes datagram);

  // Replace the links or the default routes with a complete dump.
  void replaceLinks(std::map<int, Link> links);
  void replaceDefaultRoutes(std::vector<DefaultRoute> routes);
  // Adds a link from a dump under way; its cellular probe reuses what is known of the link.
  void addDumpedLink(std::map<int, Link>& into, const ParsedLink& parsed) const;

  [[nodiscard]] ReachabilityFlags flags() const;
  [[nodiscard]] const std::map<int, Link>& links() const noexcept { return links_; }
  [[nodiscard]] const std::vector<DefaultRoute>& defaultRoutes() const noexcept { return routes_; }

 private:
  // Fills in `cellular`, probing the device files only for a link that is new or renamed.
  void classify(int index, Link& link, const Link* known) const;

  CellularProbe probe_;
  std::map<int, Link> links_;
  std::vector<DefaultRoute> routes_;
};

// The most default routes kept; more are ignored (a client has a handful).
inline constexpr std::size_t kMaxDefaultRoutes = 1024;

}  // namespace kp::platform::rtnl
