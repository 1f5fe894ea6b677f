// The main window's first frame already has the desktop's look, even when the portal takes its
// time to answer: a process of its own, since the desktop's preference is read once per process.
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include "host/host.h"
#include "host/main_flutter_window.h"
#include "ui/test_portal.h"
#include "ui/ui_fixture.h"

namespace corvane::ui {
namespace {

TEST(FirstFrameTest, IsDarkWhenASlowPortalSaysDark) {
  testing::GtkSession session(true);
  ASSERT_TRUE(session.ready) << "Xvfb or dbus-daemon did not start";
  testing::TestPortal portal(session.bus->line(), 1, false, /*delay_ms=*/300);
  host::Host host{std::make_unique<engine::LoopbackEngine>(), host::InfoDictionary::Default()};
  GtkWidget* window = GTK_WIDGET(host::MainFlutterWindow::Create(nullptr, host)->window());
  bool drawn = false;
  g_signal_connect_after(window, "draw", G_CALLBACK(+[](GtkWidget*, cairo_t*, gpointer drawn) {
                           *static_cast<bool*>(drawn) = true;
                           return FALSE;
                         }),
                         &drawn);
  // Read back from the X server before anything else runs.
  ASSERT_TRUE(dispatch::RunMainUntil([&] { return drawn; }, std::chrono::seconds(20)));
  gdk_display_sync(gdk_display_get_default());
  EXPECT_EQ(testing::WindowPixel(window, gtk_widget_get_allocated_width(window) / 2, 10),
            0x0E1A31u);
  EXPECT_GE(portal.reads(), 1);
  gtk_widget_destroy(window);
}

}  // namespace
}  // namespace corvane::ui
