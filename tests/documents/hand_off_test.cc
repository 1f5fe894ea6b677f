// The real corvane-host binary receiving documents from the command line and from a second
// launch, on a private session bus that the test starts itself.
#include <gio/gio.h>
#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "channel/standard_codec.h"
#include "documents/close_windows.h"
#include "host/startup.h"
#include "host/support.h"
#include "support/wire_client.h"

namespace corvane::documents {
namespace {

using Args = std::vector<std::string>;
using Paths = std::vector<std::string>;
using testing::Outcome;

constexpr const char* kChannel = "io.corvane/open_projects";

// What "takePending" handed over.
struct HandOver {
  Paths paths;
  bool rejected = false;
};

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

  // A launch that should end by itself; records how long it took.
  Outcome Launch(Args args) {
    const gint64 start = g_get_monotonic_time();
    Outcome outcome = testing::Finish(Spawn(std::move(args), testing::kAllPipes));
    RecordProperty("second_launch_ms", static_cast<int>((g_get_monotonic_time() - start) / 1000));
    return outcome;
  }

  static int Stop(GSubprocess* process) {
    g_subprocess_send_signal(process, SIGTERM);
    return testing::Finish(process).code;
  }

  // Waits for the host's "changed" call to the Flutter side.
  static bool SawChanged(testing::WireClient& client) {
    for (int i = 0; i < 16; ++i) {
      auto frame = client.Receive(10000);
      if (!frame) return false;
      if (frame->kind != engine::FrameKind::kMessage || frame->channel != kChannel) continue;
      auto call = channel::DecodeMethodCall(frame->payload);
      if (call && call.value->method == "changed" && call.value->arguments.is_null()) return true;
    }
    return false;
  }

  static std::optional<HandOver> TakePending(testing::WireClient& client) {
    static uint32_t id = 100;
    if (!client.SendCall(++id, kChannel, "takePending")) return std::nullopt;
    auto bytes = client.WaitReply(id, 10000);
    if (!bytes) return std::nullopt;
    auto reply = channel::DecodeEnvelope(*bytes);
    const channel::ValueMap* map = reply ? reply.value->value.map_if() : nullptr;
    const channel::Value* paths = map ? map->Find("paths") : nullptr;
    const channel::Value* rejected = map ? map->Find("rejected") : nullptr;
    if (!paths || !paths->list_if() || !rejected || !rejected->bool_if()) return std::nullopt;
    HandOver hand_over{{}, *rejected->bool_if()};
    for (const auto& p : *paths->list_if()) {
      hand_over.paths.push_back(p.string_if() ? *p.string_if() : "?");
    }
    return hand_over;
  }

  testing::TempDir dir_;
  GTestDBus* bus_;
};

TEST_F(DocumentsHandOffTest, SecondLaunchHandsItsDocumentsToTheRunningHost) {
  testing::XvfbServer xvfb;
  ASSERT_TRUE(xvfb.ok()) << "Xvfb did not start";
  const std::string socket = dir_ / "run/engine.sock";
  // The running host headless and with a window; the second launch has no display either way.
  for (const std::string& display : {std::string(), xvfb.display()}) {
    SCOPED_TRACE(display.empty() ? "headless" : "windowed");
    Args args = {"--engine-socket", socket};
    if (display.empty()) args.push_back("--headless");
    GSubprocess* host = StartHost(args, display);
    ASSERT_NE(host, nullptr);
    testing::WireClient client;
    ASSERT_TRUE(client.Connect(socket));

    Outcome second = Launch({"--engine-socket", socket, "a.corvane", "B.CORVANEPACK", "notes.txt"});
    EXPECT_EQ(second.code, 0) << second.err;
    EXPECT_EQ(second.out, "") << "the second launch must not serve a socket of its own";
    EXPECT_TRUE(SawChanged(client));
    auto hand_over = TakePending(client);
    ASSERT_TRUE(hand_over.has_value());
    EXPECT_EQ(hand_over->paths, (Paths{dir_ / "a.corvane", dir_ / "B.CORVANEPACK"}));
    EXPECT_TRUE(hand_over->rejected);

    // Without documents a second launch only activates the running host.
    EXPECT_EQ(Launch({"--engine-socket", socket}).code, 0);
    hand_over = TakePending(client);
    ASSERT_TRUE(hand_over.has_value());
    EXPECT_EQ(hand_over->paths, Paths{});
    EXPECT_FALSE(hand_over->rejected);
    EXPECT_EQ(Stop(host), 0);
  }
}

// Documents given to the first launch wait for "takePending"; each socket is its own instance.
TEST_F(DocumentsHandOffTest, FirstLaunchDocumentsAndOneInstancePerSocket) {
  // The default socket (in the test's runtime folder), so the bundle's own application id.
  const std::string other_socket = dir_ / "two/engine.sock";
  GSubprocess* first = StartHost({"--headless", "a.corvane", "file:///x/B.CORVANEPACK", "notes.txt",
                                  "https://example.org/c.corvane"});
  ASSERT_NE(first, nullptr);
  // Would exit at once if it took itself for a second launch of the first.
  GSubprocess* second = StartHost({"--headless", "--engine-socket", other_socket});
  ASSERT_NE(second, nullptr);

  EXPECT_EQ(Launch({"--engine-socket", other_socket, "b.corvane"}).code, 0);
  // The default socket spelt out differently is still the first host.
  EXPECT_EQ(Launch({"--engine-socket", "./corvane/..//corvane/engine.sock", "d.corvane"}).code, 0);

  testing::WireClient one, two;
  ASSERT_TRUE(one.Connect(dir_ / "corvane/engine.sock"));
  ASSERT_TRUE(two.Connect(other_socket));
  auto to_first = TakePending(one);
  auto to_second = TakePending(two);
  ASSERT_TRUE(to_first && to_second);
  EXPECT_EQ(to_first->paths, (Paths{dir_ / "a.corvane", "/x/B.CORVANEPACK", dir_ / "d.corvane"}));
  EXPECT_TRUE(to_first->rejected);
  EXPECT_EQ(to_second->paths, Paths{dir_ / "b.corvane"});
  EXPECT_FALSE(to_second->rejected);
  EXPECT_EQ(Stop(first), 0);
  EXPECT_EQ(Stop(second), 0);
}

TEST_F(DocumentsHandOffTest, ClosingTheLastWindowQuitsTheHost) {
  testing::XvfbServer xvfb;
  ASSERT_TRUE(xvfb.ok()) << "Xvfb did not start";
  const std::string socket = dir_ / "engine.sock";
  GSubprocess* host = StartHost({"--engine-socket", socket, "a.corvane"}, xvfb.display());
  ASSERT_NE(host, nullptr);
  // The window is mapped some time after the socket line; ask until it is there to ask.
  int asked = 0;
  for (int i = 0; i < 600 && asked == 0; ++i) {
    asked = CloseTopLevelWindows(xvfb.display());
    if (!asked) g_usleep(50 * 1000);
  }
  ASSERT_EQ(asked, 1);
  EXPECT_EQ(testing::Finish(host).code, 0);
  GStatBuf st;
  EXPECT_NE(g_stat(socket.c_str(), &st), 0) << "the socket outlived the host";
}

}  // namespace
}  // namespace corvane::documents
