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

// --- rumble steps -----------------------------------------------------------------------------

TEST(GamepadRumbleSchedule, PulsesStopBetweenAndMergeWithinTheMotorsResolution) {
  // 0 and 10 ms merge (stronger of each motor), 30 ms follows before the 40 ms pulse is over
  // (no stop between), 500 ms stands alone; input order does not matter.
  const HapticPattern pattern = {
      {0.5, 1.0f, 1.0f}, {0.0, 1.0f, 0.0f}, {0.010, 1.0f, 1.0f}, {0.030, 0.5f, 0.5f}};
  const std::vector<RumbleStep> expected = {
      {0, 0xFFFF, 0xFFFF}, {30, 0x8000, 0x8000}, {70, 0, 0}, {500, 0, 0xFFFF}, {540, 0, 0}};
  EXPECT_EQ(ScheduleRumble(pattern), expected);
}

// --- the kernel's power_supply nodes ----------------------------------------------------------

// A sysfs tree with a controller's HID device, its input and hidraw nodes, the controller's
// battery, the laptop's own battery and another pad's battery.
class GamepadPowerSupplyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/corvane-sysfs-XXXXXX";
    root_ = mkdtemp(tmpl);
    const fs::path hid = root_ / "devices/pci0000:00/usb1/1-1/1-1:1.3/0005:054C:09CC.0003";
    Dir(hid / "input/input12/event7");
    Dir(hid / "hidraw/hidraw2");
    Dir(root_ / "class/input");
    Dir(root_ / "class/hidraw");
    fs::create_directory_symlink(hid / "input/input12/event7", root_ / "class/input/event7");
    fs::create_directory_symlink(hid / "hidraw/hidraw2", root_ / "class/hidraw/hidraw2");
    const fs::path other = root_ / "devices/pci0000:00/usb1/1-2/0005:054C:0CE6.0004";
    Dir(other / "input/input13/event8");
    fs::create_directory_symlink(other / "input/input13/event8", root_ / "class/input/event8");

    Supply("BAT0", root_ / "devices/LNXSYSTM:00/PNP0C0A:00", "System", "57", "Discharging");
    Supply("sony_controller_battery_other", other, "Device", "10", "Charging");
    Supply("sony_controller_battery_pad", hid, "Device", "85", "Charging");
  }
  void TearDown() override { fs::remove_all(root_); }

  static void Dir(const fs::path& p) { fs::create_directories(p); }
  static void Write(const fs::path& p, const std::string& text) {
    std::ofstream(p) << text << "\n";
  }

  fs::path Supply(const std::string& name, const fs::path& device, const std::string& scope,
                  const std::string& capacity, const std::string& status) {
    const fs::path supply = root_ / "class/power_supply" / name;
    Dir(supply);
    Dir(device);
    fs::create_directory_symlink(device, supply / "device");
    if (!scope.empty()) Write(supply / "scope", scope);
    if (!capacity.empty()) Write(supply / "capacity", capacity);
    if (!status.empty()) Write(supply / "status", status);
    return supply;
  }

  std::optional<Battery> Read(const std::string& node) {
    return ReadPowerSupplyBattery(root_.string(), node);
  }

  fs::path root_;
};

TEST_F(GamepadPowerSupplyTest, FindsTheBatteryOfTheControllersOwnDeviceOnly) {
  for (const char* node : {"/dev/input/event7", "/dev/hidraw2"}) {
    SCOPED_TRACE(node);
    auto battery = Read(node);
    ASSERT_TRUE(battery);
    EXPECT_DOUBLE_EQ(battery->level, 0.85);
    EXPECT_EQ(battery->state, BatteryState::kCharging);
  }
  auto other = Read("/dev/input/event8");
  ASSERT_TRUE(other);
  EXPECT_DOUBLE_EQ(other->level, 0.10);
  // Nothing for unknown nodes, or when only the system has a battery.
  EXPECT_FALSE(Read("/dev/input/event99"));
  EXPECT_FALSE(Read(""));
  EXPECT_FALSE(Read("/dev/input/.."));
  fs::remove_all(root_ / "class/power_supply/sony_controller_battery_pad");
  EXPECT_FALSE(Read("/dev/input/event7")) << "the laptop's battery is not the pad's";
  EXPECT_FALSE(ReadPowerSupplyBattery((root_ / "missing").string(), "/dev/input/event7"));
}

TEST_F(GamepadPowerSupplyTest, StatusAndCapacityForms) {
  const fs::path supply = root_ / "class/power_supply/sony_controller_battery_pad";
  struct Case {
    const char* capacity;  // null: no file
    const char* level;     // capacity_level, null: no file
    const char* status;
    double expected_level;  // NaN: none
    BatteryState expected_state;
  };
  const double none = std::nan("");
  const Case cases[] = {
      {"abc", nullptr, "Not charging", none, BatteryState::kUnknown},
      {nullptr, "Low", "Unknown", 0.2, BatteryState::kUnknown},
      {nullptr, nullptr, nullptr, none, BatteryState::kUnknown},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message()
                 << (c.capacity ? c.capacity : "-") << " " << (c.level ? c.level : "-"));
    for (const char* file : {"capacity", "capacity_level", "status"}) fs::remove(supply / file);
    if (c.capacity) Write(supply / "capacity", c.capacity);
    if (c.level) Write(supply / "capacity_level", c.level);
    if (c.status) Write(supply / "status", c.status);
    auto battery = Read("/dev/input/event7");
    ASSERT_TRUE(battery);
    if (std::isnan(c.expected_level)) {
      EXPECT_TRUE(std::isnan(battery->level));
    } else {
      EXPECT_DOUBLE_EQ(battery->level, c.expected_level);
    }
    EXPECT_EQ(battery->state, c.expected_state);
  }
}

}  // namespace
}  // namespace corvane::gamepad
