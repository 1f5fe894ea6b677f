// The real corvane-host binary receiving documents from the command line and from a second
// launch, on a private session bus that the test starts itself.
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "channel/standard_codec.h"
#include "host/startup.h"
#include "host/support.h"
#include "support/wire_client.h"

namespace corvane::documents {
namespace {

using Args = std::vector<std::string>;
using Paths = std::vector<std::string>;
using testing::Outcome;

constexpr const char* kChannel = "io.corvane/open_projects";

class DocumentsHandOffTest : public ::testing::Test {
 protected:
  DocumentsHandOffTest() : bus_(g_test_dbus_new(G_TEST_DBUS_NONE)) { g_test_dbus_up(bus_); }
  ~DocumentsHandOffTest() override {
    g_test_dbus_down(bus_);
    g_object_unref(bus_);
  }

  // Runs in the test's folder, so relative documents and the default socket land there.
  GSubprocess* Spawn(Args args, GSubprocessFlags flags, const std::string& display = {}) {
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(flags);
    g_subprocess_launcher_set_cwd(launcher, dir_.path().c_str());
    g_subprocess_launcher_unsetenv(launcher, "DISPLAY");
    g_subprocess_launcher_unsetenv(launcher, "WAYLAND_DISPLAY");
    if (!display.empty()) {
      g_subprocess_launcher_setenv(launcher, "DISPLAY", display.c_str(), TRUE);
      g_subprocess_launcher_setenv(launcher, "NO_AT_BRIDGE", "1", TRUE);
    }
    g_subprocess_launcher_setenv(launcher, "DBUS_SESSION_BUS_ADDRESS",
                                 g_test_dbus_get_bus_address(bus_), TRUE);
    g_subprocess_launcher_setenv(launcher, "XDG_RUNTIME_DIR", dir_.path().c_str(), TRUE);
    args.insert(args.begin(), CORVANE_HOST_BINARY);
    return testing::Spawn(launcher, args);
  }

  // A host that keeps running, once it has printed where its socket is.
  GSubprocess* StartHost(Args args, const std::string& display = {}) {
    GSubprocess* process = Spawn(std::move(args), G_SUBPROCESS_FLAGS_STDOUT_PIPE, display);
    if (!process) return nullptr;
    GDataInputStream* out = g_data_input_stream_new(g_subprocess_get_stdout_pipe(process));
    g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(out), FALSE);
    gchar* line = g_data_input_stream_read_line_utf8(out, nullptr, nullptr, nullptr);
    EXPECT_TRUE(line && g_str_has_prefix(line, "engine socket: ")) << (line ? line : "(none)");
    g_free(line);
    g_object_unref(out);
    return process;
  }

  // A launch that should end by itself.
  Outcome Launch(Args args) { return testing::Finish(Spawn(std::move(args), testing::kAllPipes)); }

  static int Stop(GSubprocess* process) {
    g_subprocess_send_signal(process, SIGTERM);
    return testing::Finish(process).code;
  }

  static channel::Value TakePending(testing::WireClient& client) {
    static uint32_t id = 100;
    auto bytes =
        client.SendCall(++id, kChannel, "takePending") ? client.WaitReply(id, 10000) : std::nullopt;
    auto reply = channel::DecodeEnvelope(bytes.value_or(channel::Bytes()));
    return reply ? reply.value->value : channel::Value("no reply");
  }
  static channel::Value HandOver(const Paths& paths, bool rejected) {
    channel::ValueList list(paths.begin(), paths.end());
    channel::ValueMap map;
    map.Append(channel::Value("paths"), channel::Value(std::move(list)));
    map.Append(channel::Value("rejected"), channel::Value(rejected));
    return channel::Value(std::move(map));
  }

  testing::TempDir dir_;
  GTestDBus* bus_;
};

// Each URL is judged as it was written, whether the host gets it on its own command line or
// from a second launch: GIO's files would lose a host, a query and a fragment on the way.
TEST_F(DocumentsHandOffTest, DocumentsReachTheRunningHostAsWritten) {
  testing::XvfbServer xvfb;
  ASSERT_TRUE(xvfb.ok()) << "Xvfb did not start";
  const std::string socket = dir_ / "run/engine.sock";
  const struct {
    Args documents;
    Paths paths;
    bool rejected;
  } cases[] = {
      {{"a.corvane", "B.CORVANEPACK", "notes.txt"},
       {dir_ / "a.corvane", dir_ / "B.CORVANEPACK"},
       true},
      {{}, {}, false},  // without documents a second launch only activates the running host
      {{"file://LOCALHOST/a/1.corvane"}, {}, true},
      {{"file://otherhost/a/2.corvane"}, {}, true},
      {{"file:///a/3.corvane#frag"}, {}, true},
      {{"file:///a/4.corvane?q"}, {}, true},
      {{"file://localhost/a/5.corvane", "https://example.org/6.corvane", "x#1.corvane"},
       {"/a/5.corvane", dir_ / "x#1.corvane"},
       false},
  };
  // The running host headless and with a window; the second launch has no display either way.
  for (const std::string& display : {std::string(), xvfb.display()}) {
    SCOPED_TRACE(display.empty() ? "headless" : "windowed");
    Args args = {"--engine-socket", socket, "file://h/x/0.corvane", "file:///x/0.corvane"};
    if (display.empty()) args.push_back("--headless");
    GSubprocess* host = StartHost(args, display);
    ASSERT_NE(host, nullptr);
    testing::WireClient client;
    ASSERT_TRUE(client.Connect(socket));
    EXPECT_EQ(TakePending(client), HandOver({"/x/0.corvane"}, true)) << "the host's own";
    for (const auto& c : cases) {
      Args launch = {"--engine-socket", socket};
      launch.insert(launch.end(), c.documents.begin(), c.documents.end());
      Outcome second = Launch(launch);
      EXPECT_EQ(second.code, 0) << second.err;
      EXPECT_EQ(second.out, "") << "the second launch must not serve a socket of its own";
      EXPECT_EQ(TakePending(client), HandOver(c.paths, c.rejected)) << c.documents.size();
    }
    EXPECT_EQ(Stop(host), 0);
  }
}

// Each socket is its own instance; the default socket spelt out differently is the same one.
TEST_F(DocumentsHandOffTest, OneInstancePerSocket) {
  const std::string other_socket = dir_ / "two/engine.sock";
  GSubprocess* first = StartHost({"--headless"});  // the default socket, in the runtime folder
  ASSERT_NE(first, nullptr);
  // Would exit at once if it took itself for a second launch of the first.
  GSubprocess* second = StartHost({"--headless", "--engine-socket", other_socket});
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(Launch({"--engine-socket", other_socket, "b.corvane"}).code, 0);
  EXPECT_EQ(Launch({"--engine-socket", "./corvane/..//corvane/engine.sock", "d.corvane"}).code, 0);
  testing::WireClient one, two;
  ASSERT_TRUE(one.Connect(dir_ / "corvane/engine.sock") && two.Connect(other_socket));
  EXPECT_EQ(TakePending(one), HandOver({dir_ / "d.corvane"}, false));
  EXPECT_EQ(TakePending(two), HandOver({dir_ / "b.corvane"}, false));
  EXPECT_EQ(Stop(first), 0);
  EXPECT_EQ(Stop(second), 0);
}

}  // namespace
}  // namespace corvane::documents
