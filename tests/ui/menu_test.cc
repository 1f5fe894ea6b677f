// AppleContextMenu with real GTK menus on a private Xvfb: what the item tree builds, and what
// the Flutter side hears after a user clicks, types or dismisses. Input goes through the X
// server (XTest), as a user's would.
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include <functional>

#include "ui/apple_context_menu.h"
#include "ui/menu_builder.h"
#include "ui/native_system_symbols.h"
#include "ui/ui_fixture.h"

// Xlib last: its macros (None, Success, Bool, Status) collide with names above.
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>
#include <gdk/gdkx.h>
#undef None
#undef Success
#undef Bool
#undef Status

namespace corvane::ui {
namespace {

using namespace std::chrono_literals;
using channel::MethodReply;
using testing::ChannelClient;
using testing::Map;
using testing::Value;
using testing::ValueList;
using testing::ValueMap;

// Item maps, as the Flutter side sends them.
ValueMap Action(const char* title, const char* action, ValueMap extra = {}) {
  ValueMap m{{Value("title"), Value(title)}, {Value("action"), Value(action)}};
  for (const auto& e : extra) m.Append(e.key, e.value);
  return m;
}
ValueMap Submenu(const char* title, ValueList children) {
  return ValueMap{{Value("title"), Value(title)}, {Value("children"), Value(std::move(children))}};
}
ValueMap Inline(ValueList children) {
  return ValueMap{{Value("children"), Value(std::move(children))}, {Value("inline"), Value(true)}};
}
ValueList Items(std::initializer_list<ValueMap> maps) {
  ValueList list;
  for (const ValueMap& m : maps) list.emplace_back(m);
  return list;
}

GtkWidget* Named(GtkWidget* root, const char* name) {
  if (g_strcmp0(gtk_widget_get_name(root), name) == 0) return root;
  if (!GTK_IS_CONTAINER(root)) return nullptr;
  GList* children = gtk_container_get_children(GTK_CONTAINER(root));
  GtkWidget* found = nullptr;
  for (GList* c = children; c && !found; c = c->next) found = Named(GTK_WIDGET(c->data), name);
  g_list_free(children);
  return found;
}

GdkRGBA Background(GtkWidget* menu) {
  GdkRGBA* bg = nullptr;
  gtk_style_context_get(gtk_widget_get_style_context(menu), GTK_STATE_FLAG_NORMAL,
                        "background-color", &bg, nullptr);
  const GdkRGBA copy = *bg;
  gdk_rgba_free(bg);
  return copy;
}

// A title drawn in red that reads on the menu's background (WCAG AA, 4.5:1).
bool Readable(GtkWidget* title, GtkWidget* menu) {
  GdkRGBA c{};
  gtk_style_context_get_color(gtk_widget_get_style_context(title), GTK_STATE_FLAG_NORMAL, &c);
  return c.red > c.green + 0.3 && c.red > c.blue + 0.3 && ContrastRatio(c, Background(menu)) >= 4.5;
}

// A menu as text: "-" separator, the title, then markers: "[x]" checked, "(off)" greyed out,
// "!" in a readable red, "~subtitle" with tool tip and dim line, "*" symbol, ">{...}" submenu.
std::string Describe(GtkWidget* menu) {
  std::string out;
  GList* children = gtk_container_get_children(GTK_CONTAINER(menu));
  for (GList* c = children; c; c = c->next) {
    GtkWidget* item = GTK_WIDGET(c->data);
    if (!out.empty()) out += "|";
    if (GTK_IS_SEPARATOR_MENU_ITEM(item)) {
      out += "-";
      continue;
    }
    GtkWidget* title = Named(item, "title");
    out += title ? gtk_label_get_text(GTK_LABEL(title)) : "?";
    if (GTK_IS_CHECK_MENU_ITEM(item) && gtk_check_menu_item_get_active(GTK_CHECK_MENU_ITEM(item))) {
      out += "[x]";
    }
    if (!gtk_widget_get_sensitive(item)) out += "(off)";
    if (title && Readable(title, menu)) out += "!";
    if (GtkWidget* subtitle = Named(item, "subtitle")) {
      out += "~";
      out += gtk_label_get_text(GTK_LABEL(subtitle));
      gchar* tip = gtk_widget_get_tooltip_text(item);
      if (g_strcmp0(tip, gtk_label_get_text(GTK_LABEL(subtitle))) != 0) out += "(no tool tip)";
      g_free(tip);
    } else if (gtk_widget_get_has_tooltip(item)) {
      out += "(stray tool tip)";
    }
    if (Named(item, "symbol")) out += "*";
    if (GtkWidget* sub = gtk_menu_item_get_submenu(GTK_MENU_ITEM(item))) {
      out += ">{" + Describe(sub) + "}";
    }
  }
  g_list_free(children);
  return out;
}

class MenuTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { session_ = std::make_unique<testing::GtkSession>(false); }
  static void TearDownTestSuite() { session_.reset(); }
  void SetUp() override {
    ASSERT_TRUE(session_->ready) << "Xvfb did not start";
    window_ = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_default_size(GTK_WINDOW(window_), 600, 400);
    gtk_window_move(GTK_WINDOW(window_), 50, 60);
    view_ = gtk_drawing_area_new();
    gtk_container_add(GTK_CONTAINER(window_), view_);
    gtk_widget_show_all(window_);
    ASSERT_TRUE(dispatch::RunMainUntil([&] { return gtk_widget_get_mapped(view_); }, 20s));
    gdk_display_sync(gdk_display_get_default());
    service_ = AppleContextMenu::Create(engine_, view_);
  }
  void TearDown() override {
    service_.reset();
    gtk_widget_destroy(window_);
  }

  // Shows a menu and waits until it is on screen.
  ChannelClient::Replies Show(ValueList items, double x = 20, double y = 30) {
    auto replies = client_.CallLater(
        "show",
        Map({{Value("x"), Value(x)}, {Value("y"), Value(y)}, {Value("items"), Value(items)}}));
    EXPECT_TRUE(dispatch::RunMainUntil(
        [&] { return service_->open_menu() && gtk_widget_get_mapped(service_->open_menu()); }, 10s))
        << "no menu on screen";
    gdk_display_sync(gdk_display_get_default());
    return replies;
  }
  // The one reply, once the menu has closed.
  MethodReply Await(const ChannelClient::Replies& replies) {
    dispatch::RunMainUntil([&] { return !replies->empty(); }, 10s);
    // Exactly once: nothing more arrives.
    dispatch::RunMainUntil([] { return false; }, 50ms);
    EXPECT_EQ(replies->size(), 1u);
    return replies->empty() ? MethodReply() : replies->front();
  }

  Display* X() { return gdk_x11_display_get_xdisplay(gdk_display_get_default()); }
  void Keys(std::initializer_list<KeySym> keys) {
    for (KeySym key : keys) {
      const KeyCode code = XKeysymToKeycode(X(), key);
      XTestFakeKeyEvent(X(), code, True, 0);
      XTestFakeKeyEvent(X(), code, False, 0);
      XFlush(X());
      dispatch::RunMainUntil([] { return false; }, 50ms);
    }
  }
  void Click(int root_x, int root_y) {
    XTestFakeMotionEvent(X(), -1, root_x, root_y, 0);
    XFlush(X());
    dispatch::RunMainUntil([] { return false; }, 50ms);
    XTestFakeButtonEvent(X(), 1, True, 0);
    XTestFakeButtonEvent(X(), 1, False, 0);
    XFlush(X());
  }
  static std::pair<int, int> Origin(GtkWidget* widget) {
    int x = 0;
    int y = 0;
    gdk_window_get_origin(gtk_widget_get_window(widget), &x, &y);
    return {x, y};
  }
  // The centre of a menu entry, in root coordinates.
  static std::pair<int, int> Centre(GtkWidget* item) {
    GtkAllocation a;
    gtk_widget_get_allocation(item, &a);
    return {Origin(item).first + a.x + a.width / 2, Origin(item).second + a.y + a.height / 2};
  }
  static GtkWidget* Entry(GtkWidget* menu, int index) {
    GList* children = gtk_container_get_children(GTK_CONTAINER(menu));
    auto* entry = static_cast<GtkWidget*>(g_list_nth_data(children, index));
    g_list_free(children);
    return entry;
  }

  static inline std::unique_ptr<testing::GtkSession> session_;

  engine::LoopbackEngine engine_;
  ChannelClient client_{engine_, kContextMenuChannel};
  GtkWidget* window_ = nullptr;
  GtkWidget* view_ = nullptr;
  std::shared_ptr<AppleContextMenu> service_;
};

TEST_F(MenuTest, TreesBuildTheMenuTheyDescribe) {
  const ValueMap a = Action("A", "a");
  const ValueMap b = Action("B", "b");
  const ValueMap c = Action("C", "c");
  const ValueMap label_only{{Value("title"), Value("Label only")}};
  const struct {
    const char* why;
    ValueList items;
    const char* menu;
  } cases[] = {
      {"inline group opening the menu", Items({Inline(Items({a, b})), c}), "A|B|-|C"},
      {"inline group in the middle", Items({a, Inline(Items({b})), c}), "A|-|B|-|C"},
      {"inline group closing the menu", Items({a, Inline(Items({b, c}))}), "A|-|B|C"},
      {"two groups in a row share one separator",
       Items({a, Inline(Items({b})), Inline(Items({c}))}), "A|-|B|-|C"},
      {"an empty group adds nothing", Items({a, Inline({}), Inline(Items({b}))}), "A|-|B"},
      // Its closing separator still comes: only the end of a menu is trimmed.
      {"a group of skipped items opening the menu", Items({Inline(Items({label_only})), a}), "-|A"},
      {"a group of skipped items closing the menu", Items({a, Inline(Items({label_only}))}), "A"},
      {"nested groups", Items({a, Inline(Items({Inline(Items({b})), c}))}), "A|-|B|-|C"},
      {"submenus", Items({a, Submenu("More", Items({b, Inline(Items({c}))})), Submenu("E", {})}),
       "A|More>{B|-|C}|E>{}"},
      {"items without children or an action are skipped",
       Items({label_only, ValueMap{{Value("title"), Value("X")}, {Value("action"), Value(3)}},
              ValueMap{{Value("children"), Value("not a list")}, {Value("title"), Value("Y")}}, a}),
       "A"},
      {"children that are not all maps make no submenu: the action decides",
       Items({Action("Z", "z", {{Value("children"), Value(ValueList{Value(1)})}})}), "Z"},
      {"flags",
       Items({Action("On", "on", {{Value("checked"), Value(true)}}),
              Action("Off", "off", {{Value("checked"), Value(false)}}),
              Action("Grey", "grey", {{Value("disabled"), Value(true)}}),
              Action("Delete", "delete", {{Value("destructive"), Value(true)}}),
              Action("Sub", "sub", {{Value("subtitle"), Value("second line")}}),
              Action("NoSub", "nosub", {{Value("subtitle"), Value("")}}),
              Action("Gear", "gear", {{Value("symbol"), Value("gear")}}),
              Action("Unknown symbol", "u", {{Value("symbol"), Value("no.such.symbol")}}),
              Action("_Save", "save")}),
       "On[x]|Off|Grey(off)|Delete!|Sub~second line|NoSub|Gear*|Unknown symbol|_Save"},
      {"a submenu entry takes a symbol, not the action flags",
       Items({ValueMap{{Value("title"), Value("S")},
                       {Value("symbol"), Value("folder")},
                       {Value("destructive"), Value(true)},
                       {Value("children"), Value(Items({a}))}}}),
       "S*>{A}"},
  };
  for (const auto& c : cases) {
    MenuBuilder builder(&NativeSystemSymbols::SharedRenderer(), 1, nullptr, nullptr);
    GtkWidget* menu = builder.Build(c.items, "Title");
    EXPECT_EQ(Describe(menu), c.menu) << c.why;
    EXPECT_STREQ(atk_object_get_name(gtk_widget_get_accessible(menu)), "Title");
    gtk_widget_destroy(menu);
    g_object_unref(menu);
  }
}

TEST_F(MenuTest, SeparatorsShowAndRedReadsInLightAndDark) {
  const ValueMap a = Action("A", "a");
  const ValueMap b = Action("B", "b");
  const ValueMap c = Action("Delete", "c", {{Value("destructive"), Value(true)}});
  for (const bool dark : {false, true}) {
    g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", dark, nullptr);
    int height[2] = {0, 0};
    for (const bool grouped : {false, true}) {
      auto replies =
          Show(grouped ? Items({a, Inline(Items({b})), Inline(Items({c}))}) : Items({a, b, c}));
      GtkWidget* menu = service_->open_menu();
      ASSERT_NE(menu, nullptr);
      height[grouped] = gtk_widget_get_allocated_height(menu);
      // What is on screen: separators drawn with room of their own.
      std::string shown;
      for (int i = 0; GtkWidget* entry = Entry(menu, i); ++i) {
        const bool line = GTK_IS_SEPARATOR_MENU_ITEM(entry);
        if (gtk_widget_get_mapped(entry) && gtk_widget_get_allocated_height(entry) > 0)
          shown += line ? "-" : "e";
      }
      EXPECT_EQ(shown, grouped ? "e-e-e" : "eee") << "dark " << dark;
      EXPECT_TRUE(Readable(Named(Entry(menu, grouped ? 4 : 2), "title"), menu)) << "dark " << dark;
      if (const char* dir = g_getenv("CORVANE_MENU_SHOTS")) {
        dispatch::RunMainUntil([] { return false; }, 300ms);  // painted
        GtkWidget* top = gtk_widget_get_toplevel(menu);
        const auto [x, y] = Origin(top);
        GdkPixbuf* shot = gdk_pixbuf_get_from_window(gdk_get_default_root_window(), x - 20, y - 20,
                                                     gtk_widget_get_allocated_width(top) + 40,
                                                     gtk_widget_get_allocated_height(top) + 40);
        gdk_pixbuf_save(shot,
                        (std::string(dir) + "/menu-" + (grouped ? "groups-" : "plain-") +
                         (dark ? "dark" : "light") + ".png")
                            .c_str(),
                        "png", nullptr, nullptr);
        g_object_unref(shot);
      }
      Keys({XK_Escape});
      Await(replies);
    }
    EXPECT_GT(height[1], height[0]) << "the separators take room; dark " << dark;
  }
  g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", FALSE, nullptr);
}

TEST_F(MenuTest, HugeTreesAreBounded) {
  // Deeper than the codec lets through (it stops at 128): built as far as the depth bound.
  Value deep(Items({Action("leaf", "leaf")}));
  for (int i = 0; i < 200; ++i) deep = Value(Items({Submenu("level", *deep.list_if())}));
  // Thousands of entries, alternating with inline groups.
  ValueList many;
  for (int i = 0; i < 5000; ++i)
    many.emplace_back(i % 2 ? Action("x", "x") : Inline(Items({Action("y", "y")})));

  MenuBuilder builder(nullptr, 1, nullptr, nullptr);
  GtkWidget* menu = builder.Build(*deep.list_if(), "");
  EXPECT_TRUE(builder.truncated());
  const std::string levels = Describe(menu);
  EXPECT_EQ(std::count(levels.begin(), levels.end(), '{'), kMaxMenuDepth - 1);
  gtk_widget_destroy(menu);
  g_object_unref(menu);

  menu = builder.Build(many, "");
  EXPECT_TRUE(builder.truncated());
  // Filled to the bound, less the separator trimmed from the end.
  EXPECT_GE(builder.entries(), kMaxMenuEntries - 1);
  const std::string described = Describe(menu);
  EXPECT_EQ(std::count(described.begin(), described.end(), '|') + 1, builder.entries());
  EXPECT_NE(described.back(), '-') << "no separator closes the menu";
  gtk_widget_destroy(menu);
  g_object_unref(menu);
}

TEST_F(MenuTest, AClickedItemRepliesItsActionAtThePoint) {
  auto replies = Show(Items({Action("Open", "open", {{Value("symbol"), Value("folder")}}),
                             Action("Drive", "drive")}),
                      120, 0);
  GtkWidget* menu = service_->open_menu();
  ASSERT_NE(menu, nullptr);

  // The symbol is painted in the entry's text colour: its solid pixels are exactly that colour.
  GtkWidget* symbol = Named(Entry(menu, 0), "symbol");
  ASSERT_NE(symbol, nullptr);
  GdkRGBA text{};
  GtkStyleContext* style = gtk_widget_get_style_context(Named(Entry(menu, 0), "title"));
  gtk_style_context_get_color(style, gtk_style_context_get_state(style), &text);
  const auto byte = [](double v) { return static_cast<uint32_t>(v * 255 + 0.5); };
  const uint32_t text_rgb = byte(text.red) << 16 | byte(text.green) << 8 | byte(text.blue);
  auto text_pixels = [&] {
    GdkPixbuf* shot = gdk_pixbuf_get_from_window(gtk_widget_get_window(symbol), 0, 0,
                                                 gtk_widget_get_allocated_width(symbol),
                                                 gtk_widget_get_allocated_height(symbol));
    if (!shot) return 0;
    GdkPixbuf* rgba = gdk_pixbuf_add_alpha(shot, FALSE, 0, 0, 0);
    const auto summary = testing::Summarise(rgba, text_rgb);
    g_object_unref(rgba);
    g_object_unref(shot);
    return summary.visible - summary.off_colour;
  };
  EXPECT_TRUE(dispatch::RunMainUntil([&] { return text_pixels() > 10; }, 5s))
      << "no symbol pixel in the text colour #" << std::hex << text_rgb;
  // The menu's corner is at the point: "y" 0 is the view's top edge.
  const auto [view_x, view_y] = Origin(view_);
  EXPECT_EQ(Origin(gtk_widget_get_toplevel(menu)), std::make_pair(view_x + 120, view_y));

  auto [x, y] = Centre(Entry(menu, 1));
  Click(x, y);
  MethodReply reply = Await(replies);
  ASSERT_EQ(reply.kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(reply.value, Value("drive"));
  EXPECT_EQ(service_->open_menu(), nullptr);
}

TEST_F(MenuTest, KeyboardChoosesAndEveryDismissalAnswersNull) {
  const ValueList items =
      Items({Action("Grey", "grey", {{Value("disabled"), Value(true)}}), Action("First", "first"),
             Submenu("More", Items({Action("Deep", "deep")}))});
  const struct {
    const char* why;
    std::function<void()> gesture;
    Value chosen;
  } cases[] = {
      {"down skips the greyed-out entry",
       [&] {
         Keys({XK_Down, XK_Return});
       },
       Value("first")},
      {"into the submenu",
       [&] {
         Keys({XK_Down, XK_Down, XK_Right, XK_Return});
       },
       Value("deep")},
      {"escape", [&] { Keys({XK_Escape}); }, Value()},
      {"a click outside", [&] { Click(Origin(view_).first + 590, Origin(view_).second + 390); },
       Value()},
      {"a greyed-out entry activated by program",
       [&] {
         GtkWidget* menu = service_->open_menu();
         gtk_menu_shell_activate_item(GTK_MENU_SHELL(menu), Entry(menu, 0), TRUE);
       },
       Value()},
      // Last: the view goes with it.
      {"the window closes under the menu",
       [&] {
         gtk_widget_destroy(window_);
         window_ = gtk_window_new(GTK_WINDOW_TOPLEVEL);
       },
       Value()},
  };
  for (const auto& c : cases) {
    auto replies = Show(items);
    c.gesture();
    MethodReply reply = Await(replies);
    EXPECT_EQ(reply.kind, MethodReply::Kind::kSuccess) << c.why;
    EXPECT_EQ(reply.value, c.chosen) << c.why;
    EXPECT_EQ(service_->open_menu(), nullptr) << c.why;
  }
}

TEST_F(MenuTest, ASecondShowDismissesTheFirst) {
  auto first = Show(Items({Action("One", "one")}));
  GtkWidget* first_menu = service_->open_menu();
  auto second = Show(Items({Action("Two", "two")}), 200, 100);
  ASSERT_EQ(first->size(), 1u) << "the first answers as soon as the second shows";
  EXPECT_TRUE(first->front().value.is_null());
  EXPECT_NE(service_->open_menu(), first_menu);
  EXPECT_TRUE(second->empty());
  Keys({XK_Down, XK_Return});
  EXPECT_EQ(Await(second).value, Value("two"));
  EXPECT_EQ(first->size(), 1u);
}

TEST_F(MenuTest, BadRequestsAndNoWindowReplyNullAtOnce) {
  const Value items(Items({Action("A", "a")}));
  auto request = [&](Value x, Value y, Value items) {
    ValueMap m;
    if (!x.is_null()) m.Append(Value("x"), x);
    if (!y.is_null()) m.Append(Value("y"), y);
    if (!items.is_null()) m.Append(Value("items"), items);
    return Map(m);
  };
  const struct {
    const char* why;
    Value args;
  } cases[] = {
      {"no arguments", Value()},
      {"no x", request(Value(), Value(1.0), items)},
      {"y a string", request(Value(1.0), Value("1"), items)},
      {"x not finite", request(Value(std::numeric_limits<double>::infinity()), Value(1.0), items)},
      {"no items", request(Value(1.0), Value(1.0), Value())},
      {"empty items", request(Value(1.0), Value(1.0), Value(ValueList{}))},
      {"items a map", request(Value(1.0), Value(1.0), Map({}))},
      {"nothing choosable",
       request(Value(1.0), Value(1.0),
               Value(ValueList{Value(1), Map({{Value("title"), Value("t")}})}))},
      {"only a group that builds nothing",
       request(Value(1.0), Value(1.0),
               Value(ValueList{Value(Inline(Items({ValueMap{{Value("title"), Value("t")}}})))}))},
  };
  for (const auto& c : cases) {
    MethodReply reply = client_.Call("show", c.args);
    EXPECT_EQ(reply.kind, MethodReply::Kind::kSuccess) << c.why;
    EXPECT_TRUE(reply.value.is_null()) << c.why;
    EXPECT_EQ(service_->open_menu(), nullptr) << c.why;
  }
  EXPECT_EQ(client_.Call("Show", Map({})).kind, MethodReply::Kind::kNotImplemented);

  const Value good = request(Value::Integer(5), Value::Integer(5), items);
  engine::LoopbackEngine headless_engine;
  auto headless = AppleContextMenu::Create(headless_engine, nullptr);
  ChannelClient headless_client(headless_engine, kContextMenuChannel);
  EXPECT_TRUE(headless_client.Call("show", good).value.is_null());

  // The view's window has gone; then the service itself.
  gtk_widget_destroy(window_);
  window_ = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  EXPECT_TRUE(client_.Call("show", good).value.is_null());
  service_.reset();
  EXPECT_EQ(client_.Call("show", good).kind, MethodReply::Kind::kNotImplemented);
}

}  // namespace
}  // namespace corvane::ui
