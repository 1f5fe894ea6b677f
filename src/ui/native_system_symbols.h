// NativeSystemSymbols on `corvane/system_symbols`: "render" draws a named symbol in one colour
// at a point size and pixel scale and replies PNG bytes, or null for any failure. Main thread
// only; rendering is synchronous and needs no display.
#pragma once

#include <memory>

#include "channel/method_channel.h"
#include "ui/symbol_renderer.h"

namespace corvane::ui {

inline constexpr const char* kSymbolsChannel = "corvane/system_symbols";

class NativeSystemSymbols : public std::enable_shared_from_this<NativeSystemSymbols> {
 public:
  // Opens the channel on `messenger`; symbols are drawn with `renderer`, or the process-wide one.
  static std::shared_ptr<NativeSystemSymbols> Create(channel::BinaryMessenger& messenger,
                                                     SymbolRenderer* renderer = nullptr);
  ~NativeSystemSymbols();
  NativeSystemSymbols(const NativeSystemSymbols&) = delete;
  NativeSystemSymbols& operator=(const NativeSystemSymbols&) = delete;

  // The renderer every window shares, so the theme lookups are cached once.
  static SymbolRenderer& SharedRenderer();

 private:
  explicit NativeSystemSymbols(SymbolRenderer& renderer) : renderer_(renderer) {}
  void HandleCall(const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> result);
  void Render(const channel::Value& args, channel::MethodResult& result);

  SymbolRenderer& renderer_;
  std::unique_ptr<channel::MethodChannel> channel_;
};

}  // namespace corvane::ui
