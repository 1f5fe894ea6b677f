// The SDL backend's pure parts: how pulses merge into motor steps, and the kernel's battery nodes,
// read from a sysfs tree the test builds.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "gamepad/power_supply.h"
#include "gamepad/rumble_schedule.h"

namespace corvane::gamepad {
namespace {

namespace fs = std::filesystem;

TEST(GamepadRumbleSchedule, PulsesStopBetweenAndMergeWithinTheMotorsResolution) {
  // 0 and 10 ms merge (stronger of each motor), 30 ms follows before the 40 ms pulse is over
  // (no stop between), 500 ms stands alone; input order does not matter.
  const HapticPattern pattern = {
      {0.5, 1.0f, 1.0f}, {0.0, 1.0f, 0.0f}, {0.010, 1.0f, 1.0f}, {0.030, 0.5f, 0.5f}};
  const std::vector<RumbleStep> expected = {
      {0, 0xFFFF, 0xFFFF}, {30, 0x8000, 0x8000}, {70, 0, 0}, {500, 0, 0xFFFF}, {540, 0, 0}};
  EXPECT_EQ(ScheduleRumble(pattern), expected);
}

void Write(const fs::path& p, const char* text) {
  if (text) std::ofstream(p) << text << "\n";
}

// The pad's HID device with its input and hidraw nodes and battery, another pad with its
// battery, and the laptop's own battery.
TEST(GamepadPowerSupply, FindsTheBatteryOfTheControllersOwnDeviceInEveryForm) {
  char tmpl[] = "/tmp/corvane-sysfs-XXXXXX";
  const fs::path root = mkdtemp(tmpl);
  const fs::path hid = root / "devices/pci0000:00/usb1/1-1/1-1:1.3/0005:054C:09CC.0003";
  const fs::path other = root / "devices/pci0000:00/usb1/1-2/0005:054C:0CE6.0004";
  for (auto [device, node] : {std::pair{hid, "input/input12/event7"},
                              {hid, "hidraw/hidraw2"},
                              {other, "input/input13/event8"}}) {
    const fs::path target = device / node, link = root / "class" / *fs::path(node).begin();
    fs::create_directories(target);
    fs::create_directories(link);
    fs::create_directory_symlink(target, link / target.filename());
  }
  auto supply = [&](const char* name, const fs::path& device, const char* scope,
                    const char* capacity, const char* status) {
    const fs::path dir = root / "class/power_supply" / name;
    fs::create_directories(dir);
    fs::create_directories(device);
    fs::create_directory_symlink(device, dir / "device");
    Write(dir / "scope", scope);
    Write(dir / "capacity", capacity);
    Write(dir / "status", status);
    return dir;
  };
  supply("BAT0", root / "devices/LNXSYSTM:00/PNP0C0A:00", "System", "57", "Discharging");
  supply("sony_controller_battery_other", other, "Device", "10", "Charging");
  const fs::path pad = supply("sony_controller_battery_pad", hid, "Device", "85", "Charging");
  auto read = [&](const std::string& node) {
    auto b = ReadPowerSupplyBattery(root.string(), node);
    return b ? std::to_string(b->level) + " " + std::to_string(static_cast<int>(b->state)) : "none";
  };
  EXPECT_EQ(
      (std::vector{read("/dev/input/event7"), read("/dev/hidraw2"), read("/dev/input/event8"),
                   read("/dev/input/event99"), read(""), read("/dev/input/..")}),
      (std::vector<std::string>{"0.850000 1", "0.850000 1", "0.100000 1", "none", "none", "none"}));
  EXPECT_FALSE(ReadPowerSupplyBattery((root / "missing").string(), "/dev/input/event7"));
  // Other forms of the pad's files (null: none), all of unknown (-1) state.
  for (auto [capacity, level, status, expected] :
       {std::tuple{"abc", (const char*)nullptr, "Not charging", "nan -1"},
        {nullptr, "Low", "Unknown", "0.200000 -1"},
        {nullptr, nullptr, nullptr, "nan -1"}}) {
    for (const char* file : {"capacity", "capacity_level", "status"}) fs::remove(pad / file);
    Write(pad / "capacity", capacity);
    Write(pad / "capacity_level", level);
    Write(pad / "status", status);
    EXPECT_EQ(read("/dev/input/event7"), expected);
  }
  fs::remove_all(pad);
  EXPECT_EQ(read("/dev/input/event7"), "none") << "the laptop's battery is not the pad's";
  fs::remove_all(root);
}

}  // namespace
}  // namespace corvane::gamepad
