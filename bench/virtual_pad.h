// Attaching an SDL virtual game controller for the benchmark.
#pragma once

#include <SDL.h>

#include <cstdint>

namespace corvane::gamepad::testing {

using RumbleCallback = int(SDLCALL*)(void* userdata, Uint16 low, Uint16 high);

// Returns SDL's device index, or -1 (SDL_GetError says why). `name` must outlive the pad. A pad
// without `rumble` has no rumble motors.
inline int AttachVirtualPad(const char* name, uint16_t vendor, uint16_t product,
                            RumbleCallback rumble, void* userdata = nullptr,
                            SDL_JoystickType type = SDL_JOYSTICK_TYPE_GAMECONTROLLER) {
  SDL_VirtualJoystickDesc desc;
  SDL_zero(desc);
  desc.version = SDL_VIRTUAL_JOYSTICK_DESC_VERSION;
  desc.type = type;
  desc.naxes = SDL_CONTROLLER_AXIS_MAX;
  desc.nbuttons = SDL_CONTROLLER_BUTTON_MAX;
  desc.vendor_id = vendor;
  desc.product_id = product;
  desc.name = name;
  desc.userdata = userdata;
  desc.Rumble = rumble;
  return SDL_JoystickAttachVirtualEx(&desc);
}

}  // namespace corvane::gamepad::testing
