// The system-bus connection on the library's queues: see bus_connection.h.
#include "platform/linux/bus_connection.h"

#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

namespace kp::platform {
namespace {

using Reply = std::function<void(sd_bus_message*)>;

int dispatch(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
  (*static_cast<Reply*>(userdata))(message);
  return 1;  // handled
}

void destroyReply(void* userdata) { delete static_cast<Reply*>(userdata); }

struct Match {
  Reply signal;
  Reply installed;
};

int dispatchSignal(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
  static_cast<Match*>(userdata)->signal(message);
  return 1;
}

int dispatchInstalled(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
  auto& match = *static_cast<Match*>(userdata);
  if (match.installed) match.installed(message);
  return 1;
}

void destroyMatch(void* userdata) { delete static_cast<Match*>(userdata); }

// Makes `slot` belong to the bus, and frees the callback with it (after the reply, or with the
// bus). The bus holds a floating slot; the caller's own reference goes.
void keepWithBus(sd_bus_slot* slot) {
  sd_bus_slot_set_destroy_callback(slot, destroyReply);
  sd_bus_slot_set_floating(slot, 1);
  sd_bus_slot_unref(slot);
}

std::uint64_t monotonicMicroseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000u + static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
}

}  // namespace

std::string busErrorName(sd_bus_message* reply, std::string* message) {
  const sd_bus_error* error = sd_bus_message_get_error(reply);
  if (error == nullptr || error->name == nullptr) return {};
  if (message != nullptr) *message = error->message != nullptr ? error->message : "";
  return error->name;
}

std::shared_ptr<BusConnection> BusConnection::openSystem(std::shared_ptr<SerialQueue> queue, std::string& error) {
  sd_bus* bus = nullptr;
  if (const int r = sd_bus_open_system(&bus); r < 0) {
    error = std::string("cannot connect to the system bus: ") + std::strerror(-r);
    return nullptr;
  }
  std::shared_ptr<BusConnection> connection(new BusConnection(std::move(queue), bus));
  connection->start();
  if (!connection->watch_) {
    error = "cannot watch the system bus";
    return nullptr;
  }
  return connection;
}

BusConnection::BusConnection(std::shared_ptr<SerialQueue> queue, sd_bus* bus) : queue_(std::move(queue)), bus_(bus) {}

BusConnection::~BusConnection() { finish(); }

void BusConnection::start() {
  const int fd = sd_bus_get_fd(bus_);
  if (fd < 0) return;
  watch_ = FdWatch::watchReadable(::fcntl(fd, F_DUPFD_CLOEXEC, 3), queue_, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->process();
  });
  // The handshake has been written, or waits for room; either way the queue carries it on.
  queue_->async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->process();
  });
}

void BusConnection::process() {
  if (bus_ == nullptr || processing_) return;
  processing_ = true;
  bool lost = false;
  while (!closing_) {
    const int r = sd_bus_process(bus_, nullptr);
    if (r < 0) {
      lost = true;
      break;
    }
    if (r == 0) break;
  }
  processing_ = false;
  if (!closing_ && (lost || sd_bus_is_open(bus_) <= 0)) {
    finish();
    if (lost_) {
      auto handler = std::move(lost_);
      handler();
    }
    return;
  }
  if (closing_) {
    finish();
    return;
  }
  if ((sd_bus_get_events(bus_) & POLLOUT) != 0) watch_->runWhenWritable();
  std::uint64_t deadline = 0;
  if (sd_bus_get_timeout(bus_, &deadline) >= 0 && deadline != UINT64_MAX) scheduleTimeout(deadline);
}

void BusConnection::scheduleTimeout(std::uint64_t deadline) {
  if (timerDeadline_ && *timerDeadline_ <= deadline) return;
  timerDeadline_ = deadline;
  const std::uint64_t now = monotonicMicroseconds();
  const auto delay = std::chrono::microseconds(deadline > now ? deadline - now : 0);
  queue_->asyncAfter(delay, [weak = weak_from_this(), deadline] {
    auto self = weak.lock();
    if (!self) return;
    if (self->timerDeadline_ == deadline) self->timerDeadline_.reset();
    self->process();
  });
}

void BusConnection::close() {
  closing_ = true;
  if (!processing_) finish();
}

void BusConnection::finish() {
  closing_ = true;
  watch_.reset();
  // A match holds the bus until the bus confirmed it; let go of the matches first, so that
  // the bus goes with its last reference, and with it the pending calls' callbacks.
  for (sd_bus_slot* match : matches_) sd_bus_slot_unref(match);
  matches_.clear();
  if (bus_ != nullptr) {
    sd_bus_close_unref(bus_);
    bus_ = nullptr;
  }
}

bool BusConnection::callAsync(const char* destination, const char* path, const char* interface, const char* member,
                              std::uint64_t timeoutMicroseconds, const std::function<int(sd_bus_message*)>& append,
                              std::function<void(sd_bus_message*)> reply) {
  if (bus_ == nullptr || closing_) return false;
  sd_bus_message* call = nullptr;
  if (sd_bus_message_new_method_call(bus_, &call, destination, path, interface, member) < 0) return false;
  bool sent = false;
  if (!append || append(call) >= 0) {
    auto* box = new Reply(std::move(reply));
    sd_bus_slot* slot = nullptr;
    if (sd_bus_call_async(bus_, &slot, call, dispatch, box, timeoutMicroseconds) >= 0) {
      keepWithBus(slot);
      sent = true;
    } else {
      delete box;
    }
  }
  sd_bus_message_unref(call);
  return sent;
}

bool BusConnection::addMatch(const std::string& rule, std::function<void(sd_bus_message*)> signal,
                             std::function<void(sd_bus_message*)> installed) {
  if (bus_ == nullptr || closing_) return false;
  auto* box = new Match{std::move(signal), std::move(installed)};
  sd_bus_slot* slot = nullptr;
  // Installed without waiting: the bus takes the rule before any call sent after it.
  if (sd_bus_add_match_async(bus_, &slot, rule.c_str(), dispatchSignal, dispatchInstalled, box) < 0) {
    delete box;
    return false;
  }
  sd_bus_slot_set_destroy_callback(slot, destroyMatch);
  matches_.push_back(slot);
  return true;
}

}  // namespace kp::platform
