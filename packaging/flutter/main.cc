// The runner of a Flutter Linux build: the host with the Flutter view as its window's content,
// flutter_linux's engine as its engine connection and the app's plug-ins as generated.
#include "flutter/app_plugins.h"
#include "flutter/flutter_main.h"

int main(int argc, char** argv) {
  return corvane::flutter::FlutterHostMain(argc, argv, corvane::flutter::GeneratedAppPlugins());
}
