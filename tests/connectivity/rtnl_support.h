// Test helpers for the netlink reachability source: rtnetlink messages built by hand, a
// network namespace of the test's own, and a client that changes links, addresses and
// routes in it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kp::test {

// One rtnetlink message, built field by field; bytes() gives it with its length set.
class NetlinkMessage {
 public:
  NetlinkMessage(std::uint16_t type, std::uint16_t flags, std::uint32_t seq = 0);
  template <class T>
  NetlinkMessage& fixed(const T& header) {
    append(&header, sizeof header);
    return *this;
  }
  NetlinkMessage& attribute(std::uint16_t type, const void* data, std::size_t size);
  NetlinkMessage& u32(std::uint16_t type, std::uint32_t value) { return attribute(type, &value, sizeof value); }
  NetlinkMessage& u8(std::uint16_t type, std::uint8_t value) { return attribute(type, &value, sizeof value); }
  NetlinkMessage& string(std::uint16_t type, const std::string& text) {
    return attribute(type, text.c_str(), text.size() + 1);
  }
  // Nested attributes: begin() returns a mark for end().
  std::size_t begin(std::uint16_t type);
  NetlinkMessage& end(std::size_t mark);
  [[nodiscard]] std::vector<std::uint8_t> bytes() const;

 private:
  void append(const void* data, std::size_t size);
  std::vector<std::uint8_t> bytes_;
};

// Moves the calling thread into a new network namespace (and, when that needs it, a new user
// namespace). Returns why not when the system refuses; empty on success. Threads started
// later by this thread, and sockets it opens, belong to the new namespace.
[[nodiscard]] std::string enterNewNetworkNamespace();

// Changes links, addresses and routes of the calling thread's namespace. Each call waits for
// the kernel's answer and throws std::runtime_error with its error.
class RtnlClient {
 public:
  RtnlClient();
  ~RtnlClient();
  RtnlClient(const RtnlClient&) = delete;
  RtnlClient& operator=(const RtnlClient&) = delete;

  void addVethPair(const std::string& name, const std::string& peer);
  void deleteLink(const std::string& name);
  void setUp(const std::string& name, bool up);
  // Holds the link's operational state at dormant (as a supplicant does) or releases it.
  void setDormant(const std::string& name, bool dormant);
  void addAddress(const std::string& name, const std::string& address, int prefixLength);
  // A default route over `device` (IPv6 when `ipv6`), through `gateway` when given.
  void addDefaultRoute(const std::string& device, std::uint32_t metric, bool ipv6 = false,
                       const std::optional<std::string>& gateway = std::nullopt);
  void deleteDefaultRoute(const std::string& device, std::uint32_t metric, bool ipv6 = false);
  // Adds and deletes `count` host routes over `device`, sending every request before reading
  // any answer, as fast as the kernel takes them.
  void floodHostRoutes(const std::string& device, int count);
  [[nodiscard]] int indexOf(const std::string& name) const;

 private:
  void send(const NetlinkMessage& message);
  void request(NetlinkMessage message);
  void waitForAck(std::uint32_t seq);
  NetlinkMessage routeMessage(std::uint16_t type, std::uint16_t flags, const std::string& device, std::uint32_t metric,
                              bool ipv6, bool viaGateway, const std::uint8_t* host = nullptr);
  int fd_ = -1;
  std::uint32_t seq_ = 0;
};

// Notifications the kernel dropped for the calling thread's namespace's sockets that listen
// to groups (its /proc netlink table): proof that a test overflowed one.
[[nodiscard]] std::uint64_t droppedNotifications();

}  // namespace kp::test
