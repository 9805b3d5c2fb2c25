// kp::NetworkReachability: the host's reachability service for one address, as a flag word
// that says whether traffic to that address can leave the device and over which kind of link.
// It is the seam between kp::Reachability and the operating system: the Linux source reads the
// kernel's links and default routes over rtnetlink; a test or a port supplies its own.
//
// The flag bits keep the values of the phone platform's reachability flags, so that flag
// words read on any host mean the same:
//   reachable            a usable default route leads off the device
//   connectionRequired   a route exists, but its link must first finish connecting
//   isWWAN               the link is a cellular modem
// The Linux source sets only these three and documents why the others stay clear.
//
// Thread safety: every member of an implementation may be called from any thread; the
// callback runs on the dispatch queue given to setDispatchQueue(), one call at a time.
//
// Example:
//   auto source = kp::NetworkReachability::createWithAddress({});   // 0.0.0.0: the internet
//   if (source && source->setCallback([](kp::ReachabilityFlags f) { /* on `queue` */ }) &&
//       source->setDispatchQueue(queue)) { /* watching */ }
//   std::optional<kp::ReachabilityFlags> now = source->flags();
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "kp/platform/dispatch.h"
#include "kp/platform/export.h"

namespace kp {

// A flag word: the bits of ReachabilityFlag.
using ReachabilityFlags = std::uint32_t;

// The bits of a flag word (see the top of this file for those the Linux source sets).
struct KP_EXPORT ReachabilityFlag {
  static constexpr ReachabilityFlags transientConnection = 1u << 0;   // a link made for the moment
  static constexpr ReachabilityFlags reachable = 1u << 1;             // traffic can leave the device
  static constexpr ReachabilityFlags connectionRequired = 1u << 2;    // the link must connect first
  static constexpr ReachabilityFlags connectionOnTraffic = 1u << 3;   // it connects when traffic comes
  static constexpr ReachabilityFlags interventionRequired = 1u << 4;  // the user must step in first
  static constexpr ReachabilityFlags connectionOnDemand = 1u << 5;    // it connects when asked to
  static constexpr ReachabilityFlags isLocalAddress = 1u << 16;       // the address is the device's own
  static constexpr ReachabilityFlags isDirect = 1u << 17;             // no gateway lies between
  static constexpr ReachabilityFlags isWWAN = 1u << 18;               // the link is a cellular modem
};

// An IPv4 socket address; the all-zero address stands for the internet in general.
struct KP_EXPORT IPv4SocketAddress {
  std::uint16_t port = 0;                 // the port; any for the all-zero address
  std::array<std::uint8_t, 4> address{};  // the bytes as written: 127, 0, 0, 1
};

// The seam itself (see the top of this file).
class KP_EXPORT NetworkReachability {
 public:
  // Receives each new flag word.
  using Callback = std::function<void(ReachabilityFlags)>;

  virtual ~NetworkReachability() = default;

  // The host's source for `address`, or null when it cannot watch that address. The Linux
  // source answers for the all-zero address only (any port): the default routes.
  [[nodiscard]] static std::shared_ptr<NetworkReachability> createWithAddress(const IPv4SocketAddress& address);

  // Installs the callback that receives each new flag word (an empty one removes it). False
  // when the source refuses it.
  [[nodiscard]] virtual bool setCallback(Callback callback) = 0;
  // Starts watching and delivering on `queue`; null stops. False when the source refuses.
  [[nodiscard]] virtual bool setDispatchQueue(std::shared_ptr<DispatchQueue> queue) = 0;
  // The flag word now; nothing when it cannot be read.
  [[nodiscard]] virtual std::optional<ReachabilityFlags> flags() = 0;
};

}  // namespace kp
