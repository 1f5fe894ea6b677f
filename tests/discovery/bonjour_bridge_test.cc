// BonjourBridge's channel behaviour against a DNS-SD backend the test drives.
#include "discovery/bonjour_bridge.h"

#include <gtest/gtest.h>

#include <set>
#include <utility>

#include "discovery/bridge_client.h"

namespace corvane::discovery::testing {
namespace {

// Records what the bridge asks for. Written on the bridge's queue; the test reads it only after
// a reply from that queue, which orders the two.
struct TestBackend : DnsSdBackend {
  bool Browse(const std::string& type) override {
    browsed.push_back(type);
    return true;
  }
  void StopBrowse(const std::string& type) override { stopped.insert(type); }
  std::vector<std::string> browsed;
  std::set<std::string> stopped;
};

Sighting At(const std::string& name, int32_t interface, int32_t protocol = 0) {
  return Sighting{"_z21._udp.", name, "local", interface, protocol};
}

Event Z21(const char* kind, const std::string& name, const std::string& host,
          std::vector<std::string> addresses) {
  return Event{kind, name, "_z21._udp.", host, 21105, std::move(addresses)};
}

class BonjourBridgeTest : public ::testing::Test {
 protected:
  BonjourBridgeTest()
      : bridge_(client_.engine(),
                [this](GMainContext*, dispatch::Queue& queue, DnsSdBackend::Listener& listener) {
                  queue_ = &queue;
                  listener_ = &listener;
                  auto backend = std::make_unique<TestBackend>();
                  backend_ = backend.get();
                  return backend;
                }) {}

  // Everything delivered before this has been handled and its events have arrived.
  void Sync() { client_.List(); }
  void StartZ21() { ASSERT_EQ(client_.Call("start", Types({"_z21._udp."})).value, Value(true)); }
  // Sightings as the backend reports them, on the bridge's queue.
  void Resolve(Sighting s, Endpoint e) {
    queue_->Async([l = listener_, s, e] { l->OnResolved(s, e); });
  }
  void Remove(Sighting s) {
    queue_->Async([l = listener_, s] { l->OnRemoved(s); });
  }
  std::vector<std::string> TakeBrowsed() { return std::exchange(backend_->browsed, {}); }

  TestBackend* backend_ = nullptr;  // owned by the bridge
  dispatch::Queue* queue_ = nullptr;
  DnsSdBackend::Listener* listener_ = nullptr;
  BridgeClient client_;
  BonjourBridge bridge_;
};

TEST_F(BonjourBridgeTest, StartBrowsesEachTypeStringOnceAndMalformedTypesMeanTheDefaults) {
  const std::vector<std::string>& defaults = BonjourBridge::DefaultTypes();
  EXPECT_EQ(defaults,
            (std::vector<std::string>{"_z21._udp.", "_z21._tcp.", "_ecos._tcp.", "_dccex._tcp.",
                                      "_corvane._tcp.", "_corvane._udp.", "_http._tcp."}));
  const Value malformed[] = {Value(), Value("_z21._udp."), Value(ValueMap{}),
                             TypesArg(Value("_z21._udp.")),
                             TypesArg(Value(ValueList{Value("_z21._udp."), Value(int32_t{5})}))};
  for (const Value& args : malformed) {
    EXPECT_EQ(client_.Call("start", args).value, Value(true));
    EXPECT_EQ(TakeBrowsed(), defaults);
    EXPECT_EQ(client_.Call("stop").value, Value(true));
    EXPECT_EQ(std::exchange(backend_->stopped, {}),
              std::set<std::string>(defaults.begin(), defaults.end()));
  }

  // Browsers are keyed by the string: another spelling is another browser, the same string
  // is browsed once; an empty list is no types. Each reports what it finds under its own string.
  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(client_.Call("start", Types({"_z21._tcp.", "_z21._tcp", "_z21._tcp."})).value,
            Value(true));
  EXPECT_EQ(client_.Call("start", Types({"_Z21._TCP", "_z21._tcp"})).value, Value(true));
  EXPECT_EQ(client_.Call("start", Types({})).value, Value(true));
  EXPECT_EQ(TakeBrowsed(), (std::vector<std::string>{"_z21._tcp.", "_z21._tcp", "_Z21._TCP"}));
  for (const char* type : {"_z21._tcp.", "_z21._tcp"}) {
    Resolve(Sighting{type, "Z", "local", 2, 0}, Endpoint{"10.0.0.5", 21105, ""});
  }
  Sync();
  const std::vector<Event> both = {
      Event{"found", "Z", "_z21._tcp.", "10.0.0.5", 21105, {"10.0.0.5"}},
      Event{"found", "Z", "_z21._tcp", "10.0.0.5", 21105, {"10.0.0.5"}}};
  EXPECT_EQ(client_.Events(), both);
  EXPECT_EQ(client_.List(), both);

  // Past the bound no more are browsed; names that cannot be types are skipped.
  EXPECT_EQ(client_.Call("stop").value, Value(true));
  std::vector<std::string> many = {"", std::string(300, 'x')};
  for (size_t i = 0; i < BonjourBridge::kMaxBrowsers + 10; ++i) {
    many.push_back("_t" + std::to_string(i) + "._udp");
  }
  EXPECT_EQ(client_.Call("start", Types(many)).value, Value(true));
  const std::vector<std::string> browsed = TakeBrowsed();
  EXPECT_EQ(browsed.size(), BonjourBridge::kMaxBrowsers);
  EXPECT_EQ(browsed.front(), "_t0._udp");
}

// One instance seen on several interfaces and protocols is one service at one numeric host:
// "found" once, again only when its host or port changes, and "lost" once, with its last
// sighting.
TEST_F(BonjourBridgeTest, FoundOncePerHostAndPortAndLostWithTheLastSighting) {
  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  StartZ21();
  // As the backend resolves them: every sighting of an instance with an IPv4 address at one,
  // here each interface's own.
  Resolve(At("Z21", 2, 1), Endpoint{"10.0.0.5", 21105, "z21.local"});
  Resolve(At("Z21", 2, 0), Endpoint{"10.0.0.5", 21105, "z21.local"});
  Resolve(At("Z21", 1, 0), Endpoint{"10.0.1.5", 21105, "z21.local"});
  Resolve(At("Z21", 2, 0), Endpoint{"10.0.0.5", 21105, "z21.local"});  // no change
  Sync();
  const Event v4 = Z21("found", "Z21", "10.0.0.5", {"10.0.0.5"});
  EXPECT_EQ(client_.Events(), std::vector<Event>{v4});
  EXPECT_EQ(client_.List(), std::vector<Event>{v4});

  // A port that really changes is news, once; an instance with only IPv6 is found at that
  // address.
  for (auto [interface, protocol] : {std::pair{2, 1}, {2, 0}}) {
    Resolve(At("Z21", interface, protocol), Endpoint{"10.0.0.5", 21106, "z21.local"});
  }
  Resolve(At("Z21", 1, 0), Endpoint{"10.0.1.5", 21106, "z21.local"});
  Resolve(At("V6", 3, 1), Endpoint{"fe80::1%eth1", 21105, "v6.local"});
  Sync();
  Event moved = v4;
  moved.port = 21106;
  const Event v6 = Z21("found", "V6", "fe80::1%eth1", {"fe80::1%eth1"});
  EXPECT_EQ(client_.Events(), (std::vector<Event>{v4, moved, v6}));

  Remove(At("Z21", 1, 0));
  Remove(At("Z21", 2, 1));
  Remove(At("Z21", 2, 0));
  Remove(At("Z21", 2, 0));  // already gone
  Sync();
  Event lost = moved;
  lost.kind = "lost";
  EXPECT_EQ(client_.Events(), (std::vector<Event>{v4, moved, v6, lost}));
  EXPECT_EQ(client_.List(), std::vector<Event>{v6});
}

TEST_F(BonjourBridgeTest, ALateListenerGetsEachServiceOnceCancelOnlySilencesAndStopForgets) {
  StartZ21();
  Resolve(At("A", 2), Endpoint{"10.0.0.1", 21105, ""});
  Resolve(At("B", 2), Endpoint{"10.0.0.2", 21105, ""});
  Resolve(At("B", 3), Endpoint{"10.0.1.2", 21105, ""});
  Sync();
  EXPECT_TRUE(client_.Events().empty());  // no listener: dropped

  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  Sync();
  const Event b = Z21("found", "B", "10.0.0.2", {"10.0.0.2"});
  EXPECT_EQ(client_.Events(), (std::vector<Event>{Z21("found", "A", "10.0.0.1", {"10.0.0.1"}), b}));

  ASSERT_EQ(client_.Cancel().kind, MethodReply::Kind::kSuccess);
  Remove(At("A", 2));
  Sync();
  EXPECT_EQ(client_.Events().size(), 2u);
  EXPECT_EQ(client_.List(), std::vector<Event>{b});  // browsing goes on without a listener

  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(client_.Call("stop").value, Value(true));
  EXPECT_TRUE(client_.List().empty());
  // A backend still delivering what it saw before the stop reached it.
  Remove(At("B", 2));
  Remove(At("B", 3));
  Resolve(At("C", 2), Endpoint{"10.0.0.3", 21105, ""});
  Sync();
  ASSERT_EQ(client_.Events().size(), 3u);  // B's replay only
  EXPECT_EQ(client_.Events().back(), b);
}

}  // namespace
}  // namespace corvane::discovery::testing
