// corvane-symbol-sheet: every system-symbol name of the lookup table, drawn as the host draws
// it, in a labelled grid (name, and the icon file that drew it). No display needed.
//
//   corvane-symbol-sheet [--dark] [--theme NAME] OUT.png [NAME...]
//
// Names given after OUT.png are drawn instead of the table (icon-theme names work too).
#include <cairo.h>
#include <pango/pangocairo.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ui/symbol_lookup.h"
#include "ui/symbol_renderer.h"

namespace {

constexpr int kColumns = 8;
constexpr int kCellWidth = 160;
constexpr int kCellHeight = 84;
constexpr int kSymbolPixels = 32;

void Text(cairo_t* cr, const std::string& text, double x, double y, const char* font) {
  PangoLayout* layout = pango_cairo_create_layout(cr);
  PangoFontDescription* description = pango_font_description_from_string(font);
  pango_layout_set_font_description(layout, description);
  pango_layout_set_width(layout, (kCellWidth - 8) * PANGO_SCALE);
  pango_layout_set_ellipsize(layout, PANGO_ELLIPSIZE_MIDDLE);
  pango_layout_set_alignment(layout, PANGO_ALIGN_CENTER);
  pango_layout_set_text(layout, text.c_str(), -1);
  cairo_move_to(cr, x, y);
  pango_cairo_show_layout(cr, layout);
  pango_font_description_free(description);
  g_object_unref(layout);
}

std::string IconName(const std::string& path) {
  gchar* base = g_path_get_basename(path.c_str());
  std::string name = base;
  g_free(base);
  if (auto dot = name.find('.'); dot != std::string::npos) name.resize(dot);
  return name;
}

}  // namespace

int main(int argc, char** argv) {
  bool dark = false;
  std::string theme = "Adwaita";
  const char* out = nullptr;
  std::vector<std::string> names;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--dark") == 0) {
      dark = true;
    } else if (std::strcmp(argv[i], "--theme") == 0 && i + 1 < argc) {
      theme = argv[++i];
    } else if (argv[i][0] != '-' && !out) {
      out = argv[i];
    } else if (argv[i][0] != '-') {
      names.push_back(argv[i]);
    } else {
      out = nullptr;
      break;
    }
  }
  if (!out) {
    std::fputs("usage: corvane-symbol-sheet [--dark] [--theme NAME] OUT.png [NAME...]\n", stderr);
    return 2;
  }
  corvane::ui::SymbolLookup lookup(corvane::ui::SymbolLookup::Options{theme, {}});
  corvane::ui::SymbolRenderer renderer(lookup);
  if (names.empty()) names = corvane::ui::MappedSymbolNames();
  const int rows = (static_cast<int>(names.size()) + kColumns - 1) / kColumns;
  // The host's window background, and text colours that read on it.
  const double bg = dark ? 0 : 1;
  const uint32_t ink = dark ? 0xFFEEEEEC : 0xFF2E3436;
  cairo_surface_t* sheet =
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, kColumns * kCellWidth, rows * kCellHeight);
  cairo_t* cr = cairo_create(sheet);
  if (dark) {
    cairo_set_source_rgb(cr, 0x0E / 255.0, 0x1A / 255.0, 0x31 / 255.0);
  } else {
    cairo_set_source_rgb(cr, bg, bg, bg);
  }
  cairo_paint(cr);
  int missing = 0;
  for (size_t i = 0; i < names.size(); ++i) {
    const double x = static_cast<double>(i % kColumns) * kCellWidth;
    const double y = static_cast<double>(i / kColumns) * kCellHeight;
    const auto path = lookup.Find(names[i]);
    const auto coverage = renderer.Coverage(names[i], kSymbolPixels);
    const double r = (ink >> 16 & 0xFF) / 255.0;
    const double g = (ink >> 8 & 0xFF) / 255.0;
    const double b = (ink & 0xFF) / 255.0;
    if (coverage) {
      cairo_surface_t* mask =
          cairo_image_surface_create(CAIRO_FORMAT_A8, kSymbolPixels, kSymbolPixels);
      cairo_surface_flush(mask);
      const int stride = cairo_image_surface_get_stride(mask);
      for (int row = 0; row < kSymbolPixels; ++row) {
        std::memcpy(cairo_image_surface_get_data(mask) + row * stride,
                    coverage->data() + row * kSymbolPixels, kSymbolPixels);
      }
      cairo_surface_mark_dirty(mask);
      cairo_set_source_rgb(cr, r, g, b);
      cairo_mask_surface(cr, mask, x + (kCellWidth - kSymbolPixels) / 2.0, y + 8);
      cairo_surface_destroy(mask);
    } else {
      ++missing;
    }
    cairo_set_source_rgb(cr, r, g, b);
    Text(cr, names[i], x + 4, y + 46, "Sans Bold 8");
    if (coverage) {
      cairo_set_source_rgba(cr, r, g, b, 0.6);
      Text(cr, IconName(*path), x + 4, y + 62, "Sans 7");
    } else {
      cairo_set_source_rgb(cr, 0.85, 0.1, 0.1);
      Text(cr, "missing", x + 4, y + 62, "Sans 7");
    }
  }
  cairo_destroy(cr);
  const cairo_status_t written = cairo_surface_write_to_png(sheet, out);
  cairo_surface_destroy(sheet);
  if (written != CAIRO_STATUS_SUCCESS) {
    std::fprintf(stderr, "corvane-symbol-sheet: %s: %s\n", out, cairo_status_to_string(written));
    return 1;
  }
  std::printf("%zu names, %d missing: %s\n", names.size(), missing, out);
  return 0;
}
