// Draws a symbol in one colour: the icon's shape (its coverage, whatever colours the file uses)
// filled with the requested colour and alpha. Works without a display.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ui/symbol_lookup.h"

namespace corvane::ui {

// Straight (not premultiplied) RGBA, rows packed.
struct Bitmap {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgba;
};

// The largest side drawn: 96 points at scale 4.
inline constexpr int kMaxSymbolPixels = 384;

// Draws the image file at `path` (SVG through librsvg, anything gdk-pixbuf reads otherwise)
// into `pixels` x `pixels`, coloured `argb` (0xAARRGGBB). Nothing when the file does not draw.
std::optional<Bitmap> RenderIconFile(const std::string& path, uint32_t argb, int pixels);

// PNG bytes (8-bit RGBA); empty on failure.
std::vector<uint8_t> EncodePng(const Bitmap& bitmap);

class SymbolRenderer {
 public:
  explicit SymbolRenderer(SymbolLookup& lookup) : lookup_(lookup) {}

  // Nothing when the name is refused or unknown, or the file does not draw.
  std::optional<Bitmap> Render(std::string_view symbol, uint32_t argb, int pixels);

  SymbolLookup& lookup() { return lookup_; }

 private:
  SymbolLookup& lookup_;
};

}  // namespace corvane::ui
