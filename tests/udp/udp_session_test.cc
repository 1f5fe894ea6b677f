// Sessions end to end: channel calls in, real datagrams out and back, events observed.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "udp/local_network_permission.h"
#include "udp/session.h"
#include "udp_fixture.h"

namespace corvane::udp::testing {
namespace {

using Kind = MethodReply::Kind;

using UdpSessionTest = BridgeTest;

// The first byte of each of the first `n` datagrams `peer` receives, in arrival order.
std::vector<uint8_t> Arrivals(const Peer& peer, size_t n) {
  std::vector<uint8_t> order;
  while (order.size() < n) {
    auto d = peer.Receive(5s);
    if (!d) break;
    order.push_back(d->data.empty() ? 0 : d->data.front());
  }
  return order;
}

TEST_F(UdpSessionTest, MethodsAnswerExactlyAndValidateArguments) {
  EXPECT_EQ(Call("capabilities").value, Map({{"guardedSendVersion", Value(int32_t{1})},
                                             {"adHocReceiveVersion", Value(int32_t{1})}}));
  EXPECT_EQ(Call("Capabilities").kind, Kind::kNotImplemented);

  const char* open = "open needs sessionId+port 0-65535";
  const char* send = "send needs sessionId+data";
  const struct {
    const char* method;
    Value args;
    const char* message;
  } bad[] = {
      {"open", Value(), open},
      {"open", Map({{"sessionId", Value("a")}, {"port", Value::Integer(70000)}}), open},
      {"open", Map({{"sessionId", Value("a")}, {"port", Value::Integer(-1)}}), open},
      {"open", Map({{"sessionId", Value("a")}, {"port", Value("21105")}}), open},
      {"openListener", Map({{"sessionId", Value::Integer(1)}, {"port", Value::Integer(1)}}),
       "openListener needs sessionId+port 0-65535"},
      {"send", Map({{"data", Bytes({1})}}), send},
      {"send", Map({{"sessionId", Value("a")}, {"data", Value("text")}}), send},
      {"send",
       Map({{"sessionId", Value("a")}, {"data", Bytes({1})}, {"port", Value::Integer(65536)}}),
       "send needs a port 0-65535"},
      // Every event repeats the session id: one too long to be an id counts as missing.
      {"open", Map({{"sessionId", Value(std::string(201, 's'))}, {"port", Value::Integer(1)}}),
       open},
      {"send", Map({{"sessionId", Value(std::string(201, 's'))}, {"data", Bytes({1})}}), send},
  };
  for (const auto& c : bad) {
    MethodReply r = Call(c.method, c.args);
    EXPECT_TRUE(r.kind == Kind::kError && r.error.details.is_null()) << c.message;
    EXPECT_EQ(r.error.code + ": " + r.error.message.value_or(""),
              std::string("BAD_ARGS: ") + c.message);
  }
  // A port given as text counts as absent; an unknown session drops the datagram.
  EXPECT_EQ(
      Call("send", Map({{"sessionId", Value("x")}, {"data", Bytes({1})}, {"port", Value("x")}}))
          .value,
      Value(true));
  EXPECT_EQ(Call("cancelSend", Map({{"sessionId", Value("a")}})).value, Value(false));
  EXPECT_EQ(Call("cancelSend", Map({{"sessionId", Value("a")}, {"requestId", Value("r")}})).value,
            Value(true));
  EXPECT_EQ(Call("close").value, Value(true));
  EXPECT_EQ(Call("close", Map({{"sessionId", Value("unknown")}})).value, Value(true));

  Value interfaces = Call("interfaces").value;
  ASSERT_TRUE(interfaces.list_if());
  for (const Value& entry : *interfaces.list_if()) {
    ASSERT_TRUE(entry.map_if() && entry.map_if()->Find("addresses")->list_if());
    EXPECT_NE(Text(*entry.map_if(), "name"), "lo") << "loopback is left out";
  }
  // The permission browse started with the bridge; asking again starts no second one.
  EXPECT_EQ(Call("triggerPermission").value, Value(true));
  Settle();
  EXPECT_TRUE(Events().empty()) << "nothing above may emit an event";
  EXPECT_EQ(browsers_started_, 1);
}

// A station that reboots refuses datagrams for a while (ICMP port unreachable); the session
// stays ready, and the station's answers arrive again once it is back.
TEST_F(UdpSessionTest, ConnectedSessionsOutliveARebootingStation) {
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
    station = std::make_unique<Peer>(false, port);
    Send(host, {4, 0, 0x10, 0});
    auto request = station->Receive();
    ASSERT_TRUE(request && request->data == channel::Bytes({4, 0, 0x10, 0})) << host;
    station->SendTo(request->from_port, {8, 0, 0x10, 0, 1});
    auto data = WaitData(host, {8, 0, 0x10, 0, 1});
    ASSERT_TRUE(data) << host;
    EXPECT_EQ(Text(*data, "fromHost"), "127.0.0.1");
    EXPECT_EQ(data->Find("fromPort")->integer(), port);
  }
  for (const ValueMap& event : Events()) EXPECT_NE(Text(event, "type"), "failed");
  g_log_remove_handler("corvane-udp", handler);
}

// Datagrams of one session to one destination leave in the order they were sent, also while
// the flow to a new destination, or the session's own connection, is still being set up.
TEST_F(UdpSessionTest, SendsWaitingForAFlowLeaveInOrderAndAreNotLost) {
  Listen("l");
  Peer station;
  // Between a new flow becoming ready and its handler running, later sends must queue behind
  // the first.
  holding_->hold_ready = true;
  for (uint8_t i = 0; i < 5; ++i) {
    CallLater("send", Map({{"sessionId", Value("l")},
                           {"data", Bytes({i})},
                           {"host", Value("127.0.0.1")},
                           {"port", Value::Integer(station.port())}}));
  }
  Settle();
  holding_->hold_ready = false;
  holding_->Release();
  EXPECT_EQ(Arrivals(station, 5), (std::vector<uint8_t>{0, 1, 2, 3, 4}));

  // Sent before the session's connection is set up (a host name still resolving): they wait
  // for it instead of being lost.
  holding_->hold_start = true;
  Call("open", Map({{"sessionId", Value("n")},
                    {"host", Value("localhost")},
                    {"port", Value::Integer(station.port())}}));
  for (uint8_t i = 0; i < 3; ++i) Send("n", {i});
  Settle();
  holding_->hold_start = false;
  holding_->Release();
  EXPECT_EQ(Arrivals(station, 3), (std::vector<uint8_t>{0, 1, 2}));
}

// A listener session's life: many sources, sends through the outbound cache and broadcast,
// its end when the id is opened again as a connected session, and a bind that fails.
TEST_F(UdpSessionTest, ListenerSession) {
  const uint16_t port = Listen("l");
  ASSERT_NE(port, 0);
  // One source more than the session keeps flows for: the oldest flow is dropped to make room.
  std::vector<std::unique_ptr<Peer>> peers;
  for (size_t i = 0; i <= kMaxPeerFlows; ++i) {
    peers.push_back(std::make_unique<Peer>());
    peers.back()->SendTo(port, {static_cast<uint8_t>(i)});
    auto got = WaitData("l", {static_cast<uint8_t>(i)});
    ASSERT_TRUE(got) << i;
    EXPECT_EQ(got->Find("fromPort")->integer(), peers.back()->port());
  }
  // The dropped source is heard again on a new flow, a kept one on its old flow.
  for (int i : {0, 1}) {
    peers[i]->SendTo(port, {static_cast<uint8_t>(0xe0 + i)});
    auto again = WaitData("l", {static_cast<uint8_t>(0xe0 + i)});
    ASSERT_TRUE(again) << i;
    EXPECT_EQ(again->Find("fromPort")->integer(), peers[i]->port());
  }

  // Replies on a cached outbound flow are the session's data.
  Peer& b = *peers[1];
  Send("l", {0xc0}, "127.0.0.1", b.port());
  Send("l", {0xc1}, "127.0.0.1", b.port());
  auto first = b.Receive();
  auto second = b.Receive();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->from_port, second->from_port) << "the cached flow is reused";
  EXPECT_NE(first->from_port, port) << "cached flows are sockets of their own";
  b.SendTo(first->from_port, {0xbb});
  auto reply = WaitData("l", {0xbb});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->Find("fromPort")->integer(), b.port());

  // On loopback 127.255.255.255 is a broadcast address: a plain connected socket may not send
  // there, so the datagram arriving proves the broadcast socket carried it.
  Open("talks", "127.0.0.1", b.port());
  Send("talks", {0xbc}, "127.255.255.255", port);
  EXPECT_TRUE(WaitData("l", {0xbc}));

  size_t cancelled_at = Events().size(), ready_at = cancelled_at;
  Call("open", Map({{"sessionId", Value("l")},
                    {"host", Value("127.0.0.1")},
                    {"port", Value::Integer(b.port())}}));
  ASSERT_TRUE(WaitEvent("l", "cancelled", &cancelled_at));
  ASSERT_TRUE(WaitEvent("l", "ready", &ready_at));
  EXPECT_LT(cancelled_at, ready_at) << "the old session ends before the new one is ready";
  EXPECT_FALSE(Events()[ready_at - 1].Find("port")) << "a connection's ready has no port";

  // Binding fails only on a port held without address reuse.
  Peer holder, sharer(/*reuse=*/true);
  Call("openListener",
       Map({{"sessionId", Value("busy")}, {"port", Value::Integer(holder.port())}}));
  auto failed = WaitEvent("busy", "failed");
  ASSERT_TRUE(failed);
  EXPECT_TRUE(Text(*failed, "error").starts_with("Listener bind failed: "))
      << Text(*failed, "error");
  EXPECT_EQ(Listen("shared", sharer.port()), sharer.port());
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

}  // namespace
}  // namespace corvane::udp::testing
