// A native plug-in of the test app: prints its package, whether its view was realized, and
// whether the host's first and last own channels answered on its messenger by then.
#include <csignal>
#include <cstdio>

#include "fake_flutter.h"

extern "C" void REGISTER(FlPluginRegistrar* registrar) {
  FlBinaryMessenger* m = fl_plugin_registrar_get_messenger(registrar);
  std::printf("%s %d%d%d\n", PACKAGE,
              gtk_widget_get_realized(GTK_WIDGET(fl_plugin_registrar_get_view(registrar))),
              fake_flutter::HasHandler(m, "io.corvane/open_projects"),
              fake_flutter::HasHandler(m, "corvane/bonjour"));
  std::fflush(stdout);
}

// desktop_multi_window's hook: once the app runs, it opens a window of its own, and the run ends.
extern "C" void desktop_multi_window_plugin_set_window_created_callback(
    void (*callback)(FlPluginRegistry*)) {
  static void (*created)(FlPluginRegistry*) = callback;
  g_idle_add_once(
      [](gpointer) {
        GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
        FlView* view = fl_view_new(nullptr);
        gtk_container_add(GTK_CONTAINER(window), GTK_WIDGET(view));
        gtk_widget_show_all(window);
        created(FL_PLUGIN_REGISTRY(view));
        raise(SIGTERM);
      },
      nullptr);
}
