// Guarded sends: every way a datagram can end, each answered exactly once. Time is a manual
// clock; the network is real, with a wrapper that can hold back "ready" and send completions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "udp_fixture.h"

namespace corvane::udp::testing {
namespace {

using Kind = MethodReply::Kind;

class GuardedSendTest : public BridgeTest {
 protected:
  void SetUp() override { StartBridge(/*holding=*/true); }

  double Future(double seconds = 60) { return clock_.NowWallMs() + seconds * 1000; }

  ValueMap Args(const std::string& request_id,
                std::vector<std::pair<const char*, Value>> extra = {}) {
    ValueMap m;
    m.Append(Value("sessionId"), Value("s"));
    m.Append(Value("requestId"), Value(request_id));
    m.Append(Value("data"), Bytes({0x07, 0x00, 0x40, 0x00}));
    m.Append(Value("timeoutMs"), Value::Integer(500));
    m.Append(Value("expiresAtMs"), Value(Future()));
    for (auto& [k, v] : extra) m.Set(k, v);
    return m;
  }

  // Sends and waits for the one reply; checks that it is a status map and not a channel error.
  ValueMap Guarded(ValueMap args) {
    MethodReply r = Call("sendGuarded", Value(std::move(args)));
    EXPECT_EQ(r.kind, Kind::kSuccess) << "a guarded send never answers a channel error";
    return r.value.map_if() ? *r.value.map_if() : ValueMap();
  }

  static ValueMap Status(const std::string& id, const char* status, bool attempted) {
    ValueMap m;
    m.Append(Value("requestId"), Value(id));
    m.Append(Value("status"), Value(status));
    m.Append(Value("writeAttempted"), Value(attempted));
    return m;
  }

  void OpenSession(uint16_t port) {
    Call("open", Map({{"sessionId", Value("s")},
                      {"host", Value("127.0.0.1")},
                      {"port", Value::Integer(port)}}));
    ASSERT_TRUE(WaitEvent("s", "ready"));
  }

  // Waits for exactly one reply to a call started with CallLater.
  ValueMap Await(const std::shared_ptr<std::vector<MethodReply>>& replies) {
    dispatch::RunMainUntil([&] { return !replies->empty(); }, 5s);
    Settle(50ms);
    EXPECT_EQ(replies->size(), 1u) << "exactly one reply per call";
    if (replies->empty() || !replies->front().value.map_if()) return ValueMap();
    return *replies->front().value.map_if();
  }

  void WaitHeld(size_t n) {
    dispatch::RunMainUntil([&] { return holding_->held() >= n; }, 5s);
    ASSERT_EQ(holding_->held(), n);
  }

  Peer station_;
};

TEST_F(GuardedSendTest, ValidationRejectsInOrderWithTheRequestIdAsRead) {
  OpenSession(station_.port());
  const std::string long_id(201, 'x');
  const std::string ok_id(200, 'x');
  struct Case {
    ValueMap args;
    std::string id;
  };
  ValueMap no_session = Args("r1");
  no_session.Set("sessionId", Value::Integer(5));
  ValueMap no_request = Args("");
  no_request.Set("requestId", Value::Integer(9));
  const std::vector<Case> cases = {
      {no_session, "r1"},
      {no_request, ""},
      {Args(""), ""},
      {Args(long_id), long_id},
      {Args("r2", {{"data", Value(channel::Bytes())}}), "r2"},
      {Args("r3", {{"data", Value(channel::Bytes(65508, 1))}}), "r3"},
      {Args("r4", {{"data", Value("text")}}), "r4"},
      {Args("r5", {{"timeoutMs", Value::Integer(0)}}), "r5"},
      {Args("r6", {{"timeoutMs", Value::Integer(30001)}}), "r6"},
      {Args("r7", {{"timeoutMs", Value(500.0)}}), "r7"},
      {Args("r8", {{"expiresAtMs", Value(std::numeric_limits<double>::infinity())}}), "r8"},
      {Args("r9", {{"expiresAtMs", Value(std::nan(""))}}), "r9"},
      {Args("r10", {{"expiresAtMs", Value("soon")}}), "r10"},
      {Args("r11", {{"port", Value::Integer(0)}}), "r11"},
      {Args("r12", {{"port", Value::Integer(65536)}}), "r12"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Guarded(c.args), Status(c.id, "rejected", false)) << c.id;
  }
  EXPECT_EQ(Guarded(ValueMap()), Status("", "rejected", false));
  // At the limits, and with a port given as text (absent: the session's is used), it goes out.
  EXPECT_EQ(Guarded(Args(ok_id, {{"port", Value("1")}})), Status(ok_id, "sent", true));
  EXPECT_TRUE(station_.Receive());
}

TEST_F(GuardedSendTest, AcceptanceChecksOnTheQueue) {
  EXPECT_EQ(Guarded(Args("a")), Status("a", "disconnected", false)) << "no such session";

  // A listener session has no host of its own, and a session on port 0 no port.
  Call("openListener", Map({{"sessionId", Value("s")}, {"port", Value::Integer(0)}}));
  EXPECT_EQ(Guarded(Args("b")), Status("b", "rejected", false));
  EXPECT_EQ(Guarded(Args("c", {{"host", Value("")}, {"port", Value::Integer(9)}})),
            Status("c", "rejected", false));
  Call("open",
       Map({{"sessionId", Value("s")}, {"host", Value("127.0.0.1")}, {"port", Value::Integer(0)}}));
  EXPECT_EQ(Guarded(Args("d")), Status("d", "rejected", false));

  OpenSession(station_.port());
  EXPECT_EQ(Guarded(Args("e", {{"expiresAtMs", Value(clock_.NowWallMs() - 1)}})),
            Status("e", "timedOut", false));
  EXPECT_EQ(Guarded(Args(
                "f", {{"expiresAtMs", Value::Integer(static_cast<int64_t>(clock_.NowWallMs()))}})),
            Status("f", "timedOut", false))
      << "expiry equal to now is past";
  EXPECT_EQ(Guarded(Args("g", {{"host", Value("10.0.0.255")}, {"port", Value::Integer(21105)}})),
            Status("g", "rejected", false))
      << "guarded sends are never broadcast";

  // On the session's connection, and to another host:port on a flow of its own.
  EXPECT_EQ(Guarded(Args("h")), Status("h", "sent", true));
  auto on_session = station_.Receive();
  Peer other;
  EXPECT_EQ(
      Guarded(Args("i", {{"host", Value("localhost")}, {"port", Value::Integer(other.port())}})),
      Status("i", "sent", true));
  ASSERT_TRUE(on_session);
  EXPECT_EQ(on_session->data, channel::Bytes({0x07, 0x00, 0x40, 0x00}));
  EXPECT_TRUE(other.Receive());

  // Its own flow failing before the write: IPv6 is not used.
  EXPECT_EQ(Guarded(Args("j", {{"host", Value("::1")}})), Status("j", "disconnected", false));

  Call("close", Map({{"sessionId", Value("s")}}));
  EXPECT_EQ(Guarded(Args("k")), Status("k", "disconnected", false));
}

TEST_F(GuardedSendTest, CancelBeforeSendLeavesATombstoneFor31Seconds) {
  OpenSession(station_.port());
  Call("cancelSend", Map({{"sessionId", Value("s")}, {"requestId", Value("t")}}));
  EXPECT_EQ(Guarded(Args("t")), Status("t", "cancelled", false));
  clock_.JumpWall(30s);
  EXPECT_EQ(Guarded(Args("t")), Status("t", "cancelled", false)) << "still within 31 s";
  clock_.JumpWall(1s);
  EXPECT_EQ(Guarded(Args("t")), Status("t", "sent", true)) << "expiry is not later than now";

  // A full table of live tombstones keeps no more; once they expire, there is room again.
  for (int i = 0; i < 256; ++i) {
    Call("cancelSend",
         Map({{"sessionId", Value("s")}, {"requestId", Value("x" + std::to_string(i))}}));
  }
  Call("cancelSend", Map({{"sessionId", Value("s")}, {"requestId", Value("over")}}));
  EXPECT_EQ(Guarded(Args("x255")), Status("x255", "cancelled", false));
  EXPECT_EQ(Guarded(Args("over")), Status("over", "sent", true));
  clock_.JumpWall(31s);
  Call("cancelSend", Map({{"sessionId", Value("s")}, {"requestId", Value("late")}}));
  EXPECT_EQ(Guarded(Args("late")), Status("late", "cancelled", false));
}

TEST_F(GuardedSendTest, DuplicateIdsAndAFullTableAreRejected) {
  OpenSession(station_.port());
  holding_->hold_ready = true;
  // With a host of their own they wait for their own flows, whose "ready" is held.
  auto own = [&](const std::string& id) {
    return Args(id, {{"host", Value("127.0.0.1")}, {"port", Value::Integer(station_.port())}});
  };
  auto first = CallLater("sendGuarded", Value(own("dup")));
  WaitHeld(1);
  EXPECT_EQ(Guarded(own("dup")), Status("dup", "rejected", false));

  std::vector<std::shared_ptr<std::vector<MethodReply>>> pending;
  for (int i = 1; i < 256; ++i)
    pending.push_back(CallLater("sendGuarded", Value(own("p" + std::to_string(i)))));
  WaitHeld(256);
  EXPECT_EQ(Guarded(own("full")), Status("full", "rejected", false));

  holding_->Release();
  EXPECT_EQ(Await(first), Status("dup", "sent", true)) << "the first is unaffected";
  dispatch::RunMainUntil(
      [&] {
        return std::all_of(pending.begin(), pending.end(), [](auto& p) { return !p->empty(); });
      },
      10s);
  Settle(50ms);
  for (auto& p : pending) {
    ASSERT_EQ(p->size(), 1u);
    EXPECT_EQ(Text(*p->front().value.map_if(), "status"), "sent");
  }
  int received = 0;
  while (station_.Receive(200ms)) ++received;
  EXPECT_EQ(received, 256);
}

TEST_F(GuardedSendTest, TimeOutBeforeTheHandOverIsTimedOut) {
  OpenSession(station_.port());
  holding_->hold_ready = true;
  auto reply =
      CallLater("sendGuarded", Value(Args("slow", {{"host", Value("127.0.0.1")},
                                                   {"port", Value::Integer(station_.port())}})));
  WaitHeld(1);
  clock_.Advance(499ms);
  Settle(50ms);
  EXPECT_TRUE(reply->empty());
  clock_.Advance(1ms);
  EXPECT_EQ(Await(reply), Status("slow", "timedOut", false));
  holding_->Release();  // its flow becomes ready after all: nothing more is sent or answered
  EXPECT_FALSE(station_.Receive(200ms));
  EXPECT_EQ(reply->size(), 1u);
}

TEST_F(GuardedSendTest, AClockJumpPastTheExpiryStopsAStaleCommand) {
  OpenSession(station_.port());
  holding_->hold_ready = true;
  auto reply =
      CallLater("sendGuarded", Value(Args("stale", {{"host", Value("127.0.0.1")},
                                                    {"port", Value::Integer(station_.port())},
                                                    {"expiresAtMs", Value(Future(1))}})));
  WaitHeld(1);
  clock_.JumpWall(2s);
  holding_->Release();
  EXPECT_EQ(Await(reply), Status("stale", "timedOut", false));
  EXPECT_FALSE(station_.Receive(200ms));
}

TEST_F(GuardedSendTest, EndingsAfterTheHandOverAreUncertain) {
  OpenSession(station_.port());
  holding_->hold_completions = true;

  auto timed = CallLater("sendGuarded", Value(Args("t")));
  WaitHeld(1);
  clock_.Advance(500ms);
  EXPECT_EQ(Await(timed), Status("t", "uncertain", true));

  auto cancelled = CallLater("sendGuarded", Value(Args("c")));
  WaitHeld(2);
  Call("cancelSend", Map({{"sessionId", Value("s")}, {"requestId", Value("c")}}));
  EXPECT_EQ(Await(cancelled), Status("c", "uncertain", true));

  auto closed = CallLater("sendGuarded", Value(Args("x")));
  WaitHeld(3);
  Call("close", Map({{"sessionId", Value("s")}}));
  EXPECT_EQ(Await(closed), Status("x", "uncertain", true));

  holding_->Release();  // the late completions find nothing to answer
  Settle();
  EXPECT_EQ(timed->size() + cancelled->size() + closed->size(), 3u);
  int received = 0;
  while (station_.Receive(200ms)) ++received;
  EXPECT_EQ(received, 3) << "all three were handed over";
}

TEST_F(GuardedSendTest, EndingsBeforeTheHandOverKeepTheirStatus) {
  OpenSession(station_.port());
  holding_->hold_ready = true;
  auto own = [&](const std::string& id) {
    return Value(
        Args(id, {{"host", Value("127.0.0.1")}, {"port", Value::Integer(station_.port())}}));
  };
  auto cancelled = CallLater("sendGuarded", own("c"));
  WaitHeld(1);
  Call("cancelSend", Map({{"sessionId", Value("s")}, {"requestId", Value("c")}}));
  EXPECT_EQ(Await(cancelled), Status("c", "cancelled", false));

  auto waiting = CallLater("sendGuarded", own("w"));
  WaitHeld(2);
  Call("close", Map({{"sessionId", Value("s")}}));
  EXPECT_EQ(Await(waiting), Status("w", "disconnected", false));
  holding_->Release();
  EXPECT_FALSE(station_.Receive(200ms));
}

TEST_F(GuardedSendTest, ABridgeGoneWithACallPendingStillAnswersIt) {
  OpenSession(station_.port());
  holding_->hold_ready = true;
  auto reply =
      CallLater("sendGuarded", Value(Args("gone", {{"host", Value("127.0.0.1")},
                                                   {"port", Value::Integer(station_.port())}})));
  WaitHeld(1);
  bridge_.reset();
  EXPECT_EQ(Await(reply), Status("gone", "disconnected", false));
}

}  // namespace
}  // namespace corvane::udp::testing
