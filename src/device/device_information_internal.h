// Device information over a source of the caller's choosing (tests: fixture trees and private
// buses).
#pragma once

#include <memory>
#include <vector>

#include "kp/device/device_information.h"
#include "platform/device_facts.h"

namespace kp::device {

[[nodiscard]] std::unique_ptr<DeviceInformation> makeDeviceInformation(
    std::shared_ptr<platform::DeviceFactsSource> source);

// The facts the device layer derives from what a source read.
[[nodiscard]] DeviceFacts deriveDeviceFacts(const platform::MachineFacts& machine);

}  // namespace kp::device
