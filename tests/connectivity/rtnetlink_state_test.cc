// Parsing of rtnetlink messages and the flag word that follows from links and default routes,
// fed with messages built by hand, well-formed and not.
#include "platform/linux/rtnetlink_state.h"

#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "connectivity/rtnl_support.h"
#include "support/temp_dir.h"

namespace {

namespace rtnl = kp::platform::rtnl;
using kp::test::NetlinkMessage;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kUpWithCarrier = IFF_UP | IFF_RUNNING | IFF_LOWER_UP;
constexpr std::uint8_t kOperDormant = 5;

Bytes link(std::uint16_t type, int index, const std::string& name, std::uint32_t flags, std::uint16_t deviceType = 1,
           const std::string& kind = "", std::uint8_t operState = 0) {
  ifinfomsg info{};
  info.ifi_index = index;
  info.ifi_flags = flags;
  info.ifi_type = deviceType;
  NetlinkMessage m(type, 0);
  m.fixed(info).string(IFLA_IFNAME, name);
  if (operState != 0) m.u8(IFLA_OPERSTATE, operState);
  if (!kind.empty()) {
    const auto mark = m.begin(IFLA_LINKINFO);
    m.string(IFLA_INFO_KIND, kind).end(mark);
  }
  return m.bytes();
}

Bytes route(std::uint16_t type, std::uint8_t family, std::uint8_t dstLength, std::vector<int> interfaces,
            std::uint32_t metric, std::uint8_t routeType = RTN_UNICAST, std::uint32_t hopFlags = 0) {
  rtmsg header{};
  header.rtm_family = family;
  header.rtm_dst_len = dstLength;
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_type = routeType;
  header.rtm_flags = hopFlags;
  NetlinkMessage m(type, 0);
  m.fixed(header).u32(RTA_PRIORITY, metric);
  if (interfaces.size() == 1) {
    m.u32(RTA_OIF, static_cast<std::uint32_t>(interfaces[0]));
  } else {
    Bytes hops;
    for (int index : interfaces) {
      rtnexthop hop{};
      hop.rtnh_len = sizeof hop;
      hop.rtnh_ifindex = index;
      hop.rtnh_flags = static_cast<unsigned char>(hopFlags);
      const auto* p = reinterpret_cast<const std::uint8_t*>(&hop);
      hops.insert(hops.end(), p, p + sizeof hop);
    }
    m.attribute(RTA_MULTIPATH, hops.data(), hops.size());
  }
  return m.bytes();
}

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

rtnl::DefaultRoute parsed(const Bytes& message) {
  const auto result = rtnl::parseRoute(rtnl::Bytes(message).subspan(sizeof(nlmsghdr)));
  EXPECT_TRUE(result && result->isDefault && result->isUnicast);
  return result ? result->route : rtnl::DefaultRoute{};
}

TEST(RtnetlinkState, FlagsFollowTheBestUsableDefaultRoute) {
  int probes = 0;
  rtnl::NetworkState state([&](const std::string& name, int) {
    ++probes;
    return name == "wwan0";
  });
  const auto outcome = state.applyNotifications(concat({
      link(RTM_NEWLINK, 1, "lo", kUpWithCarrier | IFF_LOOPBACK), link(RTM_NEWLINK, 2, "eth0", kUpWithCarrier),
      link(RTM_NEWLINK, 3, "wwan0", kUpWithCarrier),                       // cellular by its device files
      link(RTM_NEWLINK, 4, "rmnet0", kUpWithCarrier, 519),                 // cellular by device type
      link(RTM_NEWLINK, 5, "wlan0", kUpWithCarrier, 1, "", kOperDormant),  // held by a supplicant
      link(RTM_NEWLINK, 6, "eth1", IFF_UP),                                // no carrier
      link(RTM_NEWLINK, 7, "mbim0", kUpWithCarrier, 1, "wwan"),            // cellular by kind
  }));
  EXPECT_FALSE(outcome.malformed);
  EXPECT_EQ(state.links().size(), 7u);
  EXPECT_EQ(probes, 5);  // those not cellular by type or kind

  const auto v4 = [](std::vector<int> via, std::uint32_t metric, std::uint32_t hopFlags = 0) {
    return parsed(route(RTM_NEWROUTE, AF_INET, 0, std::move(via), metric, RTN_UNICAST, hopFlags));
  };
  const auto v6 = [](std::vector<int> via, std::uint32_t metric) {
    return parsed(route(RTM_NEWROUTE, AF_INET6, 0, std::move(via), metric));
  };
  using F = kp::ReachabilityFlag;
  const struct {
    std::vector<rtnl::DefaultRoute> routes;
    kp::ReachabilityFlags flags;
  } cases[] = {
      {{}, 0},
      {{v4({1}, 0), v4({6}, 0), v4({99}, 0)}, 0},  // loopback, no carrier, unknown link
      {{v4({2}, 100)}, F::reachable},
      {{v4({2}, 100), v4({3}, 50)}, F::reachable | F::isWWAN},  // the lower metric wins
      {{v6({3}, 100), v4({2}, 100)}, F::reachable},             // IPv4 first on a tie
      {{v6({4}, 10)}, F::reachable | F::isWWAN},
      {{v4({7}, 10), v4({2}, 20)}, F::reachable | F::isWWAN},
      {{v4({5}, 10)}, F::connectionRequired},
      {{v4({5}, 10), v4({2}, 900)}, F::reachable},  // a usable route beats a dormant one
      {{v4({6, 2}, 10)}, F::reachable},             // multipath: one usable hop suffices
      {{v4({2, 3}, 10, RTNH_F_DEAD)}, 0},           // dead hops lead nowhere
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    state.replaceDefaultRoutes(cases[i].routes);
    EXPECT_EQ(state.flags(), cases[i].flags) << "case " << i;
  }

  // A link seen again under its name is not probed again; a renamed one is.
  (void)state.applyNotifications(link(RTM_NEWLINK, 2, "eth0", IFF_UP));
  (void)state.applyNotifications(link(RTM_NEWLINK, 2, "wwan0", kUpWithCarrier));
  EXPECT_EQ(probes, 6);
  EXPECT_TRUE(state.links().at(2).cellular);
}

TEST(RtnetlinkState, NotificationsSayWhenRoutesMustBeReadAgain) {
  rtnl::NetworkState state([](const std::string&, int) { return false; });
  (void)state.applyNotifications(link(RTM_NEWLINK, 2, "eth0", kUpWithCarrier));
  const auto stale = [&](const Bytes& datagram) {
    const auto outcome = state.applyNotifications(datagram);
    EXPECT_FALSE(outcome.malformed);
    return outcome.routesStale;
  };
  EXPECT_FALSE(stale(route(RTM_NEWROUTE, AF_INET, 24, {2}, 0)));      // not a default route
  EXPECT_FALSE(stale(route(RTM_NEWROUTE, 128, 0, {2}, 0)));           // multicast routing family
  EXPECT_FALSE(stale(link(RTM_NEWLINK, 2, "eth0", kUpWithCarrier)));  // nothing changed
  EXPECT_TRUE(stale(route(RTM_DELROUTE, AF_INET6, 0, {2}, 0)));
  EXPECT_TRUE(stale(link(RTM_NEWLINK, 2, "eth0", IFF_UP)));  // carrier lost
  ifaddrmsg address{};
  EXPECT_TRUE(stale(NetlinkMessage(RTM_DELADDR, 0).fixed(address).bytes()));
  // Messages of several kinds in one datagram are applied in order.
  EXPECT_TRUE(stale(concat({link(RTM_NEWLINK, 3, "eth1", kUpWithCarrier), link(RTM_DELLINK, 2, "eth0", 0),
                            route(RTM_NEWROUTE, AF_INET, 32, {3}, 0)})));
  ASSERT_EQ(state.links().size(), 1u);
  EXPECT_EQ(state.links().begin()->second.name, "eth1");
}

TEST(RtnetlinkState, MalformedDatagramsAreReportedNotTrusted) {
  rtnl::NetworkState state([](const std::string&, int) { return false; });
  const Bytes good = link(RTM_NEWLINK, 2, "eth0", kUpWithCarrier);
  auto withLength = [](Bytes bytes, std::size_t offset, std::uint32_t length, std::size_t width) {
    std::memcpy(bytes.data() + offset, &length, width);
    return bytes;
  };
  const std::size_t firstAttribute = sizeof(nlmsghdr) + sizeof(ifinfomsg);
  const Bytes routeWithShortOif = [] {
    rtmsg header{};
    std::uint16_t shortIndex = 2;
    return NetlinkMessage(RTM_NEWROUTE, 0).fixed(header).attribute(RTA_OIF, &shortIndex, 2).bytes();
  }();
  const Bytes cases[] = {
      Bytes(good.begin(), good.begin() + 10),                        // shorter than a header
      Bytes(good.begin(), good.end() - 4),                           // shorter than its length says
      withLength(good, 0, 8, 4),                                     // a length below the header's
      withLength(good, firstAttribute, 2, 2),                        // an attribute below its header
      withLength(good, firstAttribute, 4000, 2),                     // an attribute past the end
      withLength(Bytes(good.begin(), good.begin() + 24), 0, 24, 4),  // no room for the link header
      link(RTM_NEWLINK, 0, "zero", kUpWithCarrier),                  // no such index
      routeWithShortOif,
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_TRUE(state.applyNotifications(cases[i]).malformed) << "case " << i;
  }
  EXPECT_TRUE(state.links().empty());

  // Unterminated and overlong names are read within their bounds.
  const std::string longName(300, 'n');
  ifinfomsg info{};
  info.ifi_index = 4;
  EXPECT_FALSE(state
                   .applyNotifications(NetlinkMessage(RTM_NEWLINK, 0)
                                           .fixed(info)
                                           .attribute(IFLA_IFNAME, longName.data(), longName.size())
                                           .bytes())
                   .malformed);
  EXPECT_EQ(state.links().at(4).name, std::string(64, 'n'));
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path) << text;
}

TEST(RtnetlinkState, DeviceFilesCountOnlyForTheLinkWithThatIndex) {
  kp::test::TempDir sys;
  const auto net = sys.path() / "class" / "net";
  writeFile(net / "wwan0" / "ifindex", "7\n");
  writeFile(net / "wwan0" / "uevent", "DEVTYPE=wwan\nINTERFACE=wwan0\n");
  writeFile(net / "usb0" / "ifindex", "8\n");
  writeFile(net / "usb0" / "uevent", "INTERFACE=usb0\n");
  writeFile(net / "mhi0" / "ifindex", "9\n");
  std::filesystem::create_directories(sys.path() / "class" / "wwan");
  std::filesystem::create_directories(sys.path() / "devices" / "modem");
  std::filesystem::create_directory_symlink(sys.path() / "class" / "wwan",
                                            sys.path() / "devices" / "modem" / "subsystem");
  std::filesystem::create_directory_symlink(sys.path() / "devices" / "modem", net / "mhi0" / "device");

  const auto probe = rtnl::sysfsCellularProbe(sys.path());
  EXPECT_TRUE(probe("wwan0", 7));
  EXPECT_FALSE(probe("wwan0", 3));  // another namespace's link of that name
  EXPECT_FALSE(probe("usb0", 8));
  EXPECT_TRUE(probe("mhi0", 9));
  EXPECT_FALSE(probe("gone", 5));
  EXPECT_FALSE(probe("../../..", 1));
  EXPECT_FALSE(probe("", 1));
}

}  // namespace
