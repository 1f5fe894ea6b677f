// The camera service as the main window registers it: its channel, and the watch of the window
// and the application that suspends or ends its sessions.
#pragma once

#include <memory>

namespace corvane::host {

class Registrar;

std::shared_ptr<void> MakeAppleUsbCamera(Registrar& registrar);

}  // namespace corvane::host
