// What SDL knows about a controller, in the words players use.
#include "gamepad/controller_names.h"

#include <array>
#include <utility>

#include "gamepad/sdl_controller_backend.h"

namespace corvane::gamepad {

std::optional<std::string> VendorNameForUsbId(uint16_t vendor_id) {
  static constexpr std::array<std::pair<uint16_t, const char*>, 19> kVendors = {{
      {0x045E, "Microsoft"}, {0x054C, "Sony"},   {0x057E, "Nintendo"}, {0x2DC8, "8BitDo"},
      {0x046D, "Logitech"},  {0x20D6, "PowerA"}, {0x24C6, "PowerA"},   {0x0E6F, "PDP"},
      {0x0F0D, "Hori"},      {0x1532, "Razer"},  {0x0738, "Mad Catz"}, {0x18D1, "Google"},
      {0x1949, "Amazon"},    {0x0955, "NVIDIA"}, {0x28DE, "Valve"},    {0x1038, "SteelSeries"},
      {0x3537, "GameSir"},   {0x146B, "Nacon"},  {0x2E24, "Hyperkin"},
  }};
  for (const auto& [id, name] : kVendors) {
    if (id == vendor_id) return std::string(name);
  }
  return std::nullopt;
}

std::optional<Battery> BatteryFromPowerLevel(int sdl_power_level) {
  // SDL's levels are bands; each reads as the top of its band, so a full pad reads 1.0. A
  // level from SDL means the pad runs on its battery: on a cable SDL says "wired" instead.
  switch (sdl_power_level) {
    case SDL_JOYSTICK_POWER_EMPTY:
      return Battery{0.05, BatteryState::kDischarging};
    case SDL_JOYSTICK_POWER_LOW:
      return Battery{0.20, BatteryState::kDischarging};
    case SDL_JOYSTICK_POWER_MEDIUM:
      return Battery{0.70, BatteryState::kDischarging};
    case SDL_JOYSTICK_POWER_FULL:
      return Battery{1.0, BatteryState::kDischarging};
    default:
      return std::nullopt;
  }
}

// The product category for SDL's controller type; SDL's own name for types it cannot tell.
std::string ProductCategoryFor(SDL_GameControllerType type, const char* sdl_name) {
  switch (type) {
    case SDL_CONTROLLER_TYPE_XBOX360:
      return "Xbox 360";
    case SDL_CONTROLLER_TYPE_XBOXONE:
      return "Xbox One";
    case SDL_CONTROLLER_TYPE_PS3:
      return "DualShock 3";
    case SDL_CONTROLLER_TYPE_PS4:
      return "DualShock 4";
    case SDL_CONTROLLER_TYPE_PS5:
      return "DualSense";
    case SDL_CONTROLLER_TYPE_NINTENDO_SWITCH_PRO:
      return "Switch Pro Controller";
    case SDL_CONTROLLER_TYPE_NINTENDO_SWITCH_JOYCON_LEFT:
      return "Joy-Con (L)";
    case SDL_CONTROLLER_TYPE_NINTENDO_SWITCH_JOYCON_RIGHT:
      return "Joy-Con (R)";
    case SDL_CONTROLLER_TYPE_NINTENDO_SWITCH_JOYCON_PAIR:
      return "Joy-Con (L/R)";
    case SDL_CONTROLLER_TYPE_AMAZON_LUNA:
      return "Luna";
    case SDL_CONTROLLER_TYPE_GOOGLE_STADIA:
      return "Stadia";
    case SDL_CONTROLLER_TYPE_NVIDIA_SHIELD:
      return "SHIELD";
    default:
      return sdl_name && *sdl_name ? sdl_name : "Gamepad";
  }
}

}  // namespace corvane::gamepad
