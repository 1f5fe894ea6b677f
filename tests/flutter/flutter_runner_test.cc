// The Flutter build's runner as a program: without a socket asked for it serves none; with
// --engine-socket or CORVANE_ENGINE_SOCKET it serves the same services beside the engine.
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>

#include "host/support.h"
#include "support/wire_client.h"

namespace corvane::flutter {
namespace {

class FlutterRunnerTest : public ::testing::Test {
 protected:
  GSubprocess* Start(std::vector<std::string> args, const char* socket_variable) {
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE);
    g_subprocess_launcher_unsetenv(launcher, "DISPLAY");
    g_subprocess_launcher_unsetenv(launcher, "WAYLAND_DISPLAY");
    const std::string no_bus = "unix:path=" + dir_ / "no-bus";
    g_subprocess_launcher_setenv(launcher, "DBUS_SESSION_BUS_ADDRESS", no_bus.c_str(), TRUE);
    g_subprocess_launcher_setenv(launcher, "XDG_RUNTIME_DIR", dir_.path().c_str(), TRUE);
    if (socket_variable) {
      g_subprocess_launcher_setenv(launcher, "CORVANE_ENGINE_SOCKET", socket_variable, TRUE);
    } else {
      g_subprocess_launcher_unsetenv(launcher, "CORVANE_ENGINE_SOCKET");
    }
    args.insert(args.begin(), CORVANE_FLUTTER_RUNNER);
    return testing::Spawn(launcher, args);
  }

  // The runner answers a call every build answers on `socket`.
  static void ExpectServes(const std::string& socket) {
    testing::WireClient client;
    bool connected = false;
    for (int i = 0; i < 200 && !connected; ++i) {
      connected = client.Connect(socket);
      if (!connected) g_usleep(25'000);
    }
    ASSERT_TRUE(connected) << socket;
    ASSERT_TRUE(client.SendCall(1, "corvane/udp", "capabilities"));
    auto reply = client.WaitReply(1, 5000);
    ASSERT_TRUE(reply);
    auto decoded = channel::DecodeEnvelope(*reply);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded.value->kind, channel::MethodReply::Kind::kSuccess);
  }

  // Whether `pid` has its SIGTERM handler installed, waiting up to 10 s.
  static bool CatchesSigterm(const char* pid) {
    const std::string status = std::string("/proc/") + pid + "/status";
    for (int i = 0; i < 400; ++i) {
      gchar* text = nullptr;
      if (g_file_get_contents(status.c_str(), &text, nullptr, nullptr)) {
        const char* caught = strstr(text, "SigCgt:");
        const bool yes = caught && (g_ascii_strtoull(caught + 7, nullptr, 16) >> (SIGTERM - 1)) & 1;
        g_free(text);
        if (yes) return true;
      }
      g_usleep(25'000);
    }
    return false;
  }

  testing::TempDir dir_;
};

TEST_F(FlutterRunnerTest, ServesTheSocketOnlyWhenAskedTo) {
  for (const bool by_variable : {false, true}) {
    const std::string socket = dir_ / (by_variable ? "variable.sock" : "option.sock");
    GSubprocess* runner = by_variable ? Start({"--headless"}, socket.c_str())
                                      : Start({"--headless", "--engine-socket", socket}, nullptr);
    ASSERT_NE(runner, nullptr);
    ExpectServes(socket);
    g_subprocess_send_signal(runner, SIGTERM);
    EXPECT_EQ(testing::Finish(runner).code, 0);
  }

  GSubprocess* quiet = Start({"--headless"}, nullptr);
  ASSERT_NE(quiet, nullptr);
  // Up once it handles SIGTERM; a socket would be there by then.
  ASSERT_TRUE(CatchesSigterm(g_subprocess_get_identifier(quiet)));
  EXPECT_FALSE(g_file_test((dir_ / "corvane/engine.sock").c_str(), G_FILE_TEST_EXISTS));
  g_subprocess_send_signal(quiet, SIGTERM);
  EXPECT_EQ(testing::Finish(quiet).code, 0);
}

}  // namespace
}  // namespace corvane::flutter
