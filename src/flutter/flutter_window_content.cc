#include "flutter/flutter_window_content.h"

#include <flutter_linux/flutter_linux.h>

#include "channel/log.h"
#include "flutter/flutter_linux_engine.h"
#include "flutter/plugin_functions.h"

namespace corvane::flutter {

namespace {
constexpr const char* kLogDomain = "corvane-host";
}  // namespace

FlDartProject* MakeDartProject(const std::vector<std::string>& arguments) {
  FlDartProject* project = fl_dart_project_new();
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  // The project keeps its own copy.
  fl_dart_project_set_dart_entrypoint_arguments(project, argv.data());
  return project;
}

FlutterWindowContent::FlutterWindowContent(FlutterLinuxEngine& engine,
                                           std::vector<std::string> dart_arguments)
    : engine_(engine), dart_arguments_(std::move(dart_arguments)) {}

GtkWidget* FlutterWindowContent::CreateView() {
  FlDartProject* project = MakeDartProject(dart_arguments_);
  FlView* view = fl_view_new(project);
  g_object_unref(project);
  engine_.Attach(fl_engine_get_binary_messenger(fl_view_get_engine(view)));
  return GTK_WIDGET(view);
}

void FlutterWindowContent::SetViewBackground(GtkWidget* view, bool dark) {
  // The same colours as the window's, so nothing flashes before Flutter's first frame.
  const GdkRGBA color =
      dark ? GdkRGBA{0x0E / 255.0, 0x1A / 255.0, 0x31 / 255.0, 1.0} : GdkRGBA{1.0, 1.0, 1.0, 1.0};
  fl_view_set_background_color(FL_VIEW(view), &color);
}

bool FlutterWindowContent::RegisterStandardPlugin(GtkWidget* view, const std::string& registrar) {
  // Every plug-in of the table is asked for in order, as the generated registrant would.
  FlPluginRegistrar* plugin_registrar =
      fl_plugin_registry_get_registrar_for_plugin(FL_PLUGIN_REGISTRY(view), registrar.c_str());
  RegisterFunction register_plugin = FindRegisterFunction(registrar);
  if (register_plugin) {
    register_plugin(plugin_registrar);
    channel::Log(channel::LogLevel::kDebug, kLogDomain, "registered plug-in " + registrar);
  }
  if (plugin_registrar) g_object_unref(plugin_registrar);
  return register_plugin != nullptr;
}

}  // namespace corvane::flutter
