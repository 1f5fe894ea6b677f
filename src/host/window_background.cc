#include "host/window_background.h"

#include <gtk/gtk.h>

#include <utility>

#include "ui/window_appearance.h"

namespace corvane::host {

namespace {
constexpr const char* kDataKey = "corvane-window-background";
}  // namespace

const char* BackgroundColor(bool dark) { return dark ? "#0E1A31" : "#FFFFFF"; }

WindowBackground* WindowBackground::Attach(GtkWidget* window) {
  auto* existing = ForWidget(window);
  if (existing) return existing;
  auto* background = new WindowBackground(window);
  g_object_set_data_full(G_OBJECT(window), kDataKey, background, &WindowBackground::Destroy);
  return background;
}

WindowBackground* WindowBackground::ForWidget(GtkWidget* widget) {
  if (!widget) return nullptr;
  GtkWidget* toplevel = gtk_widget_get_toplevel(widget);
  return static_cast<WindowBackground*>(g_object_get_data(G_OBJECT(toplevel), kDataKey));
}

WindowBackground::WindowBackground(GtkWidget* window)
    : window_(window),
      look_(ui::WindowAppearance::ForWindow(GTK_WINDOW(window))),
      provider_(gtk_css_provider_new()) {
  // On this window only, so a look forced on one window leaves the others alone.
  gtk_style_context_add_provider(gtk_widget_get_style_context(window),
                                 GTK_STYLE_PROVIDER(provider_),
                                 GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  listener_ = look_.AddListener([this](bool dark) { Apply(dark); });
  Apply(look_.dark());
}

WindowBackground::~WindowBackground() {
  // The window's look may already be gone with the window; it is looked up, not remembered.
  if (auto* look = ui::WindowAppearance::Find(window_)) look->RemoveListener(listener_);
  g_object_unref(provider_);
}

void WindowBackground::Destroy(void* self) { delete static_cast<WindowBackground*>(self); }

void WindowBackground::SetAppearance(Appearance appearance) { look_.SetMode(appearance); }

Appearance WindowBackground::appearance() const { return look_.mode(); }

void WindowBackground::Apply(bool dark) {
  dark_ = dark;
  // background-image: none, or a theme's gradient would cover the colour.
  gchar* css = g_strdup_printf("window#main { background-color: %s; background-image: none; }",
                               BackgroundColor(dark));
  gtk_css_provider_load_from_data(provider_, css, -1, nullptr);
  g_free(css);
  gtk_widget_queue_draw(window_);
  if (on_change_) on_change_(dark);
}

void WindowBackground::SetChangeCallback(std::function<void(bool dark)> on_change) {
  on_change_ = std::move(on_change);
  if (on_change_) on_change_(dark_);
}

}  // namespace corvane::host
