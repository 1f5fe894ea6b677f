// Round trip of a trivial method call through the socket engine, beside a raw Unix-socket
// ping-pong of the same byte sizes between two threads. For profiling the engine in one
// process only: a thread baseline moves with where the scheduler puts the threads, so the
// figures make bench reports come from roundtrip.cc, between separate processes.
//
// The engine must live on the process's main thread (replies leave from there), so main()
// starts it, runs the benchmarks on a worker thread that plays the client, and iterates the
// default main context until they are done.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "channel/method_channel.h"
#include "channel/standard_codec.h"
#include "engine/socket_engine.h"
#include "engine/wire.h"

namespace {

using namespace corvane;
using Clock = std::chrono::steady_clock;

constexpr const char* kChannel = "bench/echo";

std::string g_socket_path;

bool WriteAll(int fd, const uint8_t* data, size_t n) {
  while (n > 0) {
    const ssize_t w = send(fd, data, n, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    data += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

bool ReadAll(int fd, uint8_t* data, size_t n) {
  while (n > 0) {
    const ssize_t r = recv(fd, data, n, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    data += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

// Reads one frame: its body, without the length prefix.
bool ReadFrame(int fd, std::vector<uint8_t>& body) {
  uint8_t header[engine::kFrameHeaderSize];
  if (!ReadAll(fd, header, sizeof header)) return false;
  const uint32_t n = uint32_t(header[0]) | uint32_t(header[1]) << 8 | uint32_t(header[2]) << 16 |
                     uint32_t(header[3]) << 24;
  body.resize(n);
  return ReadAll(fd, body.data(), n);
}

// Per-call latencies, reported as p50 and mean beside the framework's own timing.
class Latencies {
 public:
  explicit Latencies(size_t expected) { samples_.reserve(expected); }
  void Add(Clock::duration d) { samples_.push_back(d); }
  void Report(benchmark::State& state) {
    if (samples_.empty()) return;
    std::sort(samples_.begin(), samples_.end());
    const auto total = std::accumulate(samples_.begin(), samples_.end(), Clock::duration{});
    using Us = std::chrono::duration<double, std::micro>;
    state.counters["p50_us"] = Us(samples_[samples_.size() / 2]).count();
    state.counters["mean_us"] = Us(total).count() / static_cast<double>(samples_.size());
  }

 private:
  std::vector<Clock::duration> samples_;
};

// The request a client sends: a method call frame, encoded afresh for every call as a client
// would. Also gives the byte sizes the raw baseline mirrors.
engine::Bytes RequestFrame(uint32_t id) {
  const channel::Bytes call = channel::EncodeMethodCall({"ping", channel::Value()});
  return engine::EncodeMessageFrame(id, kChannel, call);
}

void EngineRoundTrip(benchmark::State& state) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", g_socket_path.c_str());
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    state.SkipWithError("cannot connect to the engine");
    close(fd);
    return;
  }
  Latencies latencies(1 << 16);
  std::vector<uint8_t> body;
  uint32_t id = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    if (++id == 0) id = 1;
    const engine::Bytes request = RequestFrame(id);
    if (!WriteAll(fd, request.data(), request.size()) || !ReadFrame(fd, body)) {
      state.SkipWithError("engine connection lost");
      break;
    }
    engine::ParsedFrame reply = engine::ParseFrameBody(body);
    if (!reply.frame || reply.frame->id != id) {
      state.SkipWithError("unexpected reply frame");
      break;
    }
    auto envelope = channel::DecodeEnvelope(reply.frame->payload);
    if (!envelope || envelope.value->kind != channel::MethodReply::Kind::kSuccess) {
      state.SkipWithError("the call did not succeed");
      break;
    }
    latencies.Add(Clock::now() - start);
  }
  close(fd);
  latencies.Report(state);
}

// The same exchange without the engine: the client writes a request of the same size, a
// server thread reads it and writes back a reply of the same size.
void RawPingPong(benchmark::State& state) {
  const size_t request_size = RequestFrame(1).size();
  const size_t reply_size =
      engine::EncodeReplyFrame(1, channel::EncodeSuccessEnvelope(channel::Value())).size();
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    state.SkipWithError("socketpair failed");
    return;
  }
  std::thread server([fd = fds[1], request_size, reply_size] {
    std::vector<uint8_t> request(request_size);
    const std::vector<uint8_t> reply(reply_size, 0x5a);
    while (ReadAll(fd, request.data(), request.size()) &&
           WriteAll(fd, reply.data(), reply.size())) {
    }
    close(fd);
  });
  Latencies latencies(1 << 16);
  std::vector<uint8_t> request(request_size, 0xa5);
  std::vector<uint8_t> reply(reply_size);
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!WriteAll(fds[0], request.data(), request.size()) ||
        !ReadAll(fds[0], reply.data(), reply.size())) {
      state.SkipWithError("ping-pong connection lost");
      break;
    }
    latencies.Add(Clock::now() - start);
  }
  shutdown(fds[0], SHUT_RDWR);
  server.join();
  close(fds[0]);
  latencies.Report(state);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  char dir_template[] = "/tmp/corvane-bench-XXXXXX";
  const char* dir = mkdtemp(dir_template);
  if (!dir) {
    std::perror("mkdtemp");
    return 1;
  }
  g_socket_path = std::string(dir) + "/engine.sock";

  {
    engine::SocketEngine engine(engine::SocketEngineOptions{.path = g_socket_path});
    std::string error;
    if (!engine.Start(&error)) {
      std::fprintf(stderr, "bench_engine: %s\n", error.c_str());
      return 1;
    }
    channel::MethodChannel echo(engine, kChannel);
    echo.SetMethodCallHandler(
        [](const channel::MethodCall&, std::unique_ptr<channel::MethodResult> result) {
          result->Success();
        });

    benchmark::RegisterBenchmark("engine/call_roundtrip", EngineRoundTrip)->UseRealTime();
    benchmark::RegisterBenchmark("raw/unix_pingpong", RawPingPong)->UseRealTime();

    std::atomic<bool> done{false};
    std::thread client([&done] {
      benchmark::RunSpecifiedBenchmarks();
      done = true;
      g_main_context_wakeup(nullptr);
    });
    while (!done) g_main_context_iteration(nullptr, TRUE);
    client.join();
  }
  benchmark::Shutdown();
  rmdir(dir);
  return 0;
}
