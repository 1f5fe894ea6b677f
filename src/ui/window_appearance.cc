#include "ui/window_appearance.h"

#include <gtk/gtk.h>

namespace corvane::ui {

namespace {
constexpr const char* kDataKey = "corvane-window-appearance";
}  // namespace

WindowAppearance& WindowAppearance::ForWindow(GtkWindow* window) {
  auto* existing = static_cast<WindowAppearance*>(g_object_get_data(G_OBJECT(window), kDataKey));
  if (existing) return *existing;
  auto* appearance = new WindowAppearance(window, DesktopAppearance::Shared());
  g_object_set_data_full(
      G_OBJECT(window), kDataKey, appearance,
      +[](gpointer self) { delete static_cast<WindowAppearance*>(self); });
  return *appearance;
}

WindowAppearance* WindowAppearance::Find(GtkWidget* widget) {
  if (!widget) return nullptr;
  return static_cast<WindowAppearance*>(
      g_object_get_data(G_OBJECT(gtk_widget_get_toplevel(widget)), kDataKey));
}

WindowAppearance::WindowAppearance(GtkWindow* window, DesktopAppearance& desktop)
    : window_(window), desktop_(desktop), dark_(desktop.dark()) {
  desktop_listener_ = desktop_.AddListener([this] { Update(); });
}

WindowAppearance::~WindowAppearance() {
  desktop_.RemoveListener(desktop_listener_);
  desktop_.ReleaseThemeVariant(this);
}

void WindowAppearance::SetMode(AppearanceMode mode) {
  mode_ = mode;
  if (mode == AppearanceMode::kSystem) {
    desktop_.ReleaseThemeVariant(this);
  } else {
    desktop_.ForceThemeVariant(this, mode == AppearanceMode::kDark);
  }
  Update();
}

int WindowAppearance::AddListener(std::function<void(bool)> listener) {
  listeners_.emplace(next_listener_, std::move(listener));
  return next_listener_++;
}

void WindowAppearance::RemoveListener(int id) { listeners_.erase(id); }

void WindowAppearance::Update() {
  const bool dark =
      mode_ == AppearanceMode::kSystem ? desktop_.dark() : mode_ == AppearanceMode::kDark;
  if (dark == dark_) return;
  dark_ = dark;
  auto listeners = listeners_;
  for (auto& [id, listener] : listeners) {
    if (listeners_.count(id)) listener(dark);
  }
  gtk_widget_queue_draw(GTK_WIDGET(window_));
}

}  // namespace corvane::ui
