#include "host/main_flutter_window.h"

#include <gtk/gtk.h>

#include <algorithm>

#include "host/host.h"
#include "host/registration.h"
#include "host/resources.h"
#include "host/window_background.h"
#include "host/window_content.h"

namespace corvane::host {

namespace {
constexpr const char* kDataKey = "corvane-main-flutter-window";
constexpr const char* kWindowId = "main_window";

// The defined size, made to fit the work area of the monitor the window opens on: at a scale
// of 2 a 1280x800 window is 2560x1600 device pixels, more than many screens have.
void FitWorkArea(GtkWindow* window, int* width, int* height) {
  GdkDisplay* display = gtk_widget_get_display(GTK_WIDGET(window));
  GdkMonitor* monitor = gdk_display_get_primary_monitor(display);
  if (!monitor && gdk_display_get_n_monitors(display) > 0) {
    monitor = gdk_display_get_monitor(display, 0);
  }
  if (!monitor) return;
  GdkRectangle area{};
  gdk_monitor_get_workarea(monitor, &area);
  if (area.width > 0) *width = std::min(*width, area.width);
  if (area.height > 0) *height = std::min(*height, area.height);
}
}  // namespace

MainFlutterWindow* MainFlutterWindow::Create(GtkApplication* application, Host& host) {
  EnsureHostResources();
  GtkBuilder* builder = gtk_builder_new_from_resource(kMainWindowUiResource);
  auto* window = GTK_WINDOW(gtk_builder_get_object(builder, kWindowId));
  // GTK owns toplevels; the builder's reference goes with the builder.
  g_object_unref(builder);

  auto* self = new MainFlutterWindow();
  self->window_ = window;
  g_object_set_data_full(
      G_OBJECT(window), kDataKey, self,
      +[](gpointer data) { delete static_cast<MainFlutterWindow*>(data); });
  if (application) gtk_window_set_application(window, application);
  self->AwakeFromUiDefinition(host);
  return self;
}

void MainFlutterWindow::AwakeFromUiDefinition(Host& host) {
  WindowContent* content = window_content();
  // Without Flutter, a stand-in that draws nothing, so the window background shows.
  view_ = content ? content->CreateView() : gtk_drawing_area_new();
  gtk_widget_set_name(view_, "flutter-view");
  gtk_widget_set_hexpand(view_, TRUE);
  gtk_widget_set_vexpand(view_, TRUE);

  background_ = WindowBackground::Attach(GTK_WIDGET(window_));
  if (content) {
    GtkWidget* view = view_;
    background_->SetChangeCallback(
        [content, view](bool dark) { content->SetViewBackground(view, dark); });
  }

  // The UI definition decides the size, not the content's wishes, as far as the screen allows.
  int width = 0;
  int height = 0;
  gtk_window_get_default_size(window_, &width, &height);
  gtk_container_add(GTK_CONTAINER(window_), view_);
  if (width > 0 && height > 0) {
    FitWorkArea(window_, &width, &height);
    gtk_window_set_default_size(window_, width, height);
    gtk_window_resize(window_, width, height);
  }

  // As Flutter's template: the view starts its engine when realized, and plug-ins such as
  // window_manager expect that done when they register.
  gtk_widget_realize(view_);
  host.RegisterMainWindowServices(view_);
  SetWindowCreatedHook(&RegisterSecondaryWindowServices);

  gtk_widget_show_all(GTK_WIDGET(window_));
  gtk_window_present(window_);
}

}  // namespace corvane::host
