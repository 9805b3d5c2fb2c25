// What displays and the system hand the device facts: EDID blocks (read as they come, and
// again with a valid header and checksum so that the size fields are reached), and the
// os-release and desktop-entry texts. Nothing may crash, and a size read is one a block can
// state: whole centimetres up to 255, or millimetres within a centimetre of them.
#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <string_view>
#include <vector>

#include "kp/device/device_information.h"
#include "platform/edid.h"
#include "platform/linux/device_facts_linux.h"

namespace {

void check(std::span<const std::uint8_t> bytes) {
  const auto size = kp::platform::readEdidPhysicalSize(bytes);
  if (!size) return;
  if (size->widthMillimetres <= 0 || size->heightMillimetres <= 0 || size->widthMillimetres > 2560 ||
      size->heightMillimetres > 2560) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  check(std::span(data, size));
  if (size >= 128) {
    std::vector<std::uint8_t> block(data, data + size);
    const std::uint8_t header[] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
    std::copy(std::begin(header), std::end(header), block.begin());
    const unsigned sum = std::accumulate(block.begin(), block.begin() + 127, 0u);
    block[127] = static_cast<std::uint8_t>((256 - sum % 256) % 256);
    check(block);
  }
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto system = kp::OperatingSystem::fromOsRelease(text, text.substr(0, 64));
  if (system.name.empty() || system.versionText.empty()) std::abort();
  (void)kp::platform::parseDesktopEntry(text, "fuzz");
  (void)kp::platform::chassisOfDmiType(text);
  return 0;
}
