// The test plays the Flutter side of the native UI services through the loopback engine; the
// GTK tests get a private X server (and session bus) per test process.
#pragma once

#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include <memory>
#include <string>
#include <vector>

#include "channel/standard_codec.h"
#include "dispatch/queue.h"
#include "engine/loopback_engine.h"
#include "host/support.h"
#include "support/loopback_call.h"

namespace corvane::ui::testing {

using channel::MethodReply;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;
using corvane::testing::ServerProcess;

inline Value Map(ValueMap m) { return Value(std::move(m)); }

// Xvfb, an empty configuration folder and, when asked, a session bus; GTK initialised on them.
struct GtkSession {
  explicit GtkSession(bool with_bus) {
    g_setenv("XDG_CONFIG_HOME", dir.path().c_str(), TRUE);
    for (const char* name : {"GTK_THEME", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS"})
      g_unsetenv(name);
    g_setenv("NO_AT_BRIDGE", "1", TRUE);
    if (with_bus) {
      bus = std::make_unique<ServerProcess>(
          std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--nopidfile",
                                   "--address=unix:path=" + dir / "bus", "--print-address=1"});
      // The process's desktop preference asks this bus, and no other, for the portal.
      if (bus->line().empty()) return;
      g_setenv("DBUS_SESSION_BUS_ADDRESS", bus->line().c_str(), TRUE);
    }
    g_setenv("DISPLAY", (":" + xvfb.line()).c_str(), TRUE);
    ready = !xvfb.line().empty() && gtk_init_check(nullptr, nullptr);
  }

  corvane::testing::TempDir dir;
  ServerProcess xvfb{
      {"Xvfb", "-displayfd", "1", "-screen", "0", "1280x1024x24", "-nolisten", "tcp"}};
  std::unique_ptr<ServerProcess> bus;
  bool ready = false;
};

// A pixel of `widget`'s window as the X server has it, as 0xRRGGBB.
inline uint32_t WindowPixel(GtkWidget* widget, int x, int y) {
  GdkPixbuf* pixel = gdk_pixbuf_get_from_window(gtk_widget_get_window(widget), x, y, 1, 1);
  if (!pixel) return 0xFFFFFFFF;
  const guchar* p = gdk_pixbuf_read_pixels(pixel);
  const uint32_t rgb = p[0] << 16 | p[1] << 8 | p[2];
  g_object_unref(pixel);
  return rgb;
}

// Calls on one channel; replies are collected as they come.
class ChannelClient {
 public:
  using Replies = std::shared_ptr<std::vector<MethodReply>>;
  ChannelClient(engine::LoopbackEngine& engine, std::string channel)
      : engine_(engine), channel_(std::move(channel)) {}

  Replies CallLater(const std::string& method, Value args = Value()) {
    return corvane::testing::StartCall(engine_, channel_, method, std::move(args));
  }
  MethodReply Call(const std::string& method, Value args = Value()) {
    Replies replies = CallLater(method, std::move(args));
    dispatch::RunMainUntil([&] { return !replies->empty(); }, std::chrono::seconds(10));
    EXPECT_FALSE(replies->empty()) << "no reply to " << method;
    return replies->empty() ? MethodReply() : replies->front();
  }

 private:
  engine::LoopbackEngine& engine_;
  std::string channel_;
};

// What a symbol image holds: its size and the colours of its visible pixels.
struct PixelSummary {
  int width = 0;
  int height = 0;
  int visible = 0;     // pixels with alpha > 0
  int off_colour = 0;  // visible pixels whose RGB is not the expected colour
  int max_alpha = 0;
};

// `pixbuf` must have alpha.
inline PixelSummary Summarise(GdkPixbuf* pixbuf, uint32_t rgb) {
  PixelSummary s{gdk_pixbuf_get_width(pixbuf), gdk_pixbuf_get_height(pixbuf)};
  const guchar* data = gdk_pixbuf_read_pixels(pixbuf);
  for (int y = 0; y < s.height; ++y) {
    for (int x = 0; x < s.width; ++x) {
      const guchar* p = data + y * gdk_pixbuf_get_rowstride(pixbuf) + x * 4;
      if (p[3] == 0) continue;
      ++s.visible;
      s.max_alpha = std::max<int>(s.max_alpha, p[3]);
      s.off_colour += (uint32_t(p[0]) << 16 | p[1] << 8 | p[2]) != rgb;
    }
  }
  return s;
}

}  // namespace corvane::ui::testing
