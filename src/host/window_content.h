// What fills the main window. A build without Flutter shows a stand-in that draws nothing, so
// the window's background shows; a Flutter build installs the Flutter view (src/flutter).
#pragma once

#include <string>

typedef struct _GtkWidget GtkWidget;

namespace corvane::host {

class WindowContent {
 public:
  virtual ~WindowContent() = default;
  // The view, made before the services are registered: its engine is the one they talk to.
  virtual GtkWidget* CreateView() = 0;
  // Views that paint a background of their own follow the window's look.
  virtual void SetViewBackground(GtkWidget* view, bool dark) = 0;
  // Registers the standard plug-in `registrar` on the engine showing in `view`; false when the
  // plug-in is not part of this build.
  virtual bool RegisterStandardPlugin(GtkWidget* view, const std::string& registrar) = 0;
};

// Not owned; must outlive every window. Null (the default) means the stand-in.
void SetWindowContent(WindowContent* content);
WindowContent* window_content();

}  // namespace corvane::host
