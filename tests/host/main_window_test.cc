// The main window on a 1280x800 Xvfb: its size, and its background colour read back from the
// screen, following the theme live (forced looks are the appearance service's tests).
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include "engine/loopback_engine.h"
#include "host/host.h"
#include "host/main_flutter_window.h"
#include "host/support.h"
#include "host/window_background.h"

// GDK_SCALE at run time; from <gdk/gdkx.h>, whose X11 macros clash with gtest.
extern "C" void gdk_x11_display_set_window_scale(GdkDisplay* display, gint scale);

namespace corvane::host {
namespace {

using namespace std::chrono_literals;

TEST(ThemeDecision, FollowsGtkRulesUnlessForced) {
  // clang-format off
  const struct { Appearance appearance; ThemeSignals theme; bool dark; } cases[] = {
      {Appearance::kSystem, {false, "Arc-Dark", ""}, true},
      {Appearance::kSystem, {false, "darkness", ""}, false},
      {Appearance::kSystem, {false, "Adwaita", "Adwaita:dark"}, true},
      {Appearance::kSystem, {true, "Adwaita-dark", "Adwaita"}, false},
      {Appearance::kSystem, {true, "Adwaita", "Adwaita:light"}, false},
      {Appearance::kSystem, {false, "Adwaita", "Materia-dark"}, true},
      {Appearance::kLight, {true, "Adwaita-dark", "Adwaita:dark"}, false},
      {Appearance::kDark, {false, "Adwaita", "Adwaita"}, true},
  };
  // clang-format on
  for (const auto& c : cases) {
    EXPECT_EQ(IsDark(c.appearance, c.theme), c.dark) << c.theme.theme_name << c.theme.gtk_theme_env;
  }
}

class MainWindowTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // No settings file, no forced theme, no accessibility bus (leaks under the sanitizer).
    g_setenv("XDG_CONFIG_HOME", "/nonexistent", TRUE);
    g_unsetenv("GTK_THEME");
    g_unsetenv("WAYLAND_DISPLAY");
    g_setenv("NO_AT_BRIDGE", "1", TRUE);
    xvfb_.reset(new testing::ServerProcess(
        {"Xvfb", "-displayfd", "1", "-screen", "0", "1280x800x24", "-nolisten", "tcp"}));
    g_setenv("DISPLAY", (":" + xvfb_->line()).c_str(), TRUE);
    gtk_ready_ = !xvfb_->line().empty() && gtk_init_check(nullptr, nullptr);
  }

  // Makes a change, then waits for the next frame and for the X server to have it.
  void AfterFrame(const std::function<void()>& change) {
    const int before = draws_;
    change();
    ASSERT_TRUE(dispatch::RunMainUntil([&] { return draws_ > before; }, 20s)) << "not drawn";
    gdk_display_sync(gdk_display_get_default());
  }
  MainFlutterWindow* Open() {
    AfterFrame([this] {
      main_ = MainFlutterWindow::Create(nullptr, host_);
      g_signal_connect_after(main_->window(), "draw",
                             G_CALLBACK(+[](GtkWidget*, cairo_t*, gpointer draws) -> gboolean {
                               ++*static_cast<int*>(draws);
                               return FALSE;
                             }),
                             &draws_);
    });
    return main_;
  }
  // The same colour at the centre (over the content) and near a corner.
  void ExpectBackground(uint32_t expected, const char* when) {
    GdkWindow* window = gtk_widget_get_window(GTK_WIDGET(main_->window()));
    const int w = gdk_window_get_width(window);
    const int h = gdk_window_get_height(window);
    for (const auto& [x, y] : {std::pair{w / 2, h / 2}, std::pair{3, h - 4}}) {
      GdkPixbuf* p = gdk_pixbuf_get_from_window(window, x, y, 1, 1);
      const guchar* rgb = gdk_pixbuf_read_pixels(p);
      EXPECT_EQ(uint32_t(rgb[0] << 16 | rgb[1] << 8 | rgb[2]), expected) << when << " at " << x;
      g_object_unref(p);
    }
  }

  static inline std::unique_ptr<testing::ServerProcess> xvfb_;
  static inline bool gtk_ready_ = false;
  Host host_{std::make_unique<engine::LoopbackEngine>(), InfoDictionary::Default()};
  MainFlutterWindow* main_ = nullptr;
  int draws_ = 0;
};

TEST_F(MainWindowTest, KeepsTheDefinedSizeInsideTheScreenAndFollowsTheThemeLive) {
  ASSERT_TRUE(gtk_ready_) << "Xvfb or GTK did not start";
  const auto setting = [&](const char* name, auto value) {
    AfterFrame([&] { g_object_set(gtk_settings_get_default(), name, value, nullptr); });
  };
  // The defined 1280x800 fills the screen at scale 1; at scale 2 it shrinks to fit it.
  for (const int scale : {1, 2}) {
    gdk_x11_display_set_window_scale(gdk_display_get_default(), scale);
    g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", TRUE, nullptr);
    GdkWindow* window = gtk_widget_get_window(GTK_WIDGET(Open()->window()));
    EXPECT_EQ(gdk_window_get_width(window) * scale, 1280) << "scale " << scale;
    EXPECT_EQ(gdk_window_get_height(window) * scale, 800) << "scale " << scale;
    ExpectBackground(0x0E1A31, "prefer dark at start");
    if (scale == 1) {
      // The services are registered with the view, where they find the window's background.
      EXPECT_EQ(host_.registry()->view(), main_->view());
      EXPECT_EQ(WindowBackground::ForWidget(main_->view()), &main_->background());
      setting("gtk-application-prefer-dark-theme", FALSE);
      ExpectBackground(0xFFFFFF, "prefer dark switched off");
      setting("gtk-theme-name", "Adwaita-dark");
      ExpectBackground(0x0E1A31, "a -dark theme");
      setting("gtk-theme-name", "Adwaita");
      ExpectBackground(0xFFFFFF, "back to Adwaita");
    }
    gtk_widget_destroy(GTK_WIDGET(main_->window()));
  }
}

}  // namespace
}  // namespace corvane::host
