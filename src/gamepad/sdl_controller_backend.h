// The SDL backend's parts that tests reach on their own.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "gamepad/controller_backend.h"

namespace corvane::gamepad {

struct SdlBackendOptions {
  // Where the kernel's device tree is mounted; tests point it at a tree of their own.
  std::string sysfs_root = "/sys";
};

std::unique_ptr<ControllerBackend> MakeSdlControllerBackend(SdlBackendOptions options);

// A battery for one of SDL's power levels (SDL_JoystickPowerLevel). Nothing for unknown and
// wired: SDL says nothing about a battery then.
std::optional<Battery> BatteryFromPowerLevel(int sdl_power_level);

// The maker's name for a USB vendor id, where it is one players would recognise.
std::optional<std::string> VendorNameForUsbId(uint16_t vendor_id);

}  // namespace corvane::gamepad
