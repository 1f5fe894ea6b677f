// One window's look: the desktop's, or light or dark forced on it. Lives as long as its GTK
// window. The window's own drawing (its background) listens here; the widgets' theme variant is
// shared by the whole screen (see DesktopAppearance). Main thread only.
#pragma once

#include <functional>
#include <map>

#include "ui/desktop_appearance.h"

typedef struct _GtkWindow GtkWindow;
typedef struct _GtkWidget GtkWidget;

namespace corvane::ui {

class WindowAppearance {
 public:
  // The window's, made on first use with the process's DesktopAppearance.
  static WindowAppearance& ForWindow(GtkWindow* window);
  // The one of the window holding `widget`, if made yet.
  static WindowAppearance* Find(GtkWidget* widget);

  void SetMode(AppearanceMode mode);
  AppearanceMode mode() const { return mode_; }
  bool dark() const { return dark_; }

  // Called with the new value after the window's look flips.
  int AddListener(std::function<void(bool dark)> listener);
  void RemoveListener(int id);

 private:
  WindowAppearance(GtkWindow* window, DesktopAppearance& desktop);
  ~WindowAppearance();
  void Update();

  GtkWindow* window_;
  DesktopAppearance& desktop_;
  int desktop_listener_;
  AppearanceMode mode_ = AppearanceMode::kSystem;
  bool dark_;
  std::map<int, std::function<void(bool)>> listeners_;
  int next_listener_ = 1;
};

}  // namespace corvane::ui
