// Guarded sends: every way a datagram can end, each answered exactly once. Time is a manual
// clock; the network is real, with a wrapper that can hold back "ready" and send completions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "udp/session.h"
#include "udp_fixture.h"

namespace corvane::udp::testing {
namespace {

using Extra = std::vector<std::pair<const char*, Value>>;

class GuardedSendTest : public BridgeTest {
 protected:
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

  Replies Later(ValueMap args) { return CallLater("sendGuarded", Value(std::move(args))); }
  // Sends and waits for the one reply, a status map: never a channel error.
  ValueMap Guarded(ValueMap args) { return Await(Later(std::move(args))); }
  static ValueMap Status(const std::string& id, const char* status, bool attempted) {
    return Fields({{"requestId", Value(id)},
                   {"status", Value(status)},
                   {"writeAttempted", Value(attempted)}});
  }

  void Cancel(const std::string& request_id) {
    Call("cancelSend", Map({{"sessionId", Value("s")}, {"requestId", Value(request_id)}}));
  }

  // Waits until every call has answered, then checks that none answered twice.
  std::vector<ValueMap> AwaitAll(const std::vector<Replies>& calls) {
    dispatch::RunMainUntil(
        [&] { return std::ranges::all_of(calls, [](auto& r) { return !r->empty(); }); }, 10s);
    Settle(50ms);
    std::vector<ValueMap> maps;
    for (const Replies& r : calls) {
      EXPECT_EQ(r->size(), 1u) << "exactly one reply per call";
      const ValueMap* m = r->empty() ? nullptr : r->front().value.map_if();
      maps.push_back(m ? *m : ValueMap());
    }
    return maps;
  }
  ValueMap Await(const Replies& call) { return AwaitAll({call}).front(); }

  void WaitHeld(size_t n) {
    dispatch::RunMainUntil([&] { return holding_->held() >= n; }, 5s);
    ASSERT_EQ(holding_->held(), n);
  }

  Peer station_;
};

TEST_F(GuardedSendTest, ValidationRejectsInOrderWithTheRequestIdAsRead) {
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
  ASSERT_TRUE(got);
  EXPECT_EQ(got->data, channel::Bytes({0x07, 0x00, 0x40, 0x00}));
}

TEST_F(GuardedSendTest, AcceptanceChecksOnTheQueue) {
  EXPECT_EQ(Guarded(Args("a")), Status("a", "disconnected", false)) << "no such session";

  // A listener session has no host of its own, and a session on port 0 no port.
  Listen("s");
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

TEST_F(GuardedSendTest, CancelBeforeSendLeavesATombstoneFor31Seconds) {
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
  Cancel("kept");
  EXPECT_EQ(Guarded(Args("kept")), Status("kept", "cancelled", false));
}

// Own flows whose "ready" is held keep their datagrams waiting; every ending before the
// hand-over keeps its own status.
TEST_F(GuardedSendTest, EndingsWhileWaitingForItsOwnFlow) {
  Open("s", "127.0.0.1", station_.port());
  holding_->hold_ready = true;
  std::vector<Replies> pending{Later(Own("p0"))};
  WaitHeld(1);
  EXPECT_EQ(Guarded(Own("p0")), Status("p0", "rejected", false)) << "a duplicate id";
  for (size_t i = 1; i < kMaxGuardedWrites; ++i) {
    pending.push_back(Later(Own("p" + std::to_string(i))));
  }
  WaitHeld(kMaxGuardedWrites);
  EXPECT_EQ(Guarded(Own("full")), Status("full", "rejected", false)) << "a full table";
  clock_.Advance(499ms);
  Settle(50ms);
  EXPECT_TRUE(pending[0]->empty());
  clock_.Advance(1ms);
  auto replies = AwaitAll(pending);
  for (size_t i = 0; i < replies.size(); ++i) {
    EXPECT_EQ(replies[i], Status("p" + std::to_string(i), "timedOut", false));
  }

  // The wall clock jumping past the expiry stops the write once the flow is ready.
  auto stale = Later(Own("j", {{"expiresAtMs", Value(clock_.NowWallMs() + 1000)}}));
  WaitHeld(kMaxGuardedWrites + 1);
  clock_.JumpWall(2s);
  holding_->Release();
  EXPECT_EQ(Await(stale), Status("j", "timedOut", false));

  auto cancelled = Later(Own("c"));
  WaitHeld(1);
  Cancel("c");
  EXPECT_EQ(Await(cancelled), Status("c", "cancelled", false));

  auto waiting = Later(Own("w"));
  WaitHeld(2);
  Close("s");
  EXPECT_EQ(Await(waiting), Status("w", "disconnected", false));

  holding_->Release();  // their flows become ready after all: nothing goes out or answers again
  EXPECT_FALSE(station_.Receive(200ms));
  pending.insert(pending.end(), {stale, cancelled, waiting});
  AwaitAll(pending);

  // A bridge that goes away with a call still waiting answers it too.
  Listen("s");
  auto gone = Later(Own("g"));
  WaitHeld(1);
  bridge_.reset();
  EXPECT_EQ(Await(gone), Status("g", "disconnected", false));
}

TEST_F(GuardedSendTest, EndingsAfterTheHandOverAreUncertain) {
  Open("s", "127.0.0.1", station_.port());
  holding_->hold_completions = true;

  const std::pair<const char*, std::function<void()>> endings[] = {
      {"t", [&] { clock_.Advance(500ms); }},
      {"c", [&] { Cancel("c"); }},
      {"x", [&] { Close("s"); }},
  };
  std::vector<Replies> calls;
  for (const auto& [id, end] : endings) {
    calls.push_back(Later(Args(id)));
    WaitHeld(calls.size());
    end();
    EXPECT_EQ(Await(calls.back()), Status(id, "uncertain", true));
  }
  holding_->Release();  // the late completions find nothing to answer
  AwaitAll(calls);
}

// The write itself reports the refusal that an earlier datagram drew (ICMP port unreachable):
// that send is uncertain, and the session stays ready for the station's return.
TEST_F(GuardedSendTest, ARefusedWriteIsUncertainAndTheSessionStaysReady) {
  holding_->hold_receive = true;  // no receive loop to take the error first
  auto station = std::make_unique<Peer>();
  const uint16_t port = station->port();
  Open("s", "127.0.0.1", port);
  station.reset();
  Send("s", {1});
  EXPECT_EQ(Guarded(Args("r")), Status("r", "uncertain", true));
  station = std::make_unique<Peer>(false, port);
  Send("s", {2});
  auto got = station->Receive();
  EXPECT_TRUE(got && got->data == channel::Bytes{2}) << "sends without a host go out again";
}

}  // namespace
}  // namespace corvane::udp::testing
