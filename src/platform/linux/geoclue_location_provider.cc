// The location service on Linux: GeoClue2 on the system bus, through sd-bus, on the queues of
// the library (platform::BusConnection). One session is one connection: the manager hands it
// a client object, the client gets the application's desktop ID and accuracy level and is
// started, and each LocationUpdated signal names a location object whose properties are then
// read. The service's unique name is kept, so that its exit or replacement
// (NameOwnerChanged) ends the session instead of leaving it waiting for signals that will
// never come.
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>

#include "platform/linux/bus_connection.h"
#include "platform/location_provider.h"

namespace kp::platform {
namespace {

constexpr const char* kService = "org.freedesktop.GeoClue2";
constexpr const char* kManagerPath = "/org/freedesktop/GeoClue2/Manager";
constexpr const char* kManagerInterface = "org.freedesktop.GeoClue2.Manager";
constexpr const char* kClientInterface = "org.freedesktop.GeoClue2.Client";
constexpr const char* kLocationInterface = "org.freedesktop.GeoClue2.Location";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
// What a service says is quoted in errors; it is cut and made printable first.
constexpr std::size_t kQuotedLimit = 200;

unsigned geoClueLevel(LocationLevel level) {
  switch (level) {
    case LocationLevel::country:
      return 1;
    case LocationLevel::city:
      return 4;
    case LocationLevel::neighborhood:
      return 5;
    case LocationLevel::street:
      return 6;
    case LocationLevel::exact:
      break;
  }
  return 8;
}

std::string quoted(std::string_view text) {
  std::string out;
  for (char c : text.substr(0, kQuotedLimit)) out += (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) ? '?' : c;
  if (text.size() > kQuotedLimit) out += "...";
  return out;
}

// The failure a call's error reply stands for, with its name and text.
std::pair<LocationFailure, std::string> failureOf(const std::string& name, const std::string& message,
                                                  const char* call) {
  std::string detail = std::string(call) + ": " + quoted(name) + (message.empty() ? "" : ": " + quoted(message));
  auto is = [&name](const char* suffix) { return name == std::string("org.freedesktop.DBus.Error.") + suffix; };
  if (is("AccessDenied") || is("AuthFailed") || is("InteractiveAuthorizationRequired")) {
    return {LocationFailure::denied, detail};
  }
  if (is("ServiceUnknown") || is("NameHasNoOwner") || name.rfind("org.freedesktop.DBus.Error.Spawn.", 0) == 0) {
    return {LocationFailure::unavailable, detail};
  }
  if (is("Timeout") || is("TimedOut") || (is("NoReply") && message.find("timed out") != std::string::npos)) {
    return {LocationFailure::timedOut, detail};
  }
  if (is("NoReply") || is("Disconnected")) return {LocationFailure::vanished, detail};
  if (is("UnknownMethod") || is("UnknownObject") || is("UnknownInterface") || is("UnknownProperty") ||
      is("InvalidArgs") || is("InvalidSignature")) {
    return {LocationFailure::malformed, detail};
  }
  return {LocationFailure::unavailable, detail};
}

class GeoClueSession : public std::enable_shared_from_this<GeoClueSession> {
 public:
  GeoClueSession(std::shared_ptr<SerialQueue> queue, std::string applicationId, LocationLevel level,
                 LocationProvider::Events events, std::chrono::milliseconds timeout)
      : queue_(std::move(queue)),
        applicationId_(std::move(applicationId)),
        level_(level),
        events_(std::move(events)),
        timeout_(static_cast<std::uint64_t>(timeout.count()) * 1000u) {}

  std::atomic<bool> live{true};  // cleared by the provider's stop(), on any thread

  // On the queue.
  void begin() {
    std::string error;
    connection_ = BusConnection::openSystem(queue_, error);
    if (!connection_) return fail(LocationFailure::unavailable, error);
    auto weak = weak_from_this();
    connection_->setLostHandler([weak] {
      if (auto self = weak.lock()) self->fail(LocationFailure::vanished, "the system bus closed the connection");
    });
    connection_->addMatch(std::string("type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                                      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='") +
                              kService + "'",
                          [weak](sd_bus_message* m) {
                            if (auto self = weak.lock()) self->ownerChanged(m);
                          });
    call(kService, kManagerPath, kManagerInterface, "GetClient", {}, [weak](sd_bus_message* reply) {
      if (auto self = weak.lock()) self->gotClient(reply);
    });
    connection_->process();
  }

  // On the queue: stops the client and lets the connection go, which ends the client in the
  // service too should the Stop not get through.
  void end() {
    over_ = true;
    if (!connection_ || connection_->bus() == nullptr) return;
    if (!client_.empty()) {
      sd_bus_message* stop = nullptr;
      if (sd_bus_message_new_method_call(connection_->bus(), &stop, owner_.c_str(), client_.c_str(), kClientInterface,
                                         "Stop") >= 0) {
        sd_bus_message_set_expect_reply(stop, 0);
        (void)sd_bus_send(connection_->bus(), stop, nullptr);
        sd_bus_message_unref(stop);
      }
    }
    connection_->close();
  }

 private:
  void call(const char* destination, const std::string& path, const char* interface, const char* member,
            const std::function<int(sd_bus_message*)>& append, std::function<void(sd_bus_message*)> reply) {
    if (!connection_->callAsync(destination, path.c_str(), interface, member, timeout_, append, std::move(reply))) {
      fail(LocationFailure::unavailable, std::string(member) + ": the call could not be sent");
    }
  }

  // True, after ending the session, when `reply` is an error.
  bool failedCall(sd_bus_message* reply, const char* member) {
    std::string message;
    const std::string name = busErrorName(reply, &message);
    if (name.empty()) return false;
    const auto [failure, detail] = failureOf(name, message, member);
    fail(failure, detail);
    return true;
  }

  void gotClient(sd_bus_message* reply) {
    if (over_ || failedCall(reply, "GetClient")) return;
    const char* path = nullptr;
    const char* sender = sd_bus_message_get_sender(reply);
    if (sd_bus_message_read(reply, "o", &path) <= 0 || path == nullptr || sender == nullptr) {
      return fail(LocationFailure::malformed, "GetClient did not answer with an object path");
    }
    owner_ = sender;
    client_ = path;
    auto weak = weak_from_this();
    const std::string fromClient = "type='signal',sender='" + owner_ + "',path='" + client_ + "',";
    connection_->addMatch(fromClient + "interface='" + kClientInterface + "',member='LocationUpdated'",
                          [weak](sd_bus_message* m) {
                            if (auto self = weak.lock()) self->locationUpdated(m);
                          });
    connection_->addMatch(fromClient + "interface='" + kProperties + "',member='PropertiesChanged'",
                          [weak](sd_bus_message* m) {
                            if (auto self = weak.lock()) self->clientChanged(m);
                          });
    // Sent one after another: the service handles them in this order, and the first error ends
    // the session.
    setClientProperty("DesktopId", [this](sd_bus_message* m) {
      return sd_bus_message_append(m, "ssv", kClientInterface, "DesktopId", "s", applicationId_.c_str());
    });
    setClientProperty("RequestedAccuracyLevel", [this](sd_bus_message* m) {
      return sd_bus_message_append(m, "ssv", kClientInterface, "RequestedAccuracyLevel", "u", geoClueLevel(level_));
    });
    call(owner_.c_str(), client_, kClientInterface, "Start", {}, [weak](sd_bus_message* answer) {
      auto self = weak.lock();
      if (!self || self->over_ || self->failedCall(answer, "Start")) return;
      self->started_ = true;
      if (self->live.load() && self->events_.authorized) self->events_.authorized();
    });
  }

  void setClientProperty(const char* name, const std::function<int(sd_bus_message*)>& append) {
    call(owner_.c_str(), client_, kProperties, "Set", append, [weak = weak_from_this(), name](sd_bus_message* answer) {
      auto self = weak.lock();
      if (self && !self->over_) (void)self->failedCall(answer, name);
    });
  }

  void locationUpdated(sd_bus_message* signal) {
    if (over_) return;
    const char* previous = nullptr;
    const char* current = nullptr;
    if (sd_bus_message_read(signal, "oo", &previous, &current) <= 0 || current == nullptr) {
      return fail(LocationFailure::malformed, "LocationUpdated did not carry two object paths");
    }
    if (std::strcmp(current, "/") == 0) return;  // no location yet
    call(
        owner_.c_str(), current, kProperties, "GetAll",
        [](sd_bus_message* m) { return sd_bus_message_append(m, "s", kLocationInterface); },
        [weak = weak_from_this()](sd_bus_message* reply) {
          if (auto self = weak.lock()) self->gotLocation(reply);
        });
  }

  void gotLocation(sd_bus_message* reply) {
    if (over_ || failedCall(reply, "GetAll")) return;
    LocationFix fix;
    std::string wrong;
    if (!readFix(reply, fix, wrong)) return fail(LocationFailure::malformed, "the location " + wrong);
    if (live.load() && events_.location) events_.location(fix);
  }

  // Reads the Location properties; false with what was wrong when they are not as documented.
  static bool readFix(sd_bus_message* m, LocationFix& fix, std::string& wrong) {
    if (sd_bus_message_enter_container(m, 'a', "{sv}") <= 0) {
      wrong = "properties were not a dictionary of variants";
      return false;
    }
    bool latitude = false;
    bool longitude = false;
    bool accuracy = false;
    int r = 0;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
      const char* key = nullptr;
      if (sd_bus_message_read(m, "s", &key) <= 0) break;
      const std::string_view name(key);
      double* number = nullptr;
      std::optional<double>* optional = nullptr;
      double value = 0;
      if (name == "Latitude") number = &fix.latitude, latitude = true;
      if (name == "Longitude") number = &fix.longitude, longitude = true;
      if (name == "Accuracy") number = &fix.horizontalAccuracy, accuracy = true;
      if (name == "Altitude") optional = &fix.altitude;
      if (name == "Speed") optional = &fix.speed;
      if (name == "Heading") optional = &fix.heading;
      if (number != nullptr || optional != nullptr) {
        if (sd_bus_message_read(m, "v", "d", &value) <= 0) {
          wrong = std::string(name) + " was not a double";
          return false;
        }
        if (number != nullptr) *number = value;
        // The service writes the lowest double for an unknown altitude and -1 for an unknown
        // speed or heading.
        const bool known = name == "Altitude" ? value > std::numeric_limits<double>::lowest() : value >= 0;
        if (optional != nullptr && known) *optional = value;
      } else if (name == "Timestamp") {
        std::uint64_t seconds = 0;
        std::uint64_t microseconds = 0;
        if (sd_bus_message_read(m, "v", "(tt)", &seconds, &microseconds) <= 0) {
          wrong = "Timestamp was not a pair of unsigned integers";
          return false;
        }
        fix.timestamp = static_cast<double>(seconds) + static_cast<double>(microseconds) / 1e6;
      } else if (name == "Description") {
        const char* text = nullptr;
        if (sd_bus_message_read(m, "v", "s", &text) > 0 && text != nullptr)
          fix.description = quoted(text);
        else
          sd_bus_message_skip(m, "v");
      } else if (sd_bus_message_skip(m, "v") < 0) {
        break;
      }
      if (sd_bus_message_exit_container(m) < 0) break;
    }
    if (r < 0 || !latitude || !longitude || !accuracy) {
      wrong = "lacked its latitude, longitude or accuracy";
      return false;
    }
    return true;
  }

  void clientChanged(sd_bus_message* signal) {
    if (over_ || !started_) return;
    const char* interface = nullptr;
    if (sd_bus_message_read(signal, "s", &interface) <= 0 || sd_bus_message_enter_container(signal, 'a', "{sv}") <= 0) {
      return fail(LocationFailure::malformed, "PropertiesChanged of the client was not as documented");
    }
    while (sd_bus_message_enter_container(signal, 'e', "sv") > 0) {
      const char* key = nullptr;
      int active = 1;
      if (sd_bus_message_read(signal, "s", &key) <= 0) return;
      if (std::strcmp(key, "Active") == 0) {
        if (sd_bus_message_read(signal, "v", "b", &active) <= 0) {
          return fail(LocationFailure::malformed, "Active was not a boolean");
        }
        // The service (its agent, the user) stopped this application's client.
        if (active == 0) return fail(LocationFailure::denied, "the location service stopped the application's updates");
      } else if (sd_bus_message_skip(signal, "v") < 0) {
        return;
      }
      if (sd_bus_message_exit_container(signal) < 0) return;
    }
  }

  void ownerChanged(sd_bus_message* signal) {
    const char* name = nullptr;
    const char* previous = nullptr;
    const char* current = nullptr;
    if (over_ || sd_bus_message_read(signal, "sss", &name, &previous, &current) <= 0) return;
    if (owner_.empty() || owner_ != previous) return;
    fail(LocationFailure::vanished,
         current[0] == '\0' ? "the location service exited" : "the location service restarted");
  }

  void fail(LocationFailure failure, const std::string& detail) {
    if (over_) return;
    over_ = true;
    if (connection_) connection_->close();
    if (live.load() && events_.failed) events_.failed(failure, detail);
  }

  std::shared_ptr<SerialQueue> queue_;
  std::string applicationId_;
  LocationLevel level_;
  LocationProvider::Events events_;
  std::uint64_t timeout_;
  std::shared_ptr<BusConnection> connection_;
  std::string owner_;   // the service's unique name
  std::string client_;  // the client object's path
  bool started_ = false;
  bool over_ = false;
};

class GeoClueProvider final : public LocationProvider {
 public:
  explicit GeoClueProvider(std::chrono::milliseconds timeout)
      : queue_(SerialQueue::make("com.kp.location")), timeout_(timeout) {}
  ~GeoClueProvider() override { GeoClueProvider::stop(); }

  void start(std::string applicationId, LocationLevel level, Events events) override {
    stop();
    session_ = std::make_shared<GeoClueSession>(queue_, std::move(applicationId), level, std::move(events), timeout_);
    queue_->async([session = session_] { session->begin(); });
  }

  void stop() override {
    if (!session_) return;
    session_->live = false;
    queue_->async([session = std::move(session_)] { session->end(); });
  }

 private:
  std::shared_ptr<SerialQueue> queue_;
  std::chrono::milliseconds timeout_;
  std::shared_ptr<GeoClueSession> session_;
};

}  // namespace

std::unique_ptr<LocationProvider> LocationProvider::makeDefault(std::chrono::milliseconds timeout) {
  return std::make_unique<GeoClueProvider>(timeout);
}

}  // namespace kp::platform
