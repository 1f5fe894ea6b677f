// Names for SDL's controller types (the vendor table and battery bands are declared with the
// backend, where tests reach them).
#pragma once

#include <SDL.h>

#include <string>

namespace corvane::gamepad {

std::string ProductCategoryFor(SDL_GameControllerType type, const char* sdl_name);

}  // namespace corvane::gamepad
