// The Linux reachability source: the kernel's links and default routes over rtnetlink.
//
// Two sockets, both opened at creation (so both belong to the creating thread's network
// namespace): one asks for complete dumps, the other joins the link, address and route
// multicast groups while a dispatch queue is set. Nothing polls: the timer thread's event
// loop waits for notifications (FdWatch) and hands each burst to the dispatch queue, which
// reads all of it, reads the default routes anew when they may have changed, and calls back
// when the flag word differs from the one last delivered.
//
// When notifications overflow the socket (ENOBUFS), the ones still queued are older than
// those lost: they are dropped unread and the whole state is dumped afresh, so the last
// change is never missed. A malformed or truncated datagram is handled the same way.
//
// Thread safety: the state and both sockets are guarded by Core::mutex; callbacks run on the
// dispatch queue without it, one at a time.
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <utility>

#include "kp/platform/network_reachability.h"
#include "platform/fd_watch.h"
#include "platform/linux/rtnetlink_state.h"

namespace kp {
namespace {

using platform::rtnl::Bytes;

constexpr std::size_t kReceiveBufferSize = 64 * 1024;
// A dump reply that does not arrive within this time counts as a failed read.
constexpr std::chrono::milliseconds kDumpTimeout{2000};
// A dump that the kernel marks as interrupted by a change is tried this often.
constexpr int kDumpAttempts = 5;
// Datagrams read per turn of the queue; more make the watch fire again at once.
constexpr int kDatagramsPerTurn = 512;
// Datagrams dropped unread after an overflow before the state is dumped regardless.
constexpr int kMaxDatagramsDropped = 1 << 16;

constexpr unsigned kGroups[] = {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE,
                                RTNLGRP_IPV6_ROUTE};

class Socket {
 public:
  Socket() = default;
  explicit Socket(int fd) : fd_(fd) {}
  Socket(Socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Socket() {
    if (fd_ >= 0) ::close(fd_);
  }
  [[nodiscard]] int fd() const noexcept { return fd_; }

  static Socket openRoute() {
    Socket s(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    if (s.fd_ < 0) return s;
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    if (::bind(s.fd_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) return Socket();
    return s;
  }

  [[nodiscard]] std::uint32_t portId() const {
    sockaddr_nl local{};
    socklen_t length = sizeof local;
    if (::getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &length) != 0) return 0;
    return local.nl_pid;
  }

  // One datagram from the kernel. Returns its length, 0 for "nothing more now", -1 with errno
  // set on failure (EMSGSIZE when it was truncated). Datagrams from other senders are skipped.
  ssize_t receive(std::vector<std::uint8_t>& buffer) const {
    for (;;) {
      sockaddr_nl from{};
      iovec io{buffer.data(), buffer.size()};
      msghdr header{};
      header.msg_name = &from;
      header.msg_namelen = sizeof from;
      header.msg_iov = &io;
      header.msg_iovlen = 1;
      const ssize_t n = ::recvmsg(fd_, &header, MSG_DONTWAIT);
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
        return -1;
      }
      if (from.nl_pid != 0) continue;
      if ((header.msg_flags & MSG_TRUNC) != 0) {
        errno = EMSGSIZE;
        return -1;
      }
      if (n == 0) continue;
      return n;
    }
  }

 private:
  int fd_ = -1;
};

struct Core {
  std::mutex mutex;
  Socket requests;  // guarded by mutex
  Socket events;    // guarded by mutex
  std::uint32_t requestPort = 0;
  std::uint32_t sequence = 0;                      // guarded by mutex
  std::vector<std::uint8_t> buffer;                // guarded by mutex
  platform::rtnl::NetworkState state;              // guarded by mutex
  bool stateKnown = false;                         // guarded by mutex
  NetworkReachability::Callback callback;          // guarded by mutex
  std::shared_ptr<DispatchQueue> queue;            // guarded by mutex
  std::unique_ptr<platform::FdWatch> watch;        // guarded by mutex
  std::optional<ReachabilityFlags> lastDelivered;  // guarded by mutex

  // ---- dumps (REQUIRES: mutex held) ----

  bool sendDumpRequest(std::uint16_t type, std::uint32_t seq) {
    struct {
      nlmsghdr header;
      union {
        ifinfomsg link;
        rtmsg route;
      } body;
      rtattr maskHeader;
      std::uint32_t mask;
    } request{};
    std::size_t length = NLMSG_LENGTH(type == RTM_GETLINK ? sizeof(ifinfomsg) : sizeof(rtmsg));
    if (type == RTM_GETLINK) {
      request.body.link.ifi_family = AF_UNSPEC;
      // Counters make up most of a link message and are of no use here.
      request.maskHeader.rta_type = IFLA_EXT_MASK;
      request.maskHeader.rta_len = RTA_LENGTH(sizeof request.mask);
      request.mask = RTEXT_FILTER_SKIP_STATS;
      static_assert(offsetof(decltype(request), maskHeader) == NLMSG_LENGTH(sizeof(ifinfomsg)));
      length += RTA_LENGTH(sizeof request.mask);
    } else {
      request.body.route.rtm_family = AF_UNSPEC;
    }
    request.header.nlmsg_len = static_cast<std::uint32_t>(length);
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = seq;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    for (;;) {
      const ssize_t sent =
          ::sendto(requests.fd(), &request, length, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel);
      if (sent == static_cast<ssize_t>(length)) return true;
      if (sent < 0 && errno == EINTR) continue;
      return false;
    }
  }

  enum class DumpResult { complete, interrupted, failed };

  // One dump of `type`; `each` sees every reply message of it.
  DumpResult dumpOnce(std::uint16_t type, const std::function<void(const platform::rtnl::Message&)>& each) {
    const std::uint32_t seq = ++sequence;
    if (!sendDumpRequest(type, seq)) return DumpResult::failed;
    bool interrupted = false;
    const auto deadline = std::chrono::steady_clock::now() + kDumpTimeout;
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return DumpResult::failed;
      pollfd ready{requests.fd(), POLLIN, 0};
      const int polled = ::poll(&ready, 1, static_cast<int>(left.count()));
      if (polled < 0 && errno == EINTR) continue;
      if (polled <= 0) return DumpResult::failed;
      const ssize_t n = requests.receive(buffer);
      if (n < 0) return DumpResult::failed;
      if (n == 0) continue;
      bool done = false;
      bool failed = false;
      const bool whole =
          platform::rtnl::forEachMessage(Bytes(buffer.data(), static_cast<std::size_t>(n)), [&](const auto& message) {
            // Replies to an earlier dump that was given up are skipped.
            if (done || failed || message.seq != seq || message.portId != requestPort) return;
            if ((message.flags & NLM_F_DUMP_INTR) != 0) interrupted = true;
            if (message.type == NLMSG_DONE) {
              done = true;
            } else if (message.type == NLMSG_ERROR) {
              failed = true;
            } else {
              each(message);
            }
          });
      if (!whole || failed) return DumpResult::failed;
      if (done) return interrupted ? DumpResult::interrupted : DumpResult::complete;
    }
  }

  bool dumpLinks() {
    for (int attempt = 1;; ++attempt) {
      std::map<int, platform::rtnl::Link> links;
      bool malformed = false;
      const auto result = dumpOnce(RTM_GETLINK, [&](const platform::rtnl::Message& message) {
        if (message.type != RTM_NEWLINK) return;
        if (auto parsed = platform::rtnl::parseLink(message.payload)) {
          state.addDumpedLink(links, *parsed);
        } else {
          malformed = true;
        }
      });
      if (result == DumpResult::failed || malformed) return false;
      if (result == DumpResult::complete || attempt == kDumpAttempts) {
        state.replaceLinks(std::move(links));
        return true;
      }
    }
  }

  bool dumpRoutes() {
    for (int attempt = 1;; ++attempt) {
      std::vector<platform::rtnl::DefaultRoute> routes;
      bool malformed = false;
      const auto result = dumpOnce(RTM_GETROUTE, [&](const platform::rtnl::Message& message) {
        if (message.type != RTM_NEWROUTE) return;
        auto parsed = platform::rtnl::parseRoute(message.payload);
        if (!parsed) {
          malformed = true;
        } else if (parsed->isDefault && parsed->isUnicast && routes.size() < platform::rtnl::kMaxDefaultRoutes) {
          routes.push_back(std::move(parsed->route));
        }
      });
      if (result == DumpResult::failed || malformed) return false;
      if (result == DumpResult::complete || attempt == kDumpAttempts) {
        state.replaceDefaultRoutes(std::move(routes));
        return true;
      }
    }
  }

  bool dumpAll() {
    stateKnown = dumpLinks() && dumpRoutes();
    return stateKnown;
  }

  // ---- notifications (REQUIRES: mutex held) ----

  bool subscribed() const { return watch != nullptr; }

  bool setMembership(bool join) {
    const int option = join ? NETLINK_ADD_MEMBERSHIP : NETLINK_DROP_MEMBERSHIP;
    for (unsigned group : kGroups) {
      if (::setsockopt(events.fd(), SOL_NETLINK, option, &group, sizeof group) != 0 && join) return false;
    }
    return true;
  }

  // Drops whatever is queued on the notification socket.
  void dropQueuedNotifications() {
    for (int i = 0; i < kMaxDatagramsDropped; ++i) {
      const ssize_t n = events.receive(buffer);
      if (n == 0 || (n < 0 && errno != ENOBUFS && errno != EMSGSIZE)) return;
    }
  }

  // Reads the notifications that have arrived and brings the state up to date.
  void readNotifications() {
    bool readAll = !stateKnown;
    bool readRoutes = false;
    // After a failed dump everything is read again anyway; what is queued must go, or the
    // watch would fire at once again while dumps keep failing.
    if (readAll) dropQueuedNotifications();
    for (int i = 0; i < kDatagramsPerTurn && !readAll; ++i) {
      const ssize_t n = events.receive(buffer);
      if (n == 0) break;
      if (n < 0) {
        // ENOBUFS: some were lost, so those still queued are stale. Anything else (a
        // truncated datagram among them) is no better.
        dropQueuedNotifications();
        readAll = true;
        break;
      }
      const auto outcome = state.applyNotifications(Bytes(buffer.data(), static_cast<std::size_t>(n)));
      readAll = outcome.malformed;
      readRoutes = readRoutes || outcome.routesStale;
    }
    if (readAll) {
      dumpAll();
    } else if (readRoutes) {
      stateKnown = dumpRoutes();
    }
  }

  std::optional<ReachabilityFlags> currentFlags() const {
    if (!stateKnown) return std::nullopt;
    return state.flags();
  }

  // ---- delivery ----

  // On the dispatch queue: calls back when the flags differ from those last delivered.
  void deliver(std::unique_lock<std::mutex>& lock) {
    const auto now = currentFlags();
    if (!now || !subscribed() || now == lastDelivered) return;
    lastDelivered = now;
    auto call = callback;
    lock.unlock();
    if (call) call(*now);
  }

  void onReadable() {
    std::unique_lock lock(mutex);
    if (!subscribed()) return;
    readNotifications();
    deliver(lock);
  }

  void stop() {
    watch.reset();
    if (events.fd() >= 0) setMembership(false);
    queue.reset();
  }
};

class RtnetlinkReachability final : public NetworkReachability {
 public:
  explicit RtnetlinkReachability(std::shared_ptr<Core> core) : core_(std::move(core)) {}

  ~RtnetlinkReachability() override {
    std::lock_guard lock(core_->mutex);
    core_->stop();
    core_->callback = nullptr;
  }

  bool setCallback(Callback callback) override {
    std::lock_guard lock(core_->mutex);
    core_->callback = std::move(callback);
    return true;
  }

  bool setDispatchQueue(std::shared_ptr<DispatchQueue> queue) override {
    std::lock_guard lock(core_->mutex);
    Core& c = *core_;
    c.stop();
    if (!queue) return true;
    // Join first, then read: a change made in between is both in the dump and queued, and
    // applying it twice is harmless; the other order could miss it.
    c.dropQueuedNotifications();
    const int watched = ::fcntl(c.events.fd(), F_DUPFD_CLOEXEC, 0);
    if (!c.setMembership(true) || watched < 0) {
      if (watched >= 0) ::close(watched);
      c.setMembership(false);
      return false;
    }
    c.dumpAll();
    c.lastDelivered = c.currentFlags();
    c.watch = platform::FdWatch::watchReadable(watched, queue, [weak = std::weak_ptr<Core>(core_)] {
      if (auto core = weak.lock()) core->onReadable();
    });
    if (!c.watch) {
      c.setMembership(false);
      return false;
    }
    c.queue = std::move(queue);
    return true;
  }

  std::optional<ReachabilityFlags> flags() override {
    std::unique_lock lock(core_->mutex);
    Core& c = *core_;
    if (!c.subscribed()) {
      // Without notifications only a fresh dump is current.
      return c.dumpAll() ? c.currentFlags() : std::nullopt;
    }
    c.readNotifications();
    const auto now = c.currentFlags();
    if (now && now != c.lastDelivered) {
      // The change is delivered on the queue, in order with the others.
      c.queue->async([weak = std::weak_ptr<Core>(core_)] {
        if (auto core = weak.lock()) {
          std::unique_lock inner(core->mutex);
          core->deliver(inner);
        }
      });
    }
    return now;
  }

 private:
  std::shared_ptr<Core> core_;
};

}  // namespace

std::shared_ptr<NetworkReachability> NetworkReachability::createWithAddress(const IPv4SocketAddress& address) {
  // Only the default routes are watched: a specific address would need a route lookup per
  // change, which nothing here asks for.
  if (address.address != std::array<std::uint8_t, 4>{}) return nullptr;
  auto core = std::make_shared<Core>();
  core->requests = Socket::openRoute();
  core->events = Socket::openRoute();
  if (core->requests.fd() < 0 || core->events.fd() < 0) return nullptr;
  core->requestPort = core->requests.portId();
  core->buffer.resize(kReceiveBufferSize);
  return std::make_shared<RtnetlinkReachability>(std::move(core));
}

}  // namespace kp
