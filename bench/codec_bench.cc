// Standard codec throughput on three shapes the host really carries (codec_messages.h), each
// beside a memcpy of the same number of bytes.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "codec_messages.h"

namespace {

using namespace corvane::channel;
using corvane::bench::RandomBytes;

// Both buffers cache-line aligned and apart, so the baseline does not hinge on where the heap
// happened to place two small vectors (adjacent ones made a 137-byte copy vary 6x).
void Memcpy(benchmark::State& state, size_t n) {
  constexpr size_t kLine = 64;
  const size_t padded = (n + kLine - 1) / kLine * kLine + kLine;
  auto* source = static_cast<uint8_t*>(std::aligned_alloc(kLine, padded));
  auto* target = static_cast<uint8_t*>(std::aligned_alloc(kLine, padded));
  const Bytes random = RandomBytes(n, 7);
  std::memcpy(source, random.data(), n);
  std::memset(target, 0, padded);
  for (auto _ : state) {
    std::memcpy(target, source, n);
    benchmark::DoNotOptimize(target);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
  std::free(source);
  std::free(target);
}

void EncodeCall(benchmark::State& state, const MethodCall& call, size_t n) {
  for (auto _ : state) {
    Bytes bytes = EncodeMethodCall(call);
    benchmark::DoNotOptimize(bytes.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
}

void DecodeCall(benchmark::State& state, const Bytes& bytes) {
  for (auto _ : state) {
    Decoded<MethodCall> call = DecodeMethodCall(bytes);
    if (!call) state.SkipWithError(call.error.c_str());
    benchmark::DoNotOptimize(call.value);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void EncodeValue(benchmark::State& state, const Value& value, size_t n) {
  for (auto _ : state) {
    Bytes bytes = EncodeMessage(value);
    benchmark::DoNotOptimize(bytes.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
}

void DecodeValue(benchmark::State& state, const Bytes& bytes) {
  for (auto _ : state) {
    Decoded<Value> value = DecodeMessage(bytes);
    if (!value) state.SkipWithError(value.error.c_str());
    benchmark::DoNotOptimize(value.value);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

}  // namespace

int main(int argc, char** argv) {
  // Built once, outside the timed loops; the lambdas below refer to them.
  static const MethodCall send = corvane::bench::SendCall();
  static const Bytes send_bytes = EncodeMethodCall(send);
  static const Value listing = corvane::bench::Listing();
  static const Bytes listing_bytes = EncodeMessage(listing);
  static const Value frame = corvane::bench::Frame();
  static const Bytes frame_bytes = EncodeMessage(frame);

  benchmark::RegisterBenchmark("codec/send_call/encode",
                               [](benchmark::State& s) { EncodeCall(s, send, send_bytes.size()); });
  benchmark::RegisterBenchmark("codec/send_call/decode",
                               [](benchmark::State& s) { DecodeCall(s, send_bytes); });
  benchmark::RegisterBenchmark("codec/send_call/memcpy",
                               [](benchmark::State& s) { Memcpy(s, send_bytes.size()); });

  benchmark::RegisterBenchmark("codec/listing/encode", [](benchmark::State& s) {
    EncodeValue(s, listing, listing_bytes.size());
  });
  benchmark::RegisterBenchmark("codec/listing/decode",
                               [](benchmark::State& s) { DecodeValue(s, listing_bytes); });
  benchmark::RegisterBenchmark("codec/listing/memcpy",
                               [](benchmark::State& s) { Memcpy(s, listing_bytes.size()); });

  // The baseline copies the array itself, not its few bytes of tag and size.
  benchmark::RegisterBenchmark("codec/bytes_1mib/encode", [](benchmark::State& s) {
    EncodeValue(s, frame, frame.bytes_if()->size());
  });
  benchmark::RegisterBenchmark("codec/bytes_1mib/decode",
                               [](benchmark::State& s) { DecodeValue(s, frame_bytes); });
  benchmark::RegisterBenchmark("codec/bytes_1mib/memcpy",
                               [](benchmark::State& s) { Memcpy(s, frame.bytes_if()->size()); });

  benchmark::AddCustomContext("send_call_bytes", std::to_string(send_bytes.size()));
  benchmark::AddCustomContext("listing_bytes", std::to_string(listing_bytes.size()));
  benchmark::AddCustomContext("bytes_1mib_bytes", std::to_string(frame_bytes.size()));

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
