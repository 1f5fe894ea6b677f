// MacWindowAppearance against the real main window on a private Xvfb, with the desktop's
// preference coming from GTK's settings or from a test portal on a private session bus; and
// the process's first frame, which has the desktop's look already.
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include "host/host.h"
#include "host/main_flutter_window.h"
#include "host/window_background.h"
#include "ui/desktop_appearance.h"
#include "ui/mac_window_appearance.h"
#include "ui/test_portal.h"
#include "ui/ui_fixture.h"
#include "ui/window_appearance.h"

namespace corvane::ui {
namespace {

using namespace std::chrono_literals;
using testing::ChannelClient;
using testing::MethodReply;
using testing::Value;
constexpr auto kOk = MethodReply::Kind::kSuccess;

class AppearanceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    session_ = std::make_unique<testing::GtkSession>(true);
    if (!session_->ready) return;
    // The process's first window, while a portal that answers late says dark: its first frame,
    // read back from the X server before anything else runs.
    testing::TestPortal portal(session_->bus->line(), 1, false, /*delay_ms=*/300);
    host::Host host{std::make_unique<engine::LoopbackEngine>(), host::InfoDictionary::Default()};
    GtkWidget* window = GTK_WIDGET(host::MainFlutterWindow::Create(nullptr, host)->window());
    bool drawn = false;
    auto on_draw = +[](GtkWidget*, cairo_t*, bool* drawn) {
      *drawn = true;
      return FALSE;
    };
    g_signal_connect_after(window, "draw", G_CALLBACK(on_draw), &drawn);
    dispatch::RunMainUntil([&] { return drawn; }, 20s);
    gdk_display_sync(gdk_display_get_default());
    first_frame_ = testing::WindowPixel(window, gtk_widget_get_allocated_width(window) / 2, 9);
    gtk_widget_destroy(window);
  }
  static void TearDownTestSuite() { session_.reset(); }
  void SetUp() override {
    ASSERT_TRUE(session_->ready) << "Xvfb or dbus-daemon did not start";
    Prefer(false);
    // A portal of an earlier test leaves the bus asynchronously.
    ASSERT_TRUE(dispatch::RunMainUntil(
        [] { return !DesktopAppearance::Shared().portal_scheme().has_value(); }, 10s));
    main_ = host::MainFlutterWindow::Create(nullptr, host_);
    window_ = GTK_WIDGET(main_->window());
    ASSERT_TRUE(dispatch::RunMainUntil([&] { return gtk_widget_get_mapped(window_); }, 20s));
  }
  void TearDown() override { gtk_widget_destroy(window_); }

  static void Prefer(bool dark) {
    g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", dark, nullptr);
  }
  void SetMode(const char* mode) { ASSERT_EQ(client_.Call("setMode", Value(mode)).kind, kOk); }

  // The window shows #0E1A31 or white at its centre and near a corner, within a few seconds
  // (portal changes arrive over the bus), and the widgets' theme variant goes with it.
  void Expect(bool dark, const char* when) {
    const uint32_t rgb = dark ? 0x0E1A31 : 0xFFFFFF;
    const int w = gtk_widget_get_allocated_width(window_);
    const int h = gtk_widget_get_allocated_height(window_);
    dispatch::RunMainUntil([&] { return testing::WindowPixel(window_, w / 2, h / 2) == rgb; }, 10s);
    EXPECT_EQ(testing::WindowPixel(window_, w / 2, h / 2), rgb) << when;
    EXPECT_EQ(testing::WindowPixel(window_, 3, h - 4), rgb) << when;
    GdkRGBA bg{};
    gtk_style_context_lookup_color(gtk_widget_get_style_context(window_), "theme_bg_color", &bg);
    EXPECT_EQ(bg.red < 0.5, dark) << when << ": theme_bg_color red " << bg.red;
  }

  static inline std::unique_ptr<testing::GtkSession> session_;
  static inline uint32_t first_frame_ = 0;
  engine::LoopbackEngine* engine_ = new engine::LoopbackEngine();
  host::Host host_{std::unique_ptr<engine::Engine>(engine_), host::InfoDictionary::Default()};
  ChannelClient client_{*engine_, kAppearanceChannel};
  host::MainFlutterWindow* main_ = nullptr;
  GtkWidget* window_ = nullptr;
};

TEST_F(AppearanceTest, TheFirstFrameAlreadyHasTheLookOfASlowPortal) {
  EXPECT_EQ(first_frame_, 0x0E1A31u);
}

TEST_F(AppearanceTest, ModesAreCheckedBeforeTheWindow) {
  engine::LoopbackEngine headless_engine;
  auto headless = MacWindowAppearance::Create(headless_engine, nullptr);
  ChannelClient headless_client(headless_engine, kAppearanceChannel);
  const Value invalid[] = {Value("Dark"),
                           Value(""),
                           Value(),
                           Value::Integer(1),
                           testing::Map({{Value("mode"), Value("dark")}}),
                           Value("system ")};
  // Without a window: the mode is checked first.
  for (const Value& argument : invalid) {
    MethodReply reply = headless_client.Call("setMode", argument);
    EXPECT_EQ(reply.error.code, "invalid_mode");
    EXPECT_EQ(reply.error.message, "Unknown appearance mode");
    EXPECT_EQ(reply.error.details, argument) << "the argument as received";
  }
  EXPECT_EQ(client_.Call("SetMode", Value("dark")).kind, MethodReply::Kind::kNotImplemented);
  for (const char* mode : {"system", "light", "dark"}) {
    MethodReply reply = headless_client.Call("setMode", Value(mode));
    EXPECT_EQ(reply.error.code, "window_unavailable") << mode;
    EXPECT_EQ(reply.error.message, "The window is not attached");
    EXPECT_TRUE(reply.error.details.is_null());
    reply = client_.Call("setMode", Value(mode));
    EXPECT_TRUE(reply.kind == kOk && reply.value.is_null()) << mode;
  }
  // A view outside any window, and one whose window has gone.
  GtkWidget* loose = g_object_ref_sink(gtk_drawing_area_new());
  auto unattached = MacWindowAppearance::Create(headless_engine, loose);
  EXPECT_EQ(headless_client.Call("setMode", Value("dark")).error.code, "window_unavailable");
  g_object_unref(loose);
  EXPECT_EQ(headless_client.Call("setMode", Value("dark")).error.code, "window_unavailable");
}

TEST_F(AppearanceTest, ForcedModesAndSystemWithoutAPortal) {
  Expect(false, "the desktop prefers nothing");
  SetMode("dark");
  Expect(true, "dark");
  SetMode("light");
  Expect(false, "light");
  // The desktop turns dark while the window is forced light: the window stays light, then
  // follows once handed back.
  Prefer(true);
  dispatch::RunMainUntil([] { return false; }, 100ms);
  Expect(false, "light under a dark desktop");
  SetMode("system");
  Expect(true, "system after light, desktop dark");
  Prefer(false);
  Expect(false, "system, desktop light again");

  // A second window forced dark leaves the main window's look alone.
  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  GtkWidget* view = gtk_drawing_area_new();
  gtk_container_add(GTK_CONTAINER(window), view);
  engine::LoopbackEngine engine;
  auto service = MacWindowAppearance::Create(engine, view);
  gtk_widget_show_all(window);
  ASSERT_EQ(ChannelClient(engine, kAppearanceChannel).Call("setMode", Value("dark")).kind, kOk);
  EXPECT_TRUE(WindowAppearance::Find(view)->dark());
  EXPECT_FALSE(main_->background().dark());
  gtk_widget_destroy(window);
}

TEST_F(AppearanceTest, SystemFollowsThePortalLive) {
  {
    testing::TestPortal portal(session_->bus->line(), 1);
    Expect(true, "the portal says dark");
    portal.Change(2);
    Expect(false, "the portal says light");
    // No preference: GTK's settings decide.
    Prefer(true);
    portal.Change(0);
    Expect(true, "no preference, GTK prefers dark");
    portal.Change(2);
    Expect(false, "the portal overrides GTK");
  }
  Expect(true, "portal gone, GTK prefers dark");
  EXPECT_FALSE(DesktopAppearance::Shared().portal_scheme().has_value());
  Prefer(false);
  Expect(false, "portal gone, GTK light");
  // An older portal without "ReadOne": its double-wrapped "Read" answer counts the same.
  testing::TestPortal old_portal(session_->bus->line(), 1, /*version1=*/true);
  Expect(true, "an older portal says dark");
  EXPECT_EQ(old_portal.reads(), 1);
}

}  // namespace
}  // namespace corvane::ui
