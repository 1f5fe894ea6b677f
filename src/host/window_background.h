// The main window's background: #0E1A31 under a dark look, white otherwise, following the desktop
// theme live. The dark-or-light decision is one function, so the window-appearance service can
// force either look on a window.
#pragma once

#include <functional>
#include <string>

typedef struct _GtkWidget GtkWidget;
typedef struct _GtkCssProvider GtkCssProvider;
typedef struct _GtkSettings GtkSettings;

namespace corvane::host {

// The look a window follows: the desktop's, or one forced on it.
enum class Appearance { kSystem, kLight, kDark };

// What the desktop says about its theme.
struct ThemeSignals {
  bool prefer_dark = false;   // GtkSettings gtk-application-prefer-dark-theme
  std::string theme_name;     // GtkSettings gtk-theme-name
  std::string gtk_theme_env;  // $GTK_THEME, which overrides both when set
};

// The one decision: dark or not.
bool IsDark(Appearance appearance, const ThemeSignals& theme);

// The background colour as CSS: "#0E1A31" or "#FFFFFF".
const char* BackgroundColor(bool dark);

// Keeps one window's background in step with the theme. Owned by the window: created by
// Attach, destroyed with it.
class WindowBackground {
 public:
  // `window` must be named "main" (gtk_widget_set_name) for the style to apply.
  static WindowBackground* Attach(GtkWidget* window);
  // The background of the window holding `widget`; null when none is attached.
  static WindowBackground* ForWidget(GtkWidget* widget);

  void SetAppearance(Appearance appearance);
  Appearance appearance() const { return appearance_; }
  bool dark() const { return dark_; }

  ThemeSignals CurrentThemeSignals() const;
  // Told the current look at once and at every change; for content that paints its own
  // background (the Flutter view).
  void SetChangeCallback(std::function<void(bool dark)> on_change);

 private:
  explicit WindowBackground(GtkWidget* window);
  ~WindowBackground();
  static void Destroy(void* self);
  void Update();

  GtkWidget* window_;
  GtkSettings* settings_;
  GtkCssProvider* provider_;
  unsigned long theme_handler_ = 0;
  unsigned long prefer_dark_handler_ = 0;
  Appearance appearance_ = Appearance::kSystem;
  bool dark_ = false;
  bool applied_ = false;
  std::function<void(bool dark)> on_change_;
};

}  // namespace corvane::host
