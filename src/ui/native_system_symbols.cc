#include "ui/native_system_symbols.h"

#include <glib.h>

#include <algorithm>
#include <cmath>

#include "channel/args.h"

namespace corvane::ui {

namespace {

constexpr double kDefaultSize = 24.0;
constexpr double kMinSize = 1.0;
constexpr double kMaxSize = 96.0;
constexpr double kDefaultScale = 2.0;
constexpr double kMinScale = 1.0;
constexpr double kMaxScale = 4.0;

double Clamped(std::optional<double> value, double fallback, double lo, double hi) {
  if (!value || std::isnan(*value)) return fallback;
  return std::clamp(*value, lo, hi);
}

// The colour as its 32 bits. Dart sends 0xFF000000 and up as a 64-bit integer; a signed 32-bit
// colour (Java's habit) is read as the same bits.
std::optional<uint32_t> ColorBits(const channel::Args& args) {
  std::optional<int64_t> color = args.integer("color");
  if (!color || *color < INT32_MIN || *color > UINT32_MAX) return std::nullopt;
  return static_cast<uint32_t>(*color);
}

}  // namespace

std::shared_ptr<NativeSystemSymbols> NativeSystemSymbols::Create(
    channel::BinaryMessenger& messenger, SymbolRenderer* renderer) {
  std::shared_ptr<NativeSystemSymbols> self(
      new NativeSystemSymbols(renderer ? *renderer : SharedRenderer()));
  self->channel_ = std::make_unique<channel::MethodChannel>(messenger, kSymbolsChannel);
  self->channel_->SetMethodCallHandler(channel::WeakHandler(
      std::weak_ptr<NativeSystemSymbols>(self), &NativeSystemSymbols::HandleCall));
  return self;
}

NativeSystemSymbols::~NativeSystemSymbols() {
  if (channel_) channel_->SetMethodCallHandler(nullptr);
}

SymbolRenderer& NativeSystemSymbols::SharedRenderer() {
  // Lives for the process: every window's service draws through it.
  static SymbolLookup* lookup = new SymbolLookup();
  static SymbolRenderer* renderer = new SymbolRenderer(*lookup);
  return *renderer;
}

void NativeSystemSymbols::HandleCall(const channel::MethodCall& call,
                                     std::unique_ptr<channel::MethodResult> result) {
  if (call.method == "render") {
    Render(call.arguments, *result);
  } else {
    result->NotImplemented();
  }
}

void NativeSystemSymbols::Render(const channel::Value& arguments, channel::MethodResult& result) {
  const channel::Args args(arguments);
  const std::string* symbol = args.string("symbol");
  const std::optional<uint32_t> color = ColorBits(args);
  // Characters, not bytes; the name check refuses anything but ASCII anyway.
  if (!symbol || !color ||
      static_cast<size_t>(g_utf8_strlen(symbol->c_str(), symbol->size())) > kMaxSymbolNameLength) {
    result.Success();
    return;
  }
  const double size = Clamped(args.number("size"), kDefaultSize, kMinSize, kMaxSize);
  const double scale = Clamped(args.number("scale"), kDefaultScale, kMinScale, kMaxScale);
  // "dark" is not read: it picks the look that dynamic colours resolve under, and a symbol here
  // has exactly the one colour given, so both looks draw the same pixels.
  // Icon-theme symbols are square: the image is size x size points.
  const int pixels = std::max(1, static_cast<int>(size * scale));

  std::optional<Bitmap> bitmap = renderer_.Render(*symbol, *color, pixels);
  if (!bitmap) {
    result.Success();
    return;
  }
  std::vector<uint8_t> png = EncodePng(*bitmap);
  if (png.empty()) {
    result.Success();
    return;
  }
  result.Success(channel::Value(std::move(png)));
}

}  // namespace corvane::ui
