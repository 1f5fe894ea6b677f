// The app's native plug-ins, as the Flutter tool lists them in linux/flutter/: the runner's build
// turns generated_plugin_registrant.cc into a definition of GeneratedAppPlugins(), so every
// plug-in the app links is known by name at build time and nothing is looked up at run time.
#pragma once

#include <vector>

typedef struct _FlPluginRegistrar FlPluginRegistrar;
typedef struct _FlPluginRegistry FlPluginRegistry;

namespace corvane::flutter {

struct LinkedPlugin {
  const char* package;    // "url_launcher_linux"
  const char* registrar;  // the name its registration asks for: "UrlLauncherPlugin"
  void (*register_with_registrar)(FlPluginRegistrar* registrar);
};

// desktop_multi_window's hook, called with the plug-in registry of every window it creates.
using WindowCreatedCallback = void (*)(FlPluginRegistry* registry);

struct AppPluginList {
  std::vector<LinkedPlugin> plugins;  // in the Flutter tool's order
  // desktop_multi_window_plugin_set_window_created_callback when the app links that plug-in.
  void (*set_window_created_callback)(WindowCreatedCallback callback) = nullptr;
};

// Defined by the file generated from the app's registrant.
const AppPluginList& GeneratedAppPlugins();

}  // namespace corvane::flutter
