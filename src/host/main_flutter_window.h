// The main window, built from the host's UI definition. Creating it runs the window's start-up
// steps: the content (the Flutter view's stand-in), the theme-following background, the size from
// the UI definition, the services in start-up order, the secondary-window hook, then showing it.
#pragma once

typedef struct _GtkApplication GtkApplication;
typedef struct _GtkWidget GtkWidget;
typedef struct _GtkWindow GtkWindow;

namespace corvane::host {

class Host;
class WindowBackground;

class MainFlutterWindow {
 public:
  // `application` may be null (tests). The object lives as long as the GTK window: it is
  // destroyed with it.
  static MainFlutterWindow* Create(GtkApplication* application, Host& host);

  GtkWindow* window() const { return window_; }
  // Where the Flutter view goes; transparent, so the window's background shows through.
  GtkWidget* view() const { return view_; }
  WindowBackground& background() const { return *background_; }

 private:
  MainFlutterWindow() = default;
  void AwakeFromUiDefinition(Host& host);

  GtkWindow* window_ = nullptr;
  GtkWidget* view_ = nullptr;
  WindowBackground* background_ = nullptr;
};

}  // namespace corvane::host
