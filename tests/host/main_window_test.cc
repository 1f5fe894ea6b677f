// The main window on a real X server (Xvfb started by the test): background colour read back
// from the screen, following the theme live, and the size from the UI definition. Forcing a look
// on the window is the appearance service's, and tested there.
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include <functional>

#include "dispatch/queue.h"
#include "engine/loopback_engine.h"
#include "host/host.h"
#include "host/main_flutter_window.h"
#include "host/resources.h"
#include "host/support.h"
#include "host/window_background.h"

namespace corvane::host {
namespace {

using namespace std::chrono_literals;

// Colours as 0xRRGGBB.
constexpr uint32_t kDarkBlue = 0x0E1A31;
constexpr uint32_t kWhite = 0xFFFFFF;

TEST(ThemeDecision, FollowsGtkRulesUnlessForced) {
  const struct {
    Appearance appearance;
    ThemeSignals theme;
    bool dark;
  } cases[] = {
      // Beyond what the window test below shows live.
      {Appearance::kSystem, {false, "Arc-Dark", ""}, true},
      {Appearance::kSystem, {false, "darkness", ""}, false},
      // $GTK_THEME replaces both settings, as it does for GTK itself.
      {Appearance::kSystem, {false, "Adwaita", "Adwaita:dark"}, true},
      {Appearance::kSystem, {true, "Adwaita-dark", "Adwaita"}, false},
      {Appearance::kSystem, {true, "Adwaita", "Adwaita:light"}, false},
      {Appearance::kSystem, {false, "Adwaita", "Materia-dark"}, true},
      {Appearance::kLight, {true, "Adwaita-dark", "Adwaita:dark"}, false},
      {Appearance::kDark, {false, "Adwaita", "Adwaita"}, true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsDark(c.appearance, c.theme), c.dark)
        << static_cast<int>(c.appearance) << " " << c.theme.prefer_dark << " " << c.theme.theme_name
        << " GTK_THEME=" << c.theme.gtk_theme_env;
  }
}

class MainWindowTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    xvfb_ = std::make_unique<testing::XvfbServer>();
    config_home_ = std::make_unique<testing::TempDir>();
    // A known starting point: no desktop settings file, no theme forced from outside.
    g_setenv("XDG_CONFIG_HOME", config_home_->path().c_str(), TRUE);
    g_unsetenv("GTK_THEME");
    g_unsetenv("WAYLAND_DISPLAY");
    // There is no accessibility bus here; the bridge's failed libdbus setup would also show up
    // as leaks under the address sanitizer.
    g_setenv("NO_AT_BRIDGE", "1", TRUE);
    if (xvfb_->ok()) {
      g_setenv("DISPLAY", xvfb_->display().c_str(), TRUE);
      gtk_ready_ = gtk_init_check(nullptr, nullptr);
    }
  }
  static void TearDownTestSuite() {
    xvfb_.reset();
    config_home_.reset();
  }
  void SetUp() override {
    // Xvfb is part of the test setup: its absence is a failure, not a reason to skip.
    ASSERT_TRUE(xvfb_->ok()) << "Xvfb did not start";
    ASSERT_TRUE(gtk_ready_) << "GTK cannot open " << xvfb_->display();
  }
  void TearDown() override {
    if (main_) gtk_widget_destroy(GTK_WIDGET(main_->window()));
  }

  void Open() {
    AfterFrame([this] {
      main_ = MainFlutterWindow::Create(nullptr, host_);
      g_signal_connect_after(main_->window(), "draw",
                             G_CALLBACK(+[](GtkWidget*, cairo_t*, gpointer draws) -> gboolean {
                               ++*static_cast<int*>(draws);
                               return FALSE;
                             }),
                             &draws_);
    });
  }

  // Makes a change, then waits for the frame that follows and for the X server to have it.
  void AfterFrame(const std::function<void()>& change) {
    const int before = draws_;
    change();
    ASSERT_TRUE(dispatch::RunMainUntil(
        [&] { return gtk_widget_get_mapped(GTK_WIDGET(main_->window())) && draws_ > before; }, 20s))
        << "the window was not drawn";
    gdk_display_sync(gdk_display_get_default());
  }
  template <typename T>
  void Setting(const char* name, T value) {
    AfterFrame([&] { g_object_set(gtk_settings_get_default(), name, value, nullptr); });
  }

  // The same colour at the centre (over the content) and near a corner.
  void ExpectBackground(uint32_t expected, const char* when) {
    const int w = gdk_window_get_width(Gdk());
    const int h = gdk_window_get_height(Gdk());
    const std::pair<int, int> points[] = {{w / 2, h / 2}, {3, h - 4}};
    for (const auto& [x, y] : points) {
      GdkPixbuf* pixel = gdk_pixbuf_get_from_window(Gdk(), x, y, 1, 1);
      ASSERT_NE(pixel, nullptr);
      const guchar* p = gdk_pixbuf_read_pixels(pixel);
      const uint32_t rgb = p[0] << 16 | p[1] << 8 | p[2];
      EXPECT_EQ(rgb, expected) << when << " at " << x << "," << y << ": #" << std::hex << rgb;
      g_object_unref(pixel);
    }
  }

  GdkWindow* Gdk() { return gtk_widget_get_window(GTK_WIDGET(main_->window())); }

  static inline std::unique_ptr<testing::XvfbServer> xvfb_;
  static inline std::unique_ptr<testing::TempDir> config_home_;
  static inline bool gtk_ready_ = false;
  Host host_{std::make_unique<engine::LoopbackEngine>(), InfoDictionary::Default()};
  MainFlutterWindow* main_ = nullptr;
  int draws_ = 0;
};

TEST_F(MainWindowTest, KeepsTheDefinedSizeRegistersWithItsViewAndFollowsTheThemeLive) {
  EnsureHostResources();
  GtkBuilder* builder = gtk_builder_new_from_resource(kMainWindowUiResource);
  GtkWindow* defined = GTK_WINDOW(gtk_builder_get_object(builder, "main_window"));
  int width = 0;
  int height = 0;
  gtk_window_get_default_size(defined, &width, &height);
  gtk_widget_destroy(GTK_WIDGET(defined));
  g_object_unref(builder);
  ASSERT_GT(width, 0);
  ASSERT_GT(height, 0);

  g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", TRUE, nullptr);
  Open();
  EXPECT_EQ(gdk_window_get_width(Gdk()), width);
  EXPECT_EQ(gdk_window_get_height(Gdk()), height);
  // The window registers the start-up services with its view, where the appearance service
  // finds this window's background.
  ASSERT_NE(host_.registry(), nullptr);
  EXPECT_EQ(host_.registry()->view(), main_->view());
  EXPECT_EQ(WindowBackground::ForWidget(main_->view()), &main_->background());
  EXPECT_FALSE(host_.registry()->registrations().empty());

  ExpectBackground(kDarkBlue, "prefer dark at start");
  Setting("gtk-application-prefer-dark-theme", FALSE);
  ExpectBackground(kWhite, "prefer dark switched off");
  Setting("gtk-theme-name", "Adwaita-dark");
  ExpectBackground(kDarkBlue, "a -dark theme");
  Setting("gtk-theme-name", "Adwaita");
  ExpectBackground(kWhite, "back to Adwaita");
}

}  // namespace
}  // namespace corvane::host
