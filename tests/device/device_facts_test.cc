// Device facts from fixture trees laid out as sysfs lays them out, os-release texts, EDID
// blocks built to the VESA format, and a hostnamed of the test's own on a private bus.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <thread>

#include "device/device_information_internal.h"
#include "device/private_bus.h"
#include "kp/device/device_information.h"
#include "kp/service/tarvix_web_service_parameters.h"
#include "platform/edid.h"
#include "platform/linux/device_facts_linux.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace kp {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// A base EDID block: the picture's size in centimetres, and a detailed timing with its size
// in millimetres (none when `timing` is false); the checksum makes the bytes add up to 0.
std::string edidBlock(int widthCm, int heightCm, int widthMm, int heightMm, bool timing = true) {
  std::array<std::uint8_t, 128> b{};
  const std::uint8_t header[] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
  std::copy(std::begin(header), std::end(header), b.begin());
  b[8] = 0x10;  // maker "DEL"
  b[9] = 0xAC;
  b[18] = 1;  // EDID 1.4
  b[19] = 4;
  b[20] = 0xA5;  // digital input
  b[21] = static_cast<std::uint8_t>(widthCm);
  b[22] = static_cast<std::uint8_t>(heightCm);
  if (timing) {
    b[54] = 0x3A;  // 148.5 MHz
    b[55] = 0x02;
    b[66] = static_cast<std::uint8_t>(widthMm & 0xFF);
    b[67] = static_cast<std::uint8_t>(heightMm & 0xFF);
    b[68] = static_cast<std::uint8_t>(((widthMm >> 8) << 4) | (heightMm >> 8));
  }
  unsigned sum = 0;
  for (int i = 0; i < 127; ++i) sum += b[i];
  b[127] = static_cast<std::uint8_t>((256 - sum % 256) % 256);
  return std::string(b.begin(), b.end());
}

std::optional<platform::PhysicalSize> sizeOf(const std::string& bytes) {
  return platform::readEdidPhysicalSize(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

void write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

void connector(const fs::path& sysfs, const std::string& name, const std::string& status, const std::string& edid) {
  write(sysfs / "class/drm" / name / "status", status + "\n");
  write(sysfs / "class/drm" / name / "edid", edid);
}

std::unique_ptr<DeviceInformation> informationFor(const fs::path& root, bool askHostnamed = false) {
  platform::LinuxDeviceFactsPaths paths;
  paths.sysfs = root / "sys";
  paths.osRelease = {root / "etc/os-release", root / "usr/lib/os-release"};
  paths.askHostnamed = askHostnamed;
  return device::makeDeviceInformation(platform::makeLinuxDeviceFactsSource(paths));
}

TEST(Edid, GivesThePictureSizeOnlyFromAWholeBlockThatStatesOne) {
  // A 15.6" panel: 344 x 194 mm in its timing, 34 x 19 cm in its basic parameters.
  auto panel = edidBlock(34, 19, 344, 194);
  ASSERT_TRUE(sizeOf(panel));
  EXPECT_EQ(sizeOf(panel)->widthMillimetres, 344);
  EXPECT_EQ(sizeOf(panel)->heightMillimetres, 194);
  // Extension blocks follow the base block.
  EXPECT_TRUE(sizeOf(panel + std::string(128, '\x02')));
  // A timing that holds an aspect ratio (16 x 9) instead of millimetres: the centimetres count.
  EXPECT_EQ(sizeOf(edidBlock(60, 34, 16, 9))->widthMillimetres, 600);
  EXPECT_EQ(sizeOf(edidBlock(60, 34, 0, 0, false))->heightMillimetres, 340);
  EXPECT_EQ(sizeOf(edidBlock(1, 1, 0, 0))->widthMillimetres, 10);  // no size in the timing
  // Sizes above 255 mm need the high nibbles.
  EXPECT_EQ(sizeOf(edidBlock(71, 40, 708, 398))->widthMillimetres, 708);

  EXPECT_FALSE(sizeOf(edidBlock(0, 0, 0, 0)));   // a projector
  EXPECT_FALSE(sizeOf(edidBlock(79, 0, 0, 0)));  // an aspect ratio, not a size
  auto damaged = panel;
  damaged[21] = 35;  // the checksum no longer holds
  EXPECT_FALSE(sizeOf(damaged));
  auto foreign = panel;
  foreign[0] = 0x01;
  EXPECT_FALSE(sizeOf(foreign));
  EXPECT_FALSE(sizeOf(panel.substr(0, 127)));
  EXPECT_FALSE(sizeOf({}));
}

TEST(DeviceFacts, ReadTheChassisDisplaysAndSystemFromSysfsAndOsRelease) {
  test::TempDir root;
  const auto sys = root.path() / "sys";
  write(sys / "class/dmi/id/chassis_type", "10\n");  // a notebook
  fs::create_directories(sys / "class/drm/card0");   // the card itself, not a connector
  connector(sys, "card0-eDP-1", "connected", edidBlock(34, 19, 344, 194));
  connector(sys, "card0-HDMI-A-1", "connected", edidBlock(60, 34, 597, 336));
  connector(sys, "card0-DP-1", "disconnected", edidBlock(120, 68, 1200, 680));
  connector(sys, "card1-HDMI-A-2", "connected", edidBlock(0, 0, 0, 0));  // a projector
  write(root.path() / "usr/lib/os-release",
        "# written by hand\nNAME=\"Debian GNU/Linux\"\nID=debian\nVERSION_ID='12'\n"
        "PRETTY_NAME=\"Debian \\\"bookworm\\\"\"\nBROKEN LINE\nBUILD_ID=\"unterminated\n");

  auto information = informationFor(root.path());
  auto facts = information->facts();
  EXPECT_EQ(facts->kind, DeviceKind::laptop);
  EXPECT_EQ(facts->chassisSource, "dmi");
  // The machine's own panel, not the larger monitor beside it.
  EXPECT_EQ(facts->screenConnector, "eDP-1");
  ASSERT_TRUE(facts->screenDiagonalInches);
  EXPECT_NEAR(*facts->screenDiagonalInches, 15.55, 0.01);
  // /etc/os-release is missing, so /usr/lib/os-release counts; the open quote is skipped.
  EXPECT_EQ(facts->operatingSystem.name, "Debian GNU/Linux");
  EXPECT_EQ(facts->operatingSystem.versionText, "12");
  EXPECT_EQ(facts->operatingSystem.build, facts->operatingSystem.kernelRelease);
  EXPECT_TRUE(information->isOperatingSystemAtLeast({11, 9, 0}));
  EXPECT_TRUE(information->isOperatingSystemAtLeast({12, 0, 0}));
  EXPECT_FALSE(information->isOperatingSystemAtLeast({12, 0, 1}));
  EXPECT_TRUE(information->isKernelAtLeast({2, 6, 0}));
  // Kept until refreshed.
  EXPECT_EQ(information->facts(), facts);

  // Without the panel the largest display counts; without any, there is no screen.
  fs::remove_all(sys / "class/drm/card0-eDP-1");
  write(sys / "class/dmi/id/chassis_type", "3\n");
  write(root.path() / "etc/os-release", "NAME=Ubuntu\nVERSION_ID=\"22.04\"\nBUILD_ID=20240101\n");
  information->refresh();
  facts = information->facts();
  EXPECT_EQ(facts->kind, DeviceKind::desktop);
  EXPECT_EQ(facts->screenConnector, "HDMI-A-1");
  EXPECT_NEAR(facts->screenDiagonalInches.value_or(0), 27.0, 0.1);
  EXPECT_EQ(facts->operatingSystem.version, (OperatingSystemVersion{22, 4, 0}));
  EXPECT_EQ(facts->operatingSystem.build, "20240101");

  fs::remove_all(sys / "class/drm");
  fs::remove_all(sys / "class/dmi");
  write(root.path() / "etc/os-release", std::string("\0\xff garbage", 10));
  information->refresh();
  facts = information->facts();
  EXPECT_EQ(facts->kind, DeviceKind::unknown);
  EXPECT_FALSE(facts->screenDiagonalInches);
  EXPECT_EQ(facts->operatingSystem.name, "unknown");
  EXPECT_EQ(facts->operatingSystem.versionText, "unknown");
  EXPECT_FALSE(information->isOperatingSystemAtLeast({0, 0, 0}));
}

TEST(DeviceFacts, VersionsAndChassisTypesAsTheSystemWritesThem) {
  EXPECT_EQ(OperatingSystemVersion::parse("6.1.0-18-amd64"), (OperatingSystemVersion{6, 1, 0}));
  EXPECT_EQ(OperatingSystemVersion::parse("12"), (OperatingSystemVersion{12, 0, 0}));
  EXPECT_FALSE(OperatingSystemVersion::parse("rolling"));
  EXPECT_FALSE(OperatingSystemVersion::parse("99999999999.1"));
  const auto rolling = OperatingSystem::fromOsRelease("NAME=Arch\nBUILD_ID=rolling\n", "6.8.1-arch1");
  EXPECT_EQ(rolling.versionText, "unknown");
  EXPECT_FALSE(rolling.version);
  EXPECT_EQ(rolling.build, "rolling");

  EXPECT_EQ(platform::chassisOfDmiType("9\n"), "laptop");
  EXPECT_EQ(platform::chassisOfDmiType("31\n"), "convertible");
  EXPECT_EQ(platform::chassisOfDmiType("17\n"), "server");
  EXPECT_EQ(platform::chassisOfDmiType("2\n"), "");  // "unknown" in the table
  EXPECT_EQ(platform::chassisOfDmiType("ten"), "");
  EXPECT_EQ(idiomOf(deviceKindOfChassis("handset")), UserInterfaceIdiom::phone);
  EXPECT_EQ(idiomOf(deviceKindOfChassis("tablet")), UserInterfaceIdiom::pad);
  EXPECT_EQ(idiomOf(deviceKindOfChassis("convertible")), UserInterfaceIdiom::unspecified);
  EXPECT_EQ(deviceKindName(deviceKindOfChassis("vm")), "vm");
  EXPECT_EQ(deviceKindName(deviceKindOfChassis("")), "desktop");
  EXPECT_EQ(deviceKindName(DeviceKind::tablet), "ipad");
}

TEST(DeviceFacts, HostnamedComesFirstAndItsChangesAreFollowed) {
  test::TempDir root;
  write(root.path() / "sys/class/dmi/id/chassis_type", "3\n");
  test::PrivateSystemBus bus;

  // No hostnamed on the bus: DMI, and no long wait.
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(informationFor(root.path(), true)->kind(), DeviceKind::desktop);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 900ms);

  auto hostnamed = bus.startMock("hostnamed_mock.py", "org.freedesktop.hostname1", R"({"Chassis": "tablet"})");
  auto information = informationFor(root.path(), true);
  EXPECT_EQ(information->facts()->chassisSource, "hostnamed");
  EXPECT_EQ(information->kind(), DeviceKind::tablet);

  ASSERT_GE(sd_bus_set_property(bus.bus(), "org.freedesktop.hostname1", "/org/freedesktop/hostname1",
                                "org.freedesktop.hostname1", "Chassis", nullptr, "s", "server"),
            0);
  (void)test::eventually([&] { return information->kind() == DeviceKind::server; }, 5s);
  EXPECT_EQ(information->kind(), DeviceKind::server);

  // A word hostnamed never uses is no answer.
  ASSERT_GE(sd_bus_set_property(bus.bus(), "org.freedesktop.hostname1", "/org/freedesktop/hostname1",
                                "org.freedesktop.hostname1", "Chassis", nullptr, "s", "spaceship"),
            0);
  information->refresh();
  EXPECT_EQ(information->facts()->chassisSource, "dmi");
}

TEST(DeviceFacts, TheServiceParametersAndKpcoreNameTheDeviceAndApplication) {
  if (test::inTestChild()) {
    EXPECT_EQ(TarvixWebServiceParameters().device, "iphone");
    auto info = ApplicationInfo::current();
    info.idiom = UserInterfaceIdiom::pad;
    ApplicationInfo::setCurrent(info);
    EXPECT_EQ(TarvixWebServiceParameters().device, "ipad");  // the host's idiom comes first
    return;
  }
  test::PrivateSystemBus bus;
  auto hostnamed = bus.startMock("hostnamed_mock.py", "org.freedesktop.hostname1", R"({"Chassis": "handset"})");
  const auto child = test::runThisTestInChild("DBUS_SYSTEM_BUS_ADDRESS=" + test::shellQuote(bus.address()));
  EXPECT_EQ(child.status, 0) << child.output;

  // The desktop entry the launcher names for this very process gives the identity.
  test::TempDir dir;
  const auto entry = dir.path() / "org.example.Weather.desktop";
  write(entry, "[Desktop Entry]\nType=Application\nName=Weather\\sNow\nExec=weather\n[Desktop Action New]\nName=x\n");
  const std::string launch = "DBUS_SYSTEM_BUS_ADDRESS=" + test::shellQuote(bus.address()) +
                             " GIO_LAUNCHED_DESKTOP_FILE=" + test::shellQuote(entry.string());
  auto info = test::runCommand(
      "sh -c " + test::shellQuote(launch + " GIO_LAUNCHED_DESKTOP_FILE_PID=$$ exec " + KPCORE_PATH + " info --json"));
  EXPECT_EQ(info.status, 0) << info.output;
  EXPECT_NE(info.output.find(R"("identifier":"org.example.Weather","name":"Weather Now","version":null)"),
            std::string::npos)
      << info.output;
  EXPECT_NE(info.output.find(R"("deviceKind":"handset","chassisSource":"hostnamed","serviceDevice":"iphone")"),
            std::string::npos)
      << info.output;
  // Inherited from a launched parent, the entry is not this process's.
  info = test::runCommand("env " + launch + " GIO_LAUNCHED_DESKTOP_FILE_PID=1 " + KPCORE_PATH + " info");
  EXPECT_NE(info.output.find("identifier: none\n"), std::string::npos) << info.output;
}

}  // namespace
}  // namespace kp
