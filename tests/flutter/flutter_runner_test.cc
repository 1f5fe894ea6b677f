// A Flutter app built with the runner's CMake file on the double: its plug-ins registered once
// each, in start-up order, after the view is realized; headless it serves the socket only when
// asked (--engine-socket or CORVANE_ENGINE_SOCKET) and otherwise says why it cannot run.
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <sstream>

#include "host/support.h"
#include "support/wire_client.h"

namespace corvane::flutter {
namespace {

class FlutterRunnerTest : public ::testing::Test {
 protected:
  // Standard error is piped only for runs that end by themselves: a sanitizer's reports could
  // fill an unread pipe and stall the runner. Empty variables are unset.
  GSubprocess* Start(std::vector<std::string> args, const std::string& socket_variable,
                     const std::string& display = "",
                     GSubprocessFlags flags = G_SUBPROCESS_FLAGS_STDOUT_PIPE) {
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(flags);
    for (const auto& [name, value] : std::vector<std::pair<const char*, std::string>>{
             {"DISPLAY", display},
             {"G_MESSAGES_DEBUG", "corvane-host"},
             {"WAYLAND_DISPLAY", ""},
             {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + dir_ / "no-bus"},
             {"XDG_RUNTIME_DIR", dir_.path()},
             {"CORVANE_ENGINE_SOCKET", socket_variable}}) {
      g_subprocess_launcher_setenv(launcher, name, value.c_str(), TRUE);
      if (value.empty()) g_subprocess_launcher_unsetenv(launcher, name);
    }
    args.insert(args.begin(), CORVANE_FLUTTER_RUNNER);
    return testing::Spawn(launcher, args);
  }
  testing::TempDir dir_;
};

TEST_F(FlutterRunnerTest, ServesTheSocketOnlyWhenAskedTo) {
  for (const bool by_variable : {false, true}) {
    const std::string socket = dir_ / (by_variable ? "variable.sock" : "option.sock");
    GSubprocess* runner = by_variable ? Start({"--headless"}, socket)
                                      : Start({"--headless", "--engine-socket", socket}, "");
    testing::WireClient client;
    for (int i = 0; i < 200 && !client.Connect(socket); ++i) g_usleep(25'000);
    ASSERT_TRUE(client.SendCall(1, "corvane/udp", "capabilities")) << socket;
    auto reply = client.WaitReply(1, 5000);
    ASSERT_TRUE(reply);
    EXPECT_EQ(channel::DecodeEnvelope(*reply).value.value().kind,
              channel::MethodReply::Kind::kSuccess);
    g_subprocess_send_signal(runner, SIGTERM);
    EXPECT_EQ(testing::Finish(runner).code, 0);
  }
  const auto quiet = testing::Finish(Start({"--headless"}, "", "", testing::kAllPipes));
  EXPECT_NE(quiet.code, 0);
  EXPECT_NE(quiet.err.find("runs no Dart headless"), std::string::npos) << quiet.err;
  EXPECT_FALSE(g_file_test((dir_ / "corvane/engine.sock").c_str(), G_FILE_TEST_EXISTS));
}

TEST_F(FlutterRunnerTest, RegistersEveryPluginOnceInOrderAfterTheViewIsRealized) {
  testing::XvfbServer xvfb;
  ASSERT_TRUE(xvfb.ok());
  // Each plug-in prints its package, then 1/0 for: view realized, the host's first own channel
  // answering, its last one answering. The last line is desktop_multi_window's second window,
  // which ends the run. The host logs a line per plug-in too: the sixteen, the two others, the
  // second window's two.
  std::istringstream out(testing::Finish(Start({}, "", xvfb.display())).out);
  std::vector<std::string> lines, logged;
  for (std::string line; std::getline(out, line);) {
    (line.find("plug-in ") != line.npos ? logged : lines).push_back(line);
  }
  EXPECT_EQ(lines, (std::vector<std::string>{"desktop_multi_window 110", "url_launcher_linux 110",
                                             "window_manager 110", "alpha_extra 111",
                                             "zeta_extra 111", "window_manager 100"}));
  EXPECT_EQ(logged.size(), 20u);
  EXPECT_EQ(std::count_if(logged.begin(), logged.end(),
                          [](const std::string& l) {
                            return l.find("InAppReviewPlugin (in_app_review): not part of") !=
                                   l.npos;
                          }),
            1);
}

}  // namespace
}  // namespace corvane::flutter
