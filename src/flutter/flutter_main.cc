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
  std::unique_ptr<FlutterWindowContent> content;
  FlEngine* headless_engine = nullptr;
};

Runner& TheRunner() {
  static Runner runner;
  return runner;
}

std::optional<host::StartedEngine> StartEngines(const host::HostOptions& options,
                                                std::string* error) {
  Runner& runner = TheRunner();
  auto engine = std::make_unique<FlutterLinuxEngine>();
  host::StartedEngine started;
  std::string socket_path = options.engine_socket;
  if (socket_path.empty()) {
    const char* variable = g_getenv(kEngineSocketVariable);
    if (variable) socket_path = variable;
  }
  if (!socket_path.empty()) {
    auto socket = host::StartSocketEngine(socket_path, error);
    if (!socket) return std::nullopt;
    started.socket_path = socket->path();
    engine->AddMirror(std::move(socket));
  }
  if (options.headless) {
    FlDartProject* project = MakeDartProject(runner.dart_arguments);
    runner.headless_engine = fl_engine_new_headless(project);
    g_object_unref(project);
    engine->Attach(fl_engine_get_binary_messenger(runner.headless_engine));
  } else {
    // The view, and with it the engine's messenger, comes with the main window.
    runner.content = std::make_unique<FlutterWindowContent>(*engine, runner.dart_arguments);
    host::SetWindowContent(runner.content.get());
  }
  started.engine = std::move(engine);
  return started;
}

}  // namespace

int FlutterHostMain(int argc, char** argv) {
  Runner& runner = TheRunner();
  // As Flutter's own runner does: Dart's entry point gets the command line after the program.
  for (int i = 1; i < argc; ++i) runner.dart_arguments.emplace_back(argv[i]);
  host::SetEngineStarter(&StartEngines);
  const int status = host::HostMain(argc, argv);
  host::SetWindowContent(nullptr);
  runner.content.reset();
  g_clear_object(&runner.headless_engine);
  return status;
}

}  // namespace corvane::flutter
