// The real corvane-host binary, started as a person or a script would start it.
#include <gio/gio.h>
#include <glib/gstdio.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/wire_client.h"

namespace {

struct Outcome {
  int status = -1;  // exit status; -1 when killed by a signal
  std::string out;
  std::string err;
};

class HostBinaryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gchar* dir = g_dir_make_tmp("corvane-host-XXXXXX", nullptr);
    ASSERT_NE(dir, nullptr);
    dir_ = dir;
    g_free(dir);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // No display: the host must not depend on one here. XDG_RUNTIME_DIR points into the test's
  // folder so a default socket path never meets a real host.
  GSubprocess* Spawn(std::vector<std::string> args, GSubprocessFlags flags) {
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(flags);
    g_subprocess_launcher_unsetenv(launcher, "DISPLAY");
    g_subprocess_launcher_unsetenv(launcher, "WAYLAND_DISPLAY");
    g_subprocess_launcher_setenv(launcher, "XDG_RUNTIME_DIR", dir_.c_str(), TRUE);
    args.insert(args.begin(), CORVANE_HOST_BINARY);
    std::vector<const char*> argv;
    for (const auto& a : args) argv.push_back(a.c_str());
    argv.push_back(nullptr);
    GError* error = nullptr;
    GSubprocess* process = g_subprocess_launcher_spawnv(launcher, argv.data(), &error);
    g_object_unref(launcher);
    EXPECT_NE(process, nullptr) << (error ? error->message : "");
    if (error) g_error_free(error);
    return process;
  }

  Outcome RunToEnd(std::vector<std::string> args) {
    GSubprocess* process =
        Spawn(std::move(args), static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE |
                                                             G_SUBPROCESS_FLAGS_STDERR_PIPE));
    Outcome outcome;
    if (!process) return outcome;
    gchar* out = nullptr;
    gchar* err = nullptr;
    EXPECT_TRUE(g_subprocess_communicate_utf8(process, nullptr, nullptr, &out, &err, nullptr));
    outcome.out = out ? out : "";
    outcome.err = err ? err : "";
    g_free(out);
    g_free(err);
    outcome.status =
        g_subprocess_get_if_exited(process) ? g_subprocess_get_exit_status(process) : -1;
    g_object_unref(process);
    return outcome;
  }

  // A host that keeps running; returns the first line it prints ("engine socket: PATH").
  GSubprocess* StartHost(std::vector<std::string> args, std::string* first_line) {
    GSubprocess* process = Spawn(std::move(args), G_SUBPROCESS_FLAGS_STDOUT_PIPE);
    if (!process) return nullptr;
    stdout_ = g_data_input_stream_new(g_subprocess_get_stdout_pipe(process));
    gchar* line = g_data_input_stream_read_line_utf8(stdout_, nullptr, nullptr, nullptr);
    *first_line = line ? line : "";
    g_free(line);
    return process;
  }

  static int StopWith(GSubprocess* process, int signal) {
    g_subprocess_send_signal(process, signal);
    EXPECT_TRUE(g_subprocess_wait(process, nullptr, nullptr));
    const int status =
        g_subprocess_get_if_exited(process) ? g_subprocess_get_exit_status(process) : -1;
    g_object_unref(process);
    return status;
  }

  static mode_t ModeOf(const std::string& path) {
    GStatBuf st;
    if (g_stat(path.c_str(), &st) != 0) return 0;
    return st.st_mode;
  }

  std::string dir_;
  GDataInputStream* stdout_ = nullptr;
};

TEST_F(HostBinaryTest, PrintsRegistrationsInOrderWithoutOpeningASocket) {
  Outcome outcome = RunToEnd({"--print-registrations"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  std::string expected;
  for (const char* name :
       {"AudioplayersDarwinPlugin", "FlutterMultiWindowPlugin", "DeviceInfoPlusMacosPlugin",
        "FilePickerPlugin", "FileSelectorPlugin", "FlutterLibserialportPlugin",
        "GamepadsDarwinPlugin", "InAppReviewPlugin", "FPPPackageInfoPlusPlugin",
        "PathProviderPlugin", "ScreenRetrieverMacosPlugin", "SharePlusMacosPlugin",
        "SharedPreferencesPlugin", "SwiftThermionFlutterPlugin", "UrlLauncherPlugin",
        "WindowManagerPlugin"}) {
    expected += std::string(name) + "\t" + name + "\t-\tnot linked\n";
  }
  EXPECT_EQ(outcome.out, expected);
  EXPECT_EQ(ModeOf(dir_ + "/corvane"), 0u) << "the default socket folder was created";
}

TEST_F(HostBinaryTest, HeadlessHostServesAPrivateSocketAndHasItToItself) {
  const std::string folder = dir_ + "/run";
  const std::string socket = folder + "/engine.sock";
  std::string line;
  GSubprocess* host = StartHost({"--headless", "--engine-socket", socket}, &line);
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(line, "engine socket: " + socket);

  const mode_t socket_mode = ModeOf(socket);
  EXPECT_TRUE(S_ISSOCK(socket_mode));
  EXPECT_EQ(socket_mode & 0777, 0600u);
  EXPECT_EQ(ModeOf(folder) & 0777, 0700u);

  // It answers: a channel no service opened gets the empty (not-implemented) reply.
  {
    corvane::testing::WireClient client;
    ASSERT_TRUE(client.Connect(socket));
    ASSERT_TRUE(client.SendCall(7, "io.corvane/open_projects", "takePending"));
    auto reply = client.WaitReply(7, 10000);
    ASSERT_TRUE(reply.has_value());
    EXPECT_TRUE(reply->empty());
  }

  Outcome second = RunToEnd({"--headless", "--engine-socket", socket});
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find(socket), std::string::npos) << second.err;
  EXPECT_EQ(second.out, "");
  EXPECT_TRUE(S_ISSOCK(ModeOf(socket))) << "the second host must not take the socket away";

  EXPECT_EQ(StopWith(host, SIGTERM), 0);
  EXPECT_EQ(ModeOf(socket), 0u) << "socket left behind";
  g_clear_object(&stdout_);
}

TEST_F(HostBinaryTest, WithoutADisplayTheDefaultSocketIsServedUntilSigint) {
  std::string line;
  GSubprocess* host = StartHost({}, &line);  // no --headless: there is no display
  ASSERT_NE(host, nullptr);
  const std::string socket = dir_ + "/corvane/engine.sock";
  EXPECT_EQ(line, "engine socket: " + socket);
  gchar* second = g_data_input_stream_read_line_utf8(stdout_, nullptr, nullptr, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(std::string(second).rfind("try: corvanectl --socket", 0), 0u) << second;
  g_free(second);
  EXPECT_TRUE(S_ISSOCK(ModeOf(socket)));

  EXPECT_EQ(StopWith(host, SIGINT), 0);
  EXPECT_EQ(ModeOf(socket), 0u);
  g_clear_object(&stdout_);
}

TEST_F(HostBinaryTest, BadCommandLinesAndInfoFilesExitWithTwo) {
  for (const auto& args : std::vector<std::vector<std::string>>{{"--info", dir_ + "/missing.conf"},
                                                                {"--info"},
                                                                {"--no-such-option"},
                                                                {"--engine-socket="}}) {
    Outcome outcome = RunToEnd(args);
    EXPECT_EQ(outcome.status, 2) << args.front();
    EXPECT_FALSE(outcome.err.empty()) << args.front();
    EXPECT_EQ(outcome.out, "") << args.front();
  }
  EXPECT_EQ(ModeOf(dir_ + "/corvane"), 0u);
}

}  // namespace
