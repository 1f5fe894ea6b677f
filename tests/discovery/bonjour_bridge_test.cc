// BonjourBridge's channel behaviour against a backend the test drives.
#include "discovery/bonjour_bridge.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "discovery/bridge_client.h"
#include "discovery/test_backend.h"

namespace corvane::discovery::testing {
namespace {

std::vector<std::string> CanonicalDefaults() {
  return {"_z21._udp",     "_z21._tcp",     "_ecos._tcp", "_dccex._tcp",
          "_corvane._tcp", "_corvane._udp", "_http._tcp"};
}

Value Types(std::vector<Value> types) {
  ValueMap args;
  args.Set("types", Value(ValueList(std::move(types))));
  return Value(std::move(args));
}

Sighting At(const std::string& name, int32_t interface, int32_t protocol = 0,
            const std::string& type = "_z21._udp") {
  return Sighting{type, name, "local", interface, protocol};
}

class BonjourBridgeTest : public ::testing::Test {
 protected:
  BonjourBridgeTest() : bridge_(client_.engine(), backend_.Factory()) {
    Sync();  // the backend exists from here on
  }

  // Everything delivered before this has been handled and its events have arrived.
  void Sync() { EXPECT_EQ(client_.Call("list").kind, MethodReply::Kind::kSuccess); }

  ValueList List() {
    MethodReply reply = client_.Call("list");
    EXPECT_NE(reply.value.list_if(), nullptr);
    return reply.value.list_if() ? *reply.value.list_if() : ValueList();
  }

  void StartZ21() {
    ASSERT_EQ(client_.Call("start", Types({Value("_z21._udp.")})).value, Value(true));
  }

  TestBackend backend_;
  BridgeClient client_;
  BonjourBridge bridge_;
};

// --- start and its types ---

TEST_F(BonjourBridgeTest, StartBrowsesEachGivenTypeOnceHoweverItIsSpelled) {
  EXPECT_EQ(client_.Call("start", Types({Value("_z21._udp."), Value("_ecos._tcp.")})).value,
            Value(true));
  EXPECT_EQ(client_.Call("start", Types({Value("_Z21._UDP"), Value("_ecos._tcp.")})).value,
            Value(true));
  EXPECT_EQ(backend_.browsed(), (std::vector<std::string>{"_z21._udp", "_ecos._tcp"}));
}

TEST_F(BonjourBridgeTest, TypesThatAreNotAListOfStringsBrowseTheSevenDefaultsInOrder) {
  const std::vector<Value> malformed = {
      Value(),                                          // no arguments
      Value("_z21._udp."),                              // not a map
      Value(ValueMap{}),                                // no "types"
      Types({Value("_z21._udp."), Value(int32_t{5})}),  // not all strings
  };
  for (const Value& args : malformed) {
    EXPECT_EQ(client_.Call("start", args).value, Value(true));
    EXPECT_EQ(backend_.browsed(), CanonicalDefaults());
    EXPECT_EQ(client_.Call("stop").value, Value(true));
    std::vector<std::string> stopped = backend_.stopped(), defaults = CanonicalDefaults();
    std::sort(stopped.begin(), stopped.end());
    std::sort(defaults.begin(), defaults.end());
    EXPECT_EQ(stopped, defaults);
    backend_.Forget();
  }
  ValueMap not_a_list;
  not_a_list.Set("types", Value("_z21._udp."));
  EXPECT_EQ(client_.Call("start", Value(std::move(not_a_list))).value, Value(true));
  EXPECT_EQ(backend_.browsed(), CanonicalDefaults());
}

TEST_F(BonjourBridgeTest, AnEmptyListBrowsesNothingAndARefusedTypeIsTriedAgainLater) {
  EXPECT_EQ(client_.Call("start", Types({})).value, Value(true));
  EXPECT_TRUE(backend_.browsed().empty());

  backend_.Refuse("not a type");
  EXPECT_EQ(client_.Call("start", Types({Value("not a type"), Value("")})).value, Value(true));
  EXPECT_EQ(client_.Call("start", Types({Value("not a type")})).value, Value(true));
  EXPECT_TRUE(backend_.browsed().empty());
}

TEST_F(BonjourBridgeTest, BrowseTypesAreBounded) {
  std::vector<Value> many;
  for (size_t i = 0; i < BonjourBridge::kMaxBrowsers + 10; ++i) {
    many.emplace_back("_t" + std::to_string(i) + "._udp");
  }
  many.emplace_back(std::string(300, 'x'));
  EXPECT_EQ(client_.Call("start", Types(std::move(many))).value, Value(true));
  EXPECT_EQ(backend_.browsed().size(), BonjourBridge::kMaxBrowsers);
}

// --- found, lost, list ---

TEST_F(BonjourBridgeTest, FoundAndLostCarryTheServiceMapAndListFollows) {
  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  StartZ21();
  backend_.Resolve(At("Z21 Hall", 2), Endpoint{"192.168.0.111", 21105, "z21.local"});
  Sync();

  ASSERT_EQ(client_.Events().size(), 1u);
  Event found = client_.Events()[0];
  EXPECT_EQ(found.type, "found");
  EXPECT_EQ(found.name, "Z21 Hall");
  EXPECT_EQ(found.service_type, "_z21._udp.");  // as the caller named it
  EXPECT_EQ(found.host, "192.168.0.111");
  EXPECT_EQ(found.port, 21105);
  EXPECT_EQ(found.addresses, std::vector<std::string>{"192.168.0.111"});
  ValueList listed = List();
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(ToEvent("found", listed[0]).host, "192.168.0.111");

  backend_.Remove(At("Z21 Hall", 2));
  Sync();
  ASSERT_EQ(client_.Events().size(), 2u);
  EXPECT_EQ(client_.Events()[1].type, "lost");
  EXPECT_EQ(client_.Events()[1].port, 21105);
  EXPECT_TRUE(List().empty());
}

TEST_F(BonjourBridgeTest, OnlyAHostNameGivesEmptyAddresses) {
  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  StartZ21();
  backend_.Resolve(At("Named", 2), Endpoint{"", 21105, "station.local"});
  Sync();
  ASSERT_EQ(client_.Events().size(), 1u);
  EXPECT_EQ(client_.Events()[0].host, "station.local");
  EXPECT_TRUE(client_.Events()[0].addresses.empty());
}

TEST_F(BonjourBridgeTest, OneInstanceOnSeveralInterfacesIsOneServiceLostWithItsLastSighting) {
  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  StartZ21();
  backend_.Resolve(At("Z21", 3, 1), Endpoint{"fe80::1%eth1", 21105, "z21.local"});
  backend_.Resolve(At("Z21", 2, 0), Endpoint{"10.0.0.5", 21105, "z21.local"});
  backend_.Resolve(At("Z21", 2, 0), Endpoint{"10.0.0.5", 21105, "z21.local"});  // no change
  Sync();
  ASSERT_EQ(List().size(), 1u);
  std::vector<Event> events = client_.Events();
  ASSERT_EQ(events.size(), 2u);  // found, then found again with the second address
  EXPECT_EQ(events[0].host, "fe80::1%eth1");
  EXPECT_EQ(events[1].type, "found");
  EXPECT_EQ(events[1].host, "10.0.0.5");  // IPv4 is preferred
  EXPECT_EQ(events[1].addresses, (std::vector<std::string>{"10.0.0.5", "fe80::1%eth1"}));

  backend_.Remove(At("Z21", 2, 0));
  Sync();
  events = client_.Events();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[2].type, "found");
  EXPECT_EQ(events[2].host, "fe80::1%eth1");
  EXPECT_EQ(events[2].addresses, std::vector<std::string>{"fe80::1%eth1"});

  backend_.Remove(At("Z21", 3, 1));
  backend_.Remove(At("Z21", 3, 1));  // already gone
  Sync();
  events = client_.Events();
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[3].type, "lost");
  EXPECT_TRUE(List().empty());
}

TEST_F(BonjourBridgeTest, SameNameUnderTwoTypesIsTwoServices) {
  ASSERT_EQ(client_.Call("start", Types({Value("_z21._udp."), Value("_z21._tcp.")})).value,
            Value(true));
  backend_.Resolve(At("Z21", 2, 0, "_z21._udp"), Endpoint{"10.0.0.5", 21105, ""});
  backend_.Resolve(At("Z21", 2, 0, "_z21._tcp"), Endpoint{"10.0.0.5", 21106, ""});
  Sync();
  EXPECT_EQ(List().size(), 2u);
}

// --- listeners ---

TEST_F(BonjourBridgeTest, ALateListenerGetsEveryPresentServiceOnceAndCancelSilencesIt) {
  StartZ21();
  backend_.Resolve(At("A", 2), Endpoint{"10.0.0.1", 21105, ""});
  backend_.Resolve(At("B", 2), Endpoint{"10.0.0.2", 21105, ""});
  backend_.Resolve(At("B", 3), Endpoint{"10.0.1.2", 21105, ""});
  Sync();
  EXPECT_TRUE(client_.Events().empty());  // no listener: dropped

  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  Sync();
  std::vector<Event> events = client_.Events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].name, "A");
  EXPECT_EQ(events[1].name, "B");
  EXPECT_EQ(events[1].addresses, (std::vector<std::string>{"10.0.0.2", "10.0.1.2"}));

  ASSERT_EQ(client_.Cancel().kind, MethodReply::Kind::kSuccess);
  backend_.Remove(At("A", 2));
  Sync();
  EXPECT_EQ(client_.Events().size(), 2u);
  EXPECT_EQ(List().size(), 1u);  // browsing goes on without a listener
}

// --- stop ---

TEST_F(BonjourBridgeTest, StopForgetsEverythingAndNothingIsLostAfterIt) {
  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  StartZ21();
  backend_.Resolve(At("A", 2), Endpoint{"10.0.0.1", 21105, ""});
  Sync();
  EXPECT_EQ(client_.Call("stop").value, Value(true));
  EXPECT_TRUE(List().empty());
  EXPECT_EQ(backend_.stopped(), std::vector<std::string>{"_z21._udp"});

  // A backend still delivering what it saw before the stop reached it.
  backend_.Remove(At("A", 2));
  backend_.Resolve(At("B", 2), Endpoint{"10.0.0.2", 21105, ""});
  Sync();
  ASSERT_EQ(client_.Events().size(), 1u);
  EXPECT_EQ(client_.Events()[0].type, "found");
  EXPECT_TRUE(List().empty());

  StartZ21();  // browses again after a stop
  EXPECT_EQ(backend_.browsed().size(), 2u);
}

TEST_F(BonjourBridgeTest, OtherMethodsAreNotImplemented) {
  EXPECT_EQ(client_.Call("resolve").kind, MethodReply::Kind::kNotImplemented);
  EXPECT_EQ(client_.Call("").kind, MethodReply::Kind::kNotImplemented);
}

TEST(BonjourBridgeWithoutBackend, StillAnswersEveryCall) {
  BridgeClient client;
  BonjourBridge bridge(client.engine(), [](GMainContext*, dispatch::Queue&,
                                           DnsSdBackend::Listener&) { return nullptr; });
  EXPECT_EQ(client.Listen().kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(client.Call("start").value, Value(true));
  EXPECT_EQ(client.Call("list").value, Value(ValueList{}));
  EXPECT_EQ(client.Call("stop").value, Value(true));
  EXPECT_EQ(client.Cancel().kind, MethodReply::Kind::kSuccess);
}

}  // namespace
}  // namespace corvane::discovery::testing
