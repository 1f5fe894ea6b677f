// The host's watch of the camera's window on a real X server: minimising, hiding and closing
// the window that holds the view, and nothing from other windows.
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include "host/support.h"
#include "host/window_watch.h"

namespace corvane::host {
namespace {

// No window manager here to iconify for real: the event it would cause.
void Iconify(GtkWidget* window, bool iconified) {
  GdkEvent* event = gdk_event_new(GDK_WINDOW_STATE);
  event->window_state.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(window)));
  event->window_state.changed_mask = GDK_WINDOW_STATE_ICONIFIED;
  event->window_state.new_window_state = iconified ? GDK_WINDOW_STATE_ICONIFIED : GdkWindowState();
  gtk_widget_event(window, event);
  gdk_event_free(event);
}

void Settle() {
  dispatch::RunMainUntil([] { return false; }, std::chrono::milliseconds(50));
}

TEST(WindowWatch, OnlyItsOwnWindowCountsAndHiddenNeedsEveryWindowUnmapped) {
  int terminating = 0;
  WindowWatch::Start(nullptr, {{}, {}, {}, {}, [&] { ++terminating; }})->HandleWillTerminate();
  EXPECT_EQ(terminating, 1) << "without a view only quitting is heard";

  testing::XvfbServer xvfb;
  g_setenv("NO_AT_BRIDGE", "1", TRUE);
  g_setenv("DISPLAY", xvfb.display().c_str(), TRUE);
  if (!xvfb.ok() || !gtk_init_check(nullptr, nullptr)) GTEST_SKIP() << "no X server";
  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  GtkWidget* view = gtk_drawing_area_new();
  gtk_container_add(GTK_CONTAINER(window), view);
  GtkWidget* other = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  int minimised = 0, closed = 0, hidden = 0, sleeping = 0;
  auto watch = WindowWatch::Start(view, {[&] { ++minimised; }, [&] { ++closed; }, [&] { ++hidden; },
                                         [&] { ++sleeping; }, [&] { ++terminating; }});
  gtk_widget_show_all(window);
  gtk_widget_show(other);
  Settle();
  Iconify(other, true);
  Iconify(window, false);  // restored is not minimised
  EXPECT_EQ(minimised, 0);
  Iconify(window, true);
  EXPECT_EQ(minimised, 1);

  EXPECT_TRUE(WindowWatch::ApplicationVisible());
  gtk_widget_hide(window);
  EXPECT_EQ(hidden, 0) << "another window still shows";
  EXPECT_TRUE(WindowWatch::ApplicationVisible());
  gtk_widget_show(window);
  gtk_widget_hide(other);
  Settle();
  gtk_widget_hide(window);
  EXPECT_EQ(hidden, 1);
  EXPECT_FALSE(WindowWatch::ApplicationVisible());

  watch->HandleWillTerminate();
  EXPECT_EQ(terminating, 2);
  gtk_widget_destroy(window);
  EXPECT_EQ(closed, 1);
  EXPECT_EQ(sleeping, 0) << "no system bus here";

  gtk_widget_destroy(other);
}

}  // namespace
}  // namespace corvane::host
