#include "flutter/flutter_window_content.h"

#include <flutter_linux/flutter_linux.h>

#include <algorithm>
#include <cstring>

#include "flutter/flutter_linux_engine.h"
#include "host/plugin_registry.h"
#include "host/registration.h"

namespace corvane::flutter {

namespace {

constexpr const char* kMultiWindowPackage = "desktop_multi_window";

// desktop_multi_window's callback takes no user data; one main window makes one content.
FlutterWindowContent* g_content = nullptr;

// A window made by desktop_multi_window: its own engine connection and registry, living as long
// as its view.
struct SecondaryWindow {
  SecondaryWindow(FlView* view, const host::InfoDictionary& info)
      : registry(engine, GTK_WIDGET(view), info) {
    engine.Attach(fl_view_get_engine(view));
  }
  FlutterLinuxEngine engine;
  host::PluginRegistry registry;
};

}  // namespace

// Flutter 3.24 and older have no fl_view_set_background_color; with their headers this
// overload is chosen and the view keeps its own background until the first frame. With newer
// headers the real function is the better match.
template <typename View>
void fl_view_set_background_color(View* /*view*/, const GdkRGBA* /*color*/) {}

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
                                           std::vector<std::string> dart_arguments,
                                           const AppPluginList& plugins)
    : engine_(engine), dart_arguments_(std::move(dart_arguments)), plugins_(plugins) {
  g_content = this;
}

FlutterWindowContent::~FlutterWindowContent() {
  if (g_content == this) g_content = nullptr;
}

GtkWidget* FlutterWindowContent::CreateView() {
  FlDartProject* project = MakeDartProject(dart_arguments_);
  FlView* view = fl_view_new(project);
  g_object_unref(project);
  engine_.Attach(fl_view_get_engine(view));
  return GTK_WIDGET(view);
}

void FlutterWindowContent::SetViewBackground(GtkWidget* view, bool dark) {
  // The same colours as the window's, so nothing flashes before Flutter's first frame.
  const GdkRGBA color =
      dark ? GdkRGBA{0x0E / 255.0, 0x1A / 255.0, 0x31 / 255.0, 1.0} : GdkRGBA{1.0, 1.0, 1.0, 1.0};
  fl_view_set_background_color(FL_VIEW(view), &color);
}

std::vector<host::AppPlugin> FlutterWindowContent::AppPlugins() const {
  std::vector<host::AppPlugin> plugins;
  for (const LinkedPlugin& p : plugins_.plugins) plugins.push_back({p.package, p.registrar});
  return plugins;
}

bool FlutterWindowContent::RegisterPlugin(host::PluginRegistry& registry,
                                          const std::string& package) {
  auto plugin = std::find_if(plugins_.plugins.begin(), plugins_.plugins.end(),
                             [&](const LinkedPlugin& p) { return package == p.package; });
  if (plugin == plugins_.plugins.end() || !registry.view()) return false;
  // As the generated registrant does; flutter_linux hands out a new registrar each time.
  FlPluginRegistrar* registrar = fl_plugin_registry_get_registrar_for_plugin(
      FL_PLUGIN_REGISTRY(registry.view()), plugin->registrar);
  plugin->register_with_registrar(registrar);
  g_object_unref(registrar);
  if (package == kMultiWindowPackage && plugins_.set_window_created_callback && !info_) {
    info_ = &registry.info();
    plugins_.set_window_created_callback(&OnWindowCreated);
  }
  return true;
}

void FlutterWindowContent::OnWindowCreated(FlPluginRegistry* registry) {
  host::WindowCreatedHook hook = host::window_created_hook();
  if (!g_content || !g_content->info_ || !hook || !FL_IS_VIEW(registry)) return;
  FlView* view = FL_VIEW(registry);
  auto* window = new SecondaryWindow(view, *g_content->info_);
  g_object_weak_ref(
      G_OBJECT(view), +[](gpointer data, GObject*) { delete static_cast<SecondaryWindow*>(data); },
      window);
  hook(window->registry);
}

}  // namespace corvane::flutter
