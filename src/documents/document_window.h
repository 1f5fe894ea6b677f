// The window that shows the Flutter view, as the document hand-off sees it: something to bring
// forward when documents arrive.
#pragma once

#include <functional>
#include <memory>

typedef struct _GtkWidget GtkWidget;

namespace corvane::documents {

class DocumentWindow {
 public:
  virtual ~DocumentWindow() = default;
  virtual bool IsMinimized() const = 0;
  virtual void Unminimize() = 0;
  // Raise and focus it, activating the application.
  virtual void Present() = 0;
};

// Yields the window, or nothing once the view is gone (or when there never was one).
using WindowLookup = std::function<std::unique_ptr<DocumentWindow>()>;

// The toplevel GTK window around `view`, which is held weakly; null `view` (headless) gives a
// lookup that always yields nothing.
WindowLookup GtkWindowLookup(GtkWidget* view);

}  // namespace corvane::documents
