// BonjourBridge with its Avahi backend against a real avahi-daemon on a private bus, which the
// test fixture starts (scripts/avahi-test-daemon.sh). Services are published with avahi-publish.
// Other test processes share the daemon, so every assertion is about this test's own names.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "discovery/avahi_daemon.h"
#include "discovery/bonjour_bridge.h"
#include "discovery/bridge_client.h"

namespace corvane::discovery::testing {
namespace {

using namespace std::chrono_literals;

std::string Unique(const std::string& base) { return base + " " + std::to_string(getpid()); }

Value Types(std::vector<Value> types) {
  ValueMap args;
  args.Set("types", Value(ValueList(std::move(types))));
  return Value(std::move(args));
}

bool Lists(const ValueList& list, const std::string& name) {
  for (const Value& v : list) {
    if (ToEvent("found", v).name == name) return true;
  }
  return false;
}

class AvahiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", BusAddress(CORVANE_AVAHI_DIR).c_str(), 1);
    ASSERT_TRUE(DaemonAnswers()) << "no avahi-daemon; start one with: AVAHI_CI_DIR="
                                 << CORVANE_AVAHI_DIR << " " << CORVANE_AVAHI_SCRIPT << " start";
    bridge_ = std::make_unique<BonjourBridge>(client_.engine());
  }
  void TearDown() override { bridge_.reset(); }

  ValueList List() {
    MethodReply reply = client_.Call("list");
    return reply.value.list_if() ? *reply.value.list_if() : ValueList();
  }
  // Polls "list" until `name` is in it (or, with `present` false, is not).
  bool WaitListed(const std::string& name, bool present = true) {
    for (int i = 0; i < 200; ++i) {
      if (Lists(List(), name) == present) return true;
      dispatch::RunMainUntil([] { return false; }, 100ms);
    }
    return false;
  }

  BridgeClient client_;
  std::unique_ptr<BonjourBridge> bridge_;
};

TEST_F(AvahiTest, AStationIsFoundResolvedAndLostWhenItsPublisherStops) {
  const std::string name = Unique("Z21 found");
  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  ASSERT_EQ(client_.Call("start", Types({Value("_z21._udp.")})).value, Value(true));
  Child publisher(PublishCommand(name, "_z21._udp", 21105));

  ASSERT_TRUE(client_.WaitFor("found", name));
  Event found = client_.EventsAbout("found", name).front();
  EXPECT_EQ(found.service_type, "_z21._udp.");
  EXPECT_EQ(found.host, "127.0.0.1");
  EXPECT_EQ(found.port, 21105);
  EXPECT_EQ(found.addresses, std::vector<std::string>{"127.0.0.1"});
  EXPECT_TRUE(Lists(List(), name));

  publisher.Stop();
  ASSERT_TRUE(client_.WaitFor("lost", name));
  Event lost = client_.EventsAbout("lost", name).front();
  EXPECT_EQ(lost.host, "127.0.0.1");
  EXPECT_EQ(lost.port, 21105);
  EXPECT_FALSE(Lists(List(), name));
}

TEST_F(AvahiTest, StartTwiceBrowsesOnceAndStopForgetsWithoutALaterLost) {
  const std::string name = Unique("Z21 twice");
  const std::string marker = Unique("marker");
  Child publisher(PublishCommand(name, "_z21._udp", 21105));
  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  ASSERT_EQ(client_.Call("start", Types({Value("_z21._udp.")})).value, Value(true));
  ASSERT_EQ(client_.Call("start", Types({Value("_z21._udp")})).value, Value(true));
  ASSERT_TRUE(client_.WaitFor("found", name));

  EXPECT_EQ(client_.Call("stop").value, Value(true));
  EXPECT_TRUE(List().empty());

  // Only the marker's type is browsed now. The daemon reports removals in the order they
  // happen, so once the marker is lost the station's removal has been seen, and not reported.
  ASSERT_EQ(client_.Call("start", Types({Value("_corvane._udp.")})).value, Value(true));
  Child marker_publisher(PublishCommand(marker, "_corvane._udp", 4711));
  ASSERT_TRUE(client_.WaitFor("found", marker));
  publisher.Stop();
  marker_publisher.Stop();
  ASSERT_TRUE(client_.WaitFor("lost", marker));
  EXPECT_TRUE(client_.EventsAbout("lost", name).empty());
  EXPECT_EQ(client_.EventsAbout("found", name).size(), 1u);
}

TEST_F(AvahiTest, AListenerAttachingAfterTwoServicesWereFoundGetsTwoFound) {
  const std::string a = Unique("Z21 A"), b = Unique("Z21 B");
  Child publish_a(PublishCommand(a, "_z21._udp", 21105));
  Child publish_b(PublishCommand(b, "_z21._udp", 21106));
  ASSERT_EQ(client_.Call("start").value, Value(true));
  ASSERT_TRUE(WaitListed(a));
  ASSERT_TRUE(WaitListed(b));
  EXPECT_TRUE(client_.Events().empty());

  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  List();  // the replay is posted before this reply
  EXPECT_EQ(client_.EventsAbout("found", a).size(), 1u);
  EXPECT_EQ(client_.EventsAbout("found", b).size(), 1u);
  EXPECT_EQ(client_.EventsAbout("found", b).front().port, 21106);
}

TEST_F(AvahiTest, MalformedTypesBrowseTheDefaultTypes) {
  const std::string http = Unique("web"), dccex = Unique("dcc-ex");
  Child publish_http(PublishCommand(http, "_http._tcp", 8080));
  Child publish_dccex(PublishCommand(dccex, "_dccex._tcp", 2560));
  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  ValueMap args;
  args.Set("types", Value(int32_t{5}));
  ASSERT_EQ(client_.Call("start", Value(std::move(args))).value, Value(true));
  ASSERT_TRUE(client_.WaitFor("found", http));
  ASSERT_TRUE(client_.WaitFor("found", dccex));
  EXPECT_EQ(client_.EventsAbout("found", http).front().service_type, "_http._tcp.");
  EXPECT_EQ(client_.EventsAbout("found", dccex).front().port, 2560);
}

TEST(AvahiAbsentTest, WithNoBusReachableEveryCallIsStillAnswered) {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/corvane/system_bus_socket", 1);
  BridgeClient client;
  BonjourBridge bridge(client.engine());
  EXPECT_EQ(client.Listen().kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(client.Call("start").value, Value(true));
  EXPECT_EQ(client.Call("start", Types({Value("_z21._udp."), Value("bogus")})).value, Value(true));
  EXPECT_EQ(client.Call("list").value, Value(ValueList{}));
  EXPECT_EQ(client.Call("frobnicate").kind, MethodReply::Kind::kNotImplemented);
  EXPECT_EQ(client.Call("stop").value, Value(true));
  EXPECT_EQ(client.Cancel().kind, MethodReply::Kind::kSuccess);
  EXPECT_TRUE(client.Events().empty());
}

// Its own daemon pair, because taking the shared one away would disturb the other tests.
class AvahiRestartTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(RunDaemonScript(CORVANE_AVAHI_SCRIPT, dir_, "start"));
    setenv("DBUS_SYSTEM_BUS_ADDRESS", BusAddress(dir_).c_str(), 1);
  }
  void TearDown() override {
    RunDaemonScript(CORVANE_AVAHI_SCRIPT, dir_, "stop");
    std::filesystem::remove_all(dir_);
  }

  const std::string dir_ = "/tmp/corvane-avahi-restart-" + std::to_string(getpid());
};

TEST_F(AvahiRestartTest, ServicesAreFoundAgainAfterTheDaemonOrTheBusComesBack) {
  const std::string name = Unique("Z21 restart");
  BridgeClient client;
  BonjourBridge bridge(client.engine());
  ASSERT_EQ(client.Listen().kind, MethodReply::Kind::kSuccess);
  ASSERT_EQ(client.Call("start", Types({Value("_z21._udp.")})).value, Value(true));
  auto publisher = std::make_unique<Child>(PublishCommand(name, "_z21._udp", 21105));
  ASSERT_TRUE(client.WaitFor("found", name, 1));

  // avahi-daemon alone goes away and comes back on the same bus.
  ASSERT_TRUE(RunDaemonScript(CORVANE_AVAHI_SCRIPT, dir_, "stop-avahi"));
  ASSERT_TRUE(client.WaitFor("lost", name, 1));
  EXPECT_EQ(client.Call("list").value, Value(ValueList{}));
  ASSERT_TRUE(RunDaemonScript(CORVANE_AVAHI_SCRIPT, dir_, "start"));
  publisher = std::make_unique<Child>(PublishCommand(name, "_z21._udp", 21105));
  ASSERT_TRUE(client.WaitFor("found", name, 2));

  // The bus goes too: the client fails and is made again.
  ASSERT_TRUE(RunDaemonScript(CORVANE_AVAHI_SCRIPT, dir_, "stop"));
  ASSERT_TRUE(client.WaitFor("lost", name, 2));
  ASSERT_TRUE(RunDaemonScript(CORVANE_AVAHI_SCRIPT, dir_, "start"));
  publisher = std::make_unique<Child>(PublishCommand(name, "_z21._udp", 21105));
  ASSERT_TRUE(client.WaitFor("found", name, 3));
  const MethodReply reply = client.Call("list");
  const ValueList* listed = reply.value.list_if();
  ASSERT_NE(listed, nullptr);
  EXPECT_EQ(listed->size(), 1u);
}

}  // namespace
}  // namespace corvane::discovery::testing
