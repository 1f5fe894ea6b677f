// The kernel's own battery reading for a controller: wireless pads whose driver knows the
// battery (hid-sony, hid-playstation, hid-nintendo, hid-input, xpadneo, ...) expose a node under
// /sys/class/power_supply whose device is the controller's HID device, with the exact capacity
// and charging status that SDL's coarse power levels lack.
#pragma once

#include <optional>
#include <string>

#include "gamepad/controller_backend.h"

namespace corvane::gamepad {

// The battery of the controller whose device node is `device_node` ("/dev/input/event7",
// "/dev/hidraw2"), looked up in the sysfs tree at `sysfs_root` ("/sys"). Only supplies with
// device scope count, so the computer's own battery is never mistaken for the controller's.
// The level is NaN when the supply gives neither capacity nor capacity level.
std::optional<Battery> ReadPowerSupplyBattery(const std::string& sysfs_root,
                                              const std::string& device_node);

}  // namespace corvane::gamepad
