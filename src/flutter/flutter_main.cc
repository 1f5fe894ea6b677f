#include "flutter/flutter_main.h"

#include <flutter_linux/flutter_linux.h>

#include <memory>
#include <string>
#include <vector>

#include "flutter/flutter_linux_engine.h"
#include "flutter/flutter_window_content.h"
#include "host/host_main.h"
#include "host/startup.h"

namespace corvane::flutter {

namespace {

// What the runner sets up before the host starts and takes down after it ends.
struct Runner {
  std::vector<std::string> dart_arguments;
  const AppPluginList* plugins = nullptr;
  std::unique_ptr<FlutterWindowContent> content;
};

// flutter_linux starts the Dart engine only when a view is realized (fl_engine_new_headless
// makes an engine that nothing starts), so without a display no Dart runs.
constexpr const char* kHeadlessRunsNoDart =
    "a Flutter build runs no Dart headless (flutter_linux starts Dart only in a window); start "
    "it with a display, or with --engine-socket PATH to serve socket clients only";

Runner& TheRunner() {
  static Runner runner;
  return runner;
}

std::optional<host::StartedEngine> StartEngines(const host::HostOptions& options,
                                                std::string* error) {
  Runner& runner = TheRunner();
  host::StartedEngine started;
  std::string socket_path = options.engine_socket;
  if (socket_path.empty()) {
    const char* variable = g_getenv(kEngineSocketVariable);
    if (variable) socket_path = variable;
  }
  if (options.headless && socket_path.empty()) {
    *error = kHeadlessRunsNoDart;
    return std::nullopt;
  }
  std::unique_ptr<engine::SocketEngine> socket;
  if (!socket_path.empty()) {
    socket = host::StartSocketEngine(socket_path, error);
    if (!socket) return std::nullopt;
    started.socket_path = socket->path();
  }
  if (options.headless) {
    started.engine = std::move(socket);
    return started;
  }
  auto engine = std::make_unique<FlutterLinuxEngine>();
  if (socket) engine->AddMirror(std::move(socket));
  // The view, and with it the engine, comes with the main window.
  runner.content =
      std::make_unique<FlutterWindowContent>(*engine, runner.dart_arguments, *runner.plugins);
  host::SetWindowContent(runner.content.get());
  started.engine = std::move(engine);
  return started;
}

}  // namespace

int FlutterHostMain(int argc, char** argv, const AppPluginList& plugins) {
  Runner& runner = TheRunner();
  runner.plugins = &plugins;
  // As Flutter's own runner does: Dart's entry point gets the command line after the program.
  for (int i = 1; i < argc; ++i) runner.dart_arguments.emplace_back(argv[i]);
  host::SetEngineStarter(&StartEngines);
  const int status = host::HostMain(argc, argv);
  host::SetWindowContent(nullptr);
  runner.content.reset();
  return status;
}

}  // namespace corvane::flutter
