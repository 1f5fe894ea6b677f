// System-symbol rendering through the channel, beside a bare librsvg render of the same SVG
// file to a PNG of the same size, measured in the same run.
//
// - symbols/render_24pt_x2: a "render" call on corvane/system_symbols (24 points, scale 2: a
//   48 x 48 PNG) through the loopback engine, reply decoded. Baseline raw/librsvg_48px: load
//   the file the theme lookup found, render it into a 48 x 48 ARGB surface, write a PNG.
// - symbols/render_64pt_x4 and raw/librsvg_256px: the same at 256 x 256.
//
// Prints each ratio after the run, by wall-clock and by CPU time (on a busy machine the CPU
// ratio is the steadier one); the target for the 24-point render is 1.3x.
#include <benchmark/benchmark.h>
#include <cairo.h>
#include <librsvg/rsvg.h>

#include <cstdio>
#include <map>
#include <string>

#include "channel/standard_codec.h"
#include "engine/loopback_engine.h"
#include "ui/native_system_symbols.h"

namespace {

using corvane::channel::Value;
using corvane::channel::ValueMap;

constexpr const char* kSymbol = "gear";

corvane::engine::LoopbackEngine& Engine() {
  static auto* engine = new corvane::engine::LoopbackEngine();
  static auto service = corvane::ui::NativeSystemSymbols::Create(*engine);
  return *engine;
}

void RenderCall(benchmark::State& state, double size, double scale) {
  const corvane::channel::Bytes call = corvane::channel::EncodeMethodCall(
      {"render", Value(ValueMap{{Value("symbol"), Value(kSymbol)},
                                {Value("color"), Value::Integer(0xFF1E88E5)},
                                {Value("size"), Value(size)},
                                {Value("scale"), Value(scale)}})});
  size_t png_bytes = 0;
  for (auto _ : state) {
    Engine().SendFromEngine(corvane::ui::kSymbolsChannel, call, [&](corvane::channel::Bytes reply) {
      auto decoded = corvane::channel::DecodeEnvelope(reply);
      const auto* png = decoded ? decoded.value->value.bytes_if() : nullptr;
      png_bytes = png ? png->size() : 0;
    });
  }
  if (png_bytes == 0) state.SkipWithError("no PNG");
  state.counters["png_bytes"] = static_cast<double>(png_bytes);
}

cairo_status_t Collect(void* closure, const unsigned char* data, unsigned int length) {
  static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
  return CAIRO_STATUS_SUCCESS;
}

void BareLibrsvg(benchmark::State& state, int pixels) {
  const auto path = corvane::ui::NativeSystemSymbols::SharedRenderer().lookup().Find(kSymbol);
  if (!path) {
    state.SkipWithError("no such symbol in the icon theme");
    return;
  }
  size_t png_bytes = 0;
  for (auto _ : state) {
    RsvgHandle* handle = rsvg_handle_new_from_file(path->c_str(), nullptr);
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, pixels, pixels);
    cairo_t* cr = cairo_create(surface);
    const RsvgRectangle viewport{0, 0, double(pixels), double(pixels)};
    rsvg_handle_render_document(handle, cr, &viewport, nullptr);
    cairo_destroy(cr);
    std::string png;
    cairo_surface_write_to_png_stream(surface, &Collect, &png);
    png_bytes = png.size();
    cairo_surface_destroy(surface);
    g_object_unref(handle);
  }
  state.counters["png_bytes"] = static_cast<double>(png_bytes);
}

BENCHMARK_CAPTURE(RenderCall, symbols / render_24pt_x2, 24.0, 2.0)->Name("symbols/render_24pt_x2");
BENCHMARK_CAPTURE(BareLibrsvg, raw / librsvg_48px, 48)->Name("raw/librsvg_48px");
BENCHMARK_CAPTURE(RenderCall, symbols / render_64pt_x4, 64.0, 4.0)->Name("symbols/render_64pt_x4");
BENCHMARK_CAPTURE(BareLibrsvg, raw / librsvg_256px, 256)->Name("raw/librsvg_256px");

// Keeps each run's time so the ratios can be printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        times_[run.benchmark_name()] = {run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Ratios() const {
    const struct {
      const char* ours;
      const char* baseline;
      const char* target;
    } pairs[] = {{"symbols/render_24pt_x2", "raw/librsvg_48px", " (target <= 1.3x)"},
                 {"symbols/render_64pt_x4", "raw/librsvg_256px", ""}};
    for (const auto& p : pairs) {
      auto ours = times_.find(p.ours);
      auto base = times_.find(p.baseline);
      if (ours == times_.end() || base == times_.end()) continue;
      std::printf("%s / %s = %.2fx real, %.2fx cpu%s\n", p.ours, p.baseline,
                  ours->second.first / base->second.first,
                  ours->second.second / base->second.second, p.target);
    }
  }

 private:
  std::map<std::string, std::pair<double, double>> times_;  // real, cpu
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.Ratios();
  benchmark::Shutdown();
  return 0;
}
