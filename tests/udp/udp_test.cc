// The UDP bridge end to end: channel calls in on a loopback engine, real datagrams on 127.0.0.1
// out and back, events observed. Time is a manual clock.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <mutex>
#include <thread>

#include "channel/standard_codec.h"
#include "engine/loopback_engine.h"
#include "support/loopback_call.h"
#include "udp/local_network_permission.h"
#include "udp/session.h"
#include "udp/udp_bridge.h"

namespace corvane::udp {
namespace {

using namespace std::chrono_literals;
using channel::MethodReply;
using channel::Value;
using channel::ValueMap;
using Extra = std::vector<std::pair<const char*, Value>>;
using Strings = std::vector<std::string>;

sockaddr_in Loopback(uint16_t port) {
  return sockaddr_in{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
}

// A plain UDP socket on 127.0.0.1 standing in for a command station.
class Peer {
 public:
  explicit Peer(uint16_t port = 0, bool reuse = false)
      : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const int one = 1;
    if (reuse) setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = Loopback(port);
    socklen_t n = sizeof a;
    bind(fd_, reinterpret_cast<sockaddr*>(&a), n);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &n);
    port_ = ntohs(a.sin_port);
  }
  ~Peer() { close(fd_); }

  uint16_t port() const { return port_; }
  void SendTo(uint16_t port, const channel::Bytes& data) const {
    sockaddr_in a = Loopback(port);
    sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
  }
  struct Datagram {
    channel::Bytes data;
    uint16_t from_port;
  };
  // The next datagram, or nothing within `timeout`. The bridge sends from its own thread.
  std::optional<Datagram> Receive(std::chrono::milliseconds timeout = 5s) const {
    pollfd p{fd_, POLLIN, 0};
    uint8_t buffer[65536];
    sockaddr_in from{};
    socklen_t n = sizeof from;
    if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return std::nullopt;
    const ssize_t r =
        recvfrom(fd_, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &n);
    if (r < 0) return std::nullopt;
    return Datagram{channel::Bytes(buffer, buffer + r), ntohs(from.sin_port)};
  }

 private:
  int fd_;
  uint16_t port_ = 0;
};

// The real network, with what the loopback never lets a test catch in the middle held back on
// demand: a flow's start (a host name still resolving), a new flow's "ready", and a flow's
// receive loop (so a socket error waits for the next send).
class HoldingNetwork : public UdpNetwork {
 public:
  explicit HoldingNetwork(dispatch::SerialQueue& queue)
      : queue_(queue), inner_(MakeSystemUdpNetwork(queue)) {}
  std::atomic<bool> hold_start{false}, hold_ready{false}, hold_receive{false};

  std::shared_ptr<UdpFlow> Connect(const std::string& host, uint16_t port) override {
    auto inner = inner_->Connect(host, port);
    return inner ? std::make_shared<Flow>(std::move(inner), *this) : nullptr;
  }
  std::shared_ptr<UdpListener> Listen(uint16_t port, std::string* error) override {
    return inner_->Listen(port, error);
  }
  void SendBroadcast(const std::string& host, uint16_t port, const Bytes& data) override {
    inner_->SendBroadcast(host, port, data);
  }
  size_t held() {
    std::lock_guard lock(mutex_);
    return held_.size();
  }
  void Release() {  // on the bridge's queue
    queue_.Async([this] {
      std::unique_lock lock(mutex_);
      auto run = std::exchange(held_, {});
      lock.unlock();
      for (auto& fn : run) fn();
    });
  }

 private:
  // A flow whose "ready" is held reports itself ready already, as a real one does between
  // becoming ready and its handler running.
  class Flow final : public UdpFlow {
   public:
    Flow(std::shared_ptr<UdpFlow> inner, HoldingNetwork& net)
        : inner_(std::move(inner)), net_(net) {}
    void SetStateHandler(StateHandler handler) override {
      if (!handler) return inner_->SetStateHandler(nullptr);
      inner_->SetStateHandler([handler, &net = net_](FlowState s, const std::string& e) {
        if (s != FlowState::kReady || !net.hold_ready) return handler(s, e);
        net.Hold([handler] { handler(FlowState::kReady, ""); });
      });
    }
    void Start() override {
      if (!net_.hold_start) return inner_->Start();
      net_.Hold([inner = inner_] { inner->Start(); });
    }
    FlowState state() const override { return inner_->state(); }
    void Receive(ReceiveHandler handler) override {
      if (!net_.hold_receive) inner_->Receive(std::move(handler));
    }
    void Send(Bytes data, SendCompletion completion) override {
      inner_->Send(std::move(data), std::move(completion));
    }
    void Cancel() override { inner_->Cancel(); }

   private:
    std::shared_ptr<UdpFlow> inner_;
    HoldingNetwork& net_;
  };
  void Hold(std::function<void()> fn) {
    std::lock_guard lock(mutex_);
    held_.push_back(std::move(fn));
  }

  dispatch::SerialQueue& queue_;
  std::shared_ptr<UdpNetwork> inner_;
  std::mutex mutex_;
  std::vector<std::function<void()>> held_;
};

ValueMap Fields(const Extra& entries) {
  ValueMap m;
  for (const auto& [k, v] : entries) m.Set(k, v);
  return m;
}
Value Map(const Extra& entries) { return Value(Fields(entries)); }
Value Bytes(std::initializer_list<uint8_t> b) { return Value(channel::Bytes(b)); }
std::string Text(const ValueMap& m, const char* key) {
  const Value* v = m.Find(key);
  return v && v->string_if() ? *v->string_if() : std::string();
}
ValueMap Status(const std::string& id, const char* status, bool attempted) {
  return Fields(
      {{"requestId", Value(id)}, {"status", Value(status)}, {"writeAttempted", Value(attempted)}});
}

// Plays the Flutter side of a bridge on the holding network (with nothing held, the real one).
class UdpTest : public ::testing::Test {
 protected:
  using Replies = std::shared_ptr<std::vector<MethodReply>>;

  void SetUp() override {
    UdpBridge::Options options;
    options.clock = &clock_;
    options.permission_browser = [this] {
      ++browsers_started_;
      return std::make_unique<PermissionBrowser>();
    };
    options.network = [this](dispatch::SerialQueue& queue) {
      auto network = std::make_shared<HoldingNetwork>(queue);
      holding_ = network.get();
      return network;
    };
    bridge_ = UdpBridge::Create(engine_, std::move(options));
    engine_.SendFromEngine(kEventChannel, channel::EncodeMethodCall({"listen", Value()}));
  }

  // Starts a call; the returned list fills with its replies as they come.
  Replies Later(const std::string& method, Value args) {
    return corvane::testing::StartCall(engine_, kMethodChannel, method, std::move(args));
  }
  // Waits until every call has answered, and checks that none answered twice.
  std::vector<MethodReply> AwaitAll(const std::vector<Replies>& calls) {
    dispatch::RunMainUntil(
        [&] { return std::ranges::all_of(calls, [](auto& r) { return !r->empty(); }); }, 10s);
    Settle(50ms);
    std::vector<MethodReply> replies;
    for (const Replies& r : calls) {
      EXPECT_EQ(r->size(), 1u) << "exactly one reply per call";
      replies.push_back(r->empty() ? MethodReply() : r->front());
    }
    return replies;
  }
  MethodReply Call(const std::string& method, Value args = Value()) {
    Replies replies = Later(method, std::move(args));
    dispatch::RunMainUntil([&] { return !replies->empty(); }, 5s);
    EXPECT_FALSE(replies->empty()) << "no reply to " << method;
    return replies->empty() ? MethodReply() : replies->front();
  }
  // A guarded send's one reply, a status map: never a channel error.
  ValueMap Await(const Replies& call) {
    const Value reply = AwaitAll({call}).front().value;
    return reply.map_if() ? *reply.map_if() : ValueMap();
  }
  Replies LaterGuarded(ValueMap args) { return Later("sendGuarded", Value(std::move(args))); }
  ValueMap Guarded(ValueMap args) { return Await(LaterGuarded(std::move(args))); }
  ValueMap Args(const std::string& request_id, const Extra& extra = {}) {
    ValueMap m = Fields({{"sessionId", Value("s")},
                         {"requestId", Value(request_id)},
                         {"data", Bytes({0x07, 0x00, 0x40, 0x00})},
                         {"timeoutMs", Value::Integer(500)},
                         {"expiresAtMs", Value(clock_.NowWallMs() + 60'000)}});
    for (auto& [k, v] : extra) m.Set(k, v);
    return m;
  }
  // Addressed explicitly, so it goes out on a flow of its own (whose "ready" can be held).
  ValueMap Own(const std::string& request_id, Extra extra = {}) {
    extra.insert(extra.begin(),
                 {{"host", Value("127.0.0.1")}, {"port", Value::Integer(station_.port())}});
    return Args(request_id, extra);
  }

  // Opens a session (a listener without a host) and waits for its "ready"; answers the port a
  // listener's "ready" reports.
  uint16_t Open(const std::string& id, const char* host, uint16_t port) {
    size_t from = Events().size();
    Extra args{{"sessionId", Value(id)}, {"port", Value::Integer(port)}};
    if (host) args.push_back({"host", Value(host)});
    Call(host ? "open" : "openListener", Map(args));
    auto ready = WaitEvent(id, "ready", &from);
    EXPECT_TRUE(ready) << "session " << id << " never became ready";
    const Value* bound = ready ? ready->Find("port") : nullptr;
    return bound && bound->integer() ? static_cast<uint16_t>(*bound->integer()) : 0;
  }
  void Send(const std::string& id, channel::Bytes data, const char* host = nullptr, int port = -1) {
    Extra m{{"sessionId", Value(id)}, {"data", Value(std::move(data))}};
    if (host) m.push_back({"host", Value(host)});
    if (port >= 0) m.push_back({"port", Value::Integer(port)});
    Call("send", Map(m));
  }
  void Close(const std::string& id) { Call("close", Map({{"sessionId", Value(id)}})); }
  void Cancel(const std::string& request_id) {
    Call("cancelSend", Map({{"sessionId", Value("s")}, {"requestId", Value(request_id)}}));
  }

  // Every event so far, decoded, in order.
  std::vector<ValueMap> Events() {
    std::vector<ValueMap> events;
    for (const auto& m : engine_.received()) {
      auto e = channel::DecodeEnvelope(m.payload);
      if (m.channel == kEventChannel && e && e.value->value.map_if()) {
        events.push_back(*e.value->value.map_if());
      }
    }
    return events;
  }
  Strings Types(const std::string& session) {
    Strings types;
    for (const auto& e : Events()) {
      if (Text(e, "sessionId") == session) types.push_back(Text(e, "type"));
    }
    return types;
  }
  // Waits for the first event of `type` for `session` (carrying `data`, when given) at or after
  // index `*from`, and moves `*from` past it.
  std::optional<ValueMap> WaitEvent(const std::string& session, const std::string& type,
                                    size_t* from = nullptr) {
    std::optional<ValueMap> found;
    dispatch::RunMainUntil(
        [&] {
          auto events = Events();
          for (size_t i = from ? *from : 0; i < events.size() && !found; ++i) {
            if (Text(events[i], "sessionId") != session || Text(events[i], "type") != type)
              continue;
            found = events[i];
            if (from) *from = i + 1;
          }
          return found.has_value();
        },
        5s);
    return found;
  }
  // Waits for the one "data" event of `session` carrying `data` from 127.0.0.1:`port`.
  void ExpectData(const std::string& session, channel::Bytes data, uint16_t port) {
    const ValueMap want = Fields({{"sessionId", Value(session)},
                                  {"type", Value("data")},
                                  {"data", Value(data)},
                                  {"fromHost", Value("127.0.0.1")},
                                  {"fromPort", Value::Integer(port)}});
    dispatch::RunMainUntil([&] { return std::ranges::count(Events(), want) > 0; }, 5s);
    EXPECT_EQ(std::ranges::count(Events(), want), 1) << session << " from " << port;
  }
  void Settle(std::chrono::milliseconds t = 100ms) {
    dispatch::RunMainUntil([] { return false; }, t);
  }
  void WaitHeld(size_t n) {
    dispatch::RunMainUntil([&] { return holding_->held() >= n; }, 5s);
    ASSERT_EQ(holding_->held(), n);
  }

  dispatch::ManualClock clock_;
  std::atomic<int> browsers_started_{0};
  engine::LoopbackEngine engine_;
  std::shared_ptr<UdpBridge> bridge_;  // destroyed before what it uses
  HoldingNetwork* holding_ = nullptr;
  Peer station_;
};

// What a reply says, in one line.
std::string Said(const MethodReply& r) {
  if (r.kind == MethodReply::Kind::kNotImplemented) return "not implemented";
  if (r.kind == MethodReply::Kind::kError) {
    return r.error.code + ": " + r.error.message.value_or("") +
           (r.error.details.is_null() ? "" : " (with details)");
  }
  return r.value == Value(true) ? "true" : r.value == Value(false) ? "false" : "other";
}

TEST_F(UdpTest, MethodsAnswerExactlyAndValidateArguments) {
  EXPECT_EQ(Call("capabilities").value, Map({{"guardedSendVersion", Value(int32_t{1})},
                                             {"adHocReceiveVersion", Value(int32_t{1})}}));
  const std::string open = "BAD_ARGS: open needs sessionId+port 0-65535";
  const std::string send = "BAD_ARGS: send needs sessionId+data",
                    port = "BAD_ARGS: send needs a port 0-65535";
  // Every event repeats the session id: one too long to be an id counts as missing.
  const Value a("a"), long_id(std::string(201, 's')), one = Bytes({1});
  auto P = [](int64_t p) { return Value::Integer(p); };
  const struct {
    const char* method;
    Extra args;
    std::string said;
  } cases[] = {
      {"Capabilities", {}, "not implemented"},
      {"open", {}, open},
      {"open", {{"sessionId", a}, {"port", P(70000)}}, open},
      {"open", {{"sessionId", a}, {"port", P(-1)}}, open},
      {"open", {{"sessionId", a}, {"port", Value("21105")}}, open},
      {"open", {{"sessionId", long_id}, {"port", P(1)}}, open},
      {"openListener",
       {{"sessionId", P(1)}, {"port", P(1)}},
       "BAD_ARGS: openListener needs sessionId+port 0-65535"},
      {"send", {{"data", one}}, send},
      {"send", {{"sessionId", a}, {"data", Value("text")}}, send},
      {"send", {{"sessionId", long_id}, {"data", one}}, send},
      {"send", {{"sessionId", a}, {"data", one}, {"port", P(65536)}}, port},
      {"send", {{"sessionId", a}, {"data", one}, {"port", P(-1)}}, port},
      // Ports at the limits, or given as text (absent); an unknown session drops the datagram.
      {"send", {{"sessionId", a}, {"data", one}, {"port", P(0)}}, "true"},
      {"send", {{"sessionId", a}, {"data", one}, {"port", P(65535)}}, "true"},
      {"send", {{"sessionId", a}, {"data", one}, {"port", Value("x")}}, "true"},
      {"cancelSend", {{"sessionId", a}}, "false"},
      {"cancelSend", {{"sessionId", a}, {"requestId", Value("r")}}, "true"},
      {"close", {}, "true"},
      {"close", {{"sessionId", a}}, "true"},
      // The permission browse started with the bridge; asking again starts no second one.
      {"triggerPermission", {}, "true"},
  };
  for (const auto& c : cases) EXPECT_EQ(Said(Call(c.method, Map(c.args))), c.said) << c.method;

  Value interfaces = Call("interfaces").value;
  ASSERT_TRUE(interfaces.list_if());
  for (const Value& entry : *interfaces.list_if()) {
    ASSERT_TRUE(entry.map_if() && entry.map_if()->Find("addresses")->list_if());
    const std::string name = Text(*entry.map_if(), "name");
    EXPECT_TRUE(!name.empty() && name != "lo") << "named, and loopback left out: " << name;
  }
  Settle();
  EXPECT_TRUE(Events().empty()) << "nothing above may emit an event";
  EXPECT_EQ(browsers_started_, 1);
}

// A station that reboots refuses datagrams for a while (ICMP port unreachable); the session
// stays ready, and the station's answers arrive again once it is back.
TEST_F(UdpTest, ConnectedSessionsOutliveARebootingStation) {
  static std::atomic<int> refusals;
  const guint handler = g_log_set_handler(
      "corvane-udp", G_LOG_LEVEL_DEBUG,
      [](const gchar*, GLogLevelFlags, const gchar* message, gpointer) {
        refusals += strstr(message, "refused") != nullptr;
      },
      nullptr);
  auto station = std::make_unique<Peer>();
  const uint16_t port = station->port();
  for (const char* host : {"127.0.0.1", "localhost"}) {
    Open(host, host, port);
    station.reset();
    refusals = 0;
    Send(host, {1});
    dispatch::RunMainUntil([] { return refusals > 0; }, 5s);
    EXPECT_GT(refusals, 0) << "the refusal is logged";
    station = std::make_unique<Peer>(port);
    Send(host, {4, 0, 0x10, 0});
    auto request = station->Receive();
    ASSERT_TRUE(request && request->data == channel::Bytes({4, 0, 0x10, 0})) << host;
    station->SendTo(request->from_port, {8, 0, 0x10, 0, 1});
    ExpectData(host, {8, 0, 0x10, 0, 1}, port);
    EXPECT_EQ(Types(host), (Strings{"ready", "data"}));
  }
  g_log_remove_handler("corvane-udp", handler);
}

// The write itself reports the refusal an earlier datagram drew: that send is uncertain, and
// the session stays ready for the station's return.
TEST_F(UdpTest, ARefusedWriteIsUncertainAndTheSessionStaysReady) {
  holding_->hold_receive = true;  // no receive loop to take the error first
  auto station = std::make_unique<Peer>();
  const uint16_t port = station->port();
  Open("s", "127.0.0.1", port);
  station.reset();
  Send("s", {1});
  EXPECT_EQ(Guarded(Args("r")), Status("r", "uncertain", true));
  station = std::make_unique<Peer>(port);
  Send("s", {2});
  auto got = station->Receive();
  EXPECT_TRUE(got && got->data == channel::Bytes{2}) << "sends without a host go out again";
}

// Datagrams of one session to one destination leave in the order they were sent, also while
// the flow to a new destination, or the session's own connection, is still being set up.
TEST_F(UdpTest, SendsWaitingForAFlowLeaveInOrderAndAreNotLost) {
  auto arrivals = [this](size_t n) {
    std::vector<uint8_t> order;
    for (auto d = station_.Receive(); d && order.size() < n; d = station_.Receive()) {
      order.push_back(d->data.front());
      if (order.size() == n) break;
    }
    return order;
  };
  Open("l", nullptr, 0);
  holding_->hold_ready = true;
  for (uint8_t i = 0; i < 5; ++i) {
    Later("send", Map({{"sessionId", Value("l")},
                       {"data", Bytes({i})},
                       {"host", Value("127.0.0.1")},
                       {"port", Value::Integer(station_.port())}}));
  }
  Settle();
  holding_->hold_ready = false;
  holding_->Release();
  EXPECT_EQ(arrivals(5), (std::vector<uint8_t>{0, 1, 2, 3, 4}));

  holding_->hold_start = true;
  Call("open", Map({{"sessionId", Value("n")},
                    {"host", Value("localhost")},
                    {"port", Value::Integer(station_.port())}}));
  for (uint8_t i = 0; i < 3; ++i) Send("n", {i});
  Settle();
  holding_->hold_start = false;
  holding_->Release();
  EXPECT_EQ(arrivals(3), (std::vector<uint8_t>{0, 1, 2}));
}

// A listener session's life: many sources, sends through the outbound cache and broadcast,
// its end when the id is opened again as a connected session, and a bind that fails.
TEST_F(UdpTest, ListenerSession) {
  const uint16_t port = Open("l", nullptr, 0);
  ASSERT_NE(port, 0);
  // One source more than the session keeps flows for: the oldest flow is dropped to make room.
  std::vector<std::unique_ptr<Peer>> peers;
  for (size_t i = 0; i <= kMaxPeerFlows; ++i) {
    peers.push_back(std::make_unique<Peer>());
    peers.back()->SendTo(port, {static_cast<uint8_t>(i)});
    ExpectData("l", {static_cast<uint8_t>(i)}, peers.back()->port());
  }
  // The dropped source is heard again on a new flow, a kept one on its old flow.
  for (int i : {0, 1}) {
    peers[i]->SendTo(port, {static_cast<uint8_t>(0xe0 + i)});
    ExpectData("l", {static_cast<uint8_t>(0xe0 + i)}, peers[i]->port());
  }

  // Replies on a cached outbound flow, a socket of its own, are the session's data.
  Peer& b = *peers[1];
  Send("l", {0xc0}, "127.0.0.1", b.port());
  auto first = b.Receive();  // once it arrived, the flow is ready: the next send reuses it
  Send("l", {0xc1}, "127.0.0.1", b.port());
  auto second = b.Receive();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->from_port, second->from_port) << "the cached flow is reused";
  EXPECT_NE(first->from_port, port);
  b.SendTo(first->from_port, {0xbb});
  ExpectData("l", {0xbb}, b.port());

  // On loopback 127.255.255.255 is a broadcast address: a plain connected socket may not send
  // there, so the datagram arriving proves the broadcast socket carried it.
  Open("talks", "127.0.0.1", b.port());
  size_t from = Events().size();
  Send("talks", {0xbc}, "127.255.255.255", port);
  EXPECT_TRUE(WaitEvent("l", "data", &from));
  Close("talks");
  EXPECT_TRUE(WaitEvent("talks", "cancelled"));
  EXPECT_EQ(Types("talks"), (Strings{"ready", "cancelled"}));

  size_t cancelled_at = Events().size(), ready_at = cancelled_at;
  Call("open", Map({{"sessionId", Value("l")},
                    {"host", Value("127.0.0.1")},
                    {"port", Value::Integer(b.port())}}));
  ASSERT_TRUE(WaitEvent("l", "cancelled", &cancelled_at));
  ASSERT_TRUE(WaitEvent("l", "ready", &ready_at));
  EXPECT_LT(cancelled_at, ready_at) << "the old session ends before the new one is ready";
  EXPECT_EQ(Events()[ready_at - 1], Fields({{"sessionId", Value("l")}, {"type", Value("ready")}}));

  // Binding fails only on a port held without address reuse.
  Peer holder, sharer(0, /*reuse=*/true);
  Call("openListener",
       Map({{"sessionId", Value("busy")}, {"port", Value::Integer(holder.port())}}));
  auto failed = WaitEvent("busy", "failed");
  ASSERT_TRUE(failed);
  EXPECT_TRUE(Text(*failed, "error").starts_with("Listener bind failed: "));
  EXPECT_EQ(Open("shared", nullptr, sharer.port()), sharer.port());
}

TEST(LocalNetworkPermissionTest, StartsOneBrowseOnTheMainThreadUntilReset) {
  int started = 0;
  LocalNetworkPermission permission([&] {
    ++started;
    EXPECT_TRUE(dispatch::IsMainThread());
    return std::make_unique<PermissionBrowser>();
  });
  permission.Trigger();
  std::thread([&] { permission.Trigger(); }).join();
  EXPECT_EQ(started, 1);
  EXPECT_TRUE(permission.has_triggered() && permission.has_browser());
  permission.Reset();
  EXPECT_FALSE(permission.has_triggered() || permission.has_browser());
  std::thread([&] { permission.Trigger(); }).join();
  dispatch::RunMainUntil([&] { return started == 2; }, 5s);
  EXPECT_EQ(started, 2);
  // The real browse starts with or without a DNS-SD daemon on this machine.
  LocalNetworkPermission::Shared().Trigger();
  EXPECT_TRUE(LocalNetworkPermission::Shared().has_browser());
  dispatch::RunMainUntil([] { return false; }, 300ms);  // lets the bus lookup finish or fail
}

TEST_F(UdpTest, GuardedValidationRejectsWithTheRequestIdAsRead) {
  Open("s", "127.0.0.1", station_.port());
  const std::string long_id(201, 'x'), ok_id(200, 'x');
  const std::pair<std::string, Extra> cases[] = {
      {"r1", {{"sessionId", Value::Integer(5)}}},
      {"", {{"requestId", Value::Integer(9)}}},
      {"", {}},
      {long_id, {}},
      {"r2", {{"data", Value(channel::Bytes())}}},
      {"r3", {{"data", Value(channel::Bytes(65508, 1))}}},
      {"r4", {{"data", Value("text")}}},
      {"r5", {{"timeoutMs", Value::Integer(0)}}},
      {"r6", {{"timeoutMs", Value::Integer(30001)}}},
      {"r7", {{"timeoutMs", Value(500.0)}}},
      {"r8", {{"expiresAtMs", Value(std::numeric_limits<double>::infinity())}}},
      {"r9", {{"expiresAtMs", Value(std::nan(""))}}},
      {"r10", {{"expiresAtMs", Value("soon")}}},
      {"r11", {{"port", Value::Integer(0)}}},
      {"r12", {{"port", Value::Integer(65536)}}},
  };
  for (const auto& [id, extra] : cases) {
    EXPECT_EQ(Guarded(Args(id, extra)), Status(id, "rejected", false)) << id;
  }
  EXPECT_EQ(Guarded(ValueMap()), Status("", "rejected", false));
  // At the limits, and with a port given as text (absent: the session's is used), it goes out.
  EXPECT_EQ(Guarded(Args(ok_id, {{"port", Value("1")}})), Status(ok_id, "sent", true));
  auto got = station_.Receive();
  EXPECT_TRUE(got && got->data == channel::Bytes({0x07, 0x00, 0x40, 0x00}));
}

TEST_F(UdpTest, GuardedAcceptanceChecksOnTheQueue) {
  EXPECT_EQ(Guarded(Args("a")), Status("a", "disconnected", false)) << "no such session";
  // A listener session has no host of its own, and a session on port 0 no port.
  Open("s", nullptr, 0);
  EXPECT_EQ(Guarded(Args("b")), Status("b", "rejected", false));
  EXPECT_EQ(Guarded(Args("c", {{"host", Value("")}, {"port", Value::Integer(9)}})),
            Status("c", "rejected", false));
  Call("open",
       Map({{"sessionId", Value("s")}, {"host", Value("127.0.0.1")}, {"port", Value::Integer(0)}}));
  EXPECT_EQ(Guarded(Args("d")), Status("d", "rejected", false));

  Open("s", "127.0.0.1", station_.port());
  Peer other;
  const double now = clock_.NowWallMs();
  EXPECT_EQ(Guarded(Args("e", {{"expiresAtMs", Value(now - 1)}})), Status("e", "timedOut", false));
  EXPECT_EQ(Guarded(Args("f", {{"expiresAtMs", Value(now)}})), Status("f", "timedOut", false))
      << "an expiry equal to now is past";
  EXPECT_EQ(Guarded(Args("g", {{"host", Value("10.0.0.255")}})), Status("g", "rejected", false))
      << "guarded sends are never broadcast";
  // A flow of its own to another host:port (an integer expiry is a number too) ...
  EXPECT_EQ(
      Guarded(Args("h", {{"host", Value("localhost")},
                         {"port", Value::Integer(other.port())},
                         {"expiresAtMs", Value::Integer(static_cast<int64_t>(now) + 60'000)}})),
      Status("h", "sent", true));
  // ... or one that fails before the write: IPv6 is not used.
  EXPECT_EQ(Guarded(Args("i", {{"host", Value("::1")}})), Status("i", "disconnected", false));
  EXPECT_TRUE(other.Receive());
  Close("s");
  EXPECT_EQ(Guarded(Args("k")), Status("k", "disconnected", false));
}

TEST_F(UdpTest, GuardedCancelBeforeSendLeavesATombstoneFor31Seconds) {
  Open("s", "127.0.0.1", station_.port());
  Cancel("t");
  EXPECT_EQ(Guarded(Args("t")), Status("t", "cancelled", false));
  clock_.JumpWall(30s);
  EXPECT_EQ(Guarded(Args("t")), Status("t", "cancelled", false)) << "still within 31 s";
  clock_.JumpWall(1s);
  EXPECT_EQ(Guarded(Args("t")), Status("t", "sent", true)) << "expiry is not later than now";

  // A full table of live tombstones keeps no more; once they expire, there is room again.
  for (size_t i = 0; i < kMaxTombstones; ++i) Cancel("x" + std::to_string(i));
  Cancel("over");
  EXPECT_EQ(Guarded(Args("x255")), Status("x255", "cancelled", false));
  EXPECT_EQ(Guarded(Args("over")), Status("over", "sent", true));
  clock_.JumpWall(31s);
  Cancel("late");
  EXPECT_EQ(Guarded(Args("late")), Status("late", "cancelled", false));

  // Ids no send could carry are answered but never kept, so they cannot fill the table.
  clock_.JumpWall(31s);
  const std::string too_long(201, 'r');
  for (size_t i = 0; i < kMaxTombstones; ++i) Cancel(too_long + std::to_string(i));
  const std::string kept(200, 'k');  // the longest id that is kept
  Cancel(kept);
  EXPECT_EQ(Guarded(Args(kept)), Status(kept, "cancelled", false));
}

// Own flows whose "ready" is held keep their datagrams waiting; every ending before the
// hand-over keeps its own status.
TEST_F(UdpTest, GuardedEndingsWhileWaitingForItsOwnFlow) {
  Open("s", "127.0.0.1", station_.port());
  holding_->hold_ready = true;
  std::vector<Replies> pending{LaterGuarded(Own("p0"))};
  WaitHeld(1);
  EXPECT_EQ(Guarded(Own("p0")), Status("p0", "rejected", false)) << "a duplicate id";
  for (size_t i = 1; i < kMaxGuardedWrites; ++i) {
    pending.push_back(LaterGuarded(Own("p" + std::to_string(i))));
  }
  WaitHeld(kMaxGuardedWrites);
  EXPECT_EQ(Guarded(Own("full")), Status("full", "rejected", false)) << "a full table";
  clock_.Advance(499ms);
  Settle(50ms);
  EXPECT_TRUE(pending[0]->empty());
  clock_.Advance(1ms);
  auto replies = AwaitAll(pending);
  for (size_t i = 0; i < replies.size(); ++i) {
    EXPECT_EQ(replies[i].value, Value(Status("p" + std::to_string(i), "timedOut", false)));
  }

  // The wall clock reaching the expiry exactly stops the write once the flow is ready.
  auto stale = LaterGuarded(Own("j", {{"expiresAtMs", Value(clock_.NowWallMs() + 1000)}}));
  WaitHeld(kMaxGuardedWrites + 1);
  clock_.JumpWall(1s);
  holding_->Release();
  EXPECT_EQ(Await(stale), Status("j", "timedOut", false));

  auto cancelled = LaterGuarded(Own("c"));
  WaitHeld(1);
  Cancel("c");
  EXPECT_EQ(Await(cancelled), Status("c", "cancelled", false));
  auto waiting = LaterGuarded(Own("w"));
  WaitHeld(2);
  Close("s");
  EXPECT_EQ(Await(waiting), Status("w", "disconnected", false));
  holding_->Release();  // their flows become ready after all: nothing goes out or answers again
  EXPECT_FALSE(station_.Receive(200ms));
  pending.insert(pending.end(), {stale, cancelled, waiting});
  AwaitAll(pending);

  // A bridge that goes away with a call still waiting answers it too.
  Open("s", nullptr, 0);
  auto gone = LaterGuarded(Own("g"));
  WaitHeld(1);
  bridge_.reset();
  EXPECT_EQ(Await(gone), Status("g", "disconnected", false));
}

}  // namespace
}  // namespace corvane::udp
