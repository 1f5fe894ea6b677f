// The real corvane-host binary, started as a person or a script would start it.
#include <gio/gio.h>
#include <glib/gstdio.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "host/registration_table.h"
#include "host/support.h"
#include "support/wire_client.h"

namespace corvane::host {
namespace {

using Args = std::vector<std::string>;

using testing::Outcome;

mode_t ModeOf(const std::string& path) {
  GStatBuf st;
  return g_stat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

class HostBinaryTest : public ::testing::Test {
 protected:
  // No display unless a test starts one. XDG_RUNTIME_DIR points into the test's folder so a
  // default socket path never meets a real host.
  GSubprocess* Spawn(Args args, GSubprocessFlags flags) {
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(flags);
    if (display_.empty()) {
      g_subprocess_launcher_unsetenv(launcher, "DISPLAY");
    } else {
      g_subprocess_launcher_setenv(launcher, "DISPLAY", display_.c_str(), TRUE);
      g_subprocess_launcher_setenv(launcher, "NO_AT_BRIDGE", "1", TRUE);  // no a11y bus here
    }
    g_subprocess_launcher_unsetenv(launcher, "WAYLAND_DISPLAY");
    // No session bus either, so a second windowed launch cannot become a hand-over to the first.
    const std::string no_bus = "unix:path=" + dir_ / "no-bus";
    g_subprocess_launcher_setenv(launcher, "DBUS_SESSION_BUS_ADDRESS", no_bus.c_str(), TRUE);
    g_subprocess_launcher_setenv(launcher, "XDG_RUNTIME_DIR", dir_.path().c_str(), TRUE);
    args.insert(args.begin(), CORVANE_HOST_BINARY);
    return testing::Spawn(launcher, args);
  }

  Outcome RunToEnd(Args args) {
    return testing::Finish(Spawn(std::move(args), testing::kAllPipes));
  }

  // A host that keeps running; `first_line` gets the first line it prints.
  GSubprocess* StartHost(Args args, std::string* first_line) {
    GSubprocess* process = Spawn(std::move(args), G_SUBPROCESS_FLAGS_STDOUT_PIPE);
    if (!process) return nullptr;
    GDataInputStream* out = g_data_input_stream_new(g_subprocess_get_stdout_pipe(process));
    g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(out), FALSE);
    gchar* line = g_data_input_stream_read_line_utf8(out, nullptr, nullptr, nullptr);
    *first_line = line ? line : "";
    g_free(line);
    g_object_unref(out);
    return process;
  }

  static int StopWith(GSubprocess* process, int signal) {
    g_subprocess_send_signal(process, signal);
    return testing::Finish(process).code;
  }

  testing::TempDir dir_;
  std::string display_;
};

TEST_F(HostBinaryTest, PrintsRegistrationsInOrderWithoutOpeningASocket) {
  Outcome outcome = RunToEnd({"--print-registrations"});
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  // Every standard plug-in (not linked in this build) and every service this build makes, in
  // table order; the order itself is pinned by the registration test.
  std::string expected;
  for (const StartupRow& row : StartupTable()) {
    std::string channels;
    for (const std::string& c : row.channels) channels += (channels.empty() ? "" : ",") + c;
    if (row.kind == StartupRow::Kind::kStandardPlugin) {
      expected += row.registrar + "\t" + row.registrar + "\t-\tnot linked\n";
    } else if (row.factory) {
      expected += row.registrar + "\t" + row.registrar + "\t" + channels + "\tregistered\n";
    }
  }
  EXPECT_EQ(outcome.out, expected);
  EXPECT_EQ(ModeOf(dir_ / "corvane"), 0u) << "the default socket folder was created";
}

TEST_F(HostBinaryTest, ServesAPrivateSocketUntilStoppedAndHasItToItself) {
  testing::XvfbServer xvfb;
  ASSERT_TRUE(xvfb.ok()) << "Xvfb did not start";
  const std::string folder = dir_ / "run";
  const struct {
    Args args;
    std::string socket;
    int stop;
    std::string display = {};
  } cases[] = {
      {{"--headless", "--engine-socket", folder + "/engine.sock"},
       folder + "/engine.sock",
       SIGTERM},
      // Without --headless and without a display: the default path, still served.
      {{}, dir_ / "corvane/engine.sock", SIGINT},
      // With a display the socket is served from the GTK application with its window.
      {{"--engine-socket", dir_ / "engine.sock"}, dir_ / "engine.sock", SIGTERM, xvfb.display()},
  };
  for (const auto& c : cases) {
    display_ = c.display;
    std::string line;
    GSubprocess* host = StartHost(c.args, &line);
    ASSERT_NE(host, nullptr);
    EXPECT_EQ(line, "engine socket: " + c.socket);
    EXPECT_TRUE(S_ISSOCK(ModeOf(c.socket)));
    EXPECT_EQ(ModeOf(c.socket) & 0777, 0600u);
    EXPECT_EQ(ModeOf(c.socket.substr(0, c.socket.rfind('/'))) & 0777, 0700u);

    // It answers: a channel no service opened gets the empty (not-implemented) reply.
    {
      testing::WireClient client;
      ASSERT_TRUE(client.Connect(c.socket));
      ASSERT_TRUE(client.SendCall(7, "corvane/no_such_channel", "takePending"));
      auto reply = client.WaitReply(7, 10000);
      ASSERT_TRUE(reply.has_value());
      EXPECT_TRUE(reply->empty());
    }

    Outcome second = RunToEnd(c.args);
    EXPECT_EQ(second.code, 1);
    EXPECT_NE(second.err.find("another host is already serving " + c.socket), std::string::npos)
        << second.err;
    EXPECT_EQ(second.out, "");
    EXPECT_TRUE(S_ISSOCK(ModeOf(c.socket))) << "the second host must not take the socket away";

    EXPECT_EQ(StopWith(host, c.stop), 0);
    EXPECT_EQ(ModeOf(c.socket), 0u) << "socket left behind";
  }
}

// Without XDG_RUNTIME_DIR the socket folder is /tmp/corvane-UID, a name anyone can take first.
// Each case runs in a private mount namespace with its own /tmp, so no real /tmp is touched.
TEST_F(HostBinaryTest, AFallbackFolderThatIsNotPrivatelyOursIsRefused) {
  gchar* unshare = g_find_program_in_path("unshare");
  const bool can_unshare = unshare != nullptr;
  g_free(unshare);
  if (geteuid() != 0 || !can_unshare) GTEST_SKIP() << "needs root and unshare";
  if (RunToEnd({"--print-registrations"}).code != 0) GTEST_SKIP() << "host does not run";
  const std::string folder = "/tmp/corvane-" + std::to_string(geteuid());
  const struct {
    std::string setup;  // shell, run in the private /tmp before the host starts
    std::string complaint;
  } cases[] = {
      {"mkdir -m 0700 " + folder + " && chown 65534:65534 " + folder, "it belongs to uid 65534"},
      {"mkdir -m 0700 " + folder + " && chmod 0777 " + folder, "its mode is 0777, not 0700"},
      {"mkdir -m 0700 /tmp/elsewhere && ln -s /tmp/elsewhere " + folder, "it is a symbolic link"},
  };
  for (const auto& c : cases) {
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(testing::kAllPipes);
    g_subprocess_launcher_unsetenv(launcher, "XDG_RUNTIME_DIR");
    g_subprocess_launcher_unsetenv(launcher, "DISPLAY");
    // The binary is opened before the private /tmp hides it (the build may live under /tmp).
    const std::string script = std::string("exec 3<'") + CORVANE_HOST_BINARY +
                               "' && mount -t tmpfs tmpfs /tmp && " + c.setup +
                               " && exec /proc/self/fd/3 --headless";
    Outcome outcome = testing::Finish(testing::Spawn(
        launcher, {"unshare", "-m", "--propagation", "private", "sh", "-c", script}));
    EXPECT_EQ(outcome.code, 1) << c.setup << ": " << outcome.err;
    EXPECT_NE(outcome.err.find("refusing the socket folder " + folder + ": " + c.complaint),
              std::string::npos)
        << outcome.err;
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }
}

// A start that cannot serve exits at once with a reason on standard error: 2 for a bad command
// line or information file, 1 for a socket path that holds something else, which stays as it was.
TEST_F(HostBinaryTest, RefusedStartsExitWithAReasonAndTouchNothing) {
  const std::string notes = dir_ / "notes.txt";
  g_file_set_contents(notes.c_str(), "mine", -1, nullptr);
  const std::pair<Args, int> cases[] = {{{"--info", dir_ / "missing.conf"}, 2},
                                        {{"--info"}, 2},
                                        {{"--no-such-option"}, 2},
                                        {{"--engine-socket="}, 2},
                                        {{"--headless", "--engine-socket", notes}, 1}};
  for (const auto& [args, code] : cases) {
    Outcome outcome = RunToEnd(args);
    EXPECT_EQ(outcome.code, code) << args.back();
    EXPECT_FALSE(outcome.err.empty()) << args.back();
    EXPECT_EQ(outcome.out, "") << args.back();
  }
  EXPECT_NE(RunToEnd(cases[4].first).err.find(notes + " exists and is not a socket"),
            std::string::npos);
  gchar* kept = nullptr;
  ASSERT_TRUE(g_file_get_contents(notes.c_str(), &kept, nullptr, nullptr));
  EXPECT_STREQ(kept, "mine");
  g_free(kept);
  EXPECT_EQ(ModeOf(dir_ / "corvane"), 0u);
}

}  // namespace
}  // namespace corvane::host
