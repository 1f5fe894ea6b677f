// What fills the main window. A build without Flutter shows a stand-in that draws nothing, so
// the window's background shows; a Flutter build installs the Flutter view (src/flutter).
#pragma once

#include <string>
#include <vector>

typedef struct _GtkWidget GtkWidget;

namespace corvane::host {

class PluginRegistry;

// A native plug-in of the app: its Flutter package and the registrar name its registration asks
// for, as the Flutter tool generated them.
struct AppPlugin {
  std::string package;
  std::string registrar;
};

class WindowContent {
 public:
  virtual ~WindowContent() = default;
  // The view, made before the services are registered: its engine is the one they talk to.
  virtual GtkWidget* CreateView() = 0;
  // Views that paint a background of their own follow the window's look.
  virtual void SetViewBackground(GtkWidget* view, bool dark) = 0;
  // The app's native plug-ins, in the Flutter tool's order.
  virtual std::vector<AppPlugin> AppPlugins() const = 0;
  // Registers the app's plug-in from `package` on the engine of `registry`'s view; false when the
  // app has no native plug-in of that package or there is no view.
  virtual bool RegisterPlugin(PluginRegistry& registry, const std::string& package) = 0;
};

// Not owned; must outlive every window. Null (the default) means the stand-in.
void SetWindowContent(WindowContent* content);
WindowContent* window_content();

}  // namespace corvane::host
