// Builds a GtkMenu from the Flutter side's item tree. Entries with "children" become submenus,
// or inline groups between single separators; entries with an "action" string become choosable
// items; anything else is skipped. No menu starts a group with a second separator, and none
// ends with one.
//
// Bounds: submenus and inline groups nest at most kMaxMenuDepth deep and a whole tree yields
// at most kMaxMenuEntries entries (separators included); what lies beyond is left out and
// logged. Main thread only.
#pragma once

#include <string>

#include "channel/args.h"
#include "channel/value.h"

typedef struct _GtkWidget GtkWidget;
typedef struct _GtkMenuItem GtkMenuItem;
typedef struct _GtkStyleProvider GtkStyleProvider;
typedef struct _GdkRGBA GdkRGBA;

namespace corvane::ui {

class SymbolRenderer;

inline constexpr int kMaxMenuDepth = 16;
inline constexpr int kMaxMenuEntries = 500;

// Text must stand out from its background at least this much (WCAG AA for body text).
inline constexpr double kMinTextContrast = 4.5;
// The WCAG contrast ratio of two opaque colours, 1 to 21.
double ContrastRatio(const GdkRGBA& a, const GdkRGBA& b);
// `colour`, moved towards white or black just as far as it takes to reach kMinTextContrast on
// `background`.
GdkRGBA ReadableOn(const GdkRGBA& colour, const GdkRGBA& background);

// The action string an item was built with; null for submenu entries and separators.
const char* MenuItemAction(GtkWidget* item);

class MenuBuilder {
 public:
  using ActivateCallback = void (*)(GtkMenuItem* item, void* data);

  // Choosable items call `on_activate` with `data` when activated. Symbols are drawn with
  // `renderer` (none when null) at `scale_factor` device pixels per point.
  MenuBuilder(SymbolRenderer* renderer, int scale_factor, ActivateCallback on_activate, void* data)
      : renderer_(renderer), scale_factor_(scale_factor), on_activate_(on_activate), data_(data) {}

  // A new menu (owned by the caller: a sunk reference), titled `title` for accessibility.
  GtkWidget* Build(const channel::ValueList& items, const std::string& title);

  // Entries made by the last Build, and whether a bound left some out.
  int entries() const { return entries_; }
  bool truncated() const { return truncated_; }

 private:
  void Fill(GtkWidget* menu, const channel::ValueList& items, int depth);
  bool Take();  // counts one more entry; false once the bound is reached
  GtkWidget* Entry(const channel::Args& args, bool choosable, bool check);
  void AddSymbol(GtkWidget* box, const std::string& symbol);
  static void AlignTitles(GtkWidget* menu);

  SymbolRenderer* renderer_;
  int scale_factor_;
  ActivateCallback on_activate_;
  void* data_;
  GtkStyleProvider* destructive_ = nullptr;  // during Build
  int entries_ = 0;
  bool truncated_ = false;
};

}  // namespace corvane::ui
