// A Flutter app built with the runner's CMake file on the double: its plug-ins registered once
// each, in start-up order, after the view is realized; headless it serves the socket only when
// asked (--engine-socket or CORVANE_ENGINE_SOCKET) and otherwise says why it cannot run.
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "host/support.h"
#include "support/wire_client.h"

namespace corvane::flutter {
namespace {

class FlutterRunnerTest : public ::testing::Test {
 protected:
  // Standard error is piped only for runs that end by themselves: a sanitizer's reports could
  // fill an unread pipe and stall the runner.
  GSubprocess* Start(std::vector<std::string> args, const char* socket_variable,
                     const std::string& display = "",
                     GSubprocessFlags flags = G_SUBPROCESS_FLAGS_STDOUT_PIPE) {
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(flags);
    g_subprocess_launcher_setenv(launcher, "DISPLAY", display.c_str(), TRUE);
    g_subprocess_launcher_setenv(launcher, "G_MESSAGES_DEBUG", "corvane-host", TRUE);
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

  const auto quiet = testing::Finish(Start({"--headless"}, nullptr, "", testing::kAllPipes));
  EXPECT_NE(quiet.code, 0);
  EXPECT_NE(quiet.err.find("runs no Dart headless"), std::string::npos) << quiet.err;
  EXPECT_FALSE(g_file_test((dir_ / "corvane/engine.sock").c_str(), G_FILE_TEST_EXISTS));
}

TEST_F(FlutterRunnerTest, RegistersEveryPluginOnceInOrderAfterTheViewIsRealized) {
  testing::XvfbServer xvfb;
  ASSERT_TRUE(xvfb.ok());
  GSubprocess* app = Start({}, nullptr, xvfb.display());
  ASSERT_NE(app, nullptr);
  // Each plug-in prints its package, then 1/0 for: view realized, the host's first own channel
  // answering, its last one answering. The last line is desktop_multi_window's second window.
  const std::vector<std::string> expected = {"desktop_multi_window 110", "url_launcher_linux 110",
                                             "window_manager 110",       "alpha_extra 111",
                                             "zeta_extra 111",           "window_manager 100"};
  // GLib writes the host's log lines (one per plug-in: the sixteen, the two others, the second
  // window's two) to standard output too.
  GDataInputStream* out = g_data_input_stream_new(g_subprocess_get_stdout_pipe(app));
  g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(out), FALSE);
  std::vector<std::string> lines;
  int logged = 0;
  bool in_app_review = false;
  while (lines.size() < expected.size() || logged < 20) {
    gchar* line = g_data_input_stream_read_line(out, nullptr, nullptr, nullptr);
    if (!line) break;
    const std::string text = line;
    g_free(line);
    if (text.find("plug-in ") == std::string::npos) {
      lines.push_back(text);
    } else {
      ++logged;
      in_app_review |= text.find("InAppReviewPlugin (in_app_review): not part of") != text.npos;
    }
  }
  g_object_unref(out);
  EXPECT_EQ(lines, expected);
  EXPECT_EQ(logged, 20);
  EXPECT_TRUE(in_app_review);
  g_subprocess_send_signal(app, SIGTERM);
  const auto outcome = testing::Finish(app);
  EXPECT_EQ(outcome.out.find(" 1"), std::string::npos) << "registered again: " << outcome.out;
}

}  // namespace
}  // namespace corvane::flutter
