#include "connectivity/rtnl_support.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kp::test {
namespace {

// From the kernel's interface header, which cannot be included beside <net/if.h>.
constexpr std::uint8_t kLinkModeDefault = 0;
constexpr std::uint8_t kLinkModeDormant = 1;
constexpr std::uint8_t kOperStateDormant = 5;
constexpr std::uint8_t kOperStateUp = 6;

std::size_t aligned(std::size_t n) { return (n + 3) & ~std::size_t{3}; }

bool writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  out.flush();
  return static_cast<bool>(out);
}

std::runtime_error failure(const std::string& what, int error) {
  return std::runtime_error(what + ": " + std::strerror(error));
}

}  // namespace

// ---- NetlinkMessage ----

NetlinkMessage::NetlinkMessage(std::uint16_t type, std::uint16_t flags, std::uint32_t seq) {
  nlmsghdr header{};
  header.nlmsg_type = type;
  header.nlmsg_flags = flags;
  header.nlmsg_seq = seq;
  append(&header, sizeof header);
}

void NetlinkMessage::append(const void* data, std::size_t size) {
  const auto* p = static_cast<const std::uint8_t*>(data);
  bytes_.insert(bytes_.end(), p, p + size);
  bytes_.resize(aligned(bytes_.size()), 0);
}

NetlinkMessage& NetlinkMessage::attribute(std::uint16_t type, const void* data, std::size_t size) {
  rtattr header{static_cast<unsigned short>(RTA_LENGTH(size)), type};
  const std::size_t start = bytes_.size();
  bytes_.insert(bytes_.end(), reinterpret_cast<const std::uint8_t*>(&header),
                reinterpret_cast<const std::uint8_t*>(&header) + sizeof header);
  bytes_.insert(bytes_.end(), static_cast<const std::uint8_t*>(data), static_cast<const std::uint8_t*>(data) + size);
  bytes_.resize(start + aligned(RTA_LENGTH(size)), 0);
  return *this;
}

std::size_t NetlinkMessage::begin(std::uint16_t type) {
  const std::size_t mark = bytes_.size();
  rtattr header{0, type};
  append(&header, sizeof header);
  return mark;
}

NetlinkMessage& NetlinkMessage::end(std::size_t mark) {
  const auto length = static_cast<unsigned short>(bytes_.size() - mark);
  std::memcpy(bytes_.data() + mark, &length, sizeof length);
  return *this;
}

std::vector<std::uint8_t> NetlinkMessage::bytes() const {
  auto out = bytes_;
  const auto length = static_cast<std::uint32_t>(out.size());
  std::memcpy(out.data(), &length, sizeof length);
  return out;
}

// ---- namespaces ----

std::string enterNewNetworkNamespace() {
  if (::unshare(CLONE_NEWNET) == 0) return {};
  const int direct = errno;
  // Without the right to make one, a user namespace of our own grants it; the kernel allows
  // that only while the process has a single thread.
  const uid_t uid = ::getuid();
  const gid_t gid = ::getgid();
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0) {
    if (writeFile("/proc/self/setgroups", "deny") &&
        writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") &&
        writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
      return {};
    }
    return "a user namespace was made, but its identity maps could not be written";
  }
  return std::string("this system refuses network namespaces (unshare: ") + std::strerror(direct) +
         "; inside a new user namespace: " + std::strerror(errno) + ")";
}

std::uint64_t droppedNotifications() {
  std::ifstream table("/proc/thread-self/net/netlink");
  std::string line;
  std::getline(table, line);  // column titles
  std::uint64_t dropped = 0;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string socket, groups;
    int protocol = -1;
    std::uint64_t pid = 0, rmem = 0, wmem = 0, dump = 0, locks = 0, drops = 0;
    fields >> socket >> protocol >> pid >> groups >> rmem >> wmem >> dump >> locks >> drops;
    if (fields && protocol == NETLINK_ROUTE && groups != "00000000") dropped += drops;
  }
  return dropped;
}

// ---- RtnlClient ----

RtnlClient::RtnlClient() : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
  if (fd_ < 0) throw failure("netlink socket", errno);
  timeval limit{5, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  if (::bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) throw failure("netlink bind", errno);
}

RtnlClient::~RtnlClient() { ::close(fd_); }

int RtnlClient::indexOf(const std::string& name) const {
  const unsigned index = ::if_nametoindex(name.c_str());
  if (index == 0) throw failure("no link " + name, errno);
  return static_cast<int>(index);
}

void RtnlClient::send(const NetlinkMessage& message) {
  const auto bytes = message.bytes();
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0) {
    throw failure("netlink send", errno);
  }
}

void RtnlClient::waitForAck(std::uint32_t seq) {
  std::vector<std::uint8_t> buffer(65536);
  for (;;) {
    const ssize_t n = ::recv(fd_, buffer.data(), buffer.size(), 0);
    if (n < 0) throw failure("netlink answer", errno);
    std::size_t offset = 0;
    while (offset + sizeof(nlmsghdr) <= static_cast<std::size_t>(n)) {
      nlmsghdr header{};
      std::memcpy(&header, buffer.data() + offset, sizeof header);
      if (header.nlmsg_len < sizeof header) break;
      if (header.nlmsg_type == NLMSG_ERROR) {
        nlmsgerr answer{};
        std::memcpy(&answer, buffer.data() + offset + sizeof header, sizeof answer);
        if (answer.error != 0) throw failure("netlink request " + std::to_string(header.nlmsg_seq), -answer.error);
        if (header.nlmsg_seq == seq) return;
      }
      offset += NLMSG_ALIGN(header.nlmsg_len);
    }
  }
}

void RtnlClient::request(NetlinkMessage message) {
  send(message);
  waitForAck(seq_);
}

void RtnlClient::addVethPair(const std::string& name, const std::string& peer) {
  NetlinkMessage m(RTM_NEWLINK, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL, ++seq_);
  m.fixed(ifinfomsg{}).string(IFLA_IFNAME, name);
  const auto info = m.begin(IFLA_LINKINFO);
  m.string(IFLA_INFO_KIND, "veth");
  const auto data = m.begin(IFLA_INFO_DATA);
  const auto peerInfo = m.begin(VETH_INFO_PEER);
  m.fixed(ifinfomsg{}).string(IFLA_IFNAME, peer);
  m.end(peerInfo).end(data).end(info);
  request(std::move(m));
}

void RtnlClient::deleteLink(const std::string& name) {
  ifinfomsg link{};
  link.ifi_index = indexOf(name);
  NetlinkMessage m(RTM_DELLINK, NLM_F_REQUEST | NLM_F_ACK, ++seq_);
  request(std::move(m.fixed(link)));
}

void RtnlClient::setUp(const std::string& name, bool up) {
  ifinfomsg link{};
  link.ifi_index = indexOf(name);
  link.ifi_flags = up ? IFF_UP : 0;
  link.ifi_change = IFF_UP;
  NetlinkMessage m(RTM_NEWLINK, NLM_F_REQUEST | NLM_F_ACK, ++seq_);
  request(std::move(m.fixed(link)));
}

void RtnlClient::setDormant(const std::string& name, bool dormant) {
  ifinfomsg link{};
  link.ifi_index = indexOf(name);
  NetlinkMessage m(RTM_NEWLINK, NLM_F_REQUEST | NLM_F_ACK, ++seq_);
  m.fixed(link)
      .u8(IFLA_LINKMODE, dormant ? kLinkModeDormant : kLinkModeDefault)
      .u8(IFLA_OPERSTATE, dormant ? kOperStateDormant : kOperStateUp);
  request(std::move(m));
}

void RtnlClient::addAddress(const std::string& name, const std::string& address, int prefixLength) {
  const bool ipv6 = address.find(':') != std::string::npos;
  ifaddrmsg header{};
  header.ifa_family = ipv6 ? AF_INET6 : AF_INET;
  header.ifa_prefixlen = static_cast<unsigned char>(prefixLength);
  header.ifa_flags = ipv6 ? IFA_F_NODAD : 0;
  header.ifa_index = static_cast<unsigned>(indexOf(name));
  std::uint8_t bytes[16] = {};
  if (::inet_pton(header.ifa_family, address.c_str(), bytes) != 1) throw std::runtime_error("bad address " + address);
  NetlinkMessage m(RTM_NEWADDR, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL, ++seq_);
  m.fixed(header).attribute(IFA_LOCAL, bytes, ipv6 ? 16 : 4).attribute(IFA_ADDRESS, bytes, ipv6 ? 16 : 4);
  request(std::move(m));
}

NetlinkMessage RtnlClient::routeMessage(std::uint16_t type, std::uint16_t flags, const std::string& device,
                                        std::uint32_t metric, bool ipv6, bool viaGateway, const std::uint8_t* host) {
  rtmsg header{};
  header.rtm_family = ipv6 ? AF_INET6 : AF_INET;
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_protocol = RTPROT_BOOT;
  header.rtm_scope = type == RTM_DELROUTE ? RT_SCOPE_NOWHERE : (ipv6 || viaGateway) ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
  header.rtm_type = RTN_UNICAST;
  header.rtm_dst_len = host != nullptr ? 32 : 0;
  NetlinkMessage m(type, flags, ++seq_);
  m.fixed(header).u32(RTA_OIF, static_cast<std::uint32_t>(indexOf(device))).u32(RTA_PRIORITY, metric);
  if (host != nullptr) m.attribute(RTA_DST, host, 4);
  return m;
}

void RtnlClient::addDefaultRoute(const std::string& device, std::uint32_t metric, bool ipv6,
                                 const std::optional<std::string>& gateway) {
  auto m = routeMessage(RTM_NEWROUTE, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL, device, metric, ipv6,
                        gateway.has_value());
  if (gateway) {
    std::uint8_t bytes[16] = {};
    if (::inet_pton(ipv6 ? AF_INET6 : AF_INET, gateway->c_str(), bytes) != 1) {
      throw std::runtime_error("bad gateway " + *gateway);
    }
    m.attribute(RTA_GATEWAY, bytes, ipv6 ? 16 : 4);
  }
  request(std::move(m));
}

void RtnlClient::deleteDefaultRoute(const std::string& device, std::uint32_t metric, bool ipv6) {
  request(routeMessage(RTM_DELROUTE, NLM_F_REQUEST | NLM_F_ACK, device, metric, ipv6, false));
}

void RtnlClient::floodHostRoutes(const std::string& device, int count) {
  for (int i = 1; i <= count; ++i) {
    const std::uint8_t host[4] = {10, 99, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)};
    for (const std::uint16_t type : {RTM_NEWROUTE, RTM_DELROUTE}) {
      const std::uint16_t flags = type == RTM_NEWROUTE ? NLM_F_CREATE | NLM_F_EXCL : (i == count ? NLM_F_ACK : 0);
      send(routeMessage(type, NLM_F_REQUEST | flags, device, 0, false, false, host));
    }
  }
  waitForAck(seq_);
}

}  // namespace kp::test
