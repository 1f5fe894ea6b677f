// Files the host carries inside its binary (GResource): the main window's UI definition and the
// default information dictionary.
#pragma once

namespace corvane::host {

inline constexpr const char* kMainWindowUiResource = "/io/corvane/host/main_window.ui";
inline constexpr const char* kDefaultInfoResource = "/io/corvane/host/Info.conf";

// Registers the host's resources with GIO. Safe to call any number of times, from any thread.
void EnsureHostResources();

}  // namespace corvane::host
