// Round trips through a real corvane-host process, each beside a raw baseline that runs in
// separate processes too and carries the same bytes:
//
//   roundtrip call HOST CALLS      a "capabilities" call on corvane/udp through the engine
//                                  socket, vs a raw Unix-socket echo process
//   roundtrip udp HOST CALLS       a "sendGuarded" datagram to a UDP echo process, back at the
//                                  client as a "data" event (and the call's reply), vs the
//                                  design's floor (guarded_floor: the same two thread hops
//                                  around a raw datagram) and a raw UDP ping-pong with the same
//                                  echo process
//   roundtrip startup HOST RUNS    exec of `HOST --headless` until its socket accepts a
//                                  connection, and the idle host's resident memory, vs exec
//                                  of a bare process that binds a socket
//
// Prints one line per figure: name, p50/p99 in microseconds, and for the host the context
// switches and wake-ups its threads made per call. Pinning is left to the caller (taskset):
// every process started here inherits the CPU set.
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "channel/standard_codec.h"
#include "engine/wire.h"

namespace {

using namespace corvane;
using Clock = std::chrono::steady_clock;
using channel::Value;
using channel::ValueMap;

constexpr int kWarmUp = 500;
constexpr size_t kDatagram = 20;  // a typical Z21 dataset

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "roundtrip: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

bool WriteAll(int fd, const uint8_t* p, size_t n) {
  while (n > 0) {
    const ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

bool ReadAll(int fd, uint8_t* p, size_t n) {
  while (n > 0) {
    const ssize_t r = recv(fd, p, n, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

// One frame body, read the same way from the host and from the raw echo process.
bool ReadFrame(int fd, channel::Bytes& body) {
  uint8_t header[engine::kFrameHeaderSize];
  if (!ReadAll(fd, header, sizeof header)) return false;
  uint32_t n;
  std::memcpy(&n, header, 4);
  body.resize(n);
  return ReadAll(fd, body.data(), n);
}

uint32_t FrameId(const channel::Bytes& body) {
  uint32_t id = 0;
  if (body.size() >= 5) std::memcpy(&id, body.data() + 1, 4);
  return id;
}

int ConnectUnix(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

int UdpSocket() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) Die("bind");
  return fd;
}

uint16_t PortOf(int fd) {
  sockaddr_in a{};
  socklen_t n = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
  return ntohs(a.sin_port);
}

// Runs `body` in a child process; the child exits when it returns.
pid_t Spawn(const std::function<void()>& body) {
  const pid_t pid = fork();
  if (pid < 0) Die("fork");
  if (pid == 0) {
    body();
    _exit(0);
  }
  return pid;
}

void Stop(pid_t pid) {
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
}

struct Percentiles {
  double p50 = 0, p90 = 0, p99 = 0, max = 0;
};

Percentiles Summarise(std::vector<Clock::duration>& samples) {
  std::sort(samples.begin(), samples.end());
  using Us = std::chrono::duration<double, std::micro>;
  auto at = [&](size_t percent) { return Us(samples[samples.size() * percent / 100]).count(); };
  return {at(50), at(90), at(99), Us(samples.back()).count()};
}

// Context switches of every thread of a process, from /proc: voluntary ones are the thread
// blocking (and later being woken), involuntary ones preemption.
struct Switches {
  long voluntary = 0, involuntary = 0;
  int threads = 0;
};

Switches ReadSwitches(pid_t pid) {
  Switches s;
  const std::string dir = "/proc/" + std::to_string(pid) + "/task";
  DIR* d = opendir(dir.c_str());
  if (!d) return s;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::ifstream status(dir + "/" + e->d_name + "/status");
    std::string key;
    long value;
    ++s.threads;
    while (status >> key) {
      if (key == "voluntary_ctxt_switches:" && status >> value) s.voluntary += value;
      if (key == "nonvoluntary_ctxt_switches:" && status >> value) s.involuntary += value;
    }
  }
  closedir(d);
  return s;
}

// CPU migrations of a process's threads so far (scheduler statistics, where the kernel keeps
// them).
long ReadMigrations(pid_t pid) {
  long total = 0;
  const std::string dir = "/proc/" + std::to_string(pid) + "/task";
  DIR* d = opendir(dir.c_str());
  if (!d) return -1;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::ifstream sched(dir + "/" + e->d_name + "/sched");
    std::string line;
    while (std::getline(sched, line)) {
      if (line.rfind("se.nr_migrations", 0) == 0)
        total += std::atol(line.c_str() + line.find(':') + 1);
    }
  }
  closedir(d);
  return total;
}

void Print(const char* name, const Percentiles& p, int calls) {
  std::printf("%s p50_us=%.2f p90_us=%.2f p99_us=%.2f max_us=%.1f calls=%d\n", name, p.p50, p.p90,
              p.p99, p.max, calls);
}

void PrintSwitches(const char* name, pid_t pid, const Switches& before, const Switches& after,
                   long migrations_before, int calls) {
  std::printf(
      "%s threads=%d voluntary_per_call=%.2f involuntary_per_call=%.2f "
      "migrations_per_call=%.3f\n",
      name, after.threads, double(after.voluntary - before.voluntary) / calls,
      double(after.involuntary - before.involuntary) / calls,
      double(ReadMigrations(pid) - migrations_before) / calls);
}

// A host started on a private runtime directory and socket.
class Host {
 public:
  // `listener` set: runs `listener listen SOCKET` instead, the bare-process baseline.
  Host(const std::string& binary, const std::string& dir, const char* listener = nullptr)
      : socket_(dir + "/engine.sock") {
    start_ = Clock::now();
    pid_ = fork();
    if (pid_ < 0) Die("fork");
    if (pid_ == 0) {
      setenv("XDG_RUNTIME_DIR", dir.c_str(), 1);
      unsetenv("DISPLAY");
      unsetenv("WAYLAND_DISPLAY");
      const std::string log = dir + "/host.log";
      if (!freopen(log.c_str(), "a", stderr) || !freopen(log.c_str(), "a", stdout)) _exit(127);
      if (listener) {
        execl(listener, listener, "listen", socket_.c_str(), static_cast<char*>(nullptr));
      } else {
        execl(binary.c_str(), binary.c_str(), "--headless", "--engine-socket", socket_.c_str(),
              static_cast<char*>(nullptr));
      }
      _exit(127);
    }
  }
  ~Host() { Stop(pid_); }

  // Connects as soon as the socket accepts; the time from exec to then.
  int Connect(double* startup_ms = nullptr) {
    for (int i = 0; i < 50000; ++i) {
      const int fd = ConnectUnix(socket_);
      if (fd >= 0) {
        if (startup_ms) {
          *startup_ms = std::chrono::duration<double, std::milli>(Clock::now() - start_).count();
        }
        return fd;
      }
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) break;
      usleep(100);
    }
    Die("the host never accepted a connection");
  }
  pid_t pid() const { return pid_; }

 private:
  std::string socket_;
  pid_t pid_;
  Clock::time_point start_;
};

class Client {
 public:
  explicit Client(int fd) : fd_(fd) {}
  ~Client() { close(fd_); }
  int fd() const { return fd_; }

  bool Send(uint32_t id, const char* channel, const std::string& method, const Value& args) {
    const auto frame =
        engine::EncodeMessageFrame(id, channel, channel::EncodeMethodCall({method, args}));
    return WriteAll(fd_, frame.data(), frame.size());
  }
  bool Next(channel::Bytes& body) { return ReadFrame(fd_, body); }

 private:
  int fd_;
};

std::string MakeDir() {
  char path[] = "/tmp/corvane-roundtrip-XXXXXX";
  if (!mkdtemp(path)) Die("mkdtemp");
  return path;
}

void RemoveDir(const std::string& dir) { std::system(("rm -rf '" + dir + "'").c_str()); }

// Times `calls` exchanges of `one`, after a warm-up.
template <typename F>
std::vector<Clock::duration> Time(int calls, F&& one) {
  for (int i = 0; i < kWarmUp; ++i) {
    if (!one()) Die("a warm-up round trip failed");
  }
  std::vector<Clock::duration> samples;
  samples.reserve(calls);
  for (int i = 0; i < calls; ++i) {
    const auto start = Clock::now();
    if (!one()) Die("a round trip failed");
    samples.push_back(Clock::now() - start);
  }
  return samples;
}

// Sequential calls of `request` (its id patched each time) on `fd`, served by process `server`;
// prints their latencies and the server's context switches. Returns the reply frame's size.
size_t MeasureCalls(const char* name, int fd, pid_t server, channel::Bytes& request, int calls) {
  channel::Bytes body;
  uint32_t id = 0;
  auto one = [&] {
    ++id;
    std::memcpy(request.data() + engine::kFrameHeaderSize + 1, &id, 4);
    return WriteAll(fd, request.data(), request.size()) && ReadFrame(fd, body) &&
           FrameId(body) == id;
  };
  one();
  const Switches before = ReadSwitches(server);
  const long migrations = ReadMigrations(server);
  auto samples = Time(calls, one);
  const Switches after = ReadSwitches(server);
  Print(name, Summarise(samples), calls);
  PrintSwitches((std::string(name) + "_switches").c_str(), server, before, after, migrations,
                calls + kWarmUp);
  return engine::kFrameHeaderSize + body.size();
}

int CallRoundTrip(const std::string& binary, int calls) {
  const std::string dir = MakeDir();
  // The request, encoded once; each call patches its id, in both runs alike.
  channel::Bytes request = engine::EncodeMessageFrame(
      1, "corvane/udp", channel::EncodeMethodCall({"capabilities", Value()}));
  size_t reply_size = 0;
  {
    Host host(binary, dir);
    Client client(host.Connect());
    reply_size = MeasureCalls("host_call", client.fd(), host.pid(), request, calls);
  }

  // Raw baseline: an echo process that reads a request of the same size and writes a reply of
  // the same size, carrying the id back.
  const std::string raw_path = dir + "/raw.sock";
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", raw_path.c_str());
  if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listener, 1) != 0) {
    Die("raw listener");
  }
  const size_t request_size = request.size();
  const pid_t echo = Spawn([listener, request_size, reply_size] {
    const int fd = accept(listener, nullptr, nullptr);
    std::vector<uint8_t> in(request_size), out(reply_size, 0);
    const uint32_t body = static_cast<uint32_t>(reply_size - engine::kFrameHeaderSize);
    std::memcpy(out.data(), &body, 4);
    while (ReadAll(fd, in.data(), in.size())) {
      std::memcpy(out.data() + engine::kFrameHeaderSize + 1,
                  in.data() + engine::kFrameHeaderSize + 1, 4);
      if (!WriteAll(fd, out.data(), out.size())) break;
    }
  });
  close(listener);
  {
    Client client(ConnectUnix(raw_path));
    MeasureCalls("raw_unix", client.fd(), echo, request, calls);
  }
  Stop(echo);
  RemoveDir(dir);
  return 0;
}

Value Map(std::initializer_list<std::pair<const char*, Value>> entries) {
  ValueMap m;
  for (const auto& [k, v] : entries) m.Append(Value(k), v);
  return Value(std::move(m));
}

// The event map of a message frame on `channel`, if it is one.
std::optional<ValueMap> Event(const channel::Bytes& body, const char* channel) {
  auto parsed = engine::ParseFrameBody(body);
  if (!parsed.frame || parsed.frame->kind != engine::FrameKind::kMessage ||
      parsed.frame->channel != channel) {
    return std::nullopt;
  }
  auto envelope = channel::DecodeEnvelope(parsed.frame->payload);
  if (!envelope || !envelope.value->value.map_if()) return std::nullopt;
  return *envelope.value->value.map_if();
}

bool IsEvent(const ValueMap& event, const char* type) {
  const Value* t = event.Find("type");
  return t && t->string_if() && *t->string_if() == type;
}

// bench/guarded_floor, built beside this program.
std::string FloorBinary() {
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) Die("readlink /proc/self/exe");
  std::string path(self, static_cast<size_t>(n));
  return path.substr(0, path.rfind('/') + 1) + "guarded_floor";
}

int UdpRoundTrip(const std::string& binary, int calls) {
  const std::string dir = MakeDir();
  const int echo_fd = UdpSocket();
  const uint16_t echo_port = PortOf(echo_fd);
  const pid_t echo = Spawn([echo_fd] {
    uint8_t buffer[2048];
    for (;;) {
      sockaddr_in from{};
      socklen_t n = sizeof from;
      const ssize_t r =
          recvfrom(echo_fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &n);
      if (r > 0) sendto(echo_fd, buffer, r, 0, reinterpret_cast<sockaddr*>(&from), n);
    }
  });
  close(echo_fd);

  {
    Host host(binary, dir);
    Client client(host.Connect());
    constexpr const char* kMethods = "corvane/udp";
    constexpr const char* kEvents = "corvane/udp_events";
    channel::Bytes body;
    client.Send(1, kEvents, "listen", Value());
    client.Send(2, kMethods, "open",
                Map({{"sessionId", Value("rt")},
                     {"host", Value("127.0.0.1")},
                     {"port", Value::Integer(echo_port)}}));
    bool ready = false;
    while (!ready && client.Next(body)) {
      if (auto e = Event(body, kEvents)) ready = IsEvent(*e, "ready");
    }
    if (!ready) Die("the UDP session never became ready");

    uint32_t id = 100;
    channel::Bytes payload(kDatagram, 0x5a);
    auto one = [&] {
      ++id;
      std::memcpy(payload.data(), &id, sizeof id);
      const double now_ms = std::chrono::duration<double, std::milli>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count();
      client.Send(id, kMethods, "sendGuarded",
                  Map({{"sessionId", Value("rt")},
                       {"requestId", Value(std::to_string(id))},
                       {"data", Value(payload)},
                       {"timeoutMs", Value::Integer(2000)},
                       {"expiresAtMs", Value(now_ms + 10000)}}));
      bool replied = false, echoed = false;
      while (!(replied && echoed)) {
        if (!client.Next(body)) return false;
        if (body[0] == uint8_t(engine::FrameKind::kReply) && FrameId(body) == id) {
          replied = true;
        } else if (auto e = Event(body, kEvents); e && IsEvent(*e, "data")) {
          const Value* data = e->Find("data");
          echoed = echoed || (data && data->bytes_if() && *data->bytes_if() == payload);
        }
      }
      return true;
    };
    const Switches before = ReadSwitches(host.pid());
    const long migrations = ReadMigrations(host.pid());
    auto samples = Time(calls, one);
    const Switches after = ReadSwitches(host.pid());
    Print("host_udp", Summarise(samples), calls);
    PrintSwitches("host_udp_switches", host.pid(), before, after, migrations, calls + kWarmUp);
  }

  {
    // The design's floor (bench/guarded_floor.cc): the same request frames and the same two
    // hops around a raw datagram, without the host.
    const std::string floor = FloorBinary();
    const std::string path = dir + "/floor.sock";
    const pid_t server = Spawn([&] {
      execl(floor.c_str(), floor.c_str(), path.c_str(), std::to_string(echo_port).c_str(),
            static_cast<char*>(nullptr));
      _exit(127);
    });
    int fd = -1;
    for (int i = 0; i < 50000 && fd < 0; ++i) {
      fd = ConnectUnix(path);
      if (fd < 0) usleep(100);
    }
    if (fd < 0) Die("the floor program never accepted a connection");
    Client client(fd);
    uint32_t id = 100;
    channel::Bytes payload(kDatagram, 0x5a), body;
    auto one = [&] {
      ++id;
      client.Send(id, "corvane/udp", "sendGuarded",
                  Map({{"sessionId", Value("rt")},
                       {"requestId", Value(std::to_string(id))},
                       {"data", Value(payload)},
                       {"timeoutMs", Value::Integer(2000)},
                       {"expiresAtMs", Value(1e13)}}));
      return client.Next(body) && FrameId(body) == id;
    };
    const Switches before = ReadSwitches(server);
    const long migrations = ReadMigrations(server);
    auto samples = Time(calls, one);
    const Switches after = ReadSwitches(server);
    Print("floor_udp", Summarise(samples), calls);
    PrintSwitches("floor_udp_switches", server, before, after, migrations, calls + kWarmUp);
    Stop(server);
  }

  {
    const int fd = UdpSocket();
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(echo_port);
    connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    uint8_t payload[kDatagram] = {}, back[2048];
    auto samples = Time(calls, [&] {
      return send(fd, payload, sizeof payload, 0) > 0 && recv(fd, back, sizeof back, 0) > 0;
    });
    close(fd);
    Print("raw_udp", Summarise(samples), calls);
  }
  Stop(echo);
  RemoveDir(dir);
  return 0;
}

long RssKb(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string key;
  while (status >> key) {
    long value;
    if (key == "VmRSS:" && status >> value) return value;
  }
  return -1;
}

// The host's start-up, alternating with the baseline: this same program exec'd to bind a Unix
// socket and nothing else, which is what any process pays to get that far.
int Startup(const std::string& binary, int runs, const char* self) {
  std::vector<double> host_ms, bare_ms;
  long rss = 0;
  for (int i = 0; i < runs; ++i) {
    for (bool bare : {false, true}) {
      const std::string dir = MakeDir();
      {
        Host host(binary, dir, bare ? self : nullptr);
        double startup = 0;
        close(host.Connect(&startup));
        (bare ? bare_ms : host_ms).push_back(startup);
        if (!bare && i == runs - 1) {
          usleep(500 * 1000);  // settled, idle
          rss = RssKb(host.pid());
        }
      }
      RemoveDir(dir);
    }
  }
  for (auto* ms : {&host_ms, &bare_ms}) std::sort(ms->begin(), ms->end());
  std::printf("host_startup median_ms=%.2f min_ms=%.2f max_ms=%.2f runs=%d idle_rss_kb=%ld\n",
              host_ms[runs / 2], host_ms.front(), host_ms.back(), runs, rss);
  std::printf("bare_startup median_ms=%.2f min_ms=%.2f max_ms=%.2f runs=%d\n", bare_ms[runs / 2],
              bare_ms.front(), bare_ms.back(), runs);
  return 0;
}

// The baseline's process: binds the socket, then waits to be stopped.
int Listen(const char* path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 4) != 0) {
    return 1;
  }
  pause();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "listen") return Listen(argv[2]);
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s call|udp|startup HOST_BINARY COUNT\n", argv[0]);
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  const std::string mode = argv[1], binary = argv[2];
  const int count = std::max(1, std::atoi(argv[3]));
  if (mode == "call") return CallRoundTrip(binary, count);
  if (mode == "udp") return UdpRoundTrip(binary, count);
  if (mode == "startup") return Startup(binary, count, "/proc/self/exe");
  std::fprintf(stderr, "roundtrip: unknown mode %s\n", mode.c_str());
  return 2;
}
