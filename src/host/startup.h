// Steps shared by the windowed and the headless start.
#pragma once

#include <memory>
#include <string>

#include "engine/socket_engine.h"
#include "host/info_dictionary.h"

namespace corvane::host {

inline constexpr const char* kDefaultApplicationId = "io.corvane.host";

// The engine socket, started at `path` (the default path when empty); nothing, with `error`
// set, when it cannot be served (another host answers there, no permission, ...).
std::unique_ptr<engine::SocketEngine> StartSocketEngine(const std::string& path,
                                                        std::string* error);

// Tells whoever started the host where its engine socket is, with a line to try.
void AnnounceEngineSocket(const std::string& path);

// The BundleIdentifier when it is a valid application id, else the default.
std::string ApplicationId(const InfoDictionary& info);

// Quits `loop`-like work on SIGINT and SIGTERM: calls `quit(data)` on the main context.
// Returns the two source ids to remove.
struct SignalWatch {
  unsigned int sigint = 0;
  unsigned int sigterm = 0;
};
SignalWatch WatchTerminationSignals(int (*quit)(void* data), void* data);
void RemoveSignalWatch(SignalWatch& watch);

}  // namespace corvane::host
