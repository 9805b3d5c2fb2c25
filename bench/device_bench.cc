// Device facts and location updates against what they are built from, measured in the same
// run: reading the kept device facts against copying a shared pointer (what a lock-free read
// of a shared snapshot costs at least), and the time from a location service's LocationUpdated
// signal to the delegate call on a drained main queue against a raw sd-bus client that waits
// for the same signal and reads the location's properties with one blocking call. The
// location service is the benchmark's own, on a private bus, in a thread of its own.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include "device/private_bus.h"
#include "kp/device/device_information.h"
#include "kp/device/location.h"
#include "kp/platform/dispatch.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kUpdates = 100;
constexpr const char* kClientPath = "/org/freedesktop/GeoClue2/Client/1";
constexpr const char* kLocationPath = "/org/freedesktop/GeoClue2/Location/1";
constexpr const char* kClientInterface = "org.freedesktop.GeoClue2.Client";

std::int64_t nowNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

void BM_Baseline_SharedPointerCopy(benchmark::State& state) {
  auto facts = std::make_shared<const kp::DeviceFacts>();
  for (auto _ : state) {
    auto copy = facts;
    benchmark::DoNotOptimize(copy->kind);
  }
}
BENCHMARK(BM_Baseline_SharedPointerCopy);

void BM_DeviceFactsAfterTheFirstRead(benchmark::State& state) {
  auto& device = kp::DeviceInformation::shared();
  (void)device.facts();  // the first read
  for (auto _ : state) benchmark::DoNotOptimize(device.facts()->kind);
}
BENCHMARK(BM_DeviceFactsAfterTheFirstRead);

void BM_DeviceKindAfterTheFirstRead(benchmark::State& state) {
  auto& device = kp::DeviceInformation::shared();
  (void)device.kind();
  for (auto _ : state) benchmark::DoNotOptimize(device.kind());
}
BENCHMARK(BM_DeviceKindAfterTheFirstRead);

// A location service that speaks the documented interfaces, serving one client and one
// location object from a thread of its own; move() makes it announce a new location.
class LocationService {
 public:
  explicit LocationService(const std::string& address) {
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::atomic<int> ready{0};
    thread_ = std::thread([this, address, &ready] { serve(address, ready); });
    while (ready.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (ready.load() < 0) throw std::runtime_error("the benchmark's location service did not start");
  }
  ~LocationService() {
    stop_ = true;
    move();
    thread_.join();
    ::close(wake_);
  }
  // Announces the next location; the time of the signal goes to signalledAt().
  void move() {
    const std::uint64_t one = 1;
    (void)!::write(wake_, &one, sizeof one);
  }
  [[nodiscard]] std::int64_t signalledAt() const { return signalledAt_.load(); }

 private:
  static int method(sd_bus_message* call, void* userdata, sd_bus_error*) {
    auto* self = static_cast<LocationService*>(userdata);
    const std::string_view member = sd_bus_message_get_member(call);
    if (member == "GetClient") return sd_bus_reply_method_return(call, "o", kClientPath);
    if (member == "Start") self->active_ = 1;
    if (member == "Stop") self->active_ = 0;
    return sd_bus_reply_method_return(call, "");
  }
  static int property(sd_bus*, const char*, const char*, const char* name, sd_bus_message* reply, void* userdata,
                      sd_bus_error*) {
    auto* self = static_cast<LocationService*>(userdata);
    const std::string_view property(name);
    if (property == "DesktopId") return sd_bus_message_append(reply, "s", self->desktopId_.c_str());
    if (property == "RequestedAccuracyLevel") return sd_bus_message_append(reply, "u", self->level_);
    if (property == "Active") return sd_bus_message_append(reply, "b", self->active_);
    if (property == "Timestamp")
      return sd_bus_message_append(reply, "(tt)", std::uint64_t{1700000000}, std::uint64_t{0});
    if (property == "Description") return sd_bus_message_append(reply, "s", "");
    double value = -1;
    if (property == "Latitude") value = 52.0 + self->moves_ * 1e-4;
    if (property == "Longitude") value = 4.9;
    if (property == "Accuracy") value = 10;
    return sd_bus_message_append(reply, "d", value);
  }
  static int setProperty(sd_bus*, const char*, const char*, const char* name, sd_bus_message* value, void* userdata,
                         sd_bus_error*) {
    auto* self = static_cast<LocationService*>(userdata);
    if (std::strcmp(name, "DesktopId") == 0) {
      const char* text = nullptr;
      const int r = sd_bus_message_read(value, "s", &text);
      if (r > 0) self->desktopId_ = text;
      return r;
    }
    return sd_bus_message_read(value, "u", &self->level_);
  }

  static constexpr sd_bus_vtable kManager[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("GetClient", "", "o", method, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END,
  };
  static constexpr sd_bus_vtable kClient[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_WRITABLE_PROPERTY("DesktopId", "s", property, setProperty, 0, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_WRITABLE_PROPERTY("RequestedAccuracyLevel", "u", property, setProperty, 0, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_PROPERTY("Active", "b", property, 0, 0),
      SD_BUS_METHOD("Start", "", "", method, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_METHOD("Stop", "", "", method, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_SIGNAL("LocationUpdated", "oo", 0),
      SD_BUS_VTABLE_END,
  };
  static constexpr sd_bus_vtable kLocation[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_PROPERTY("Latitude", "d", property, 0, 0),
      SD_BUS_PROPERTY("Longitude", "d", property, 0, 0),
      SD_BUS_PROPERTY("Accuracy", "d", property, 0, 0),
      SD_BUS_PROPERTY("Altitude", "d", property, 0, 0),
      SD_BUS_PROPERTY("Speed", "d", property, 0, 0),
      SD_BUS_PROPERTY("Heading", "d", property, 0, 0),
      SD_BUS_PROPERTY("Description", "s", property, 0, 0),
      SD_BUS_PROPERTY("Timestamp", "(tt)", property, 0, 0),
      SD_BUS_VTABLE_END,
  };

  void serve(const std::string& address, std::atomic<int>& ready) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_start(bus) < 0 ||
        sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/GeoClue2/Manager", "org.freedesktop.GeoClue2.Manager",
                                 kManager, this) < 0 ||
        sd_bus_add_object_vtable(bus, nullptr, kClientPath, kClientInterface, kClient, this) < 0 ||
        sd_bus_add_object_vtable(bus, nullptr, kLocationPath, "org.freedesktop.GeoClue2.Location", kLocation, this) <
            0 ||
        sd_bus_request_name(bus, "org.freedesktop.GeoClue2", 0) < 0) {
      ready = -1;
      if (bus != nullptr) sd_bus_close_unref(bus);
      return;
    }
    ready = 1;
    while (!stop_) {
      while (sd_bus_process(bus, nullptr) > 0) {
      }
      pollfd fds[2] = {{sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0}, {wake_, POLLIN, 0}};
      if (::poll(fds, 2, 1000) <= 0 || (fds[1].revents & POLLIN) == 0) continue;
      std::uint64_t count = 0;
      (void)!::read(wake_, &count, sizeof count);
      if (stop_) break;
      ++moves_;
      signalledAt_ = nowNanoseconds();
      sd_bus_emit_signal(bus, kClientPath, kClientInterface, "LocationUpdated", "oo", "/", kLocationPath);
    }
    sd_bus_flush_close_unref(bus);
  }

  int wake_ = -1;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<std::int64_t> signalledAt_{0};
  std::string desktopId_;
  std::uint32_t level_ = 0;
  int active_ = 0;
  int moves_ = 0;
};

void report(benchmark::State& state, std::vector<std::int64_t> latencies) {
  if (latencies.empty()) return;
  std::sort(latencies.begin(), latencies.end());
  state.counters["median_us"] = static_cast<double>(latencies[latencies.size() / 2]) / 1000.0;
  state.counters["worst_us"] = static_cast<double>(latencies.back()) / 1000.0;
}

class Waiter final : public kp::LocationControllerDelegate {
 public:
  explicit Waiter(LocationService& service) : service_(service) {}
  void locationControllerDidUpdateLocation(kp::LocationController&, const kp::Location&) override {
    latencies.push_back(nowNanoseconds() - service_.signalledAt());
    kp::MainQueue::shared()->stop();
  }
  void locationControllerDidFail(kp::LocationController&, const kp::ErrorPtr&) override {
    failed = true;
    kp::MainQueue::shared()->stop();
  }
  std::vector<std::int64_t> latencies;
  bool failed = false;

 private:
  LocationService& service_;
};

void BM_LocationUpdateToDelegate(benchmark::State& state) {
  kp::test::PrivateSystemBus bus;
  LocationService service(bus.address());
  auto controller = kp::LocationController::make();
  controller->setApplicationId("kp.bench");
  auto waiter = std::make_shared<Waiter>(service);
  controller->addDelegate(waiter);
  controller->startUpdatingLocation();
  // Started once the service holds an active client.
  kp::MainQueue::shared()->runFor(std::chrono::milliseconds(300));
  for (auto _ : state) {
    const auto before = waiter->latencies.size();
    service.move();
    kp::MainQueue::shared()->runFor(std::chrono::seconds(2));
    if (waiter->failed || waiter->latencies.size() != before + 1) {
      state.SkipWithError("an update did not reach the delegate");
      break;
    }
  }
  controller->stopUpdatingLocation();
  report(state, waiter->latencies);
}
BENCHMARK(BM_LocationUpdateToDelegate)->Iterations(kUpdates)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_Baseline_RawSignalAndProperties(benchmark::State& state) {
  kp::test::PrivateSystemBus bus;
  LocationService service(bus.address());
  sd_bus* client = bus.bus();
  int signalled = 0;
  sd_bus_slot* match = nullptr;
  sd_bus_match_signal(
      client, &match, "org.freedesktop.GeoClue2", kClientPath, kClientInterface, "LocationUpdated",
      [](sd_bus_message*, void* userdata, sd_bus_error*) {
        ++*static_cast<int*>(userdata);
        return 1;
      },
      &signalled);
  std::vector<std::int64_t> latencies;
  for (auto _ : state) {
    const int before = signalled;
    service.move();
    while (signalled == before) {
      if (sd_bus_process(client, nullptr) > 0) continue;
      sd_bus_wait(client, 2'000'000);
    }
    sd_bus_message* reply = nullptr;
    sd_bus_call_method(client, "org.freedesktop.GeoClue2", kLocationPath, "org.freedesktop.DBus.Properties", "GetAll",
                       nullptr, &reply, "s", "org.freedesktop.GeoClue2.Location");
    sd_bus_message_unref(reply);
    latencies.push_back(nowNanoseconds() - service.signalledAt());
  }
  sd_bus_slot_unref(match);
  report(state, latencies);
}
BENCHMARK(BM_Baseline_RawSignalAndProperties)->Iterations(kUpdates)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
