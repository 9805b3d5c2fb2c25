// Parsing of rtnetlink messages and the flag word that follows from links and default routes.
#include "platform/linux/rtnetlink_state.h"

#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <fstream>
#include <optional>
#include <tuple>

namespace kp::platform::rtnl {
namespace {

// Device type of raw-IP cellular modems (rmnet, MHI, IPA); older headers lack the name.
constexpr std::uint16_t kDeviceTypeRawIP = 519;
constexpr std::size_t kMaxNameLength = 64;

template <class T>
bool readStruct(Bytes bytes, T& out) {
  if (bytes.size() < sizeof(T)) return false;
  std::memcpy(&out, bytes.data(), sizeof(T));
  return true;
}

std::optional<std::uint32_t> readU32(Bytes bytes) {
  std::uint32_t value = 0;
  if (bytes.size() != sizeof value) return std::nullopt;
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

// Up to the first NUL; a missing terminator is tolerated, an overlong text is cut.
std::string readString(Bytes bytes) {
  const auto end = std::find(bytes.begin(), bytes.end(), std::uint8_t{0});
  std::string text(bytes.begin(), end);
  if (text.size() > kMaxNameLength) text.resize(kMaxNameLength);
  return text;
}

// Calls `each(type, payload)` for every attribute of `area`; false when one is malformed.
template <class F>
bool forEachAttribute(Bytes area, F&& each) {
  while (area.size() >= sizeof(rtattr)) {
    rtattr header{};
    std::memcpy(&header, area.data(), sizeof header);
    if (header.rta_len < sizeof header || header.rta_len > area.size()) return false;
    if (!each(static_cast<std::uint16_t>(header.rta_type & NLA_TYPE_MASK),
              area.subspan(sizeof header, header.rta_len - sizeof header))) {
      return false;
    }
    const std::size_t step = RTA_ALIGN(header.rta_len);
    if (step >= area.size()) return true;
    area = area.subspan(step);
  }
  return true;  // fewer bytes than a header left: padding
}

bool parseMultipath(Bytes area, std::vector<NextHop>& hops) {
  while (area.size() >= sizeof(rtnexthop)) {
    rtnexthop hop{};
    std::memcpy(&hop, area.data(), sizeof hop);
    if (hop.rtnh_len < sizeof hop || hop.rtnh_len > area.size()) return false;
    hops.push_back(NextHop{hop.rtnh_ifindex, (hop.rtnh_flags & RTNH_F_DEAD) != 0});
    const std::size_t step = RTNH_ALIGN(hop.rtnh_len);
    if (step >= area.size()) return true;
    area = area.subspan(step);
  }
  return true;
}

std::string readSmallFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::string text(4096, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(std::max<std::streamsize>(in.gcount(), 0)));
  return text;
}

constexpr std::uint32_t kStateFlags = IFF_UP | IFF_LOOPBACK | IFF_LOWER_UP | IFF_DORMANT;

bool sameState(const Link& a, const Link& b) {
  return (a.flags & kStateFlags) == (b.flags & kStateFlags) && a.operState == b.operState;
}

bool isDormant(const Link& link) { return (link.flags & IFF_DORMANT) != 0 || link.operState == IF_OPER_DORMANT; }

}  // namespace

bool forEachMessage(Bytes datagram, const std::function<void(const Message&)>& each) {
  while (!datagram.empty()) {
    nlmsghdr header{};
    if (!readStruct(datagram, header)) return false;
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size()) return false;
    each(Message{header.nlmsg_type, header.nlmsg_flags, header.nlmsg_seq, header.nlmsg_pid,
                 datagram.subspan(sizeof header, header.nlmsg_len - sizeof header)});
    const std::size_t step = NLMSG_ALIGN(header.nlmsg_len);
    if (step >= datagram.size()) return true;
    datagram = datagram.subspan(step);
  }
  return true;
}

std::optional<ParsedLink> parseLink(Bytes payload) {
  ifinfomsg info{};
  if (!readStruct(payload, info) || info.ifi_index <= 0) return std::nullopt;
  ParsedLink parsed;
  parsed.index = info.ifi_index;
  parsed.link.flags = info.ifi_flags;
  parsed.link.deviceType = info.ifi_type;
  const bool wellFormed =
      forEachAttribute(payload.subspan(NLMSG_ALIGN(sizeof info)), [&](std::uint16_t type, Bytes value) {
        if (type == IFLA_IFNAME) parsed.link.name = readString(value);
        if (type == IFLA_OPERSTATE && value.size() == 1) parsed.link.operState = value[0];
        if (type != IFLA_LINKINFO) return true;
        return forEachAttribute(value, [&](std::uint16_t inner, Bytes innerValue) {
          if (inner == IFLA_INFO_KIND) parsed.link.kind = readString(innerValue);
          return true;
        });
      });
  if (!wellFormed) return std::nullopt;
  return parsed;
}

std::optional<ParsedRoute> parseRoute(Bytes payload) {
  rtmsg header{};
  if (!readStruct(payload, header)) return std::nullopt;
  ParsedRoute parsed;
  parsed.isDefault = (header.rtm_family == AF_INET || header.rtm_family == AF_INET6) && header.rtm_dst_len == 0;
  parsed.isUnicast = header.rtm_type == RTN_UNICAST;
  parsed.route.family = header.rtm_family;
  parsed.route.table = header.rtm_table;
  std::optional<int> outgoing;
  const bool wellFormed =
      forEachAttribute(payload.subspan(NLMSG_ALIGN(sizeof header)), [&](std::uint16_t type, Bytes value) {
        switch (type) {
          case RTA_TABLE:
          case RTA_PRIORITY:
          case RTA_OIF: {
            const auto number = readU32(value);
            if (!number) return false;
            if (type == RTA_TABLE) parsed.route.table = *number;
            if (type == RTA_PRIORITY) parsed.route.metric = *number;
            if (type == RTA_OIF) outgoing = static_cast<int>(*number);
            return true;
          }
          case RTA_MULTIPATH:
            return parseMultipath(value, parsed.route.nextHops);
          default:
            return true;
        }
      });
  if (!wellFormed) return std::nullopt;
  if (outgoing)
    parsed.route.nextHops.insert(parsed.route.nextHops.begin(),
                                 NextHop{*outgoing, (header.rtm_flags & RTNH_F_DEAD) != 0});
  return parsed;
}

CellularProbe sysfsCellularProbe(std::filesystem::path sysRoot) {
  return [root = std::move(sysRoot)](const std::string& name, int index) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) return false;
    const auto dir = root / "class" / "net" / name;
    // The device files show the links of the namespace that mounted them: a link of the
    // same name may be another one, or ours may have been renamed or removed meanwhile.
    const std::string indexText = readSmallFile(dir / "ifindex");
    int fileIndex = 0;
    const auto [end, error] = std::from_chars(indexText.data(), indexText.data() + indexText.size(), fileIndex);
    if (error != std::errc() || fileIndex != index) return false;
    const std::string uevent = "\n" + readSmallFile(dir / "uevent");
    if (uevent.find("\nDEVTYPE=wwan\n") != std::string::npos) return true;
    std::error_code ec;
    const auto subsystem = std::filesystem::canonical(dir / "device" / "subsystem", ec);
    return !ec && subsystem.filename() == "wwan";
  };
}

NetworkState::NetworkState(CellularProbe probe) : probe_(std::move(probe)) {}

void NetworkState::classify(int index, Link& link, const Link* known) const {
  link.cellular = link.deviceType == kDeviceTypeRawIP || link.kind == "wwan" || link.kind == "rmnet";
  if (link.cellular) return;
  if (known != nullptr && known->name == link.name && known->deviceType == link.deviceType &&
      known->kind == link.kind) {
    link.cellular = known->cellular;
  } else if (probe_) {
    link.cellular = probe_(link.name, index);
  }
}

void NetworkState::addDumpedLink(std::map<int, Link>& into, const ParsedLink& parsed) const {
  Link link = parsed.link;
  const auto known = links_.find(parsed.index);
  classify(parsed.index, link, known == links_.end() ? nullptr : &known->second);
  into[parsed.index] = std::move(link);
}

NetworkState::Outcome NetworkState::applyNotifications(Bytes datagram) {
  Outcome outcome;
  const bool complete = forEachMessage(datagram, [&](const Message& message) {
    switch (message.type) {
      case RTM_NEWLINK:
      case RTM_DELLINK: {
        auto parsed = parseLink(message.payload);
        if (!parsed) {
          outcome.malformed = true;
          return;
        }
        const auto known = links_.find(parsed->index);
        if (message.type == RTM_DELLINK) {
          if (known != links_.end()) links_.erase(known);
          outcome.routesStale = true;
          return;
        }
        const Link* previous = known == links_.end() ? nullptr : &known->second;
        if (previous == nullptr || !sameState(*previous, parsed->link)) outcome.routesStale = true;
        classify(parsed->index, parsed->link, previous);
        links_[parsed->index] = std::move(parsed->link);
        return;
      }
      case RTM_NEWADDR:
      case RTM_DELADDR:
        outcome.routesStale = true;
        return;
      case RTM_NEWROUTE:
      case RTM_DELROUTE: {
        const auto parsed = parseRoute(message.payload);
        if (!parsed) {
          outcome.malformed = true;
        } else if (parsed->isDefault) {
          outcome.routesStale = true;
        }
        return;
      }
      default:
        return;
    }
  });
  if (!complete) outcome.malformed = true;
  return outcome;
}

void NetworkState::replaceLinks(std::map<int, Link> links) { links_ = std::move(links); }

void NetworkState::replaceDefaultRoutes(std::vector<DefaultRoute> routes) {
  if (routes.size() > kMaxDefaultRoutes) routes.resize(kMaxDefaultRoutes);
  routes_ = std::move(routes);
}

ReachabilityFlags NetworkState::flags() const {
  // (metric, IPv6 after IPv4, interface index): the kernel's preference, made total.
  using Rank = std::tuple<std::uint32_t, bool, int>;
  std::optional<Rank> usable;
  std::optional<Rank> dormant;
  for (const auto& route : routes_) {
    for (const auto& hop : route.nextHops) {
      const auto found = links_.find(hop.interfaceIndex);
      if (hop.dead || found == links_.end()) continue;
      const std::uint32_t f = found->second.flags;
      if ((f & IFF_LOOPBACK) != 0 || (f & IFF_UP) == 0 || (f & IFF_LOWER_UP) == 0) continue;
      const Rank rank{route.metric, route.family == AF_INET6, hop.interfaceIndex};
      auto& best = isDormant(found->second) ? dormant : usable;
      if (!best || rank < *best) best = rank;
    }
  }
  const auto& chosen = usable ? usable : dormant;
  if (!chosen) return 0;
  ReachabilityFlags flags = usable ? ReachabilityFlag::reachable : ReachabilityFlag::connectionRequired;
  if (links_.at(std::get<2>(*chosen)).cellular) flags |= ReachabilityFlag::isWWAN;
  return flags;
}

}  // namespace kp::platform::rtnl
