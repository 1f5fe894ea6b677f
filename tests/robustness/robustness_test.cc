// The real host, headless, driven through its socket by random and malformed calls on every
// registered channel. Whatever arrives, each call gets exactly one reply and the host stays up.
// CORVANE_ROBUSTNESS_SEED replays a run; CORVANE_ROBUSTNESS_CALLS changes its length.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "robustness/known_names.h"
#include "support/wire_client.h"

namespace corvane::robustness {
namespace {

using channel::Bytes;
using channel::Value;
using testing::WireClient;
using namespace std::chrono_literals;

uint64_t EnvNumber(const char* name, uint64_t fallback) {
  return std::getenv(name) ? std::stoull(std::getenv(name)) : fallback;
}

// Random values of every codec type, nested, with strings, method names and keys drawn partly
// from the channels' real vocabulary, so calls reach past "not implemented" into validation.
class Random {
 public:
  explicit Random(uint64_t seed) : rng_(seed) {
    for (const auto& [channel, words] : KnownVocabulary()) {
      methods_.insert(methods_.end(), words.methods.begin(), words.methods.end());
      keys_.insert(keys_.end(), words.keys.begin(), words.keys.end());
    }
  }
  size_t operator()(size_t n) { return rng_() % n; }
  Bytes Junk(size_t max) {
    Bytes b((*this)(max));
    for (auto& x : b) x = static_cast<uint8_t>(rng_());
    return b;
  }
  std::string String() {  // addresses, ids, types, paths, modes, and random words
    // clang-format off
    static const std::vector<std::string> kMeaningful = {
        "", "a", "station-1", "127.0.0.1", "localhost", "255.255.255.255", "::1", "_z21._udp.",
        "/tmp", "dark", "system", "x.x.x.255", "\xc3\xa9\xe2\x82\xac", std::string(300, 'q')};
    // clang-format on
    if ((*this)(3) != 0) return Pick(kMeaningful);
    return std::string((*this)(12), static_cast<char>('a' + (*this)(26)));
  }
  Value Any(int depth = 0) {
    constexpr int64_t kEdges[] = {std::numeric_limits<int64_t>::max(),
                                  std::numeric_limits<int64_t>::min(), -7, 65535, 65536};
    const int64_t integer = (*this)(3) == 0 ? kEdges[(*this)(5)] : int64_t((*this)(3000));
    // clang-format off
    switch ((*this)(depth > 3 ? 11 : 13)) {
      case 0: return Value();
      case 1: return Value((*this)(2) == 0);
      case 2: return Value::Integer(integer);
      case 3: return Value(static_cast<double>(integer) / 7.0);
      case 4: case 5: return Value(String());
      case 6: return Value(Junk(80));
      case 7: return Value(channel::Int32List((*this)(4), 7));
      case 8: return Value(channel::Int64List((*this)(3), -1));
      case 9: return Value(channel::Float32List((*this)(3), 0.5f));
      case 10: return Value(channel::Float64List((*this)(3), 1e300));
      case 11: {
        channel::ValueList list((*this)(4));
        for (auto& item : list) item = Any(depth + 1);
        return Value(std::move(list));
      }
    }                       // clang-format on
    channel::ValueMap map;  // now and then a key of any type
    for (size_t n = (*this)(6); n > 0; --n)
      map.Append((*this)(10) ? Value(Pick(keys_)) : Any(depth + 1), Any(depth + 1));
    return Value(std::move(map));
  }
  channel::MethodCall Call() {
    std::string method = (*this)(6) == 0 ? String() : Pick(methods_);
    if ((*this)(6) == 0 && !method.empty()) method[0] ^= 0x20;  // a near miss of a real name
    return {method, (*this)(4) == 0 ? Any(2)
                                    : Value(channel::ValueMap{{Value(Pick(keys_)), Any(2)},
                                                              {Value(Pick(keys_)), Any(2)}})};
  }
  Bytes Malformed() {  // cut short, a byte flipped, a byte more, or garbage
    Bytes good = channel::EncodeMethodCall(Call());
    const size_t kind = (*this)(4), at = (*this)(good.size());
    if (kind == 0) good.resize(at);
    if (kind == 1) good[at] ^= static_cast<uint8_t>(1 + (*this)(255));
    if (kind == 2) good.push_back(static_cast<uint8_t>(rng_()));
    return kind == 3 ? Junk(40) : good;
  }

 private:
  std::string Pick(const std::vector<std::string>& from) { return from[(*this)(from.size())]; }
  std::mt19937_64 rng_;
  std::vector<std::string> methods_ = {"", "x", "listen", "cancel"};
  std::vector<std::string> keys_ = {"", "id", "value"};
};

// Channels the host registers, from its own account of its start-up (the third field).
std::vector<std::string> RegisteredChannels() {
  std::vector<std::string> channels;
  FILE* out = popen(CORVANE_HOST_BINARY " --print-registrations", "r");
  for (char line[1024]; out && fgets(line, sizeof line, out);) {
    std::stringstream fields(line), names;
    std::string name;
    for (int field = 0; field < 3; ++field) std::getline(fields, name, '\t');
    for (names.str(name); std::getline(names, name, ',');) channels.push_back(name);
  }
  EXPECT_TRUE(out && pclose(out) == 0);
  std::erase(channels, "-");
  return channels;
}

// The host in a folder of the test's own, its output in a log there. It dies with this process,
// however that ends. `nofile_limit` > 0 lowers its descriptor limit to that many.
class HostProcess {
 public:
  HostProcess(const std::string& dir, rlim_t nofile_limit)
      : socket_(dir + "/engine.sock"), log_(dir + "/host.log") {
    pid_ = fork();
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit limit{nofile_limit, nofile_limit};
    if (nofile_limit > 0) setrlimit(RLIMIT_NOFILE, &limit);
    const int log = open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(log, STDERR_FILENO);
    dup2(log, STDOUT_FILENO);
    // Random calls name relative paths (a backup to "a"): they land in the test's own folder.
    if (chdir(dir.c_str()) == 0) {
      execl(CORVANE_HOST_BINARY, CORVANE_HOST_BINARY, "--headless", "--engine-socket",
            socket_.c_str(), nullptr);
    }
    _exit(127);
  }
  ~HostProcess() { alive() && kill(pid_, SIGTERM) == 0 && waitpid(pid_, nullptr, 0); }
  bool alive() { return !exited_ && !(exited_ = waitpid(pid_, nullptr, WNOHANG) == pid_); }
  std::string Log() const {
    std::ostringstream text;
    text << std::ifstream(log_).rdbuf();
    return text.str();
  }
  const std::string socket_, log_;

 private:
  pid_t pid_;
  bool exited_ = false;
};

class RobustnessTest : public ::testing::Test {
 protected:
  virtual rlim_t DescriptorLimit() const { return 0; }
  void SetUp() override {
    host_.emplace(dir_, DescriptorLimit());
    for (int i = 0; i < 500 && host_->alive() && !client_.Connect(host_->socket_); ++i) {
      std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(client_.connected()) << host_->Log();
  }
  void TearDown() override {
    host_.reset();
    std::filesystem::remove_all(dir_);
  }

  // Reads frames until every id in `waiting` is answered or `timeout` passes, counting replies
  // per id; answers the host's own calls with the empty reply, as a client should.
  void Collect(std::set<uint32_t>& waiting, std::map<uint32_t, int>& replies,
               std::chrono::seconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!waiting.empty() && !client_.closed() && std::chrono::steady_clock::now() < deadline) {
      auto frame = client_.Receive(200);
      if (frame && frame->kind == engine::FrameKind::kMessage && frame->id != 0) {
        client_.SendRaw(engine::EncodeReplyFrame(frame->id, {}));
      }
      if (!frame || frame->kind == engine::FrameKind::kMessage) continue;
      ++replies[frame->id];
      auto envelope = channel::DecodeEnvelope(frame->payload);
      EXPECT_TRUE(frame->payload.empty() || envelope) << frame->id << ": " << envelope.error;
      waiting.erase(frame->id);
    }
  }

  const std::string dir_ = [] {
    char tmpl[] = "/tmp/corvane-robustness-XXXXXX";
    return std::string(mkdtemp(tmpl));
  }();
  std::optional<HostProcess> host_;
  WireClient client_;
};

TEST_F(RobustnessTest, EveryCallGetsOneReplyAndGarbageOrVanishingClientsLeaveTheHostUp) {
  const uint64_t seed = EnvNumber("CORVANE_ROBUSTNESS_SEED", std::random_device()());
  const uint64_t total = EnvNumber("CORVANE_ROBUSTNESS_CALLS", 4000);
  SCOPED_TRACE("CORVANE_ROBUSTNESS_SEED=" + std::to_string(seed));  // replays this run
  std::vector<std::string> channels = RegisteredChannels();
  // Channels nobody registered, including near misses of real ones.
  channels.insert(channels.end(), {"corvane/nothing", "io.corvane/Udp", "corvane/udp/"});
  Random random(seed);

  std::set<uint32_t> waiting;
  std::map<uint32_t, int> replies;
  for (uint32_t id = 1; id <= total; ++id) {
    const std::string& channel = channels[random(channels.size())];
    const Bytes payload =
        random(5) == 0 ? random.Malformed() : channel::EncodeMethodCall(random.Call());
    // One in twenty wants no reply: none may come, and the call still must not hurt.
    const bool wants_reply = random(20) != 0;
    ASSERT_TRUE(client_.SendMessage(wants_reply ? id : 0, channel, payload)) << host_->Log();
    if (wants_reply) waiting.insert(id);
    // Batches keep many calls in flight at once, as a busy engine would.
    if (id % 50 == 0) Collect(waiting, replies, 5s);
  }
  Collect(waiting, replies, 60s);
  EXPECT_TRUE(waiting.empty()) << waiting.size() << " calls never answered\n" << host_->Log();
  for (const auto& [id, count] : replies) EXPECT_EQ(count, id == 0 ? 0 : 1) << "call " << id;

  // Garbage, and clients that go before the services answer (bad frames are the engine's tests).
  for (int round = 0; round < 100; ++round) {
    WireClient c;
    ASSERT_TRUE(c.Connect(host_->socket_)) << host_->Log();
    if (round % 2 == 0) c.SendRaw(random.Junk(64));
    for (uint32_t id = 1; round % 2 == 1 && id <= 20; ++id) {
      c.SendMessage(id, channels[random(channels.size())],
                    channel::EncodeMethodCall(random.Call()));
    }
  }
  // The host still serves: a call on a channel without handler gets its empty reply.
  ASSERT_TRUE(client_.SendCall(77, "corvane/nothing", "ping"));
  waiting = {77};
  replies.clear();
  Collect(waiting, replies, 30s);
  EXPECT_EQ(replies, (std::map<uint32_t, int>{{77, 1}})) << host_->Log();
  EXPECT_TRUE(host_->alive()) << host_->Log();
}

class DescriptorLimitTest : public RobustnessTest {
 protected:
  static constexpr rlim_t kLimit = 128;
  rlim_t DescriptorLimit() const override { return kLimit; }
};

// UDP sessions that ask for more sockets than the process may open are refused with "failed"
// events; the engine keeps accepting its clients, without flooding its log.
TEST_F(DescriptorLimitTest, SocketsPastTheLimitFailAndTheEngineStillServes) {
  ASSERT_TRUE(client_.SendCall(1, "corvane/udp_events", "listen"));
  ASSERT_TRUE(client_.WaitReply(1, 10000).has_value());
  const int sessions = 2 * static_cast<int>(kLimit);
  for (int i = 0; i < sessions; ++i) {
    channel::ValueMap args{{Value("sessionId"), Value("s" + std::to_string(i))},
                           {Value("port"), Value::Integer(0)}};
    ASSERT_TRUE(client_.SendCall(100 + i, "corvane/udp", "openListener", Value(args)));
  }
  std::map<std::string, int> events;  // "ready" and "failed"
  std::set<uint32_t> replies;
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (events["ready"] + events["failed"] < sessions &&
         std::chrono::steady_clock::now() < deadline) {
    auto frame = client_.Receive(500);
    if (!frame) continue;
    if (frame->kind == engine::FrameKind::kReply) replies.insert(frame->id);
    auto event = channel::DecodeEnvelope(frame->payload);
    const channel::ValueMap* map = event ? event.value->value.map_if() : nullptr;
    const Value* type =
        map && frame->kind == engine::FrameKind::kMessage ? map->Find("type") : nullptr;
    if (type && type->string_if()) ++events[*type->string_if()];
  }
  EXPECT_EQ(replies.size(), static_cast<size_t>(sessions));
  EXPECT_GT(events["ready"], 0);
  EXPECT_GT(events["failed"], 0) << "every session got a socket under a limit of " << kLimit;

  // UDP has taken all it may; new clients must still be served, and the log stay quiet.
  const size_t log_before = host_->Log().size();
  WireClient late[8];
  for (WireClient& c : late) {
    ASSERT_TRUE(c.Connect(host_->socket_));
    ASSERT_TRUE(c.SendCall(9, "corvane/udp", "capabilities"));
  }
  for (WireClient& c : late) EXPECT_TRUE(c.WaitReply(9, 10000).has_value()) << host_->Log();
  std::this_thread::sleep_for(2s);
  EXPECT_LT(host_->Log().size() - log_before, 16u * 1024) << host_->Log();
  EXPECT_TRUE(host_->alive());
}

}  // namespace
}  // namespace corvane::robustness
