// Device facts read once from the platform's sources and kept; hostnamed's change signals
// (through the source's watch) read them again.
#include "kp/device/device_information.h"

#include <atomic>
#include <cmath>
#include <mutex>

#include "device/device_information_internal.h"
#include "platform/mutex.h"
#include "platform/no_destructor.h"

namespace kp {

// The kept facts live in a state of their own, which the source's watch holds weakly: a change
// signal that comes while the information is destroyed finds nothing to refresh.
struct DeviceInformation::Impl {
  struct State {
    std::shared_ptr<platform::DeviceFactsSource> source;  // set before the state is shared
    Mutex readMutex;                                      // one read of the sources at a time
    // The snapshot is swapped under a lock of its own, held only to copy the pointer, so that
    // readers never wait for a read of the sources.
    mutable Mutex factsMutex;
    std::shared_ptr<const DeviceFacts> facts GUARDED_BY(factsMutex);
    std::atomic<bool> known{false};
    std::atomic<DeviceKind> kind{DeviceKind::unknown};

    std::shared_ptr<const DeviceFacts> current() const EXCLUDES(factsMutex) {
      MutexLock lock(factsMutex);
      return facts;
    }

    std::shared_ptr<const DeviceFacts> read() EXCLUDES(readMutex, factsMutex) {
      MutexLock lock(readMutex);
      auto fresh = std::make_shared<const DeviceFacts>(device::deriveDeviceFacts(source->read()));
      {
        MutexLock factsLock(factsMutex);
        facts = fresh;
        kind.store(fresh->kind, std::memory_order_relaxed);
      }
      known.store(true, std::memory_order_release);
      return fresh;
    }
  };

  std::shared_ptr<State> state = std::make_shared<State>();
  std::once_flag watchOnce;
  std::unique_ptr<platform::FactsWatch> watch;  // set once, under watchOnce

  std::shared_ptr<const DeviceFacts> load() {
    {
      MutexLock lock(state->readMutex);
      if (state->known.load(std::memory_order_acquire)) return state->current();
    }
    auto fresh = state->read();
    std::call_once(watchOnce, [this] {
      watch = state->source->watch([weak = std::weak_ptr<State>(state)] {
        if (auto live = weak.lock()) (void)live->read();
      });
    });
    return fresh;
  }
};

namespace device {

DeviceFacts deriveDeviceFacts(const platform::MachineFacts& machine) {
  DeviceFacts facts;
  facts.chassis = machine.chassis;
  facts.chassisSource = machine.chassisSource;
  facts.kind = deviceKindOfChassis(machine.chassis);
  facts.operatingSystem = OperatingSystem::fromOsRelease(machine.osRelease, machine.kernelRelease);
  const platform::DisplayPanel* chosen = nullptr;
  double chosenDiagonal = 0;
  for (const auto& display : machine.displays) {
    if (display.widthMillimetres <= 0 || display.heightMillimetres <= 0) continue;
    const double diagonal = std::hypot(display.widthMillimetres, display.heightMillimetres);
    // The machine's own panel is its screen; without one, the largest display is.
    const bool better = chosen == nullptr || (display.builtIn && !chosen->builtIn) ||
                        (display.builtIn == chosen->builtIn && diagonal > chosenDiagonal);
    if (better) {
      chosen = &display;
      chosenDiagonal = diagonal;
    }
  }
  if (chosen != nullptr) {
    facts.screenDiagonalInches = chosenDiagonal / 25.4;
    facts.screenConnector = chosen->connector;
  }
  return facts;
}

std::unique_ptr<DeviceInformation> makeDeviceInformation(std::shared_ptr<platform::DeviceFactsSource> source) {
  auto impl = std::make_unique<DeviceInformation::Impl>();
  impl->state->source = std::move(source);
  return std::make_unique<DeviceInformation>(std::move(impl));
}

}  // namespace device

DeviceInformation& DeviceInformation::shared() {
  static internal::NoDestructor<std::unique_ptr<DeviceInformation>> shared(
      device::makeDeviceInformation(platform::DeviceFactsSource::makeDefault()));
  return **shared;
}

DeviceInformation::DeviceInformation(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

DeviceInformation::~DeviceInformation() = default;

std::shared_ptr<const DeviceFacts> DeviceInformation::facts() const {
  if (impl_->state->known.load(std::memory_order_acquire)) return impl_->state->current();
  return impl_->load();
}

DeviceKind DeviceInformation::kind() const {
  if (impl_->state->known.load(std::memory_order_acquire)) return impl_->state->kind.load(std::memory_order_relaxed);
  return impl_->load()->kind;
}

UserInterfaceIdiom DeviceInformation::idiom() const {
  const auto hosts = ApplicationInfo::current().idiom;
  return hosts != UserInterfaceIdiom::unspecified ? hosts : idiomOf(kind());
}

bool DeviceInformation::isOperatingSystemAtLeast(const OperatingSystemVersion& version) const {
  const auto& known = facts()->operatingSystem.version;
  return known && *known >= version;
}

bool DeviceInformation::isKernelAtLeast(const OperatingSystemVersion& version) const {
  const auto& known = facts()->operatingSystem.kernelVersion;
  return known && *known >= version;
}

void DeviceInformation::refresh() { (void)impl_->state->read(); }

}  // namespace kp
