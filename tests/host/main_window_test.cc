// The main window on a real X server (Xvfb started by the test): background colour read back
// from the screen, following the theme live, and the size from the UI definition. Also the real
// binary with a display.
#include <gio/gio.h>
#include <glib/gstdio.h>
#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <signal.h>

#include <filesystem>
#include <fstream>

#include "dispatch/queue.h"
#include "engine/loopback_engine.h"
#include "host/host.h"
#include "host/main_flutter_window.h"
#include "host/resources.h"
#include "host/window_background.h"
#include "xvfb.h"

namespace corvane::host {
namespace {

using namespace std::chrono_literals;

struct Rgb {
  int r, g, b;
  bool operator==(const Rgb&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Rgb& c) {
  return os << "rgb(" << c.r << "," << c.g << "," << c.b << ")";
}

constexpr Rgb kDarkBlue{0x0E, 0x1A, 0x31};
constexpr Rgb kWhite{0xFF, 0xFF, 0xFF};

TEST(ThemeDecision, FollowsGtkRulesUnlessForced) {
  struct Case {
    Appearance appearance;
    ThemeSignals theme;
    bool dark;
  } cases[] = {
      {Appearance::kSystem, {false, "Adwaita", ""}, false},
      {Appearance::kSystem, {true, "Adwaita", ""}, true},
      {Appearance::kSystem, {false, "Adwaita-dark", ""}, true},
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
  for (const Case& c : cases) {
    EXPECT_EQ(IsDark(c.appearance, c.theme), c.dark)
        << static_cast<int>(c.appearance) << " " << c.theme.prefer_dark << " " << c.theme.theme_name
        << " GTK_THEME=" << c.theme.gtk_theme_env;
  }
}

class OnXvfb : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    xvfb_ = new testing::XvfbServer();
    gchar* config = g_dir_make_tmp("corvane-gtk-XXXXXX", nullptr);
    config_home_ = config;
    g_free(config);
    // A known starting point: no desktop settings file, no theme forced from outside.
    g_setenv("XDG_CONFIG_HOME", config_home_.c_str(), TRUE);
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
    delete xvfb_;
    xvfb_ = nullptr;
    std::filesystem::remove_all(config_home_);
  }
  void SetUp() override {
    // Xvfb is part of the test setup: its absence is a failure, not a reason to skip.
    ASSERT_TRUE(xvfb_->ok()) << xvfb_->error();
    ASSERT_TRUE(gtk_ready_) << "GTK cannot open " << xvfb_->display();
  }

  static testing::XvfbServer* xvfb_;
  static std::string config_home_;
  static bool gtk_ready_;
};

testing::XvfbServer* OnXvfb::xvfb_ = nullptr;
std::string OnXvfb::config_home_;
bool OnXvfb::gtk_ready_ = false;

class MainWindowTest : public OnXvfb {
 protected:
  void TearDown() override {
    if (window_) gtk_widget_destroy(GTK_WIDGET(window_));
  }

  MainFlutterWindow& Open(Host& host) {
    MainFlutterWindow* main = MainFlutterWindow::Create(nullptr, host);
    window_ = main->window();
    g_signal_connect_after(window_, "draw",
                           G_CALLBACK(+[](GtkWidget*, cairo_t*, gpointer draws) -> gboolean {
                             ++*static_cast<int*>(draws);
                             return FALSE;
                           }),
                           &draws_);
    WaitForDrawAfter(0);
    return *main;
  }

  // Waits until the window has been drawn again after `draws` frames, and the X server has
  // what was drawn.
  void WaitForDrawAfter(int draws) {
    const bool drawn = dispatch::RunMainUntil(
        [&] { return gtk_widget_get_mapped(GTK_WIDGET(window_)) && draws_ > draws; }, 20s);
    ASSERT_TRUE(drawn) << "the window was not drawn";
    gdk_display_sync(gdk_display_get_default());
  }

  Rgb PixelAt(int x, int y) {
    GdkPixbuf* pixbuf =
        gdk_pixbuf_get_from_window(gtk_widget_get_window(GTK_WIDGET(window_)), x, y, 1, 1);
    EXPECT_NE(pixbuf, nullptr);
    if (!pixbuf) return {-1, -1, -1};
    const guchar* p = gdk_pixbuf_read_pixels(pixbuf);
    Rgb rgb{p[0], p[1], p[2]};
    g_object_unref(pixbuf);
    return rgb;
  }

  // The same colour at the centre (over the content) and near a corner.
  void ExpectBackground(const Rgb& expected, const char* when) {
    GdkWindow* gdk_window = gtk_widget_get_window(GTK_WIDGET(window_));
    const int w = gdk_window_get_width(gdk_window);
    const int h = gdk_window_get_height(gdk_window);
    EXPECT_EQ(PixelAt(w / 2, h / 2), expected) << when << " (centre)";
    EXPECT_EQ(PixelAt(3, h - 4), expected) << when << " (corner)";
  }

  // Changes a setting and waits for the frame that follows.
  void Set(const char* property, const GValue* value) {
    const int before = draws_;
    g_object_set_property(G_OBJECT(gtk_settings_get_default()), property, value);
    WaitForDrawAfter(before);
  }
  void SetPreferDark(bool dark) {
    GValue value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_BOOLEAN);
    g_value_set_boolean(&value, dark);
    Set("gtk-application-prefer-dark-theme", &value);
  }
  void SetThemeName(const char* name) {
    GValue value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_STRING);
    g_value_set_string(&value, name);
    Set("gtk-theme-name", &value);
    g_value_unset(&value);
  }
  void Force(MainFlutterWindow& main, Appearance appearance) {
    const int before = draws_;
    main.background().SetAppearance(appearance);
    WaitForDrawAfter(before);
  }

  engine::LoopbackEngine* engine_ = nullptr;
  GtkWindow* window_ = nullptr;
  int draws_ = 0;
};

Host MakeHost(engine::LoopbackEngine** engine) {
  auto owned = std::make_unique<engine::LoopbackEngine>();
  *engine = owned.get();
  return Host(std::move(owned), InfoDictionary::Default());
}

TEST_F(MainWindowTest, BackgroundFollowsTheThemeLiveInTheSameWindow) {
  Host host = MakeHost(&engine_);
  g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", TRUE, nullptr);
  MainFlutterWindow& main = Open(host);
  ExpectBackground(kDarkBlue, "prefer dark at start");

  SetPreferDark(false);
  ExpectBackground(kWhite, "prefer dark switched off");
  SetPreferDark(true);
  ExpectBackground(kDarkBlue, "prefer dark switched on again");

  SetPreferDark(false);
  SetThemeName("Adwaita-dark");
  ExpectBackground(kDarkBlue, "a -dark theme");
  SetThemeName("Adwaita");
  ExpectBackground(kWhite, "back to Adwaita");

  // What the window-appearance service will do: force a look on this window, then release it.
  Force(main, Appearance::kDark);
  ExpectBackground(kDarkBlue, "forced dark");
  SetPreferDark(true);
  Force(main, Appearance::kLight);
  ExpectBackground(kWhite, "forced light under a dark preference");
  Force(main, Appearance::kSystem);
  ExpectBackground(kDarkBlue, "following the system again");
}

TEST_F(MainWindowTest, KeepsTheUiDefinitionSizeAndRegistersWithItsView) {
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

  Host host = MakeHost(&engine_);
  MainFlutterWindow& main = Open(host);
  GdkWindow* gdk_window = gtk_widget_get_window(GTK_WIDGET(window_));
  EXPECT_EQ(gdk_window_get_width(gdk_window), width);
  EXPECT_EQ(gdk_window_get_height(gdk_window), height);

  ASSERT_NE(host.registry(), nullptr);
  EXPECT_EQ(host.registry()->view(), main.view());
  EXPECT_EQ(WindowBackground::ForWidget(main.view()), &main.background());
  EXPECT_EQ(host.registry()->registrations().size(), 16u);
}

// The real binary with a display: a window instead of the plain loop, same socket rules.
class HostBinaryOnXvfb : public OnXvfb {
 protected:
  void SetUp() override {
    OnXvfb::SetUp();
    gchar* dir = g_dir_make_tmp("corvane-host-gtk-XXXXXX", nullptr);
    dir_ = dir;
    g_free(dir);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // Each host gets its own application id, so a session bus (where there is one) cannot turn
  // the second launch into a hand-over to the first.
  GSubprocess* Spawn(const std::string& id, GSubprocessFlags flags) {
    const std::string info = dir_ + "/" + id + ".conf";
    std::ofstream(info) << "[Info]\nBundleIdentifier=" << id << "\n";
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(flags);
    g_subprocess_launcher_setenv(launcher, "DISPLAY", xvfb_->display().c_str(), TRUE);
    const std::string socket = dir_ + "/engine.sock";
    GSubprocess* process =
        g_subprocess_launcher_spawn(launcher, nullptr, CORVANE_HOST_BINARY, "--engine-socket",
                                    socket.c_str(), "--info", info.c_str(), nullptr);
    g_object_unref(launcher);
    EXPECT_NE(process, nullptr);
    return process;
  }

  std::string dir_;
};

TEST_F(HostBinaryOnXvfb, ServesTheSocketWithAWindowAndRefusesASecondHost) {
  GSubprocess* first = Spawn("io.corvane.test.first", G_SUBPROCESS_FLAGS_STDOUT_PIPE);
  ASSERT_NE(first, nullptr);
  GDataInputStream* out = g_data_input_stream_new(g_subprocess_get_stdout_pipe(first));
  gchar* line = g_data_input_stream_read_line_utf8(out, nullptr, nullptr, nullptr);
  EXPECT_EQ(std::string(line ? line : ""), "engine socket: " + dir_ + "/engine.sock");
  g_free(line);

  GSubprocess* second = Spawn("io.corvane.test.second", G_SUBPROCESS_FLAGS_STDERR_PIPE);
  ASSERT_NE(second, nullptr);
  gchar* err = nullptr;
  g_subprocess_communicate_utf8(second, nullptr, nullptr, nullptr, &err, nullptr);
  EXPECT_TRUE(g_subprocess_get_if_exited(second));
  EXPECT_EQ(g_subprocess_get_exit_status(second), 1) << err;
  EXPECT_NE(std::string(err ? err : "").find("another host"), std::string::npos) << err;
  g_free(err);
  g_object_unref(second);

  g_subprocess_send_signal(first, SIGTERM);
  ASSERT_TRUE(g_subprocess_wait(first, nullptr, nullptr));
  EXPECT_TRUE(g_subprocess_get_if_exited(first));
  EXPECT_EQ(g_subprocess_get_exit_status(first), 0);
  GStatBuf st;
  EXPECT_NE(g_stat((dir_ + "/engine.sock").c_str(), &st), 0) << "socket left behind";
  g_object_unref(out);
  g_object_unref(first);
}

}  // namespace
}  // namespace corvane::host
