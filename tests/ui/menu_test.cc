// AppleContextMenu with real GTK menus on a private Xvfb: what the item tree builds and shows,
// and what the Flutter side hears after a user clicks, types or dismisses. Input goes through
// the X server (XTest), as a user's would.
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
using testing::ChannelClient;
using testing::Map;
using testing::MethodReply;
using testing::Value;
using testing::ValueList;
using testing::ValueMap;

// Item maps, as the Flutter side sends them.
ValueMap Action(const char* title, const char* action, const char* flag = nullptr,
                Value value = Value(true)) {
  ValueMap m{{Value("title"), Value(title)}};
  if (action) m.Append(Value("action"), Value(action));
  if (flag) m.Append(Value(flag), value);
  return m;
}
ValueMap Group(ValueList children, const char* title = nullptr) {
  if (title) return ValueMap{{Value("title"), Value(title)}, {Value("children"), Value(children)}};
  return ValueMap{{Value("children"), Value(std::move(children))}, {Value("inline"), Value(true)}};
}
ValueList Items(std::initializer_list<ValueMap> maps) {
  return ValueList(maps.begin(), maps.end());
}

GtkWidget* Named(GtkWidget* root, const char* name) {
  if (g_strcmp0(gtk_widget_get_name(root), name) == 0) return root;
  GtkWidget* found = nullptr;
  if (GTK_IS_CONTAINER(root)) {
    GList* children = gtk_container_get_children(GTK_CONTAINER(root));
    for (GList* c = children; c && !found; c = c->next) found = Named(GTK_WIDGET(c->data), name);
    g_list_free(children);
  }
  return found;
}
GtkWidget* Entry(GtkWidget* menu, int index) {
  GList* children = gtk_container_get_children(GTK_CONTAINER(menu));
  auto* entry = static_cast<GtkWidget*>(g_list_nth_data(children, index));
  g_list_free(children);
  return entry;
}

// A title drawn in red that reads on the menu's own background (4.5:1).
bool ReadableRed(GtkWidget* title, GtkWidget* menu) {
  GdkRGBA c{};
  GdkRGBA* bg = nullptr;
  gtk_style_context_get_color(gtk_widget_get_style_context(title), GTK_STATE_FLAG_NORMAL, &c);
  gtk_style_context_get(gtk_widget_get_style_context(menu), GTK_STATE_FLAG_NORMAL,
                        "background-color", &bg, nullptr);
  const double contrast = ContrastRatio(c, *bg);
  gdk_rgba_free(bg);
  return c.red > c.green + 0.3 && c.red > c.blue + 0.3 && contrast >= 4.5;
}

// A menu as text: "-" a shown separator, the title, then "[x]" checked, "(off)" greyed out,
// "!" readable red, "~subtitle" with its tool tip, "*" symbol, ">{...}" submenu.
std::string Describe(GtkWidget* menu) {
  std::string out;
  for (int i = 0; GtkWidget* item = Entry(menu, i); ++i) {
    out += i ? "|" : "";
    if (GTK_IS_SEPARATOR_MENU_ITEM(item)) {
      out += gtk_widget_get_visible(item) ? "-" : "(hidden -)";
      continue;
    }
    GtkWidget* title = Named(item, "title");
    out += gtk_label_get_text(GTK_LABEL(title));
    auto* check = GTK_IS_CHECK_MENU_ITEM(item) ? GTK_CHECK_MENU_ITEM(item) : nullptr;
    if (check && gtk_check_menu_item_get_active(check)) out += "[x]";
    if (!gtk_widget_get_sensitive(item)) out += "(off)";
    if (ReadableRed(title, menu)) out += "!";
    gchar* tip = gtk_widget_get_tooltip_text(item);
    if (GtkWidget* subtitle = Named(item, "subtitle")) {
      out += "~" + std::string(gtk_label_get_text(GTK_LABEL(subtitle)));
      if (g_strcmp0(tip, gtk_label_get_text(GTK_LABEL(subtitle))) != 0) out += "(no tool tip)";
    } else if (tip) {
      out += "(stray tool tip)";
    }
    g_free(tip);
    if (Named(item, "symbol")) out += "*";
    if (GtkWidget* sub = gtk_menu_item_get_submenu(GTK_MENU_ITEM(item)))
      out += ">{" + Describe(sub) + "}";
  }
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
    service_ = AppleContextMenu::Create(engine_, view_);
  }
  void TearDown() override {
    service_.reset();
    gtk_widget_destroy(window_);
  }

  static Value Request(Value x, Value y, Value items) {
    ValueMap m;
    for (auto [key, value] : {std::pair{"x", x}, {"y", y}, {"items", items}})
      if (!value.is_null()) m.Append(Value(key), value);
    return Map(m);
  }
  // Shows a menu and waits until it is on screen.
  ChannelClient::Replies Show(ValueList items, double x = 20, double y = 30) {
    auto replies = client_.CallLater("show", Request(Value(x), Value(y), Value(items)));
    EXPECT_TRUE(dispatch::RunMainUntil(
        [&] { return service_->open_menu() && gtk_widget_get_mapped(service_->open_menu()); }, 10s))
        << "no menu on screen";
    gdk_display_sync(gdk_display_get_default());
    return replies;
  }
  // The one reply, once the menu has closed: exactly one, nothing more arrives.
  Value Await(const ChannelClient::Replies& replies) {
    dispatch::RunMainUntil([&] { return !replies->empty(); }, 10s);
    dispatch::RunMainUntil([] { return false; }, 50ms);
    EXPECT_EQ(replies->size(), 1u);
    EXPECT_EQ(service_->open_menu(), nullptr);
    return replies->empty() ? Value("no reply") : replies->front().value;
  }
  Display* X() { return gdk_x11_display_get_xdisplay(gdk_display_get_default()); }
  void Keys(std::initializer_list<KeySym> keys) {
    for (KeySym key : keys) {
      XTestFakeKeyEvent(X(), XKeysymToKeycode(X(), key), True, 0);
      XTestFakeKeyEvent(X(), XKeysymToKeycode(X(), key), False, 0);
      XFlush(X());
      dispatch::RunMainUntil([] { return false; }, 50ms);
    }
  }
  void Click(std::pair<int, int> root) {
    XTestFakeMotionEvent(X(), -1, root.first, root.second, 0);
    XFlush(X());
    dispatch::RunMainUntil([] { return false; }, 50ms);
    XTestFakeButtonEvent(X(), 1, True, 0);
    XTestFakeButtonEvent(X(), 1, False, 0);
    XFlush(X());
  }
  // A widget's point (dx, dy), or its centre, in root coordinates.
  static std::pair<int, int> At(GtkWidget* widget, int dx = -1, int dy = -1) {
    GtkAllocation a;
    gtk_widget_get_allocation(widget, &a);
    int x = 0, y = 0;
    gdk_window_get_origin(gtk_widget_get_window(widget), &x, &y);
    if (dx < 0) return {x + a.x + a.width / 2, y + a.y + a.height / 2};
    return {x + dx, y + dy};
  }

  static inline std::unique_ptr<testing::GtkSession> session_;
  engine::LoopbackEngine engine_;
  ChannelClient client_{engine_, kContextMenuChannel};
  GtkWidget* window_ = nullptr;
  GtkWidget* view_ = nullptr;
  std::shared_ptr<AppleContextMenu> service_;
};

TEST_F(MenuTest, TreesBuildTheMenuTheyDescribe) {
  const ValueMap a = Action("A", "a"), b = Action("B", "b"), c = Action("C", "c");
  const ValueMap label{{Value("title"), Value("Label only")}};
  const struct {
    ValueList items;
    const char* menu;
  } cases[] = {
      {Items({Group(Items({a, b})), c}), "A|B|-|C"},  // no separator opens the menu
      {Items({a, Group(Items({b})), c}), "A|-|B|-|C"},
      {Items({a, Group(Items({b, c}))}), "A|-|B|C"},                    // nor closes it
      {Items({a, Group(Items({b})), Group(Items({c}))}), "A|-|B|-|C"},  // one between groups
      {Items({a, Group({}), Group(Items({b}))}), "A|-|B"},
      // A group's closing separator comes even when it built nothing; only the end is trimmed.
      {Items({Group(Items({label})), a}), "-|A"},
      {Items({a, Group(Items({label}))}), "A"},
      {Items({a, Group(Items({Group(Items({b})), c}))}), "A|-|B|-|C"},
      {Items({a, Group(Items({b, Group(Items({c}))}), "More"), Group({}, "E")}),
       "A|More>{B|-|C}|E>{}"},
      // Neither children (all maps) nor an action string: skipped; children that are not all
      // maps make no submenu.
      {Items({label, Action("X", nullptr, "action", Value(3)),
              ValueMap{{Value("children"), Value("no list")}, {Value("title"), Value("Y")}},
              Action("Z", "z", "children", Value(ValueList{Value(1)}))}),
       "Z"},
      {Items({Action("On", "on", "checked"), Action("Off", "off", "checked", Value(false)),
              Action("Grey", "grey", "disabled"), Action("Delete", "del", "destructive"),
              Action("Sub", "sub", "subtitle", Value("line")),
              Action("NoSub", "nosub", "subtitle", Value("")),
              Action("Gear", "gear", "symbol", Value("gear")),
              Action("Unknown", "u", "symbol", Value("no.such.symbol")), Action("_Save", "s")}),
       "On[x]|Off|Grey(off)|Delete!|Sub~line|NoSub|Gear*|Unknown|_Save"},
      // A submenu entry takes a symbol, not the action flags.
      {Items({ValueMap{{Value("title"), Value("S")},
                       {Value("symbol"), Value("folder")},
                       {Value("destructive"), Value(true)},
                       {Value("children"), Value(Items({a}))}}}),
       "S*>{A}"},
  };
  for (const auto& c : cases) {
    MenuBuilder builder(&NativeSystemSymbols::SharedRenderer(), 1, nullptr, nullptr);
    GtkWidget* menu = builder.Build(c.items, "Title");
    EXPECT_EQ(Describe(menu), c.menu);
    EXPECT_STREQ(atk_object_get_name(gtk_widget_get_accessible(menu)), "Title");
    gtk_widget_destroy(menu);
    g_object_unref(menu);
  }
}

TEST_F(MenuTest, SeparatorsTakeRoomAndRedReadsInLightAndDark) {
  const ValueMap a = Action("A", "a"), b = Action("B", "b");
  const ValueMap c = Action("Delete", "c", "destructive");
  for (const bool dark : {false, true}) {
    g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", dark, nullptr);
    int height[2] = {0, 0};
    for (const bool groups : {false, true}) {
      auto replies =
          Show(groups ? Items({a, Group(Items({b})), Group(Items({c}))}) : Items({a, b, c}));
      GtkWidget* menu = service_->open_menu();
      height[groups] = gtk_widget_get_allocated_height(menu);
      std::string shown;  // what is on screen, with room of its own
      for (int i = 0; GtkWidget* entry = Entry(menu, i); ++i) {
        if (gtk_widget_get_mapped(entry) && gtk_widget_get_allocated_height(entry) > 0)
          shown += GTK_IS_SEPARATOR_MENU_ITEM(entry) ? "-" : "e";
      }
      EXPECT_EQ(shown, groups ? "e-e-e" : "eee") << "dark " << dark;
      EXPECT_TRUE(ReadableRed(Named(Entry(menu, groups ? 4 : 2), "title"), menu)) << dark;
      Keys({XK_Escape});
      Await(replies);
    }
    EXPECT_GT(height[1], height[0]) << "dark " << dark;
  }
  g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", FALSE, nullptr);
}

TEST_F(MenuTest, HugeTreesAreBounded) {
  // Deeper than the codec lets through (it stops at 128), and thousands of entries.
  Value deep(Items({Action("leaf", "leaf")}));
  for (int i = 0; i < 200; ++i) deep = Value(Items({Group(*deep.list_if(), "level")}));
  ValueList many;
  for (int i = 0; i < 5000; ++i)
    many.emplace_back(i % 2 ? Action("x", "x") : Group(Items({Action("y", "y")})));
  MenuBuilder builder(nullptr, 1, nullptr, nullptr);
  for (const ValueList* items : {deep.list_if(), const_cast<const ValueList*>(&many)}) {
    GtkWidget* menu = builder.Build(*items, "");
    EXPECT_TRUE(builder.truncated());
    const std::string text = Describe(menu);
    if (items == &many) {
      // Filled to the bound, less the separator trimmed from the end.
      EXPECT_GE(builder.entries(), kMaxMenuEntries - 1);
      EXPECT_EQ(std::count(text.begin(), text.end(), '|') + 1, builder.entries());
      EXPECT_NE(text.back(), '-');
    } else {
      EXPECT_EQ(std::count(text.begin(), text.end(), '{'), kMaxMenuDepth - 1);
    }
    gtk_widget_destroy(menu);
    g_object_unref(menu);
  }
}

TEST_F(MenuTest, AClickedItemRepliesItsActionAtThePoint) {
  auto replies = Show(
      Items({Action("Open", "open", "symbol", Value("folder")), Action("Drive", "drive")}), 120, 0);
  GtkWidget* menu = service_->open_menu();
  // The symbol is painted in the entry's text colour: its solid pixels are exactly that colour.
  GtkWidget* symbol = Named(Entry(menu, 0), "symbol");
  GdkRGBA text{};
  GtkStyleContext* style = gtk_widget_get_style_context(Named(Entry(menu, 0), "title"));
  gtk_style_context_get_color(style, gtk_style_context_get_state(style), &text);
  const auto byte = [](double v) { return static_cast<uint32_t>(v * 255 + 0.5); };
  const uint32_t text_rgb = byte(text.red) << 16 | byte(text.green) << 8 | byte(text.blue);
  auto text_pixels = [&] {
    GdkPixbuf* shot = gdk_pixbuf_get_from_window(gtk_widget_get_window(symbol), 0, 0, 16, 16);
    GdkPixbuf* rgba = gdk_pixbuf_add_alpha(shot, FALSE, 0, 0, 0);
    const auto summary = testing::Summarise(rgba, text_rgb);
    g_object_unref(rgba);
    g_object_unref(shot);
    return summary.visible - summary.off_colour;
  };
  EXPECT_TRUE(dispatch::RunMainUntil([&] { return text_pixels() > 10; }, 5s))
      << "no symbol pixel in the text colour #" << std::hex << text_rgb;
  // The menu's corner is at the point: "y" 0 is the view's top edge.
  EXPECT_EQ(At(gtk_widget_get_toplevel(menu), 0, 0), At(view_, 120, 0));
  Click(At(Entry(menu, 1)));
  EXPECT_EQ(Await(replies), Value("drive"));
}

TEST_F(MenuTest, KeyboardChoosesAndEveryDismissalAnswersNull) {
  const ValueList items = Items({Action("Grey", "grey", "disabled"), Action("First", "first"),
                                 Group(Items({Action("Deep", "deep")}), "More")});
  const struct {
    std::function<void()> gesture;
    Value chosen;
  } cases[] = {
      {[&] {
         Keys({XK_Down, XK_Return});
       },
       Value("first")},  // skips the greyed-out entry
      {[&] {
         Keys({XK_Down, XK_Down, XK_Right, XK_Return});
       },
       Value("deep")},
      {[&] { Keys({XK_Escape}); }, Value()},
      {[&] { Click(At(view_, 590, 390)); }, Value()},
      // A greyed-out entry activated by program is no choice.
      {[&] {
         GtkWidget* menu = service_->open_menu();
         gtk_menu_shell_activate_item(GTK_MENU_SHELL(menu), Entry(menu, 0), TRUE);
       },
       Value()},
      // Last: the window closes under the menu, the view with it.
      {[&] {
         gtk_widget_destroy(window_);
         window_ = gtk_window_new(GTK_WINDOW_TOPLEVEL);
       },
       Value()},
  };
  for (const auto& c : cases) {
    auto replies = Show(items);
    c.gesture();
    EXPECT_EQ(Await(replies), c.chosen);
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
  EXPECT_EQ(Await(second), Value("two"));
}

TEST_F(MenuTest, BadRequestsAndNoWindowReplyNullAtOnce) {
  const Value items(Items({Action("A", "a")})), one(1.0);
  const Value cases[] = {
      Value(),
      Request(Value(), one, items),  // no x
      Request(one, Value("1"), items),
      Request(Value(std::numeric_limits<double>::infinity()), one, items),
      Request(one, one, Value()),
      Request(one, one, Value(ValueList{})),
      Request(one, one, Map({})),
      Request(one, one, Value(ValueList{Value(1), Map({{Value("title"), Value("t")}})})),
      Request(one, one, Value(Items({Group(Items({ValueMap{{Value("title"), Value("t")}}}))}))),
  };
  for (const Value& args : cases) {
    EXPECT_EQ(client_.Call("show", args).value, Value());
    EXPECT_EQ(service_->open_menu(), nullptr);
  }
  EXPECT_EQ(client_.Call("Show", Map({})).kind, MethodReply::Kind::kNotImplemented);

  const Value good = Request(Value::Integer(5), Value::Integer(5), items);
  engine::LoopbackEngine headless_engine;
  auto headless = AppleContextMenu::Create(headless_engine, nullptr);
  EXPECT_TRUE(
      ChannelClient(headless_engine, kContextMenuChannel).Call("show", good).value.is_null());
  // The view's window has gone; then the service itself.
  gtk_widget_destroy(window_);
  window_ = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  EXPECT_TRUE(client_.Call("show", good).value.is_null());
  service_.reset();
  EXPECT_EQ(client_.Call("show", good).kind, MethodReply::Kind::kNotImplemented);
}

}  // namespace
}  // namespace corvane::ui
