// Draws a symbol in one colour: the icon's shape (its coverage, whatever colours the file uses)
// filled with the requested colour and alpha. Works without a display.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ui/symbol_lookup.h"

typedef struct _RsvgHandle RsvgHandle;

namespace corvane::ui {

// Straight (not premultiplied) RGBA, rows packed.
struct Bitmap {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgba;
};

// The largest side drawn: 96 points at scale 4.
inline constexpr int kMaxSymbolPixels = 384;

// PNG bytes (8-bit RGBA); empty on failure.
std::vector<uint8_t> EncodePng(const Bitmap& bitmap);

// Draws symbols found by a SymbolLookup: SVG files through librsvg, anything else gdk-pixbuf
// reads. Parsed SVG files are kept (a few dozen, dropped when an icon theme changes), since
// parsing costs about as much as drawing a small symbol.
class SymbolRenderer {
 public:
  explicit SymbolRenderer(SymbolLookup& lookup) : lookup_(lookup) {}
  ~SymbolRenderer();
  SymbolRenderer(const SymbolRenderer&) = delete;
  SymbolRenderer& operator=(const SymbolRenderer&) = delete;

  // `pixels` x `pixels`, coloured `argb` (0xAARRGGBB). Nothing when the name is refused or
  // unknown, or the file does not draw.
  std::optional<Bitmap> Render(std::string_view symbol, uint32_t argb, int pixels);
  // The symbol's shape alone: one coverage byte per pixel, rows packed.
  std::optional<std::vector<uint8_t>> Coverage(std::string_view symbol, int pixels);

  SymbolLookup& lookup() { return lookup_; }

 private:
  std::optional<std::vector<uint8_t>> SvgCoverage(const std::string& path, int pixels);
  RsvgHandle* Parsed(const std::string& path);
  void DropParsed();

  SymbolLookup& lookup_;
  std::unordered_map<std::string, RsvgHandle*> parsed_;
  uint64_t parsed_generation_ = 0;
};

}  // namespace corvane::ui
