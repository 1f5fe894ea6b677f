// MacWindowAppearance against the real main window on a private Xvfb, with the desktop's
// preference coming from GTK's settings or from a test portal on a private session bus.
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include "host/host.h"
#include "host/main_flutter_window.h"
#include "host/registration.h"
#include "host/window_background.h"
#include "ui/desktop_appearance.h"
#include "ui/mac_window_appearance.h"
#include "ui/native_system_symbols.h"
#include "ui/test_portal.h"
#include "ui/ui_fixture.h"
#include "ui/window_appearance.h"

namespace corvane::ui {
namespace {

using namespace std::chrono_literals;
using channel::MethodReply;
using testing::ChannelClient;
using testing::Value;

constexpr uint32_t kDarkBlue = 0x0E1A31;
constexpr uint32_t kWhite = 0xFFFFFF;

class AppearanceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { session_ = std::make_unique<testing::GtkSession>(true); }
  static void TearDownTestSuite() { session_.reset(); }
  void SetUp() override {
    ASSERT_TRUE(session_->ready) << "Xvfb or dbus-daemon did not start";
    g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", FALSE,
                 "gtk-theme-name", "Adwaita", nullptr);
    // A portal of an earlier test leaves the bus asynchronously.
    ASSERT_TRUE(dispatch::RunMainUntil(
        [] { return !DesktopAppearance::Shared().portal_scheme().has_value(); }, 10s));
    main_ = host::MainFlutterWindow::Create(nullptr, host_);
    ASSERT_TRUE(dispatch::RunMainUntil(
        [&] { return gtk_widget_get_mapped(GTK_WIDGET(main_->window())); }, 20s));
  }
  void TearDown() override {
    if (main_) gtk_widget_destroy(GTK_WIDGET(main_->window()));
  }

  MethodReply SetMode(Value mode) { return client_.Call("setMode", std::move(mode)); }

  uint32_t Pixel(int x, int y) { return testing::WindowPixel(GTK_WIDGET(main_->window()), x, y); }

  // The window shows `rgb` at its centre and near a corner, within a few seconds (portal
  // changes arrive over the bus).
  void ExpectBackground(uint32_t rgb, const char* when) {
    GdkWindow* window = gtk_widget_get_window(GTK_WIDGET(main_->window()));
    const int w = gdk_window_get_width(window);
    const int h = gdk_window_get_height(window);
    const bool dark = rgb == kDarkBlue;
    dispatch::RunMainUntil(
        [&] { return main_->background().dark() == dark && Pixel(w / 2, h / 2) == rgb; }, 10s);
    EXPECT_EQ(Pixel(w / 2, h / 2), rgb) << when;
    EXPECT_EQ(Pixel(3, h - 4), rgb) << when;
    // The widgets' theme variant goes with it: GTK's own background colour is dark or light.
    GdkRGBA bg{};
    ASSERT_TRUE(gtk_style_context_lookup_color(
        gtk_widget_get_style_context(GTK_WIDGET(main_->window())), "theme_bg_color", &bg));
    EXPECT_EQ(bg.red < 0.5, dark) << when << ": theme_bg_color red " << bg.red;
  }

  static inline std::unique_ptr<testing::GtkSession> session_;

  engine::LoopbackEngine* engine_ = new engine::LoopbackEngine();
  host::Host host_{std::unique_ptr<engine::Engine>(engine_), host::InfoDictionary::Default()};
  ChannelClient client_{*engine_, kAppearanceChannel};
  host::MainFlutterWindow* main_ = nullptr;
};

TEST_F(AppearanceTest, ModesAreCheckedBeforeTheWindow) {
  const channel::ValueMap map_argument{{Value("mode"), Value("dark")}};
  const Value invalid[] = {Value("Dark"),     Value(""),           Value(),
                           Value::Integer(1), Value(map_argument), Value("system ")};

  engine::LoopbackEngine headless_engine;
  auto headless = MacWindowAppearance::Create(headless_engine, nullptr);
  ChannelClient headless_client(headless_engine, kAppearanceChannel);

  for (ChannelClient* client : {&client_, &headless_client}) {
    for (const Value& argument : invalid) {
      MethodReply reply = client->Call("setMode", argument);
      ASSERT_EQ(reply.kind, MethodReply::Kind::kError);
      EXPECT_EQ(reply.error.code, "invalid_mode");
      EXPECT_EQ(reply.error.message, "Unknown appearance mode");
      EXPECT_EQ(reply.error.details, argument) << "the argument as received";
    }
    EXPECT_EQ(client->Call("SetMode", Value("dark")).kind, MethodReply::Kind::kNotImplemented);
  }
  for (const char* mode : {"system", "light", "dark"}) {
    MethodReply reply = headless_client.Call("setMode", Value(mode));
    ASSERT_EQ(reply.kind, MethodReply::Kind::kError) << mode;
    EXPECT_EQ(reply.error.code, "window_unavailable");
    EXPECT_EQ(reply.error.message, "The window is not attached");
    EXPECT_TRUE(reply.error.details.is_null());

    reply = SetMode(Value(mode));
    EXPECT_EQ(reply.kind, MethodReply::Kind::kSuccess) << mode;
    EXPECT_TRUE(reply.value.is_null());
  }

  // A view outside any window, and one whose window has gone.
  GtkWidget* loose = gtk_drawing_area_new();
  g_object_ref_sink(loose);
  auto unattached = MacWindowAppearance::Create(headless_engine, loose);
  EXPECT_EQ(headless_client.Call("setMode", Value("dark")).error.code, "window_unavailable");
  g_object_unref(loose);
  EXPECT_EQ(headless_client.Call("setMode", Value("dark")).error.code, "window_unavailable");
}

TEST_F(AppearanceTest, ForcedModesAndSystemWithoutAPortal) {
  ExpectBackground(kWhite, "the desktop prefers nothing");
  ASSERT_EQ(SetMode(Value("dark")).kind, MethodReply::Kind::kSuccess);
  ExpectBackground(kDarkBlue, "dark");
  ASSERT_EQ(SetMode(Value("light")).kind, MethodReply::Kind::kSuccess);
  ExpectBackground(kWhite, "light");

  // The desktop turns dark while the window is forced light: the window stays light, then
  // follows once handed back.
  g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", TRUE, nullptr);
  dispatch::RunMainUntil([] { return false; }, 100ms);
  ExpectBackground(kWhite, "light under a dark desktop");
  ASSERT_EQ(SetMode(Value("system")).kind, MethodReply::Kind::kSuccess);
  ExpectBackground(kDarkBlue, "system after light, desktop dark");
  g_object_set(gtk_settings_get_default(), "gtk-theme-name", "Adwaita",
               "gtk-application-prefer-dark-theme", FALSE, nullptr);
  ExpectBackground(kWhite, "system, desktop light again");
}

TEST_F(AppearanceTest, SystemFollowsThePortalLive) {
  {
    testing::TestPortal portal(session_->bus->line(), 1);
    ExpectBackground(kDarkBlue, "the portal says dark");
    EXPECT_EQ(DesktopAppearance::Shared().portal_scheme(), ColorScheme::kDark);
    portal.Change(2);
    ExpectBackground(kWhite, "the portal says light");

    ASSERT_EQ(SetMode(Value("dark")).kind, MethodReply::Kind::kSuccess);
    ExpectBackground(kDarkBlue, "forced dark under a light portal");
    ASSERT_EQ(SetMode(Value("system")).kind, MethodReply::Kind::kSuccess);
    ExpectBackground(kWhite, "system again: the portal's light");

    // No preference: GTK's settings decide.
    g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", TRUE, nullptr);
    portal.Change(0);
    ExpectBackground(kDarkBlue, "no preference, GTK prefers dark");
    portal.Change(2);
    ExpectBackground(kWhite, "the portal overrides GTK");
  }
  // The portal left the bus: GTK's settings again.
  ExpectBackground(kDarkBlue, "portal gone, GTK prefers dark");
  EXPECT_FALSE(DesktopAppearance::Shared().portal_scheme().has_value());
  g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", FALSE, nullptr);
  ExpectBackground(kWhite, "portal gone, GTK light");

  // An older portal without "ReadOne": its double-wrapped "Read" answer counts the same.
  testing::TestPortal old_portal(session_->bus->line(), 1, /*version1=*/true);
  ExpectBackground(kDarkBlue, "an older portal says dark");
  EXPECT_EQ(old_portal.reads(), 1);
}

TEST_F(AppearanceTest, ASecondaryWindowGetsItsOwnAppearanceAndSymbols) {
  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  GtkWidget* view = gtk_drawing_area_new();
  gtk_container_add(GTK_CONTAINER(window), view);
  gtk_widget_show_all(window);
  engine::LoopbackEngine engine;
  const host::InfoDictionary info = host::InfoDictionary::Default();
  {
    host::PluginRegistry registry(engine, view, info);
    host::RegisterSecondaryWindowServices(registry);
    ChannelClient appearance(engine, kAppearanceChannel);
    ASSERT_EQ(appearance.Call("setMode", Value("dark")).kind, MethodReply::Kind::kSuccess);
    EXPECT_TRUE(WindowAppearance::Find(view)->dark());
    EXPECT_FALSE(main_->background().dark()) << "the main window keeps its own look";

    ChannelClient symbols(engine, kSymbolsChannel);
    MethodReply png =
        symbols.Call("render", testing::Map({{Value("symbol"), Value("gear")},
                                             {Value("color"), Value::Integer(0xFFFFFFFF)}}));
    EXPECT_NE(png.value.bytes_if(), nullptr);
    // Context menus belong to the main window alone: nobody answers here.
    ChannelClient menus(engine, "io.corvane/context_menu");
    EXPECT_EQ(menus.Call("show", Value()).kind, MethodReply::Kind::kNotImplemented);
  }
  gtk_widget_destroy(window);
}

}  // namespace
}  // namespace corvane::ui
