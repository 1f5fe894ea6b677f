// The real corvane-host binary, started as a person or a script would start it. The socket
// folder's own checks are the engine's tests.
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "host/registration_table.h"
#include "host/support.h"
#include "support/wire_client.h"

namespace corvane::host {
namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;
using testing::Outcome;

class HostBinaryTest : public ::testing::Test {
 protected:
  // No display and no session bus (a windowed host serving its socket, and the hand-over to it,
  // are the documents tests'). XDG_RUNTIME_DIR points into the test's folder.
  GSubprocess* Spawn(Args args, GSubprocessFlags flags) {
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(flags);
    g_subprocess_launcher_unsetenv(launcher, "DISPLAY");
    g_subprocess_launcher_unsetenv(launcher, "WAYLAND_DISPLAY");
    const std::string no_bus = "unix:path=" + dir_ / "no-bus";
    g_subprocess_launcher_setenv(launcher, "DBUS_SESSION_BUS_ADDRESS", no_bus.c_str(), TRUE);
    g_subprocess_launcher_setenv(launcher, "XDG_RUNTIME_DIR", dir_.path().c_str(), TRUE);
    args.insert(args.begin(), CORVANE_HOST_BINARY);
    return testing::Spawn(launcher, args);
  }
  Outcome RunToEnd(Args args) {
    return testing::Finish(Spawn(std::move(args), testing::kAllPipes));
  }

  testing::TempDir dir_;
};

TEST_F(HostBinaryTest, ServesAPrivateSocketUntilStoppedAndHasItToItself) {
  const std::string folder = dir_ / "run";
  // Without --headless and without a display: the default path, still served.
  for (const auto& c : {std::tuple{Args{"--headless", "--engine-socket", folder + "/engine.sock"},
                                   folder + "/engine.sock", SIGTERM},
                        std::tuple{Args{}, dir_ / "corvane/engine.sock", SIGINT}}) {
    const auto& [args, socket, stop] = c;
    GSubprocess* host = Spawn(args, G_SUBPROCESS_FLAGS_STDOUT_PIPE);
    ASSERT_NE(host, nullptr);
    EXPECT_EQ(testing::FirstLine(host), "engine socket: " + socket);

    // It answers: a channel no service opened gets the empty (not-implemented) reply.
    testing::WireClient client;
    ASSERT_TRUE(client.Connect(socket));
    ASSERT_TRUE(client.SendCall(7, "corvane/no_such_channel", "takePending"));
    EXPECT_EQ(client.WaitReply(7, 10000), std::optional<engine::Bytes>(engine::Bytes{}));

    // A second host refuses to start and leaves the socket alone.
    EXPECT_EQ(RunToEnd(args).code, 1);
    EXPECT_TRUE(fs::is_socket(socket)) << "the second host must not take the socket away";

    g_subprocess_send_signal(host, stop);
    EXPECT_EQ(testing::Finish(host).code, 0);
    EXPECT_FALSE(fs::exists(socket)) << "socket left behind";
  }
}

// A start that does not serve exits at once, touching nothing: 0 after printing the registrations
// (standard plug-ins, not linked in this build, and services, in table order), 2 for a bad command
// line or information file, 1 for a socket path that holds something else.
TEST_F(HostBinaryTest, StartsThatDoNotServeExitAtOnceAndTouchNothing) {
  std::string registrations;
  for (const StartupRow& row : StartupTable()) {
    std::string channels;
    for (const std::string& c : row.channels) channels += (channels.empty() ? "" : ",") + c;
    const bool plugin = row.kind == StartupRow::Kind::kStandardPlugin;
    if (!plugin && !row.factory) continue;
    registrations += row.registrar + "\t" + row.registrar + "\t" +
                     (plugin ? "-\tnot linked\n" : channels + "\tregistered\n");
  }
  const std::string notes = dir_ / "notes.txt";
  g_file_set_contents(notes.c_str(), "mine", -1, nullptr);
  const std::tuple<Args, int, std::string, std::string> cases[] = {
      // code, out, part of err
      {{"--print-registrations"}, 0, registrations, ""},
      {{"--info", dir_ / "missing.conf"}, 2, "", "missing.conf"},
      {{"--info"}, 2, "", "--info"},
      {{"--no-such-option"}, 2, "", "--no-such-option"},
      {{"--engine-socket="}, 2, "", "corvane-host: "},
      {{"--headless", "--engine-socket", notes}, 1, "", notes + " exists and is not a socket"}};
  for (const auto& [args, code, out, err] : cases) {
    Outcome outcome = RunToEnd(args);
    EXPECT_EQ(outcome.code, code) << args.back();
    EXPECT_EQ(outcome.out, out) << args.back();
    EXPECT_NE(outcome.err.find(err), std::string::npos) << outcome.err;
  }
  EXPECT_TRUE(fs::is_regular_file(notes));  // and its content stays: the engine's tests
  EXPECT_FALSE(fs::exists(dir_ / "corvane")) << "the default socket folder was created";
}

}  // namespace
}  // namespace corvane::host
