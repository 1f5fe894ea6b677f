#include <gtk/gtk.h>

#include "documents/document_window.h"

namespace corvane::documents {

namespace {

class GtkDocumentWindow final : public DocumentWindow {
 public:
  explicit GtkDocumentWindow(GtkWindow* window) : window_(window) {}

  bool IsMinimized() const override {
    GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window_));
    return gdk && (gdk_window_get_state(gdk) & GDK_WINDOW_STATE_ICONIFIED);
  }
  void Unminimize() override { gtk_window_deiconify(window_); }
  void Present() override { gtk_window_present(window_); }

 private:
  GtkWindow* window_;
};

// Clears itself when the view is destroyed, so a lookup after that finds nothing.
struct WeakView {
  explicit WeakView(GtkWidget* v) : view(v) {
    g_object_add_weak_pointer(G_OBJECT(view), reinterpret_cast<gpointer*>(&view));
  }
  ~WeakView() {
    if (view) g_object_remove_weak_pointer(G_OBJECT(view), reinterpret_cast<gpointer*>(&view));
  }
  WeakView(const WeakView&) = delete;
  WeakView& operator=(const WeakView&) = delete;
  GtkWidget* view;
};

}  // namespace

WindowLookup GtkWindowLookup(GtkWidget* view) {
  if (!view) return [] { return std::unique_ptr<DocumentWindow>(); };
  auto weak = std::make_shared<WeakView>(view);
  return [weak]() -> std::unique_ptr<DocumentWindow> {
    if (!weak->view) return nullptr;
    GtkWidget* toplevel = gtk_widget_get_toplevel(weak->view);
    if (!GTK_IS_WINDOW(toplevel)) return nullptr;
    return std::make_unique<GtkDocumentWindow>(GTK_WINDOW(toplevel));
  };
}

}  // namespace corvane::documents
