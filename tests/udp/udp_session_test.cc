// Sessions end to end: channel calls in, real datagrams out and back, events observed.
#include <gtest/gtest.h>

#include "udp/local_network_permission.h"
#include "udp_fixture.h"

namespace corvane::udp::testing {
namespace {

using Kind = MethodReply::Kind;

class UdpSessionTest : public BridgeTest {
 protected:
  void SetUp() override { StartBridge(); }

  void ExpectBadArgs(const std::string& method, Value args, const std::string& message) {
    MethodReply r = Call(method, std::move(args));
    ASSERT_EQ(r.kind, Kind::kError) << method;
    EXPECT_EQ(r.error.code, "BAD_ARGS");
    EXPECT_EQ(r.error.message.value_or(""), message);
    EXPECT_TRUE(r.error.details.is_null());
  }

  // Opens a connected session to the peer and waits for it to be ready.
  void OpenTo(const std::string& id, const std::string& host, uint16_t port) {
    ASSERT_EQ(
        Call("open",
             Map({{"sessionId", Value(id)}, {"host", Value(host)}, {"port", Value::Integer(port)}}))
            .value,
        Value(true));
    ASSERT_TRUE(WaitEvent(id, "ready")) << "session " << id << " never became ready";
  }

  uint16_t OpenListener(const std::string& id, size_t* index = nullptr) {
    EXPECT_EQ(
        Call("openListener", Map({{"sessionId", Value(id)}, {"port", Value::Integer(0)}})).value,
        Value(true));
    auto ready = WaitEvent(id, "ready", index);
    EXPECT_TRUE(ready);
    const Value* port = ready ? ready->Find("port") : nullptr;
    return port && port->integer() ? static_cast<uint16_t>(*port->integer()) : 0;
  }

  // The first "data" event of `session` carrying `payload`.
  std::optional<ValueMap> WaitData(const std::string& session, const channel::Bytes& payload) {
    std::optional<ValueMap> found;
    dispatch::RunMainUntil(
        [&] {
          for (auto& e : Events()) {
            const Value* d = e.Find("data");
            if (Text(e, "sessionId") == session && Text(e, "type") == "data" && d &&
                d->bytes_if() && *d->bytes_if() == payload) {
              found = e;
              return true;
            }
          }
          return false;
        },
        5s);
    return found;
  }
};

TEST_F(UdpSessionTest, MethodsAnswerExactlyAndValidateArguments) {
  MethodReply caps = Call("capabilities");
  ASSERT_EQ(caps.kind, Kind::kSuccess);
  EXPECT_EQ(caps.value, Map({{"guardedSendVersion", Value(int32_t{1})},
                             {"adHocReceiveVersion", Value(int32_t{1})}}));
  EXPECT_EQ(Call("Capabilities").kind, Kind::kNotImplemented);
  EXPECT_EQ(Call("sendguarded").kind, Kind::kNotImplemented);

  const std::string open_usage = "open needs sessionId+port 0-65535";
  ExpectBadArgs("open", Value(), open_usage);
  ExpectBadArgs("open", Map({{"sessionId", Value("a")}, {"port", Value::Integer(70000)}}),
                open_usage);
  ExpectBadArgs("open", Map({{"sessionId", Value("a")}, {"port", Value::Integer(-1)}}), open_usage);
  ExpectBadArgs("open", Map({{"sessionId", Value("a")}, {"port", Value("21105")}}), open_usage);
  ExpectBadArgs("openListener",
                Map({{"sessionId", Value::Integer(1)}, {"port", Value::Integer(1)}}),
                "openListener needs sessionId+port 0-65535");
  ExpectBadArgs("send", Map({{"data", Bytes({1})}}), "send needs sessionId+data");
  ExpectBadArgs("send", Map({{"sessionId", Value("a")}, {"data", Value("text")}}),
                "send needs sessionId+data");
  ExpectBadArgs(
      "send",
      Map({{"sessionId", Value("a")}, {"data", Bytes({1})}, {"port", Value::Integer(65536)}}),
      "send needs a port 0-65535");
  // A port given as text counts as absent; an unknown session drops the datagram.
  EXPECT_EQ(Call("send",
                 Map({{"sessionId", Value("nobody")}, {"data", Bytes({1})}, {"port", Value("x")}}))
                .value,
            Value(true));

  EXPECT_EQ(Call("cancelSend", Map({{"sessionId", Value("a")}})).value, Value(false));
  EXPECT_EQ(Call("cancelSend", Map({{"sessionId", Value("a")}, {"requestId", Value("r")}})).value,
            Value(true));
  EXPECT_EQ(Call("close").value, Value(true));
  EXPECT_EQ(Call("close", Map({{"sessionId", Value("unknown")}})).value, Value(true));

  MethodReply interfaces = Call("interfaces");
  ASSERT_TRUE(interfaces.value.list_if());
  for (const Value& entry : *interfaces.value.list_if()) {
    ASSERT_TRUE(entry.map_if());
    EXPECT_TRUE(entry.map_if()->Find("name")->string_if());
    for (const Value& a : *entry.map_if()->Find("addresses")->list_if()) {
      EXPECT_NE(*a.string_if(), "127.0.0.1") << "loopback is left out";
    }
  }
  Settle();
  EXPECT_TRUE(Events().empty()) << "nothing above may emit an event";
}

TEST_F(UdpSessionTest, PermissionBrowserStartsWithTheBridgeAndOnlyWhenAbsent) {
  dispatch::RunMainUntil([&] { return browsers_started_ == 1; }, 5s);
  EXPECT_EQ(Call("triggerPermission").value, Value(true));
  EXPECT_EQ(Call("triggerPermission", Map({{"x", Value(true)}})).value, Value(true));
  Settle();
  EXPECT_EQ(browsers_started_, 1);
}

TEST_F(UdpSessionTest, ConnectedSessionSendsAndReceives) {
  Peer station;
  OpenTo("z21", "127.0.0.1", station.port());
  Call("send", Map({{"sessionId", Value("z21")}, {"data", Bytes({0x04, 0x00, 0x10, 0x00})}}));
  auto request = station.Receive();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->data, channel::Bytes({0x04, 0x00, 0x10, 0x00}));

  station.Reply(request->from_port, {0x08, 0x00, 0x10, 0x00, 1, 2, 3, 4});
  auto data = WaitData("z21", {0x08, 0x00, 0x10, 0x00, 1, 2, 3, 4});
  ASSERT_TRUE(data);
  EXPECT_EQ(Text(*data, "fromHost"), "127.0.0.1");
  EXPECT_EQ(data->Find("fromPort")->integer(), station.port());
}

TEST_F(UdpSessionTest, HostNamesResolve) {
  Peer station;
  OpenTo("named", "localhost", station.port());
  Call("send", Map({{"sessionId", Value("named")}, {"data", Bytes({7})}}));
  auto got = station.Receive();
  ASSERT_TRUE(got);
  EXPECT_EQ(got->data, channel::Bytes({7}));
}

TEST_F(UdpSessionTest, ListenerHearsSeveralPeersAndCachedFlowsCarryReplies) {
  const uint16_t port = OpenListener("l");
  ASSERT_NE(port, 0);
  Peer a, b;
  a.SendTo(port, {0xa1});
  b.SendTo(port, {0xb1});
  a.SendTo(port, {0xa2});
  auto from_a = WaitData("l", {0xa2});
  auto from_b = WaitData("l", {0xb1});
  ASSERT_TRUE(from_a && from_b);
  EXPECT_EQ(from_a->Find("fromPort")->integer(), a.port());
  EXPECT_EQ(from_b->Find("fromPort")->integer(), b.port());

  // A listener session sends through the outbound cache; replies on that flow are its data.
  for (uint8_t i = 0; i < 2; ++i) {
    Call("send", Map({{"sessionId", Value("l")},
                      {"data", Bytes({0xc0})},
                      {"host", Value("127.0.0.1")},
                      {"port", Value::Integer(b.port())}}));
  }
  auto first = b.Receive();
  auto second = b.Receive();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->from_port, second->from_port) << "the cached flow is reused";
  EXPECT_NE(first->from_port, port) << "cached flows are sockets of their own";
  b.Reply(first->from_port, {0xbb});
  auto reply = WaitData("l", {0xbb});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->Find("fromPort")->integer(), b.port());

  // Without a port there is no destination: dropped, without an event.
  Call("send",
       Map({{"sessionId", Value("l")}, {"data", Bytes({1})}, {"host", Value("127.0.0.1")}}));
}

TEST_F(UdpSessionTest, DotTwoFiftyFiveGoesOutAsBroadcast) {
  // On loopback 127.255.255.255 is a broadcast address: a plain connected socket may not send
  // there, so the datagram arriving proves the broadcast socket carried it.
  const uint16_t port = OpenListener("hears");
  Peer station;
  OpenTo("talks", "127.0.0.1", station.port());
  Call("send", Map({{"sessionId", Value("talks")},
                    {"data", Bytes({0xbc})},
                    {"host", Value("127.255.255.255")},
                    {"port", Value::Integer(port)}}));
  EXPECT_TRUE(WaitData("hears", {0xbc}));
}

TEST_F(UdpSessionTest, ListenerBindFailsOnlyWhenThePortIsHeldWithoutReuse) {
  Peer holder;  // bound without SO_REUSEADDR
  Call("openListener",
       Map({{"sessionId", Value("busy")}, {"port", Value::Integer(holder.port())}}));
  auto failed = WaitEvent("busy", "failed");
  ASSERT_TRUE(failed);
  EXPECT_TRUE(Text(*failed, "error").starts_with("Listener bind failed: "))
      << Text(*failed, "error");

  Peer sharer(0, /*reuse=*/true);
  Call("openListener",
       Map({{"sessionId", Value("shared")}, {"port", Value::Integer(sharer.port())}}));
  auto ready = WaitEvent("shared", "ready");
  ASSERT_TRUE(ready);
  EXPECT_EQ(ready->Find("port")->integer(), sharer.port());
}

TEST_F(UdpSessionTest, ReopenCancelsTheOldSessionBeforeTheNewOneIsReady) {
  size_t index = 0;
  OpenListener("again", &index);
  const size_t after_first = index;
  Peer station;
  Call("open", Map({{"sessionId", Value("again")},
                    {"host", Value("127.0.0.1")},
                    {"port", Value::Integer(station.port())}}));
  size_t cancelled_at = after_first, ready_at = after_first;
  ASSERT_TRUE(WaitEvent("again", "cancelled", &cancelled_at));
  ASSERT_TRUE(WaitEvent("again", "ready", &ready_at));
  EXPECT_LT(cancelled_at, ready_at);
  EXPECT_FALSE(Events()[ready_at - 1].Find("port")) << "a connection's ready has no port";
}

TEST_F(UdpSessionTest, CloseCancelsAndLaterSendsAreDropped) {
  Peer station;
  OpenTo("c", "127.0.0.1", station.port());
  EXPECT_EQ(Call("close", Map({{"sessionId", Value("c")}})).value, Value(true));
  ASSERT_TRUE(WaitEvent("c", "cancelled"));
  Call("send", Map({{"sessionId", Value("c")}, {"data", Bytes({1})}}));
  EXPECT_FALSE(station.Receive(200ms));
}

TEST_F(UdpSessionTest, ClosedPortOfTheStationFailsTheConnection) {
  uint16_t closed_port;
  {
    Peer gone;
    closed_port = gone.port();
  }
  OpenTo("refused", "127.0.0.1", closed_port);
  Call("send", Map({{"sessionId", Value("refused")}, {"data", Bytes({1})}}));
  auto failed = WaitEvent("refused", "failed");
  ASSERT_TRUE(failed);
  EXPECT_EQ(Text(*failed, "error"), "Connection refused");
}

TEST_F(UdpSessionTest, AFloodOfSourcesKeepsEveryDatagramFlowing) {
  const uint16_t port = OpenListener("flood");
  std::vector<std::unique_ptr<Peer>> peers;
  for (int i = 0; i < 80; ++i) {
    peers.push_back(std::make_unique<Peer>());
    peers.back()->SendTo(port, {static_cast<uint8_t>(i)});
    ASSERT_TRUE(WaitData("flood", {static_cast<uint8_t>(i)})) << i;
  }
  // The first source's flow was dropped to make room; it speaks again and is heard again.
  peers.front()->SendTo(port, {0xee});
  auto again = WaitData("flood", {0xee});
  ASSERT_TRUE(again);
  EXPECT_EQ(again->Find("fromPort")->integer(), peers.front()->port());
}

TEST(LocalNetworkPermissionTest, TriggersOnceUntilReset) {
  int started = 0;
  LocalNetworkPermission permission([&] {
    ++started;
    EXPECT_TRUE(dispatch::IsMainThread());
    return std::make_unique<PermissionBrowser>();
  });
  EXPECT_FALSE(permission.has_triggered());
  permission.Trigger();
  std::thread([&] { permission.Trigger(); }).join();
  permission.Trigger();
  EXPECT_EQ(started, 1);
  EXPECT_TRUE(permission.has_browser());
  permission.Reset();
  EXPECT_FALSE(permission.has_triggered() || permission.has_browser());
  // From another thread the browse still starts on the main thread.
  std::thread([&] { permission.Trigger(); }).join();
  dispatch::RunMainUntil([&] { return started == 2; }, 5s);
  EXPECT_EQ(started, 2);
  EXPECT_TRUE(permission.has_browser());
}

TEST(LocalNetworkPermissionTest, TheSharedBrowseIsHarmlessWithOrWithoutADaemon) {
  LocalNetworkPermission& shared = LocalNetworkPermission::Shared();
  EXPECT_EQ(&shared, &LocalNetworkPermission::Shared());
  shared.Trigger();
  shared.Trigger();
  EXPECT_TRUE(shared.has_triggered());
  EXPECT_TRUE(shared.has_browser());
  dispatch::RunMainUntil([] { return false; }, 300ms);  // lets the bus lookup finish or fail
}

}  // namespace
}  // namespace corvane::udp::testing
