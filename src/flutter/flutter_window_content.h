// The main window's content in a Flutter build: a Dart project with the command line's
// entry-point arguments, an FlView whose engine messenger the host's engine attaches to, the
// view's background following the window's look, and the standard plug-ins registered through
// the view's plug-in registry.
#pragma once

#include <string>
#include <vector>

#include "host/window_content.h"

typedef struct _FlDartProject FlDartProject;

namespace corvane::flutter {

class FlutterLinuxEngine;

// A Dart project for this executable (data/ and lib/ beside it, as the Flutter tool lays them
// out) with `arguments` for the Dart entry point. Caller owns the reference.
FlDartProject* MakeDartProject(const std::vector<std::string>& arguments);

class FlutterWindowContent : public host::WindowContent {
 public:
  // `engine` is the host's engine; it must outlive the window.
  FlutterWindowContent(FlutterLinuxEngine& engine, std::vector<std::string> dart_arguments);

  GtkWidget* CreateView() override;
  void SetViewBackground(GtkWidget* view, bool dark) override;
  bool RegisterStandardPlugin(GtkWidget* view, const std::string& registrar) override;

 private:
  FlutterLinuxEngine& engine_;
  std::vector<std::string> dart_arguments_;
};

}  // namespace corvane::flutter
