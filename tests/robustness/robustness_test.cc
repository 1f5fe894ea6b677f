// The real host, headless, driven through its socket by random and malformed calls on every
// registered channel. Whatever arrives, each call gets exactly one reply and the host stays up.
// CORVANE_ROBUSTNESS_SEED replays a run; CORVANE_ROBUSTNESS_CALLS changes its length.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "robustness/known_names.h"
#include "robustness/random_values.h"
#include "support/wire_client.h"

namespace corvane::robustness {
namespace {

using channel::Bytes;
using testing::WireClient;
using namespace std::chrono_literals;

uint64_t EnvNumber(const char* name, uint64_t fallback) {
  const char* v = std::getenv(name);
  return v && *v ? std::stoull(v) : fallback;
}

// Channels the host registers, from its own account of its start-up.
std::vector<std::string> RegisteredChannels() {
  std::vector<std::string> channels;
  FILE* out = popen(CORVANE_HOST_BINARY " --print-registrations", "r");
  char line[1024];
  while (out && fgets(line, sizeof line, out)) {
    std::stringstream fields(line);
    std::string list;
    for (int field = 0; field < 3; ++field) std::getline(fields, list, '\t');
    std::stringstream names(list);
    for (std::string name; std::getline(names, name, ',');) {
      if (name != "-" && !name.empty()) channels.push_back(name);
    }
  }
  EXPECT_TRUE(out && pclose(out) == 0);
  return channels;
}

// Random calls that use every channel's real method names and keys, plus a few of nobody's.
RandomCalls RandomCallsFor(uint64_t seed) {
  std::vector<std::string> methods = {"", "x", "listen", "cancel"};
  std::vector<std::string> keys = {"", "id", "value"};
  for (const auto& [channel, words] : KnownVocabulary()) {
    methods.insert(methods.end(), words.methods.begin(), words.methods.end());
    keys.insert(keys.end(), words.keys.begin(), words.keys.end());
  }
  return RandomCalls(seed, methods, keys);
}

class HostProcess {
 public:
  // `nofile_limit` > 0 lowers the host's descriptor limit to that many.
  explicit HostProcess(const std::string& dir, rlim_t nofile_limit = 0)
      : socket_(dir + "/engine.sock"), log_(dir + "/host.log") {
    pid_ = fork();
    if (pid_ == 0) {
      if (nofile_limit > 0) {
        const rlimit limit{nofile_limit, nofile_limit};
        setrlimit(RLIMIT_NOFILE, &limit);
      }
      FILE* log = std::fopen(log_.c_str(), "w");
      dup2(fileno(log), STDERR_FILENO);
      dup2(fileno(log), STDOUT_FILENO);
      // Random calls name relative paths (a backup to "a"): they land in the test's own folder.
      if (chdir(dir.c_str()) != 0) _exit(127);
      execl(CORVANE_HOST_BINARY, CORVANE_HOST_BINARY, "--headless", "--engine-socket",
            socket_.c_str(), nullptr);
      _exit(127);
    }
  }
  ~HostProcess() {
    if (pid_ > 0 && alive()) {
      kill(pid_, SIGTERM);
      int status;
      waitpid(pid_, &status, 0);
    }
  }

  bool WaitForSocket(WireClient& client) {
    for (int i = 0; i < 500 && alive(); ++i) {
      if (client.Connect(socket_)) return true;
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }

  bool alive() {
    if (exited_) return false;
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_) exited_ = true;
    return !exited_;
  }

  std::string LogTail() const {
    std::ifstream in(log_);
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return all.size() > 4000 ? all.substr(all.size() - 4000) : all;
  }

  const std::string& socket() const { return socket_; }
  pid_t pid() const { return pid_; }

  size_t LogSize() const {
    std::error_code error;
    const auto size = std::filesystem::file_size(log_, error);
    return error ? 0 : size;
  }

  // A field of /proc/PID/status in kB ("VmHWM", "VmRSS"); 0 when unreadable.
  long StatusKb(const std::string& field) const {
    std::ifstream in("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(in, line);) {
      if (line.compare(0, field.size() + 1, field + ":") == 0) {
        return std::stol(line.substr(field.size() + 1));
      }
    }
    return 0;
  }

  // User plus system CPU time so far, in clock ticks: fields 14 and 15 of /proc/PID/stat.
  long CpuTicks() const {
    std::ifstream in("/proc/" + std::to_string(pid_) + "/stat");
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::stringstream fields(all.substr(all.rfind(')') + 2));  // from field 3 on
    std::string skip;
    long utime = 0, stime = 0;
    for (int i = 3; i < 14; ++i) fields >> skip;
    fields >> utime >> stime;
    return utime + stime;
  }

 private:
  std::string socket_;
  std::string log_;
  pid_t pid_ = -1;
  bool exited_ = false;
};

class RobustnessTest : public ::testing::Test {
 protected:
  virtual rlim_t DescriptorLimit() const { return 0; }

  void SetUp() override {
    char tmpl[] = "/tmp/corvane-robustness-XXXXXX";
    dir_ = mkdtemp(tmpl);
    host_ = std::make_unique<HostProcess>(dir_, DescriptorLimit());
    ASSERT_TRUE(host_->WaitForSocket(client_)) << host_->LogTail();
  }
  void TearDown() override {
    client_.Close();
    host_.reset();
    std::filesystem::remove_all(dir_);
  }

  // Reads frames until every id in `waiting` is answered or `timeout` passes. Counts every
  // reply per id; answers host-initiated calls with the empty reply, as a client should.
  void Collect(WireClient& client, std::set<uint32_t>& waiting, std::map<uint32_t, int>& replies,
               std::chrono::seconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!waiting.empty() && std::chrono::steady_clock::now() < deadline) {
      auto frame = client.Receive(200);
      if (!frame) {
        if (client.closed()) break;
        continue;
      }
      if (frame->kind == engine::FrameKind::kMessage) {
        if (frame->id != 0) client.SendRaw(engine::EncodeReplyFrame(frame->id, {}));
        continue;
      }
      ++replies[frame->id];
      if (!frame->payload.empty()) {
        auto envelope = channel::DecodeEnvelope(frame->payload);
        EXPECT_TRUE(envelope) << "reply to " << frame->id
                              << " is not an envelope: " << envelope.error;
      }
      waiting.erase(frame->id);
    }
  }

  std::string dir_;
  std::unique_ptr<HostProcess> host_;
  WireClient client_;
};

TEST_F(RobustnessTest, EveryCallGetsExactlyOneReplyAndTheHostStaysUp) {
  const uint64_t seed = EnvNumber("CORVANE_ROBUSTNESS_SEED", std::random_device()());
  const uint64_t total = EnvNumber("CORVANE_ROBUSTNESS_CALLS", 4000);
  std::printf("robustness seed %llu, %llu calls\n", static_cast<unsigned long long>(seed),
              static_cast<unsigned long long>(total));
  SCOPED_TRACE("CORVANE_ROBUSTNESS_SEED=" + std::to_string(seed));

  std::vector<std::string> channels = RegisteredChannels();
  const size_t registered = channels.size();
  // Channels nobody registered, including near misses of real ones.
  channels.insert(channels.end(), {"corvane/nothing", "io.corvane/Udp", "corvane/udp/"});

  RandomCalls random = RandomCallsFor(seed);

  std::set<uint32_t> waiting;
  std::map<uint32_t, int> replies;
  uint32_t next_id = 1;
  for (uint64_t sent = 0; sent < total;) {
    // Batches keep many calls in flight at once, as a busy engine would.
    for (int i = 0; i < 50 && sent < total; ++i, ++sent) {
      const std::string& channel = channels[random.rng()() % channels.size()];
      const uint32_t id = next_id++;
      const bool malformed = random.rng()() % 5 == 0;
      const Bytes payload =
          malformed ? random.Malformed() : channel::EncodeMethodCall(random.Call());
      if (random.rng()() % 20 == 0) {
        // No reply wanted: none may come, and the call still must not hurt.
        ASSERT_TRUE(client_.SendMessage(0, channel, payload));
        continue;
      }
      ASSERT_TRUE(client_.SendMessage(id, channel, payload)) << host_->LogTail();
      waiting.insert(id);
    }
    Collect(client_, waiting, replies, 5s);
  }
  Collect(client_, waiting, replies, 60s);

  EXPECT_TRUE(waiting.empty()) << waiting.size() << " calls never answered, first id "
                               << (waiting.empty() ? 0 : *waiting.begin()) << "\n"
                               << host_->LogTail();
  for (const auto& [id, count] : replies) {
    EXPECT_EQ(count, 1) << "call " << id << " answered " << count << " times";
    EXPECT_NE(id, 0u) << "a message that wanted no reply got one";
  }
  EXPECT_TRUE(host_->alive()) << host_->LogTail();
  std::printf("%zu registered channels, %zu replies\n", registered, replies.size());
}

TEST_F(RobustnessTest, GarbageFramesAndVanishingClientsLeaveTheHostUp) {
  const uint64_t seed = EnvNumber("CORVANE_ROBUSTNESS_SEED", std::random_device()());
  SCOPED_TRACE("CORVANE_ROBUSTNESS_SEED=" + std::to_string(seed));
  std::vector<std::string> channels = RegisteredChannels();
  channels.push_back("corvane/nothing");
  RandomCalls random = RandomCallsFor(seed);

  for (int round = 0; round < 200; ++round) {
    WireClient c;
    ASSERT_TRUE(c.Connect(host_->socket())) << host_->LogTail();
    switch (round % 4) {
      case 0: {  // random bytes where a frame should be
        Bytes junk(1 + random.rng()() % 64);
        for (auto& b : junk) b = static_cast<uint8_t>(random.rng()());
        c.SendRaw(junk);
        break;
      }
      case 1: {  // a frame announcing more than the limit
        c.SendRaw(Bytes{0xff, 0xff, 0xff, 0x7f, 1, 1, 0, 0, 0});
        break;
      }
      case 2: {  // calls, then gone before the replies
        for (uint32_t id = 1; id <= 20; ++id) {
          const std::string& channel = channels[random.rng()() % channels.size()];
          c.SendMessage(id, channel, channel::EncodeMethodCall(random.Call()));
        }
        break;
      }
      default: {  // half a frame, then gone
        Bytes frame =
            engine::EncodeMessageFrame(1, channels[0], channel::EncodeMethodCall(random.Call()));
        frame.resize(frame.size() / 2);
        c.SendRaw(frame);
      }
    }
  }
  // The host still serves: a call on a channel without handler gets its empty reply.
  ASSERT_TRUE(client_.SendCall(77, "corvane/nothing", "ping"));
  std::set<uint32_t> waiting = {77};
  std::map<uint32_t, int> replies;
  Collect(client_, waiting, replies, 30s);
  EXPECT_EQ(replies[77], 1) << host_->LogTail();
  EXPECT_TRUE(host_->alive()) << host_->LogTail();
}

// A client that sends and never reads costs the host a bounded amount of memory, however small
// the replies it leaves waiting, and the host goes on serving everyone else.
TEST_F(RobustnessTest, AClientThatNeverReadsCostsBoundedMemory) {
  WireClient hog;
  ASSERT_TRUE(hog.Connect(host_->socket()));
  const int small = 4096;
  setsockopt(hog.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  // Sending stops once the host has taken nothing for a second: it is holding the hog back.
  const timeval patience{.tv_sec = 1, .tv_usec = 0};
  setsockopt(hog.fd(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  const long before_kb = host_->StatusKb("VmHWM");
  // Calls on a channel nobody handles: each reply is a 9-byte frame, the costliest kind to keep.
  const Bytes call = engine::EncodeMessageFrame(1, "x", {});
  Bytes batch;
  for (int i = 0; i < 4096; ++i) batch.insert(batch.end(), call.begin(), call.end());
  size_t sent = 0;
  while (sent < 3'000'000 && hog.SendRaw(batch)) sent += 4096;
  // Let the host work through what it was sent.
  WireClient probe;
  ASSERT_TRUE(probe.Connect(host_->socket())) << host_->LogTail();
  ASSERT_TRUE(probe.SendCall(5, "corvane/udp", "capabilities"));
  EXPECT_TRUE(probe.WaitReply(5, 60000).has_value()) << host_->LogTail();
  const long peak_kb = host_->StatusKb("VmHWM");
  std::printf("non-reading client: %zu calls sent, host peak RSS %ld kB -> %ld kB (+%ld kB)\n",
              sent, before_kb, peak_kb, peak_kb - before_kb);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // A sanitizer's quarantine and shadow memory make the host's size meaningless here.
#else
  EXPECT_LT(peak_kb - before_kb, 64 * 1024) << "one client that does not read cost too much";
#endif
  EXPECT_TRUE(host_->alive()) << host_->LogTail();
}

class DescriptorLimitTest : public RobustnessTest {
 protected:
  static constexpr rlim_t kLimit = 128;
  rlim_t DescriptorLimit() const override { return kLimit; }
};

// UDP sessions that ask for more sockets than the process may open are refused with "failed"
// events; the engine keeps accepting its clients, without spinning or flooding its log.
TEST_F(DescriptorLimitTest, SocketsPastTheLimitFailAndTheEngineStillServes) {
  ASSERT_TRUE(client_.SendCall(1, "corvane/udp_events", "listen"));
  ASSERT_TRUE(client_.WaitReply(1, 10000).has_value());
  const int sessions = 2 * static_cast<int>(kLimit);
  for (int i = 0; i < sessions; ++i) {
    channel::ValueMap args;
    args.Set("sessionId", channel::Value("s" + std::to_string(i)));
    args.Set("port", channel::Value::Integer(0));
    ASSERT_TRUE(client_.SendCall(100 + i, "corvane/udp", "openListener", channel::Value(args)));
  }
  int ready = 0, failed = 0;
  std::set<uint32_t> replies;
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (ready + failed < sessions && std::chrono::steady_clock::now() < deadline) {
    auto frame = client_.Receive(500);
    if (!frame) continue;
    if (frame->kind == engine::FrameKind::kReply) {
      replies.insert(frame->id);
      continue;
    }
    auto event = channel::DecodeEnvelope(frame->payload);
    if (!event || !event.value->value.map_if()) continue;
    const channel::Value* type = event.value->value.map_if()->Find("type");
    if (type && *type == channel::Value("ready")) ++ready;
    if (type && *type == channel::Value("failed")) ++failed;
  }
  EXPECT_EQ(replies.size(), static_cast<size_t>(sessions));
  EXPECT_GT(ready, 0);
  EXPECT_GT(failed, 0) << "every session got a socket under a limit of " << kLimit;

  // UDP has taken all it may; new clients must still be served, and the host must be quiet
  // while nothing happens.
  const size_t log_before = host_->LogSize();
  const long cpu_before = host_->CpuTicks();
  const auto started = std::chrono::steady_clock::now();
  WireClient late[8];
  for (WireClient& c : late) {
    ASSERT_TRUE(c.Connect(host_->socket()));
    ASSERT_TRUE(c.SendCall(9, "corvane/udp", "capabilities"));
  }
  bool served = true;
  for (WireClient& c : late) served = c.WaitReply(9, 10000).has_value() && served;
  const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - started);
  std::this_thread::sleep_for(2s);
  const long cpu_ticks = host_->CpuTicks() - cpu_before;
  const size_t log_growth = host_->LogSize() - log_before;
  std::printf(
      "at the descriptor limit: 8 new clients %s after %lld ms; host CPU %ld ticks "
      "(of %ld per second), log +%zu bytes\n",
      served ? "served" : "NOT served", static_cast<long long>(waited.count()), cpu_ticks,
      sysconf(_SC_CLK_TCK), log_growth);
  EXPECT_TRUE(served) << host_->LogTail();
  EXPECT_LT(log_growth, 16u * 1024) << host_->LogTail();
  EXPECT_TRUE(host_->alive());
}

}  // namespace
}  // namespace corvane::robustness
