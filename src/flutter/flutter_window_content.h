// The main window's content in a Flutter build: a Dart project with the command line's
// entry-point arguments, an FlView whose engine the host's engine attaches to, the view's
// background following the window's look, and the app's plug-ins registered through the view's
// plug-in registry (secondary windows' too, through desktop_multi_window's hook).
#pragma once

#include <string>
#include <vector>

#include "flutter/app_plugins.h"
#include "host/window_content.h"

typedef struct _FlDartProject FlDartProject;

namespace corvane::host {
class InfoDictionary;
}

namespace corvane::flutter {

class FlutterLinuxEngine;

// A Dart project for this executable (data/ and lib/ beside it, as the Flutter tool lays them
// out) with `arguments` for the Dart entry point. Caller owns the reference.
FlDartProject* MakeDartProject(const std::vector<std::string>& arguments);

class FlutterWindowContent : public host::WindowContent {
 public:
  // `engine` is the host's engine; it and `plugins` must outlive the window.
  FlutterWindowContent(FlutterLinuxEngine& engine, std::vector<std::string> dart_arguments,
                       const AppPluginList& plugins);
  ~FlutterWindowContent() override;

  GtkWidget* CreateView() override;
  void SetViewBackground(GtkWidget* view, bool dark) override;
  std::vector<host::AppPlugin> AppPlugins() const override;
  bool RegisterPlugin(host::PluginRegistry& registry, const std::string& package) override;

 private:
  static void OnWindowCreated(FlPluginRegistry* registry);

  FlutterLinuxEngine& engine_;
  std::vector<std::string> dart_arguments_;
  const AppPluginList& plugins_;
  // The main window's information, for the services of secondary windows.
  const host::InfoDictionary* info_ = nullptr;
};

}  // namespace corvane::flutter
