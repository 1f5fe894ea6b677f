// Names the random calls draw from, besides random ones: every channel's real method names and
// argument keys, so the calls reach past "not implemented" into each handler's validation.
// A service adds its own entry here when it arrives.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace corvane::robustness {

struct ChannelVocabulary {
  std::vector<std::string> methods;
  std::vector<std::string> keys;
};

inline const std::map<std::string, ChannelVocabulary>& KnownVocabulary() {
  // clang-format off
  static const std::map<std::string, ChannelVocabulary> vocabulary = {
      {"*", {{"listen", "cancel"}, {}}},  // every event channel answers these two
      {"corvane/bonjour", {{"start", "stop", "list"}, {"types"}}},
      {"corvane/udp", {{"capabilities", "open", "openListener", "send", "sendGuarded", "cancelSend", "close",
                        "interfaces", "triggerPermission"},
                       {"sessionId", "port", "host", "broadcast", "data", "requestId", "timeoutMs", "expiresAtMs"}}},
      {"io.corvane/open_projects", {{"takePending", "release", "activeProject", "releaseAll"}, {"path", "keepAccess"}}},
      {"io.corvane/gamepad", {{"controllers", "haptic"}, {"name", "pulses"}}},
      {"io.corvane/icloud", {{"status", "startWatching", "stopWatching", "deviceName", "download", "read", "write",
                              "delete", "move", "setUbiquitous", "versions", "saveVersion", "resolveConflicts"},
                             {"path", "to", "from", "timeoutMs", "toCloud", "version", "keep"}}},
      {"io.corvane/apple_usb_camera", {{"supported", "list", "open", "read", "close"},
                                       {"token", "deviceId", "timeoutMs", "maxFrameBytes"}}},
      {"io.corvane/legacy_swiftui", {{"probe", "readDefaults", "backupDefaults", "listFiles", "convertImage"}, {"path"}}},
      {"corvane/system_symbols", {{"render"}, {"symbol", "color", "size", "scale", "dark"}}},
      // The argument of "setMode" is the bare mode string.
      {"io.corvane/window_appearance", {{"setMode", "system", "light", "dark"}, {}}},
      {"io.corvane/context_menu", {{"show"}, {"x", "y", "items", "title", "children", "inline", "action", "symbol",
                                              "disabled", "checked", "destructive", "subtitle"}}},
  };
  // clang-format on
  return vocabulary;
}

}  // namespace corvane::robustness
