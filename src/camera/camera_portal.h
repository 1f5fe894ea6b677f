// Camera access inside a sandbox (Flatpak): the desktop portal asks the user once. Outside a
// sandbox, or where no portal answers, access is the device nodes' own rights.
#pragma once

#include <functional>

namespace corvane::camera {

// True inside a Flatpak sandbox.
bool InSandbox();

// Asks the portal on the session bus, from the main thread. `done` runs on the main thread
// with the user's answer; true when there is no portal to ask.
void RequestPortalCameraAccess(std::function<void(bool granted)> done);

}  // namespace corvane::camera
