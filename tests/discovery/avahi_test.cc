// BonjourBridge with its Avahi backend against a real avahi-daemon on a private bus, which the
// test fixture starts (scripts/avahi-test-daemon.sh). Services are published with avahi-publish.
// Other test processes share the daemon, so every assertion is about this test's own names.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

#include "discovery/avahi_daemon.h"
#include "discovery/bonjour_bridge.h"
#include "discovery/bridge_client.h"

namespace corvane::discovery::testing {
namespace {

std::string Unique(const std::string& base) { return base + " " + std::to_string(getpid()); }

// A listening bridge on the daemon pair kept in `dir_`.
class AvahiTest : public ::testing::Test {
 protected:
  explicit AvahiTest(std::string dir = CORVANE_AVAHI_DIR) : dir_(std::move(dir)) {}
  void SetUp() override {
    ASSERT_TRUE(Script(dir_ == CORVANE_AVAHI_DIR ? "status" : "start"))
        << "no avahi-daemon; start one with: AVAHI_CI_DIR=" << dir_ << " " << CORVANE_AVAHI_SCRIPT
        << " start";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", BusAddress(dir_).c_str(), 1);
    bridge_.emplace(client_.engine());
    ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  }
  bool Script(const char* command) { return RunDaemonScript(CORVANE_AVAHI_SCRIPT, dir_, command); }

  const std::string dir_;
  BridgeClient client_;
  std::optional<BonjourBridge> bridge_;
};

TEST_F(AvahiTest, FoundResolvedLostReplayedToALateListenerAndForgottenOnStop) {
  const std::string z21 = Unique("Z21"), web = Unique("web"), marker = Unique("marker");
  Child publish_z21(PublishCommand(z21, "_z21._udp", 21105));
  Child publish_web(PublishCommand(web, "_http._tcp", 8080));
  // "types" not a list: the seven defaults. Starting a type again browses it no second time.
  ASSERT_EQ(client_.Call("start", TypesArg(Value(int32_t{5}))).value, Value(true));
  ASSERT_EQ(client_.Call("start", Types({"_z21._udp."})).value, Value(true));
  ASSERT_TRUE(client_.WaitFor("found", z21));
  ASSERT_TRUE(client_.WaitFor("found", web));
  EXPECT_EQ(client_.Events(web).front(),
            (Event{"found", web, "_http._tcp.", "127.0.0.1", 8080, {"127.0.0.1"}}));

  publish_web.Stop();
  ASSERT_TRUE(client_.WaitFor("lost", web));

  // A listener attaching now gets each present service once.
  ASSERT_EQ(client_.Cancel().kind, MethodReply::Kind::kSuccess);
  ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  client_.List();  // the replay is posted before this reply
  EXPECT_EQ(client_.Count("found", z21), 2u);
  EXPECT_EQ(client_.Count("found", web), 1u);

  EXPECT_EQ(client_.Call("stop").value, Value(true));
  EXPECT_TRUE(client_.List().empty());
  // Only the marker's type is browsed now. The daemon reports removals in the order they
  // happen, so once the marker is lost the station's removal has been seen, and not reported.
  ASSERT_EQ(client_.Call("start", Types({"_corvane._udp."})).value, Value(true));
  Child publish_marker(PublishCommand(marker, "_corvane._udp", 4711));
  ASSERT_TRUE(client_.WaitFor("found", marker));
  publish_z21.Stop();
  publish_marker.Stop();
  ASSERT_TRUE(client_.WaitFor("lost", marker));
  EXPECT_EQ(client_.Events(z21).size(), 2u);  // the two "found"s above only
}

TEST(AvahiAbsentTest, WithNoBusReachableEveryCallIsStillAnswered) {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/corvane/system_bus_socket", 1);
  BridgeClient client;
  BonjourBridge bridge(client.engine());
  EXPECT_EQ(client.Listen().kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(client.Call("start").value, Value(true));
  EXPECT_EQ(client.Call("start", Types({"_z21._udp.", "bogus"})).value, Value(true));
  EXPECT_TRUE(client.List().empty());
  EXPECT_EQ(client.Call("frobnicate").kind, MethodReply::Kind::kNotImplemented);
  EXPECT_EQ(client.Call("stop").value, Value(true));
  EXPECT_EQ(client.Cancel().kind, MethodReply::Kind::kSuccess);
  EXPECT_TRUE(client.Events().empty());
}

// A daemon pair of its own, for what would disturb the other tests on the shared one.
class PrivateAvahiTest : public AvahiTest {
 protected:
  explicit PrivateAvahiTest(const std::string& kind)
      : AvahiTest("/tmp/corvane-avahi-" + kind + "-" + std::to_string(getpid())) {}
  void TearDown() override {
    Script("stop");
    unsetenv("AVAHI_CI_TWO_LINKS");
    std::filesystem::remove_all(dir_);
  }
};

class AvahiRestartTest : public PrivateAvahiTest {
 protected:
  AvahiRestartTest() : PrivateAvahiTest("restart") {}
};

TEST_F(AvahiRestartTest, ServicesAreFoundAgainAfterTheDaemonOrTheBusComesBack) {
  const std::string name = Unique("Z21 restart");
  ASSERT_EQ(client_.Call("start", Types({"_z21._udp."})).value, Value(true));
  auto publisher = std::make_unique<Child>(PublishCommand(name, "_z21._udp", 21105));
  ASSERT_TRUE(client_.WaitFor("found", name, 1));

  // avahi-daemon alone goes away and comes back on the same bus; then the bus goes too, and the
  // client fails and is made again.
  for (const char* stop : {"stop-avahi", "stop"}) {
    const size_t round = client_.Count("lost", name) + 1;
    ASSERT_TRUE(Script(stop));
    ASSERT_TRUE(client_.WaitFor("lost", name, round)) << stop;
    EXPECT_TRUE(client_.List().empty());
    ASSERT_TRUE(Script("start"));
    publisher = std::make_unique<Child>(PublishCommand(name, "_z21._udp", 21105));
    ASSERT_TRUE(client_.WaitFor("found", name, round + 1)) << stop;
  }
  EXPECT_EQ(client_.List().size(), 1u);
}

// Its own daemon pair in a namespace with a second and third link and IPv6, so that every
// instance is seen on several interfaces and over both protocols.
class AvahiTwoLinksTest : public PrivateAvahiTest {
 protected:
  AvahiTwoLinksTest() : PrivateAvahiTest("links") { setenv("AVAHI_CI_TWO_LINKS", "1", 1); }
};

TEST_F(AvahiTwoLinksTest, AnInstanceSeenManyTimesIsFoundOnceAtAnIPv4HostAndLostOnce) {
  const std::string name = Unique("Z21 links");
  ASSERT_EQ(client_.Call("start", Types({"_z21._udp."})).value, Value(true));
  auto publisher = std::make_unique<Child>(PublishCommand(name, "_z21._udp", 21105));
  ASSERT_TRUE(client_.WaitFor("found", name));
  // Every sighting has had time to resolve (the daemon answers its own records at once).
  client_.WaitFor("found", name, 2, std::chrono::seconds(3));
  const std::vector<Event> found = client_.Events(name);
  ASSERT_EQ(found.size(), 1u) << "one instance, one \"found\"";
  const Event& z21 = found.front();
  in_addr v4{};
  EXPECT_EQ(inet_pton(AF_INET, z21.host.c_str(), &v4), 1) << z21.host;
  EXPECT_EQ(z21.addresses, std::vector<std::string>{z21.host});

  publisher.reset();
  ASSERT_TRUE(client_.WaitFor("lost", name));
  client_.WaitFor("lost", name, 2, std::chrono::seconds(2));
  EXPECT_EQ(client_.Count("found", name), 1u);
  EXPECT_EQ(client_.Count("lost", name), 1u);
}

}  // namespace
}  // namespace corvane::discovery::testing
