#include "host/window_watch.h"

#include <gio/gio.h>
#include <gtk/gtk.h>

namespace corvane::host {

namespace {
constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kLogindManager = "org.freedesktop.login1.Manager";
constexpr const char* kLogindPath = "/org/freedesktop/login1";
}  // namespace

struct WindowWatch::Private {
  GtkWidget* window = nullptr;  // weak: cleared when the window goes
  std::vector<gulong> window_signals;
  GCancellable* cancellable = g_cancellable_new();
  GDBusConnection* system_bus = nullptr;
  guint sleep_subscription = 0;
};

WindowWatch::WindowWatch(Handlers handlers)
    : handlers_(std::move(handlers)), private_(std::make_unique<Private>()) {}

std::shared_ptr<WindowWatch> WindowWatch::Start(GtkWidget* view, Handlers handlers) {
  std::shared_ptr<WindowWatch> watch(new WindowWatch(std::move(handlers)));
  watch->WatchWindow(view);
  watch->WatchSleep();
  return watch;
}

WindowWatch::~WindowWatch() {
  Private& p = *private_;
  if (p.window) {
    for (gulong id : p.window_signals) g_signal_handler_disconnect(p.window, id);
    g_object_remove_weak_pointer(G_OBJECT(p.window), reinterpret_cast<gpointer*>(&p.window));
  }
  g_cancellable_cancel(p.cancellable);
  g_object_unref(p.cancellable);
  if (p.system_bus) {
    if (p.sleep_subscription)
      g_dbus_connection_signal_unsubscribe(p.system_bus, p.sleep_subscription);
    g_object_unref(p.system_bus);
  }
}

bool WindowWatch::ApplicationVisible() {
  if (!gdk_display_get_default()) return true;  // headless
  GList* toplevels = gtk_window_list_toplevels();
  bool any_window = false;
  bool any_mapped = false;
  for (GList* l = toplevels; l; l = l->next) {
    auto* window = GTK_WINDOW(l->data);
    if (gtk_window_get_window_type(window) != GTK_WINDOW_TOPLEVEL) continue;  // menus, popups
    any_window = true;
    any_mapped = any_mapped || gtk_widget_get_mapped(GTK_WIDGET(window));
  }
  g_list_free(toplevels);
  return !any_window || any_mapped;
}

void WindowWatch::HandleWillTerminate() {
  if (handlers_.application_will_terminate) handlers_.application_will_terminate();
}

void WindowWatch::WatchWindow(GtkWidget* view) {
  if (!view) return;
  GtkWidget* window = gtk_widget_get_toplevel(view);
  if (!GTK_IS_WINDOW(window)) return;
  Private& p = *private_;
  p.window = window;
  g_object_add_weak_pointer(G_OBJECT(window), reinterpret_cast<gpointer*>(&p.window));

  auto on_state = +[](GtkWidget*, GdkEventWindowState* event, WindowWatch* self) -> gboolean {
    if ((event->changed_mask & GDK_WINDOW_STATE_ICONIFIED) &&
        (event->new_window_state & GDK_WINDOW_STATE_ICONIFIED) &&
        self->handlers_.window_minimised) {
      self->handlers_.window_minimised();
    }
    return FALSE;
  };
  auto on_unmap = +[](GtkWidget*, WindowWatch* self) {
    // Unmapped while another window still shows is not hidden.
    if (!ApplicationVisible() && self->handlers_.application_hidden) {
      self->handlers_.application_hidden();
    }
  };
  auto on_destroy = +[](GtkWidget*, WindowWatch* self) {
    if (self->handlers_.window_closed) self->handlers_.window_closed();
  };
  p.window_signals = {
      g_signal_connect(window, "window-state-event", G_CALLBACK(on_state), this),
      g_signal_connect_after(window, "unmap", G_CALLBACK(on_unmap), this),
      g_signal_connect(window, "destroy", G_CALLBACK(on_destroy), this),
  };
}

void WindowWatch::WatchSleep() {
  // Without a system bus (containers, tests) there is no sleep to hear of; no retry.
  auto* weak = new std::weak_ptr<WindowWatch>(weak_from_this());
  g_bus_get(
      G_BUS_TYPE_SYSTEM, private_->cancellable,
      +[](GObject*, GAsyncResult* result, gpointer data) {
        std::unique_ptr<std::weak_ptr<WindowWatch>> weak(
            static_cast<std::weak_ptr<WindowWatch>*>(data));
        GDBusConnection* bus = g_bus_get_finish(result, nullptr);
        auto self = weak->lock();
        if (!bus) return;
        if (!self) {
          g_object_unref(bus);
          return;
        }
        self->private_->system_bus = bus;
        // The subscription holds the watch weakly: a signal already on its way may still be
        // delivered after the watch has gone.
        self->private_->sleep_subscription = g_dbus_connection_signal_subscribe(
            bus, kLogind, kLogindManager, "PrepareForSleep", kLogindPath, nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE,
            +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                GVariant* parameters, gpointer data) {
              gboolean going_to_sleep = FALSE;
              if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(b)"))) {
                g_variant_get(parameters, "(b)", &going_to_sleep);
              }
              auto self = static_cast<std::weak_ptr<WindowWatch>*>(data)->lock();
              if (going_to_sleep && self && self->handlers_.system_will_sleep) {
                self->handlers_.system_will_sleep();
              }
            },
            new std::weak_ptr<WindowWatch>(self),
            +[](gpointer data) { delete static_cast<std::weak_ptr<WindowWatch>*>(data); });
      },
      weak);
}

}  // namespace corvane::host
