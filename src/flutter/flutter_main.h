// The main of a Flutter build's runner: the host, with flutter_linux's engine as the engine
// connection (and the engine socket beside it when asked for) and the Flutter view as the main
// window's content.
#pragma once

#include "flutter/app_plugins.h"

namespace corvane::flutter {

// Besides --engine-socket, this variable asks a Flutter build to serve the engine socket too.
inline constexpr const char* kEngineSocketVariable = "CORVANE_ENGINE_SOCKET";

// `plugins` are the app's, as generated from its registrant.
int FlutterHostMain(int argc, char** argv, const AppPluginList& plugins);

}  // namespace corvane::flutter
