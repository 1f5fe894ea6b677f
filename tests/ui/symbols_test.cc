// NativeSystemSymbols without a display: the real icon theme, librsvg and the PNG encoder.
#include <gdk/gdk.h>
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "ui/native_system_symbols.h"
#include "ui/ui_fixture.h"

namespace corvane::ui {
namespace {

using testing::ChannelClient;
using testing::Map;
using testing::MethodReply;
using testing::Value;
using testing::ValueMap;

ValueMap Args(const std::string& symbol, int64_t color) {
  return ValueMap{{Value("symbol"), Value(symbol)}, {Value("color"), Value::Integer(color)}};
}

class SymbolsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Headless: nothing here may need an X server.
    g_unsetenv("DISPLAY");
    g_unsetenv("WAYLAND_DISPLAY");
    ASSERT_EQ(gdk_display_get_default(), nullptr);
  }
  // The reply: null, or what its PNG shows measured against `rgb`.
  std::optional<testing::PixelSummary> Render(Value args, uint32_t rgb = 0) {
    MethodReply reply = client_.Call("render", std::move(args));
    EXPECT_EQ(reply.kind, MethodReply::Kind::kSuccess);
    const channel::Bytes* png = reply.value.bytes_if();
    EXPECT_TRUE(png || reply.value.is_null()) << "neither null nor byte data";
    if (!png) return std::nullopt;
    GdkPixbufLoader* loader = gdk_pixbuf_loader_new_with_type("png", nullptr);
    std::optional<testing::PixelSummary> summary;
    if (gdk_pixbuf_loader_write(loader, png->data(), png->size(), nullptr) &&
        gdk_pixbuf_loader_close(loader, nullptr) &&
        gdk_pixbuf_get_has_alpha(gdk_pixbuf_loader_get_pixbuf(loader))) {
      summary = testing::Summarise(gdk_pixbuf_loader_get_pixbuf(loader), rgb);
    }
    g_object_unref(loader);
    EXPECT_TRUE(summary) << "not an RGBA PNG";
    return summary;
  }

  engine::LoopbackEngine engine_;
  ChannelClient client_{engine_, kSymbolsChannel};
  std::shared_ptr<NativeSystemSymbols> service_ = NativeSystemSymbols::Create(engine_);
};

TEST_F(SymbolsTest, PixelsAreSizeTimesScaleClampedInTheExactColour) {
  const struct {
    Value size;  // null: absent
    Value scale;
    int64_t color;
    int pixels;
    int max_alpha;  // -1: a single pixel says nothing about the shape
  } cases[] = {
      {Value(), Value(), 0xFF336699, 48, 255},                       // 24 points at scale 2
      {Value(200.0), Value(1.0), 0xFF336699, 96, 255},               // size clamped to 96
      {Value(0.0), Value(1.0), 0xFF336699, 1, -1},                   // size clamped to 1
      {Value(24.0), Value(10.0), 0xFF336699, 96, 255},               // scale clamped to 4
      {Value(96.0), Value(4.0), 0xFF336699, 384, 255},               // the largest image
      {Value(24.9), Value(1.5), 0xFF336699, 37, 255},                // 37.35 truncated
      {Value::Integer(30), Value::Integer(3), 0xFF336699, 90, 255},  // integers are numbers
      {Value("big"), Value(true), 0xFF336699, 48, 255},              // mistyped: defaults
      {Value(std::nan("")), Value(-3.0), 0xFF336699, 24, 255},       // NaN: default; scale 1
      {Value(), Value(), 0x80FF0000, 48, 128},
      {Value(), Value(), -16777216, 48, 255},  // 0xFF000000 sent as a signed 32-bit integer
      {Value(), Value(), 0x00FFFFFF, 48, 0},   // fully transparent, yet an image
  };
  for (const auto& c : cases) {
    ValueMap args = Args("gear", c.color);
    if (!c.size.is_null()) args.Append(Value("size"), c.size);
    if (!c.scale.is_null()) args.Append(Value("scale"), c.scale);
    const auto s = Render(Map(std::move(args)), static_cast<uint32_t>(c.color) & 0xFFFFFF);
    ASSERT_TRUE(s) << c.pixels;
    EXPECT_EQ(std::pair(s->width, s->height), std::pair(c.pixels, c.pixels));
    if (c.max_alpha >= 0) {
      EXPECT_EQ(s->max_alpha, c.max_alpha) << std::hex << c.color;
      EXPECT_EQ(s->visible > 0, c.max_alpha > 0) << c.pixels << " pixels";
    }
    EXPECT_EQ(s->off_colour, 0) << "every visible pixel has the exact colour";
  }
}

TEST_F(SymbolsTest, EveryFailureRepliesNull) {
  const Value cases[] = {
      Value(),
      Map({{Value("color"), Value::Integer(0xFF000000)}}),
      Map({{Value("symbol"), Value::Integer(1)}, {Value("color"), Value::Integer(0xFF000000)}}),
      Map({{Value("symbol"), Value("gear")}}),
      Map({{Value("symbol"), Value("gear")}, {Value("color"), Value("red")}}),
      Map(Args("gear", 0x1FF000000)),                         // above 32 bits
      Map(Args("gear", -0x80000001LL)),                       // below
      Map(Args(std::string(124, 'a') + "gear", 0xFF000000)),  // 128 characters
      Map(Args("no.such.symbol", 0xFF000000)),
      Map(Args("../actions/list-add-symbolic", 0xFF000000)),
      Map(Args("/usr/share/icons/Adwaita/scalable/places/folder-symbolic.svg", 0xFF000000)),
      Map(Args(std::string("gear\0x", 6), 0xFF000000)),
  };
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_FALSE(Render(cases[i])) << "case " << i;
  EXPECT_EQ(client_.Call("Render", Map(Args("gear", 0xFF000000))).kind,
            MethodReply::Kind::kNotImplemented);
}

// Each picture means its name; a name no theme here draws answers null, not a look-alike.
TEST_F(SymbolsTest, NamesGetThePictureTheyMean) {
  SymbolRenderer& renderer = NativeSystemSymbols::SharedRenderer();
  const std::pair<const char*, const char*> cases[] = {
      {"list-add-symbolic", "list-add-symbolic"},  // icon-theme names as given
      {"list-add", "list-add-symbolic"},
      {"play.fill", "media-playback-start-symbolic"},  // ".fill" as the plain name
      {"lightbulb", "dialog-information-symbolic"},    // Adwaita's bulb, not the brightness sun
      {"scissors", "edit-cut-symbolic"},
      {"doc.on.clipboard", "edit-paste-symbolic"},
      {"exclamationmark.triangle.fill", "dialog-warning-symbolic"},
      {"exclamationmark.triangle", ""},  // an outline: not the filled triangle
      {"bolt", ""},                      // a lightning bolt, not the Thunderbolt logo
      {"xmark", "process-stop-symbolic"},
  };
  for (const auto& [name, icon] : cases) {
    const auto path = renderer.lookup().Find(name);
    EXPECT_EQ(path ? std::filesystem::path(*path).stem().string() : "", icon) << name;
  }
  // An "xmark" as big as the marks beside it: the width it covers, against "plus".
  auto width = [&](const char* name) {
    const auto coverage = renderer.Coverage(name, 48);
    int lo = 48, hi = -1;
    for (int i = 0; coverage && i < 48 * 48; ++i) {
      if ((*coverage)[i] > 128) lo = std::min(lo, i % 48), hi = std::max(hi, i % 48);
    }
    return hi - lo + 1;
  };
  EXPECT_GE(width("xmark") * 10, width("plus") * 8);
}

// A theme of the test's own, asked before Adwaita, and a symbol file outside every folder
// searched: reachable from them only through ".." (refused).
TEST(SymbolLookupTest, TheChosenThemeComesFirstThenAdwaitaAndNothingEscapes) {
  corvane::testing::TempDir dir;
  const std::string actions = dir / "icons/CorvaneTest/scalable/actions";
  std::filesystem::create_directories(actions);
  std::ofstream(dir / "icons/CorvaneTest/index.theme")
      << "[Icon Theme]\nName=CorvaneTest\nInherits=hicolor\nDirectories=scalable/actions\n\n"
         "[scalable/actions]\nSize=16\nMinSize=1\nMaxSize=512\nType=Scalable\n";
  for (const std::string& file : {actions + "/emblem-system-symbolic.svg",
                                  actions + "/train-symbolic.svg", dir / "secret-symbolic.svg"}) {
    std::ofstream(file) << "<svg xmlns='http://www.w3.org/2000/svg' width='16' height='16'/>";
  }
  SymbolLookup lookup(SymbolLookup::Options{"CorvaneTest", {dir / "icons"}});
  const std::pair<const char*, const char*> cases[] = {
      {"gear", "/CorvaneTest/"},
      {"tram.fill", "/CorvaneTest/"},  // railway symbols where a theme draws them
      {"trash", "/Adwaita/"},
      {"secret", nullptr},
      {"../../../../secret-symbolic", nullptr},
  };
  for (const auto& [name, found_in] : cases) {
    const auto path = lookup.Find(name);
    EXPECT_TRUE(found_in ? path && path->find(found_in) != std::string::npos : !path)
        << name << " " << path.value_or("not found");
  }
  EXPECT_FALSE(SymbolLookup(SymbolLookup::Options{"Adwaita", {}}).Find("tram")) << "no train";
}

}  // namespace
}  // namespace corvane::ui
