// Closing windows the way a window manager's close button does, for tests on a private X server.
#pragma once

#include <string>

namespace corvane::documents {

// Sends WM_DELETE_WINDOW to every mapped top-level window on `display_name`; how many it asked.
int CloseTopLevelWindows(const std::string& display_name);

}  // namespace corvane::documents
