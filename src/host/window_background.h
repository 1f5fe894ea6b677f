// The main window's background: #0E1A31 when the window looks dark, white otherwise, following
// the window's effective look live (the desktop's preference, or the mode forced on the window
// through the window-appearance service).
#pragma once

#include <functional>

#include "ui/desktop_appearance.h"

typedef struct _GtkWidget GtkWidget;
typedef struct _GtkCssProvider GtkCssProvider;

namespace corvane::ui {
class WindowAppearance;
}

namespace corvane::host {

using Appearance = ui::AppearanceMode;
using ui::IsDark;
using ui::ThemeSignals;

// The background colour as CSS: "#0E1A31" or "#FFFFFF".
const char* BackgroundColor(bool dark);

// Keeps one window's background in step with its look. Owned by the window: created by
// Attach, destroyed with it.
class WindowBackground {
 public:
  // `window` must be named "main" (gtk_widget_set_name) for the style to apply.
  static WindowBackground* Attach(GtkWidget* window);
  // The background of the window holding `widget`; null when none is attached.
  static WindowBackground* ForWidget(GtkWidget* widget);

  // Forces a look on the window, or hands it back to the desktop (kSystem).
  void SetAppearance(Appearance appearance);
  Appearance appearance() const;
  bool dark() const { return dark_; }

  // Told the current look at once and at every change; for content that paints its own
  // background (the Flutter view).
  void SetChangeCallback(std::function<void(bool dark)> on_change);

 private:
  explicit WindowBackground(GtkWidget* window);
  ~WindowBackground();
  static void Destroy(void* self);
  void Apply(bool dark);

  GtkWidget* window_;
  ui::WindowAppearance& look_;
  int listener_ = 0;
  GtkCssProvider* provider_;
  bool dark_ = false;
  std::function<void(bool dark)> on_change_;
};

}  // namespace corvane::host
