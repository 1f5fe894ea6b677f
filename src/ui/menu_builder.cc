#include "ui/menu_builder.h"

#include <gtk/gtk.h>

#include <algorithm>
#include <cmath>

#include "channel/args.h"
#include "ui/symbol_renderer.h"

namespace corvane::ui {

namespace {

constexpr const char* kLogDomain = "corvane-ui";
constexpr const char* kActionKey = "corvane-menu-action";
constexpr int kSymbolPoints = 16;
constexpr const char* kEntryBoxKey = "corvane-menu-entry-box";
constexpr const char* kHasSymbolKey = "corvane-menu-has-symbol";
constexpr const char* kSymbolMaskKey = "corvane-menu-symbol-mask";

using channel::Args;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;

// "children" counts only as a list whose every element is an item map.
const ValueList* Children(const Args& args) {
  const ValueList* children = args.list("children");
  if (!children) return nullptr;
  for (const Value& child : *children) {
    if (!child.map_if()) return nullptr;
  }
  return children;
}

GtkWidget* LastEntry(GtkWidget* menu) {
  GList* children = gtk_container_get_children(GTK_CONTAINER(menu));
  GList* last = g_list_last(children);
  GtkWidget* entry = last ? GTK_WIDGET(last->data) : nullptr;
  g_list_free(children);
  return entry;
}

bool EndsWithSeparator(GtkWidget* menu) {
  GtkWidget* last = LastEntry(menu);
  return last && GTK_IS_SEPARATOR_MENU_ITEM(last);
}

void SetAccessibleName(GtkWidget* widget, const std::string& name) {
  if (AtkObject* accessible = gtk_widget_get_accessible(widget)) {
    atk_object_set_name(accessible, name.c_str());
  }
}

// WCAG relative luminance and contrast ratio.
double Luminance(const GdkRGBA& c) {
  auto linear = [](double v) {
    return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
  };
  return 0.2126 * linear(c.red) + 0.7152 * linear(c.green) + 0.0722 * linear(c.blue);
}

}  // namespace

double ContrastRatio(const GdkRGBA& a, const GdkRGBA& b) {
  const double la = Luminance(a);
  const double lb = Luminance(b);
  return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

GdkRGBA ReadableOn(const GdkRGBA& colour, const GdkRGBA& background) {
  // Towards white on a dark background, black on a light one, in small steps: the hue stays
  // recognisable while the colour becomes readable.
  const GdkRGBA white{1, 1, 1, 1};
  const GdkRGBA black{0, 0, 0, 1};
  const GdkRGBA& end =
      ContrastRatio(white, background) > ContrastRatio(black, background) ? white : black;
  GdkRGBA mixed = colour;
  for (int step = 1; step <= 100 && ContrastRatio(mixed, background) < kMinTextContrast; ++step) {
    const double t = step / 100.0;
    mixed = GdkRGBA{colour.red + (end.red - colour.red) * t,
                    colour.green + (end.green - colour.green) * t,
                    colour.blue + (end.blue - colour.blue) * t, 1};
  }
  return mixed;
}

namespace {

// The colour of destructive titles: the theme's error colour (what its destructive style uses)
// for the variant in force, made readable on the menu's background where the theme's is not
// (Adwaita's dark menus: 2.3:1).
GtkStyleProvider* DestructiveStyle(GtkWidget* menu) {
  GtkStyleContext* style = gtk_widget_get_style_context(menu);
  GdkRGBA error{0.8, 0, 0, 1};
  gtk_style_context_lookup_color(style, "error_color", &error);
  GdkRGBA* background = nullptr;
  gtk_style_context_get(style, GTK_STATE_FLAG_NORMAL, "background-color", &background, nullptr);
  GdkRGBA colour = error;
  if (background && background->alpha > 0) colour = ReadableOn(error, *background);
  if (background) gdk_rgba_free(background);
  gchar* rgb = gdk_rgba_to_string(&colour);
  gchar* css = g_strdup_printf("label { color: %s; }", rgb);
  GtkCssProvider* provider = gtk_css_provider_new();
  gtk_css_provider_load_from_data(provider, css, -1, nullptr);
  g_free(css);
  g_free(rgb);
  return GTK_STYLE_PROVIDER(provider);
}

}  // namespace

const char* MenuItemAction(GtkWidget* item) {
  return static_cast<const char*>(g_object_get_data(G_OBJECT(item), kActionKey));
}

GtkWidget* MenuBuilder::Build(const ValueList& items, const std::string& title) {
  entries_ = 0;
  truncated_ = false;
  GtkWidget* menu = gtk_menu_new();
  g_object_ref_sink(menu);
  SetAccessibleName(menu, title);
  destructive_ = DestructiveStyle(menu);
  Fill(menu, items, 0);
  g_clear_object(&destructive_);
  AlignTitles(menu);
  if (truncated_) {
    g_log(kLogDomain, G_LOG_LEVEL_WARNING,
          "menu tree beyond %d entries or %d levels: the rest is left out", kMaxMenuEntries,
          kMaxMenuDepth);
  }
  return menu;
}

bool MenuBuilder::Take() {
  if (entries_ >= kMaxMenuEntries) {
    truncated_ = true;
    return false;
  }
  ++entries_;
  return true;
}

void MenuBuilder::Fill(GtkWidget* menu, const ValueList& items, int depth) {
  auto add_separator = [&] {
    if (!Take()) return;
    // Menu items start hidden; a separator left so takes no room and draws no line.
    GtkWidget* separator = gtk_separator_menu_item_new();
    gtk_widget_show(separator);
    gtk_menu_shell_append(GTK_MENU_SHELL(menu), separator);
  };
  for (const Value& value : items) {
    const Args args(value);
    if (!args.is_map()) continue;
    if (const ValueList* children = Children(args)) {
      if (depth + 1 >= kMaxMenuDepth) {
        truncated_ = true;
        continue;
      }
      if (args.boolean("inline").value_or(false)) {
        // One separator between groups, none before a group that opens the menu. The group
        // is always closed by one (its children end without one), even when it built nothing.
        if (LastEntry(menu) && !EndsWithSeparator(menu)) add_separator();
        Fill(menu, *children, depth + 1);
        if (!EndsWithSeparator(menu)) add_separator();
        continue;
      }
      if (!Take()) continue;
      GtkWidget* entry = Entry(args, false, false);
      GtkWidget* submenu = gtk_menu_new();
      const std::string* title = args.string("title");
      SetAccessibleName(submenu, title ? *title : "");
      Fill(submenu, *children, depth + 1);
      AlignTitles(submenu);
      gtk_menu_item_set_submenu(GTK_MENU_ITEM(entry), submenu);
      gtk_menu_shell_append(GTK_MENU_SHELL(menu), entry);
      continue;
    }
    const std::string* action = args.string("action");
    if (!action || !Take()) continue;
    GtkWidget* entry = Entry(args, true, args.boolean("checked").value_or(false));
    g_object_set_data_full(G_OBJECT(entry), kActionKey, g_strdup(action->c_str()), g_free);
    gtk_widget_set_sensitive(entry, !args.boolean("disabled").value_or(false));
    if (const std::string* subtitle = args.non_empty_string("subtitle")) {
      gtk_widget_set_tooltip_text(entry, subtitle->c_str());
    }
    if (on_activate_) g_signal_connect(entry, "activate", G_CALLBACK(on_activate_), data_);
    gtk_menu_shell_append(GTK_MENU_SHELL(menu), entry);
  }
  while (EndsWithSeparator(menu)) {
    gtk_widget_destroy(LastEntry(menu));
    --entries_;
  }
}

GtkWidget* MenuBuilder::Entry(const Args& args, bool choosable, bool check) {
  GtkWidget* entry = check ? gtk_check_menu_item_new() : gtk_menu_item_new();
  if (check) gtk_check_menu_item_set_active(GTK_CHECK_MENU_ITEM(entry), TRUE);

  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
  GtkWidget* texts = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  const std::string* title = args.string("title");
  // Plain text: an underscore in a title is a character, not a mnemonic.
  GtkWidget* title_label = gtk_label_new(title ? title->c_str() : "");
  gtk_widget_set_name(title_label, "title");
  gtk_widget_set_halign(title_label, GTK_ALIGN_START);
  if (choosable && args.boolean("destructive").value_or(false)) {
    gtk_style_context_add_provider(gtk_widget_get_style_context(title_label), destructive_,
                                   GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  }
  gtk_box_pack_start(GTK_BOX(texts), title_label, FALSE, FALSE, 0);
  // Only choosable items carry a subtitle: a line of dim text under the title.
  if (const std::string* subtitle = args.non_empty_string("subtitle"); subtitle && choosable) {
    GtkWidget* subtitle_label = gtk_label_new(subtitle->c_str());
    gtk_widget_set_name(subtitle_label, "subtitle");
    gtk_widget_set_halign(subtitle_label, GTK_ALIGN_START);
    gtk_style_context_add_class(gtk_widget_get_style_context(subtitle_label), "dim-label");
    gtk_box_pack_start(GTK_BOX(texts), subtitle_label, FALSE, FALSE, 0);
  }
  gtk_box_pack_end(GTK_BOX(box), texts, TRUE, TRUE, 0);
  gtk_container_add(GTK_CONTAINER(entry), box);
  g_object_set_data(G_OBJECT(entry), kEntryBoxKey, box);
  if (const std::string* symbol = args.string("symbol")) AddSymbol(box, *symbol);
  gtk_widget_show_all(entry);
  return entry;
}

void MenuBuilder::AddSymbol(GtkWidget* box, const std::string& symbol) {
  if (!renderer_) return;
  const int pixels = kSymbolPoints * scale_factor_;
  std::optional<std::vector<uint8_t>> coverage = renderer_->Coverage(symbol, pixels);
  if (!coverage) return;
  cairo_surface_t* mask = cairo_image_surface_create(CAIRO_FORMAT_A8, pixels, pixels);
  const int stride = cairo_image_surface_get_stride(mask);
  cairo_surface_flush(mask);
  for (int y = 0; y < pixels; ++y) {
    std::copy_n(coverage->data() + y * pixels, pixels,
                cairo_image_surface_get_data(mask) + y * stride);
  }
  cairo_surface_mark_dirty(mask);
  cairo_surface_set_device_scale(mask, scale_factor_, scale_factor_);

  // Painted in the text colour at drawing time, so it follows the theme and the entry's state
  // (highlighted, greyed out) as the title does.
  GtkWidget* image = gtk_drawing_area_new();
  gtk_widget_set_name(image, "symbol");
  gtk_widget_set_size_request(image, kSymbolPoints, kSymbolPoints);
  gtk_widget_set_valign(image, GTK_ALIGN_CENTER);
  g_object_set_data_full(G_OBJECT(image), kSymbolMaskKey, mask,
                         reinterpret_cast<GDestroyNotify>(cairo_surface_destroy));
  g_signal_connect(image, "draw", G_CALLBACK(+[](GtkWidget* widget, cairo_t* cr, gpointer) {
                     GtkStyleContext* style = gtk_widget_get_style_context(widget);
                     GdkRGBA color{};
                     gtk_style_context_get_color(style, gtk_style_context_get_state(style), &color);
                     gdk_cairo_set_source_rgba(cr, &color);
                     auto* mask = static_cast<cairo_surface_t*>(
                         g_object_get_data(G_OBJECT(widget), kSymbolMaskKey));
                     cairo_mask_surface(cr, mask, 0, 0);
                     return TRUE;
                   }),
                   nullptr);
  gtk_box_pack_start(GTK_BOX(box), image, FALSE, FALSE, 0);
  g_object_set_data(G_OBJECT(box), kHasSymbolKey, image);
}

void MenuBuilder::AlignTitles(GtkWidget* menu) {
  // Titles line up: where some entries have a symbol, the others keep its place empty.
  GList* children = gtk_container_get_children(GTK_CONTAINER(menu));
  bool any_symbol = false;
  for (GList* c = children; c && !any_symbol; c = c->next) {
    auto* box = static_cast<GtkWidget*>(g_object_get_data(G_OBJECT(c->data), kEntryBoxKey));
    any_symbol = box && g_object_get_data(G_OBJECT(box), kHasSymbolKey);
  }
  for (GList* c = children; c && any_symbol; c = c->next) {
    auto* box = static_cast<GtkWidget*>(g_object_get_data(G_OBJECT(c->data), kEntryBoxKey));
    if (!box || g_object_get_data(G_OBJECT(box), kHasSymbolKey)) continue;
    GtkWidget* space = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    gtk_widget_set_size_request(space, kSymbolPoints, kSymbolPoints);
    gtk_box_pack_start(GTK_BOX(box), space, FALSE, FALSE, 0);
    gtk_widget_show(space);
  }
  g_list_free(children);
}

}  // namespace corvane::ui
