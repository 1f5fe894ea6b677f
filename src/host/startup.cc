#include "host/startup.h"

#include <gio/gio.h>
#include <glib-unix.h>
#include <signal.h>

#include <cstdio>

namespace corvane::host {

namespace {
constexpr const char* kLogDomain = "corvane-host";
}  // namespace

std::unique_ptr<engine::SocketEngine> StartSocketEngine(const std::string& path,
                                                        std::string* error) {
  engine::SocketEngineOptions options;
  options.path = path;
  auto engine = std::make_unique<engine::SocketEngine>(options);
  if (!engine->Start(error)) return nullptr;
  return engine;
}

namespace {
EngineStarter g_engine_starter = nullptr;
}  // namespace

void SetEngineStarter(EngineStarter starter) { g_engine_starter = starter; }

std::optional<StartedEngine> StartEngine(const HostOptions& options, std::string* error) {
  if (g_engine_starter) return g_engine_starter(options, error);
  auto engine = StartSocketEngine(options.engine_socket, error);
  if (!engine) return std::nullopt;
  std::string path = engine->path();
  return StartedEngine{std::move(engine), std::move(path)};
}

void AnnounceEngineSocket(const std::string& path) {
  if (path.empty()) return;
  gchar* quoted = g_shell_quote(path.c_str());
  std::printf("engine socket: %s\n", path.c_str());
  // A call every build answers, so the line works as printed.
  std::printf("try: corvanectl --socket %s call corvane/udp capabilities\n", quoted);
  // A script waiting for these lines reads through a pipe, which is block-buffered.
  std::fflush(stdout);
  g_free(quoted);
}

std::string ApplicationId(const InfoDictionary& info) {
  auto id = info.Get(kBundleIdentifierKey);
  if (id && g_application_id_is_valid(id->c_str())) return *id;
  if (id) {
    g_log(kLogDomain, G_LOG_LEVEL_WARNING,
          "BundleIdentifier %s is not a valid application id; "
          "using %s",
          id->c_str(), kDefaultApplicationId);
  }
  return kDefaultApplicationId;
}

SignalWatch WatchTerminationSignals(int (*quit)(void* data), void* data) {
  SignalWatch watch;
  watch.sigint = g_unix_signal_add(SIGINT, quit, data);
  watch.sigterm = g_unix_signal_add(SIGTERM, quit, data);
  return watch;
}

void RemoveSignalWatch(SignalWatch& watch) {
  if (watch.sigint) g_source_remove(watch.sigint);
  if (watch.sigterm) g_source_remove(watch.sigterm);
  watch = {};
}

}  // namespace corvane::host
