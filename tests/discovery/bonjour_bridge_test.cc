// BonjourBridge's channel behaviour against a DNS-SD backend the test drives.
#include "discovery/bonjour_bridge.h"

#include <gtest/gtest.h>

#include <set>

#include "discovery/bridge_client.h"

namespace corvane::discovery::testing {
namespace {

// Records what the bridge asks for, on its queue; read only after a reply from that queue.
struct TestBackend : DnsSdBackend {
  bool Browse(const std::string& type) override { return browsed.emplace_back(type), true; }
  void StopBrowse(const std::string& type) override { stopped.insert(type); }
  std::vector<std::string> browsed;
  std::set<std::string> stopped;
};

using Args = std::vector<std::string>;

Sighting At(const std::string& name, int32_t interface, int32_t protocol = 0) {
  return Sighting{"_z21._udp.", name, "local", interface, protocol};
}

Event Z21(const char* kind, const std::string& name, const std::string& host) {
  return Event{kind, name, "_z21._udp.", host, 21105, {host}};
}

class BonjourBridgeTest : public ::testing::Test {
 protected:
  BonjourBridgeTest()
      : bridge_(client_.engine(),
                [this](GMainContext*, dispatch::Queue& queue, DnsSdBackend::Listener& listener) {
                  queue_ = &queue;
                  listener_ = &listener;
                  return std::unique_ptr<DnsSdBackend>(backend_ = new TestBackend);
                }) {}

  // Everything delivered before this has been handled and its events have arrived.
  void Sync() { client_.List(); }
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
  const std::vector<std::string> defaults = {"_z21._udp.",   "_z21._tcp.",     "_ecos._tcp.",
                                             "_dccex._tcp.", "_corvane._tcp.", "_corvane._udp.",
                                             "_http._tcp."};
  const Value malformed[] = {Value(), Value("_z21._udp."), TypesArg(Value("_z21._udp.")),
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
  for (Args types :
       {Args{"_z21._tcp.", "_z21._tcp", "_z21._tcp."}, {"_Z21._TCP", "_z21._tcp"}, {}}) {
    EXPECT_EQ(client_.Call("start", Types(types)).value, Value(true));
  }
  EXPECT_EQ(TakeBrowsed(), (Args{"_z21._tcp.", "_z21._tcp", "_Z21._TCP"}));
  for (const char* type : {"_z21._tcp.", "_z21._tcp"}) {
    Resolve(Sighting{type, "Z", "local", 2, 0}, Endpoint{"10.0.0.5", 21105, ""});
  }
  Sync();
  std::vector<Event> both(2, Event{"found", "Z", "_z21._tcp.", "10.0.0.5", 21105, {"10.0.0.5"}});
  both[1].type = "_z21._tcp";
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
  EXPECT_EQ(std::pair(browsed.size(), browsed.front()),
            std::pair(BonjourBridge::kMaxBrowsers, many[2]));
}

// One instance seen on several interfaces and protocols is one service at one numeric host:
// "found" once, again only when its host or port really changes, and "lost" once, with its last
// sighting. A late listener gets each present service once; "cancel" only silences; "stop"
// forgets, whatever the backend still delivers.
TEST_F(BonjourBridgeTest, OneServicePerInstanceReplayedToALateListenerAndForgottenOnStop) {
  ASSERT_EQ(client_.Call("start", Types({"_z21._udp."})).value, Value(true));
  Resolve(At("A", 2), Endpoint{"10.0.0.1", 21105, ""});
  Resolve(At("B", 2, 1), Endpoint{"10.0.0.2", 21105, ""});
  Resolve(At("B", 3), Endpoint{"10.0.1.2", 21105, ""});
  Sync();
  EXPECT_TRUE(client_.Events().empty());  // no listener: dropped

  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  Resolve(At("B", 2, 1), Endpoint{"10.0.0.2", 21106, ""});
  Resolve(At("B", 3), Endpoint{"10.0.1.2", 21106, ""});
  Resolve(At("B", 3), Endpoint{"10.0.1.2", 21106, ""});        // no change
  for (int twice = 0; twice < 2; ++twice) Remove(At("A", 2));  // the second: already gone
  Sync();
  Event a = Z21("found", "A", "10.0.0.1"), b = Z21("found", "B", "10.0.0.2"), moved = b, lost = a;
  moved.port = 21106;
  lost.kind = "lost";
  EXPECT_EQ(client_.Events(), (std::vector<Event>{a, b, moved, lost}));

  ASSERT_EQ(client_.Cancel().kind, MethodReply::Kind::kSuccess);
  Remove(At("B", 3));
  Sync();
  EXPECT_EQ(client_.Events().size(), 4u);
  EXPECT_EQ(client_.List(), std::vector<Event>{moved});  // browsing goes on without a listener

  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(client_.Call("stop").value, Value(true));
  EXPECT_TRUE(client_.List().empty());
  Remove(At("B", 2, 1));  // a backend still delivering what it saw before the stop reached it
  Resolve(At("C", 2), Endpoint{"10.0.0.3", 21105, ""});
  Sync();
  EXPECT_EQ(client_.Events(), (std::vector<Event>{a, b, moved, lost, moved}));  // B's replay only
}

}  // namespace
}  // namespace corvane::discovery::testing
