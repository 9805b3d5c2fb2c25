// The journal's native protocol over its datagram socket: one datagram per entry, fields as
// "NAME=value\n", or "NAME\n" + 64-bit little-endian length + value + "\n" when the value
// holds a line feed. An entry too large for one datagram travels as a sealed memory file
// whose descriptor is passed on the socket, as the journal expects.
//
// The socket is connected, so that sends wait for room in a full journal (up to the socket's
// send timeout, then EAGAIN), and a journal that went away shows as a refused send, after
// which we connect again.
// Senders share the descriptor under a shared lock; reconnecting takes it exclusively, so a
// descriptor is never closed under a sender.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>

#include "kp/platform/system_log.h"
#include "platform/no_destructor.h"
#include "platform/system_log_internal.h"
#include "platform/utf8.h"

namespace kp {
namespace {

constexpr const char* kSystemJournalSocket = "/run/systemd/journal/socket";
// How long an entry waits for room in a full journal before it goes to the fallback.
constexpr auto kFullJournalWait = std::chrono::milliseconds(100);
// Larger messages are cut here: the journal refuses entries of many megabytes anyway.
constexpr std::size_t kMaxMessageBytes = 8u << 20;
constexpr int kSendBufferBytes = 8 << 20;

int priority(OSLogType type) {
  switch (type) {
    case OSLogType::debug:
      return 7;
    case OSLogType::info:
      return 6;
    case OSLogType::default_:
      return 5;
    case OSLogType::error:
      return 3;
    case OSLogType::fault:
      return 2;
  }
  return 5;
}

void appendField(std::string& out, std::string_view name, std::string_view value) {
  std::string clean;
  if (!internal::isPrintableUtf8(value)) {
    internal::appendPrintableUtf8(clean, value);
    value = clean;
  }
  out.append(name);
  if (value.find('\n') == std::string_view::npos) {
    out.push_back('=');
    out.append(value);
  } else {
    out.push_back('\n');
    auto length = static_cast<std::uint64_t>(value.size());
    for (int i = 0; i < 8; ++i, length >>= 8) out.push_back(static_cast<char>(length & 0xFF));
    out.append(value);
  }
  out.push_back('\n');
}

std::string entryPayload(const SystemLog::Entry& entry) {
  std::string_view message = entry.message;
  std::string cut;
  if (message.size() > kMaxMessageBytes) {
    cut.assign(message.substr(0, kMaxMessageBytes));
    cut.append("\xE2\x80\xA6");  // …
    message = cut;
  }
  std::string payload;
  payload.reserve(message.size() + entry.subsystem.size() + entry.category.size() + entry.where.file.size() +
                  entry.where.function.size() + 96);
  appendField(payload, "MESSAGE", message);
  appendField(payload, "PRIORITY", std::to_string(priority(entry.type)));
  appendField(payload, "SUBSYSTEM", entry.subsystem);
  appendField(payload, "CATEGORY", entry.category);
  if (!entry.where.file.empty()) {
    appendField(payload, "CODE_FILE", entry.where.file);
    appendField(payload, "CODE_LINE", std::to_string(entry.where.line));
  }
  if (!entry.where.function.empty()) appendField(payload, "CODE_FUNC", entry.where.function);
  return payload;
}

void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
}

class Journal final : public SystemLog {
 public:
  Journal(std::string socketPath, int fallbackDescriptor)
      : path_(socketPath.empty() ? kSystemJournalSocket : std::move(socketPath)), fallback_(fallbackDescriptor) {}
  ~Journal() override {
    if (fd_ >= 0) ::close(fd_);
  }
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  bool write(const Entry& entry) noexcept override {
    try {
      if (sendToJournal(entryPayload(entry))) return true;
      writeFallback(entry);
    } catch (...) {
      // Out of memory: the entry is lost, the caller goes on.
    }
    return false;
  }

 private:
  enum class Sent { ok, gone, full, tooBig, failed };

  bool sendToJournal(const std::string& payload) {
    for (int attempt = 0; attempt < 2; ++attempt) {
      std::uint64_t generation = 0;
      {
        std::shared_lock lock(mutex_);
        generation = generation_;
        if (fd_ >= 0) {
          Sent sent = send(fd_, payload, -1);
          if (sent == Sent::tooBig) sent = sendAsMemoryFile(fd_, payload);
          if (sent == Sent::ok) return true;
          if (sent != Sent::gone) return false;
        }
      }
      if (!reconnect(generation)) return false;
    }
    return false;
  }

  // Connects again unless another thread already did since `seenGeneration`.
  bool reconnect(std::uint64_t seenGeneration) {
    std::unique_lock lock(mutex_);
    if (generation_ != seenGeneration) return fd_ >= 0;
    if (fd_ >= 0) ::close(fd_);
    fd_ = connectSocket();
    ++generation_;
    return fd_ >= 0;
  }

  int connectSocket() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof(address.sun_path)) return -1;
    std::memcpy(address.sun_path, path_.data(), path_.size());
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    // A large send buffer lets many entries be in flight, so that journald takes them in
    // batches, and lets large entries go in one datagram. The kernel caps SO_SNDBUF at its own
    // limit; a privileged process may go beyond it.
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
    int granted = 0;
    socklen_t length = sizeof granted;
    if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &granted, &length) == 0 && granted < kSendBufferBytes) {
      ::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &kSendBufferBytes, sizeof kSendBufferBytes);
    }
    const auto waitMicros = std::chrono::duration_cast<std::chrono::microseconds>(kFullJournalWait).count();
    const timeval wait{static_cast<time_t>(waitMicros / 1000000), static_cast<suseconds_t>(waitMicros % 1000000)};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      ::close(fd);
      return -1;
    }
    return fd;
  }

  // Sends the payload, or with `passedFd` >= 0 an empty datagram carrying that descriptor.
  Sent send(int fd, std::string_view payload, int passedFd) {
    iovec part{const_cast<char*>(payload.data()), payload.size()};
    msghdr message{};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (passedFd >= 0) {
      message.msg_control = control;
      message.msg_controllen = sizeof control;
      cmsghdr* header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(sizeof(int));
      std::memcpy(CMSG_DATA(header), &passedFd, sizeof(int));
    } else {
      message.msg_iov = &part;
      message.msg_iovlen = 1;
    }
    // Blocking, so that the kernel wakes us as soon as the journal has room, but only for the
    // socket's send timeout; a journal that stalled once is not waited for again until it
    // takes an entry.
    const int flags = MSG_NOSIGNAL | (stalled_.load(std::memory_order_relaxed) ? MSG_DONTWAIT : 0);
    for (;;) {
      if (::sendmsg(fd, &message, flags) >= 0) {
        stalled_.store(false, std::memory_order_relaxed);
        return Sent::ok;
      }
      switch (errno) {
        case EINTR:
          continue;
        case EAGAIN:
          stalled_.store(true, std::memory_order_relaxed);
          return Sent::full;
        case EMSGSIZE:
        case ENOBUFS:
          return passedFd >= 0 ? Sent::failed : Sent::tooBig;
        case ECONNREFUSED:
        case ECONNRESET:
        case ENOTCONN:
        case EPIPE:
        case ENOENT:
          return Sent::gone;
        default:
          return Sent::failed;
      }
    }
  }

  Sent sendAsMemoryFile(int fd, std::string_view payload) {
    const int file = ::memfd_create("journal-entry", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (file < 0) return Sent::failed;
    Sent sent = Sent::failed;
    std::string_view rest = payload;
    while (!rest.empty()) {
      const ssize_t n = ::write(file, rest.data(), rest.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      rest.remove_prefix(static_cast<std::size_t>(n));
    }
    if (rest.empty() && ::fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) == 0) {
      sent = send(fd, {}, file);
    }
    ::close(file);
    return sent;
  }

  void writeFallback(const Entry& entry) const {
    std::string line;
    line.reserve(entry.message.size() + entry.subsystem.size() + entry.category.size() + 16);
    internal::appendPrintableUtf8(line, entry.subsystem);
    line.push_back('[');
    internal::appendPrintableUtf8(line, entry.category);
    line.append("] ");
    line.append(name(entry.type));
    line.append(": ");
    internal::appendPrintableUtf8(line, entry.message);
    line.push_back('\n');
    writeAll(fallback_, line);
  }

  const std::string path_;
  const int fallback_;
  std::shared_mutex mutex_;
  int fd_ = -1;                   // guarded by mutex_; changed only under the exclusive lock
  std::uint64_t generation_ = 0;  // guarded by mutex_; counts reconnections
  // Set when the journal stayed full for kFullJournalWait; cleared by the next sent entry.
  std::atomic<bool> stalled_{false};
};

}  // namespace

const std::shared_ptr<SystemLog>& SystemLog::shared() {
  static internal::NoDestructor<std::shared_ptr<SystemLog>> instance(
      std::make_shared<Journal>(std::string(), STDERR_FILENO));
  return *instance;
}

std::shared_ptr<SystemLog> SystemLog::make(std::string socketPath) {
  return std::make_shared<Journal>(std::move(socketPath), STDERR_FILENO);
}

std::shared_ptr<SystemLog> internal::makeSystemLog(std::string socketPath, int fallbackDescriptor) {
  return std::make_shared<Journal>(std::move(socketPath), fallbackDescriptor);
}

}  // namespace kp
