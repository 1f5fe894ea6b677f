// BonjourBridge with its Avahi backend against a real avahi-daemon on a private bus, which the
// test starts (scripts/avahi-test-daemon.sh) and owns; services are published with avahi-publish.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "discovery/bonjour_bridge.h"
#include "discovery/bridge_client.h"
#include "host/support.h"

namespace corvane::discovery::testing {
namespace {

// A listening bridge on a daemon pair of the test's own, kept in `dir_`.
class AvahiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Script("start"));
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + dir_ + "/system_bus_socket").c_str(), 1);
    bridge_.emplace(client_.engine());
    ASSERT_EQ(client_.Listen().kind, MethodReply::Kind::kSuccess);
  }
  void TearDown() override {
    Script("stop");
    std::filesystem::remove_all(dir_);
  }
  // The script's daemons outlive it; its watcher stops them once this process is gone.
  bool Script(const char* command) {
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_SILENCE);
    g_subprocess_launcher_setenv(launcher, "AVAHI_CI_DIR", dir_.c_str(), TRUE);
    g_subprocess_launcher_setenv(launcher, "AVAHI_CI_OWNER", std::to_string(getpid()).c_str(), 1);
    auto script = corvane::testing::Spawn(launcher, {CORVANE_AVAHI_SCRIPT, command});
    return corvane::testing::Finish(script).code == 0;
  }

  const std::string dir_ = "/tmp/corvane-avahi-" + std::to_string(getpid());
  const std::string name_ = "Z21 " + std::to_string(getpid());
  // avahi-publish, ready once it says (on standard error) that its name is established.
  auto Publish() {
    return std::make_unique<corvane::testing::ServerProcess>(std::vector<std::string>{
        "sh", "-c", "exec avahi-publish -s \"$0\" _z21._udp 4711 2>&1", name_});
  }
  BridgeClient client_;
  std::optional<BonjourBridge> bridge_;
};

TEST_F(AvahiTest, FoundAtTheNumericHostLostAndFoundAgainAfterTheDaemonOrTheBusComesBack) {
  ASSERT_EQ(client_.Call("start", Types({"_z21._udp."})).value, Value(true));
  auto publisher = Publish();
  ASSERT_TRUE(client_.WaitFor("found", name_));
  EXPECT_EQ(client_.Events(name_).front(),
            (Event{"found", name_, "_z21._udp.", "127.0.0.1", 4711, {"127.0.0.1"}}));
  publisher.reset();
  ASSERT_TRUE(client_.WaitFor("lost", name_));

  // avahi-daemon alone goes away and comes back on the same bus; then the bus goes too, and the
  // client fails and is made again.
  for (const char* stop : {"", "stop-avahi", "stop"}) {
    const size_t round = client_.Count("lost", name_) + (*stop ? 1 : 0);
    if (*stop) {
      ASSERT_TRUE(Script(stop));
      ASSERT_TRUE(client_.WaitFor("lost", name_, round)) << stop;
      // Calls are answered while the daemon or the bus is away; "bogus" is no type to browse.
      EXPECT_EQ(client_.Call("start", Types({"_z21._udp.", "bogus"})).value, Value(true));
      EXPECT_TRUE(client_.List().empty());
      ASSERT_TRUE(Script("start"));
    }
    publisher = Publish();
    ASSERT_TRUE(client_.WaitFor("found", name_, round + 1)) << stop;
  }
  EXPECT_EQ(client_.List().size(), 1u);
}

}  // namespace
}  // namespace corvane::discovery::testing
