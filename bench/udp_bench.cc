// The UDP transport through the socket engine, beside raw sockets measured in the same run.
//
// - udp/guarded_roundtrip: a "sendGuarded" call from a socket-engine client to a UDP echo peer
//   on 127.0.0.1, until the echoed datagram arrives at the client as a "data" event (and the
//   call's reply is in). Baseline raw/udp_pingpong: the same datagram, client socket to the
//   same echo peer and back.
// - udp/receive_throughput: a raw sender blasting datagrams at a listener session; counted as
//   "data" events at the client. Baseline raw/udp_receive: the same blast into a plain socket
//   read in a loop. Reports the kernel's own drops (the socket's drop counter) and the number
//   lost inside the host: sent - kernel drops - delivered, which must be zero.
//
// The host side (engine and bridge) lives on the main thread, as in the real host; the
// benchmarks run on a worker thread that plays the client.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <glib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "channel/standard_codec.h"
#include "engine/socket_engine.h"
#include "engine/wire.h"
#include "udp/udp_bridge.h"

namespace {

using namespace corvane;
using Clock = std::chrono::steady_clock;
using channel::Value;
using channel::ValueMap;

constexpr size_t kPayload = 20;  // a typical Z21 dataset
std::string g_socket_path;

int UdpSocket(uint16_t port, int rcvbuf = 0) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (rcvbuf) setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(port);
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  return fd;
}

uint16_t PortOf(int fd) {
  sockaddr_in a{};
  socklen_t n = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
  return ntohs(a.sin_port);
}

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(port);
  return a;
}

// Echoes every datagram back to its sender until closed.
class EchoPeer {
 public:
  EchoPeer() : fd_(UdpSocket(0)), thread_([this] { Run(); }) {}
  ~EchoPeer() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }
  uint16_t port() const { return PortOf(fd_); }

 private:
  void Run() {
    uint8_t buffer[2048];
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      sockaddr_in from{};
      socklen_t n = sizeof from;
      const ssize_t r =
          recvfrom(fd_, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &n);
      if (r > 0) sendto(fd_, buffer, r, 0, reinterpret_cast<sockaddr*>(&from), n);
    }
  }
  int fd_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// A client of the engine socket that reads whole frames.
class Client {
 public:
  bool Connect() {
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", g_socket_path.c_str());
    return connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  }
  ~Client() {
    if (fd_ >= 0) close(fd_);
  }
  void Call(uint32_t id, const std::string& channel, const std::string& method, Value args) {
    const auto frame = engine::EncodeMessageFrame(
        id, channel, channel::EncodeMethodCall({method, std::move(args)}));
    size_t off = 0;
    while (off < frame.size()) {
      const ssize_t w = send(fd_, frame.data() + off, frame.size() - off, MSG_NOSIGNAL);
      if (w <= 0) return;
      off += static_cast<size_t>(w);
    }
  }
  // The next frame, or nothing within `timeout_ms`.
  std::optional<engine::Frame> Next(int timeout_ms) {
    for (;;) {
      if (auto f = reader_.Next()) return f;
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, timeout_ms) <= 0) return std::nullopt;
      uint8_t buffer[1 << 16];
      const ssize_t r = recv(fd_, buffer, sizeof buffer, 0);
      if (r <= 0) return std::nullopt;
      reader_.Append(std::span<const uint8_t>(buffer, static_cast<size_t>(r)));
    }
  }
  // Waits for the event map of `type` (skipping others).
  std::optional<ValueMap> WaitEvent(const std::string& type) {
    while (auto f = Next(5000)) {
      if (f->kind != engine::FrameKind::kMessage || f->channel != udp::kEventChannel) continue;
      auto e = channel::DecodeEnvelope(f->payload);
      if (!e || !e.value->value.map_if()) continue;
      const Value* t = e.value->value.map_if()->Find("type");
      if (t && t->string_if() && *t->string_if() == type) return *e.value->value.map_if();
    }
    return std::nullopt;
  }

 private:
  int fd_ = -1;
  engine::FrameReader reader_;
};

Value Map(std::initializer_list<std::pair<const char*, Value>> entries) {
  ValueMap m;
  for (const auto& [k, v] : entries) m.Append(Value(k), v);
  return Value(std::move(m));
}

void ReportPercentiles(benchmark::State& state, std::vector<Clock::duration>& samples) {
  if (samples.empty()) return;
  std::sort(samples.begin(), samples.end());
  using Us = std::chrono::duration<double, std::micro>;
  state.counters["p50_us"] = Us(samples[samples.size() / 2]).count();
  state.counters["p99_us"] = Us(samples[samples.size() * 99 / 100]).count();
}

double NowWallMs() { return static_cast<double>(g_get_real_time()) / 1000.0; }

void GuardedRoundTrip(benchmark::State& state) {
  EchoPeer echo;
  Client client;
  if (!client.Connect()) return state.SkipWithError("cannot connect to the engine");
  client.Call(1, udp::kEventChannel, "listen", Value());
  client.Call(2, udp::kMethodChannel, "open",
              Map({{"sessionId", Value("rt")},
                   {"host", Value("127.0.0.1")},
                   {"port", Value::Integer(echo.port())}}));
  if (!client.WaitEvent("ready")) return state.SkipWithError("session never ready");

  std::vector<Clock::duration> samples;
  samples.reserve(1 << 16);
  uint32_t id = 100;
  channel::Bytes payload(kPayload, 0x5a);
  for (auto _ : state) {
    ++id;
    std::memcpy(payload.data(), &id, sizeof id);
    const auto start = Clock::now();
    client.Call(id, udp::kMethodChannel, "sendGuarded",
                Map({{"sessionId", Value("rt")},
                     {"requestId", Value(std::to_string(id))},
                     {"data", Value(payload)},
                     {"timeoutMs", Value::Integer(2000)},
                     {"expiresAtMs", Value(NowWallMs() + 10000)}}));
    bool replied = false, echoed = false;
    while (!(replied && echoed)) {
      auto f = client.Next(5000);
      if (!f) return state.SkipWithError("lost a round trip");
      if (f->kind == engine::FrameKind::kReply && f->id == id) {
        replied = true;
      } else if (f->kind == engine::FrameKind::kMessage && f->channel == udp::kEventChannel) {
        // The counter sits at the start of the payload: a cheap match without decoding.
        echoed = echoed || std::search(f->payload.begin(), f->payload.end(), payload.begin(),
                                       payload.end()) != f->payload.end();
      }
    }
    samples.push_back(Clock::now() - start);
  }
  client.Call(3, udp::kMethodChannel, "close", Map({{"sessionId", Value("rt")}}));
  ReportPercentiles(state, samples);
}

void RawPingPong(benchmark::State& state) {
  EchoPeer echo;
  const int fd = UdpSocket(0);
  const sockaddr_in to = Loopback(echo.port());
  connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  std::vector<Clock::duration> samples;
  samples.reserve(1 << 16);
  uint8_t payload[kPayload] = {}, back[2048];
  for (auto _ : state) {
    const auto start = Clock::now();
    send(fd, payload, sizeof payload, 0);
    if (recv(fd, back, sizeof back, 0) <= 0) return state.SkipWithError("ping-pong lost");
    samples.push_back(Clock::now() - start);
  }
  close(fd);
  ReportPercentiles(state, samples);
}

// The kernel's drop counter of the UDP socket bound to `port` (all sockets on it).
uint64_t KernelDrops(uint16_t port) {
  std::ifstream in("/proc/net/udp");
  std::string line;
  std::getline(in, line);
  uint64_t drops = 0;
  char hex[8];
  std::snprintf(hex, sizeof hex, ":%04X", port);
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string sl, local;
    fields >> sl >> local;
    if (!local.ends_with(hex)) continue;
    // "drops" is the last column.
    std::string field, last = "0";
    while (fields >> field) last = field;
    drops += std::stoull(last);
  }
  return drops;
}

constexpr int kBurst = 20000;

void Blast(uint16_t port) {
  const int fd = UdpSocket(0);
  const sockaddr_in to = Loopback(port);
  uint8_t payload[kPayload] = {};
  for (int i = 0; i < kBurst; ++i) {
    std::memcpy(payload, &i, sizeof i);
    sendto(fd, payload, sizeof payload, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }
  close(fd);
}

void ReportThroughput(benchmark::State& state, int64_t delivered, int64_t kernel, double seconds,
                      int64_t sent) {
  state.SetIterationTime(seconds);
  state.counters["dgram_per_s"] = static_cast<double>(delivered) / seconds;
  state.counters["kernel_drops"] = static_cast<double>(kernel);
  state.counters["host_lost"] = static_cast<double>(sent - kernel - delivered);
}

void ReceiveThroughput(benchmark::State& state) {
  Client client;
  if (!client.Connect()) return state.SkipWithError("cannot connect to the engine");
  client.Call(1, udp::kEventChannel, "listen", Value());
  int run = 0;
  for (auto _ : state) {
    const std::string id = "rx" + std::to_string(run++);
    client.Call(2, udp::kMethodChannel, "openListener",
                Map({{"sessionId", Value(id)}, {"port", Value::Integer(0)}}));
    auto ready = client.WaitEvent("ready");
    if (!ready) return state.SkipWithError("listener never ready");
    const auto port = static_cast<uint16_t>(*ready->Find("port")->integer());
    const uint64_t drops_before = KernelDrops(port);
    const auto start = Clock::now();
    std::thread sender([port] { Blast(port); });
    int64_t delivered = 0;
    auto last = start;
    while (auto f = client.Next(300)) {
      if (f->kind == engine::FrameKind::kMessage && f->channel == udp::kEventChannel) {
        ++delivered;
        last = Clock::now();
      }
    }
    sender.join();
    const int64_t kernel = static_cast<int64_t>(KernelDrops(port) - drops_before);
    client.Call(3, udp::kMethodChannel, "close", Map({{"sessionId", Value(id)}}));
    client.WaitEvent("cancelled");
    ReportThroughput(state, delivered, kernel, std::chrono::duration<double>(last - start).count(),
                     kBurst);
  }
}

void RawReceive(benchmark::State& state) {
  for (auto _ : state) {
    const int fd = UdpSocket(0);
    const uint16_t port = PortOf(fd);
    const uint64_t drops_before = KernelDrops(port);
    const auto start = Clock::now();
    std::thread sender([port] { Blast(port); });
    int64_t delivered = 0;
    auto last = start;
    uint8_t buffer[2048];
    for (;;) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 300) <= 0) break;
      if (recv(fd, buffer, sizeof buffer, 0) > 0) {
        ++delivered;
        last = Clock::now();
      }
    }
    sender.join();
    const int64_t kernel = static_cast<int64_t>(KernelDrops(port) - drops_before);
    close(fd);
    ReportThroughput(state, delivered, kernel, std::chrono::duration<double>(last - start).count(),
                     kBurst);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  char dir_template[] = "/tmp/corvane-udp-bench-XXXXXX";
  const char* dir = mkdtemp(dir_template);
  if (!dir) return 1;
  g_socket_path = std::string(dir) + "/engine.sock";
  {
    engine::SocketEngine engine(engine::SocketEngineOptions{.path = g_socket_path});
    std::string error;
    if (!engine.Start(&error)) {
      std::fprintf(stderr, "bench_udp: %s\n", error.c_str());
      return 1;
    }
    udp::UdpBridge::Options options;
    options.permission_browser = [] { return std::unique_ptr<udp::PermissionBrowser>(); };
    auto bridge = udp::UdpBridge::Create(engine, std::move(options));

    benchmark::RegisterBenchmark("udp/guarded_roundtrip", GuardedRoundTrip)->UseRealTime();
    benchmark::RegisterBenchmark("raw/udp_pingpong", RawPingPong)->UseRealTime();
    benchmark::RegisterBenchmark("udp/receive_throughput", ReceiveThroughput)
        ->UseManualTime()
        ->Iterations(3);
    benchmark::RegisterBenchmark("raw/udp_receive", RawReceive)->UseManualTime()->Iterations(3);

    std::atomic<bool> done{false};
    std::thread client([&done] {
      benchmark::RunSpecifiedBenchmarks();
      done = true;
      g_main_context_wakeup(nullptr);
    });
    while (!done) g_main_context_iteration(nullptr, TRUE);
    client.join();
    bridge.reset();
  }
  benchmark::Shutdown();
  unlink(g_socket_path.c_str());
  rmdir(dir);
  return 0;
}
