// Legacy migration beside the bare libraries it is built on, measured in the same run.
//
// - legacy/convert_12mp: "convertImage" of a 12-megapixel PNG photo (4000x3000, no alpha), as
//   ConvertToJpeg and as a whole channel call through the loopback engine (queue hop and codec
//   included). Baseline bare/decode_encode_12mp: the same PNG decoded by a plain gdk-pixbuf
//   loader and encoded by libjpeg-turbo directly (mem destination), same quality and sampling.
//   bare/codec_12mp_call is what the channel alone adds to any call carrying these bytes.
// - legacy/read_defaults_1mb: a "readDefaults" call on a 1 MB binary store, through the channel
//   up to the reply's bytes (checked once; the Flutter side's decode is not counted).
//   Baseline bare/plist_parse_1mb: libplist parsing the same bytes (read from memory).
#include <benchmark/benchmark.h>
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <jpeglib.h>
#include <stdlib.h>
#include <time.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "channel/standard_codec.h"
#include "engine/loopback_engine.h"
#include "legacy/image_converter.h"
#include "legacy/legacy_swiftui_bridge.h"
#include "legacy/property_list.h"

namespace {

using namespace corvane;

// CPU time of the whole process, every thread: on a loaded machine the wall time of work
// handed to the bridge's queue includes waiting for a CPU, which says nothing about the work.
double ProcessCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

// Reports the process CPU time per iteration as the counter "process_cpu_ms".
class CpuCounter {
 public:
  explicit CpuCounter(benchmark::State& state) : state_(state), start_(ProcessCpuMs()) {}
  ~CpuCounter() {
    state_.counters["process_cpu_ms"] =
        benchmark::Counter((ProcessCpuMs() - start_) / state_.iterations());
  }

 private:
  benchmark::State& state_;
  double start_;
};
using namespace std::chrono_literals;
namespace fs = std::filesystem;

// A photo-like image: smooth gradients with sensor-like noise, so PNG compresses it about as
// much as it would a real photo.
const std::vector<uint8_t>& PhotoPng() {
  static const std::vector<uint8_t> png = [] {
    constexpr int kW = 4000, kH = 3000;
    GdkPixbuf* pb = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, kW, kH);
    uint8_t* pixels = gdk_pixbuf_get_pixels(pb);
    const int stride = gdk_pixbuf_get_rowstride(pb);
    std::minstd_rand rng(7);
    for (int y = 0; y < kH; ++y) {
      for (int x = 0; x < kW; ++x) {
        uint8_t* p = pixels + static_cast<size_t>(y) * stride + x * 3;
        const int noise = static_cast<int>(rng() % 9) - 4;
        p[0] = static_cast<uint8_t>(std::clamp(x * 255 / kW + noise, 0, 255));
        p[1] = static_cast<uint8_t>(std::clamp(y * 255 / kH + noise, 0, 255));
        p[2] = static_cast<uint8_t>(std::clamp(((x + y) / 16) % 256 + noise, 0, 255));
      }
    }
    gchar* buffer = nullptr;
    gsize size = 0;
    gdk_pixbuf_save_to_buffer(pb, &buffer, &size, "png", nullptr, "compression", "6", nullptr);
    g_object_unref(pb);
    std::vector<uint8_t> out(buffer, buffer + size);
    g_free(buffer);
    return out;
  }();
  return png;
}

std::vector<uint8_t> BareJpeg(const uint8_t* rgb, int w, int h, int stride, int quality) {
  jpeg_compress_struct info{};
  jpeg_error_mgr errors{};
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* out = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &out, &size);
  info.image_width = w;
  info.image_height = h;
  info.input_components = 3;
  info.in_color_space = JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, quality, TRUE);
  info.dct_method = JDCT_ISLOW;
  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(rgb + static_cast<size_t>(info.next_scanline) * stride);
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  std::vector<uint8_t> result(out, out + size);
  free(out);
  return result;
}

void BareDecodeEncode(benchmark::State& state) {
  const auto& png = PhotoPng();
  CpuCounter cpu(state);
  for (auto _ : state) {
    GdkPixbufLoader* loader = gdk_pixbuf_loader_new();
    gdk_pixbuf_loader_write(loader, png.data(), png.size(), nullptr);
    gdk_pixbuf_loader_close(loader, nullptr);
    GdkPixbuf* pb = gdk_pixbuf_loader_get_pixbuf(loader);
    auto jpeg =
        BareJpeg(gdk_pixbuf_read_pixels(pb), gdk_pixbuf_get_width(pb), gdk_pixbuf_get_height(pb),
                 gdk_pixbuf_get_rowstride(pb), legacy::kJpegQuality);
    benchmark::DoNotOptimize(jpeg.data());
    g_object_unref(loader);
  }
}
BENCHMARK(BareDecodeEncode)
    ->Name("bare/decode_encode_12mp")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5);

void ConvertImage(benchmark::State& state) {
  const auto& png = PhotoPng();
  CpuCounter cpu(state);
  for (auto _ : state) {
    auto conversion = legacy::ConvertToJpeg(png.data(), png.size());
    if (conversion.status != legacy::ConversionStatus::kConverted) state.SkipWithError("refused");
    benchmark::DoNotOptimize(conversion.jpeg.data());
  }
}
BENCHMARK(ConvertImage)
    ->Name("legacy/convert_12mp")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5);

// One channel call answered on the main context, as the host would run it.
channel::MethodReply CallBridge(engine::LoopbackEngine& engine, const std::string& method,
                                channel::Value args) {
  std::optional<channel::MethodReply> reply;
  engine.SendFromEngine(legacy::kMethodChannel,
                        channel::EncodeMethodCall({method, std::move(args)}),
                        [&reply](channel::Bytes b) { reply = *channel::DecodeEnvelope(b).value; });
  // The reply is posted to the main context, which wakes it: no polling tick needed, so the
  // main thread sleeps while the queue works, as in the host.
  while (!reply) g_main_context_iteration(nullptr, TRUE);
  return reply.value_or(channel::MethodReply());
}

// The same, keeping the reply's bytes: what the Flutter side then decodes is not the host's
// work.
size_t CallBridgeBytes(engine::LoopbackEngine& engine, const std::string& method) {
  std::optional<size_t> size;
  engine.SendFromEngine(legacy::kMethodChannel,
                        channel::EncodeMethodCall({method, channel::Value()}),
                        [&size](channel::Bytes b) { size = b.size(); });
  while (!size) g_main_context_iteration(nullptr, TRUE);
  return *size;
}

void ConvertImageCall(benchmark::State& state) {
  engine::LoopbackEngine engine;
  auto bridge = legacy::LegacySwiftUIBridge::Create(engine, legacy::LegacyEnvironment{});
  const channel::Value png(PhotoPng());
  CpuCounter cpu(state);
  for (auto _ : state) {
    auto reply = CallBridge(engine, "convertImage", png);
    if (!reply.value.bytes_if()) state.SkipWithError("no JPEG");
  }
}
BENCHMARK(ConvertImageCall)
    ->Name("legacy/convert_12mp_call")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5);

// What any channel call carrying these images costs without the conversion: the call encoded
// and decoded, the argument copied once for the queue, a JPEG-sized reply encoded and decoded.
void CodecOnly(benchmark::State& state) {
  const channel::Value png(PhotoPng());
  const auto jpeg = legacy::ConvertToJpeg(PhotoPng().data(), PhotoPng().size()).jpeg;
  CpuCounter cpu(state);
  for (auto _ : state) {
    auto call = channel::DecodeMethodCall(channel::EncodeMethodCall({"convertImage", png}));
    channel::Bytes copy = *call.value->arguments.bytes_if();
    benchmark::DoNotOptimize(copy.data());
    auto reply = channel::DecodeEnvelope(channel::EncodeSuccessEnvelope(channel::Value(jpeg)));
    benchmark::DoNotOptimize(reply.value->value.bytes_if());
  }
}
BENCHMARK(CodecOnly)
    ->Name("bare/codec_12mp_call")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5);

// A store of about 1 MB: settings of every kind, lists, nested maps and small blobs.
struct Store {
  fs::path home;
  std::vector<uint8_t> bytes;
};
bool g_store_made = false;
const Store& OneMegabyteStore() {
  static const Store store = [] {
    g_store_made = true;
    std::string tmpl = (fs::temp_directory_path() / "corvane-legacy-bench-XXXXXX").string();
    Store s{mkdtemp(tmpl.data()), {}};
    plist_t dict = plist_new_dict();
    for (int i = 0; s.bytes.size() < (1u << 20); ++i) {
      const std::string key = (i % 2 ? "z21.setting." : "switchboard.panel.") + std::to_string(i);
      plist_t value;
      switch (i % 5) {
        case 0:
          value = plist_new_string(("value number " + std::to_string(i)).c_str());
          break;
        case 1:
          value = plist_new_uint(static_cast<uint64_t>(i) * 7919);
          break;
        case 2: {
          value = plist_new_array();
          for (int k = 0; k < 10; ++k) plist_array_append_item(value, plist_new_real(k * 0.5));
          break;
        }
        case 3: {
          value = plist_new_dict();
          plist_dict_set_item(value, "x", plist_new_uint(i));
          plist_dict_set_item(value, "name", plist_new_string("tile"));
          plist_dict_set_item(value, "on", plist_new_bool(i % 3 == 0));
          break;
        }
        default:
          value = plist_new_data(std::string(200, static_cast<char>(i)).data(), 200);
      }
      plist_dict_set_item(dict, key.c_str(), value);
      if (i % 500 == 499) s.bytes = legacy::SerializeBinary(dict);
    }
    plist_free(dict);
    const fs::path file = s.home / "Library/Preferences/nl.hazelmoor.corvane.plist";
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(s.bytes.data()), s.bytes.size());
    return s;
  }();
  return store;
}

void BarePlistParse(benchmark::State& state) {
  const auto& bytes = OneMegabyteStore().bytes;
  CpuCounter cpu(state);
  for (auto _ : state) {
    plist_t root = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()), bytes.size(), &root);
    benchmark::DoNotOptimize(root);
    plist_free(root);
  }
  state.SetBytesProcessed(state.iterations() * bytes.size());
}
BENCHMARK(BarePlistParse)
    ->Name("bare/plist_parse_1mb")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5);

void ReadDefaultsCall(benchmark::State& state) {
  const Store& store = OneMegabyteStore();
  engine::LoopbackEngine engine;
  legacy::LegacyEnvironment env;
  env.bundle_identifier = "nl.hazelmoor.corvane";  // the root is the application's home
  env.application_home = store.home.string();
  auto bridge = legacy::LegacySwiftUIBridge::Create(engine, env);
  auto reply = CallBridge(engine, "readDefaults", channel::Value());
  if (!reply.value.map_if() || reply.value.map_if()->empty()) state.SkipWithError("no values");
  CpuCounter cpu(state);
  for (auto _ : state) benchmark::DoNotOptimize(CallBridgeBytes(engine, "readDefaults"));
  state.SetBytesProcessed(state.iterations() * store.bytes.size());
}
BENCHMARK(ReadDefaultsCall)
    ->Name("legacy/read_defaults_1mb")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ignored;
  if (g_store_made) fs::remove_all(OneMegabyteStore().home, ignored);
  return 0;
}
