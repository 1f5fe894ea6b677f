// The test plays the Flutter side of the native UI services through the loopback engine.
#pragma once

#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "channel/standard_codec.h"
#include "dispatch/queue.h"
#include "engine/loopback_engine.h"

namespace corvane::ui::testing {

using channel::MethodReply;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;

inline Value Map(ValueMap m) { return Value(std::move(m)); }

// Calls on one channel; replies are collected as they come.
class ChannelClient {
 public:
  ChannelClient(engine::LoopbackEngine& engine, std::string channel)
      : engine_(engine), channel_(std::move(channel)) {}

  using Replies = std::shared_ptr<std::vector<MethodReply>>;

  Replies CallLater(const std::string& method, Value args = Value()) {
    auto replies = std::make_shared<std::vector<MethodReply>>();
    engine_.SendFromEngine(channel_, channel::EncodeMethodCall({method, std::move(args)}),
                           [replies](channel::Bytes b) {
                             auto decoded = channel::DecodeEnvelope(b);
                             replies->push_back(decoded.value.value_or(MethodReply()));
                           });
    return replies;
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

// A decoded PNG, or null.
inline GdkPixbuf* DecodePng(const channel::Bytes& png) {
  GdkPixbufLoader* loader = gdk_pixbuf_loader_new_with_type("png", nullptr);
  GdkPixbuf* pixbuf = nullptr;
  if (gdk_pixbuf_loader_write(loader, png.data(), png.size(), nullptr) &&
      gdk_pixbuf_loader_close(loader, nullptr)) {
    pixbuf = gdk_pixbuf_loader_get_pixbuf(loader);
    if (pixbuf) g_object_ref(pixbuf);
  }
  g_object_unref(loader);
  return pixbuf;
}

// What a symbol image holds: its size and the colours of its visible pixels.
struct PixelSummary {
  int width = 0;
  int height = 0;
  bool has_alpha = false;
  int visible = 0;     // pixels with alpha > 0
  int off_colour = 0;  // visible pixels whose RGB is not the expected colour
  int max_alpha = 0;
};

inline PixelSummary Summarise(GdkPixbuf* pixbuf, uint32_t rgb) {
  PixelSummary s;
  s.width = gdk_pixbuf_get_width(pixbuf);
  s.height = gdk_pixbuf_get_height(pixbuf);
  s.has_alpha = gdk_pixbuf_get_has_alpha(pixbuf);
  if (!s.has_alpha) return s;
  const int stride = gdk_pixbuf_get_rowstride(pixbuf);
  const guchar* data = gdk_pixbuf_read_pixels(pixbuf);
  for (int y = 0; y < s.height; ++y) {
    for (int x = 0; x < s.width; ++x) {
      const guchar* p = data + y * stride + x * 4;
      if (p[3] == 0) continue;
      ++s.visible;
      s.max_alpha = std::max<int>(s.max_alpha, p[3]);
      if ((static_cast<uint32_t>(p[0]) << 16 | p[1] << 8 | p[2]) != rgb) ++s.off_colour;
    }
  }
  return s;
}

}  // namespace corvane::ui::testing
