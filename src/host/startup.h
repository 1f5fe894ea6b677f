// Steps shared by the windowed and the headless start.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "engine/socket_engine.h"
#include "host/command_line.h"
#include "host/info_dictionary.h"

namespace corvane::host {

inline constexpr const char* kDefaultApplicationId = "io.corvane.host";

// The engine socket, started at `path` (the default path when empty); nothing, with `error`
// set, when it cannot be served (another host answers there, no permission, ...).
std::unique_ptr<engine::SocketEngine> StartSocketEngine(const std::string& path,
                                                        std::string* error);

// The engine connection a start makes, and the socket it serves (empty when none).
struct StartedEngine {
  std::unique_ptr<engine::Engine> engine;
  std::string socket_path;
};
// Makes the engine connection: the engine socket, unless a Flutter build installed its own
// starter. Nothing, with `error` set, when it cannot start.
using EngineStarter = std::optional<StartedEngine> (*)(const HostOptions& options,
                                                       std::string* error);
void SetEngineStarter(EngineStarter starter);
std::optional<StartedEngine> StartEngine(const HostOptions& options, std::string* error);

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
