// The flutter_linux engine connection on the test double of flutter_linux, and a Flutter app
// built with the runner's CMake file on the double.
#include <gtest/gtest.h>
#include <signal.h>

#include <sstream>

#include "channel/event_channel.h"
#include "channel/method_channel.h"
#include "dispatch/queue.h"
#include "engine/socket_engine.h"
#include "fake_flutter.h"
#include "flutter/flutter_linux_engine.h"
#include "host/support.h"
#include "support/wire_client.h"

using namespace std::chrono_literals;
using corvane::channel::Value;

namespace corvane::flutter {
namespace {

using fake_flutter::Bytes;
using fake_flutter::Response;
using Sent = std::vector<fake_flutter::HostMessage>;

class FlutterEngineTest : public ::testing::Test {
 protected:
  // Dart answers every call with its channel's name.
  FlutterEngineTest() {
    fake_flutter::SetDartResponder(messenger_, [](const fake_flutter::HostMessage& m) {
      return Response(channel::EncodeSuccessEnvelope(Value(m.channel)));
    });
  }
  void TearDown() override {
    g_clear_object(&fl_engine_);
    EXPECT_EQ(fake_flutter::faults(), faults_);
  }
  // Dart calls `method`: the decoded reply's value.
  Value Call(const std::string& channel, const std::string& method) {
    std::optional<Response> response;
    fake_flutter::DartSend(messenger_, channel, channel::EncodeMethodCall({method, Value()}),
                           [&](Response bytes) { response = std::move(bytes); });
    EXPECT_TRUE(dispatch::RunMainUntil([&] { return response.has_value(); }, 5s));
    return channel::DecodeEnvelope(response.value().value()).value.value().value;
  }

  const int faults_ = fake_flutter::faults();
  FlEngine* fl_engine_ = fl_engine_new_headless(nullptr);
  FlBinaryMessenger* messenger_ = fl_engine_get_binary_messenger(fl_engine_);
  std::unique_ptr<FlutterLinuxEngine> engine_ = std::make_unique<FlutterLinuxEngine>();
};

TEST_F(FlutterEngineTest, RoutesBothWaysRepliesEndWithTheEngine) {
  channel::MethodChannel early(*engine_, "t/early");
  dispatch::SerialQueue queue("test.flutter.service");
  early.SetMethodCallHandler([&](const channel::MethodCall& call, auto result) {
    // Answered later, from a service queue.
    queue.Async([result = std::shared_ptr<channel::MethodResult>(std::move(result)), call] {
      result->Success(Value("early:" + call.method));
    });
  });
  engine_->Attach(fl_engine_);  // handlers set before are installed now
  EXPECT_EQ(Call("t/early", "ping"), Value("early:ping"));

  Value dart_reply;
  early.InvokeMethod("changed", Value(), [&](const auto& r) { dart_reply = r.value; });
  EXPECT_TRUE(dispatch::RunMainUntil([&] { return dart_reply == Value("t/early"); }, 5s));
  engine_->Send("t/events", channel::EncodeMessage(Value(7)));
  EXPECT_EQ(fake_flutter::TakeHostMessages(messenger_),
            (Sent{{"t/early", channel::EncodeMethodCall({"changed", Value()}), true},
                  {"t/events", channel::EncodeMessage(Value(7)), false}}));
  early.SetMethodCallHandler(nullptr);
  EXPECT_FALSE(fake_flutter::HasHandler(messenger_, "t/early"));
  // Replies awaited from Dart end when the engine goes; later sends are answered at once.
  std::vector<Bytes> replies;
  for (int i : {1, 2}) {
    engine_->Send("t/host", channel::EncodeMessage(Value(i)),
                  [&](Bytes b) { replies.push_back(b); });
    g_clear_object(&fl_engine_);
  }
  dispatch::RunMainUntil([] { return false; }, 20ms);
  EXPECT_EQ(replies, (std::vector<Bytes>{Bytes(), Bytes()}));
}

TEST_F(FlutterEngineTest, SocketClientsShareTheServicesWithoutDisturbingDart) {
  testing::TempDir dir;
  engine_->Attach(fl_engine_);
  auto socket = std::make_unique<engine::SocketEngine>(engine::SocketEngineOptions{dir / "e.sock"});
  std::string error;
  ASSERT_TRUE(socket->Start(&error)) << error;
  engine_->AddMirror(std::move(socket));
  std::vector<std::string> heard;
  auto hear = [&](const char* what) { return heard.push_back(what), std::nullopt; };
  std::unique_ptr<channel::EventSink> sink;
  channel::EventChannel events(*engine_, "t/events");
  events.SetStreamHandler(std::make_unique<channel::FunctionStreamHandler>(
      [&](const Value&, auto s) -> std::optional<channel::MethodError> {
        sink = std::move(s);
        return hear("listen");
      },
      [&](const Value&) -> std::optional<channel::MethodError> { return hear("cancel"); }));
  EXPECT_EQ(Call("t/events", "listen"), Value());
  testing::WireClient client;
  // The service hears Dart's listen only; the socket's is answered for it.
  ASSERT_TRUE(client.Connect(dir / "e.sock") && client.SendCall(1, "t/events", "listen"));
  EXPECT_EQ(channel::DecodeEnvelope(client.WaitReply(1, 5000, true).value()).value.value().kind,
            channel::MethodReply::Kind::kSuccess);
  sink->Success(Value(1));
  EXPECT_EQ(client.Receive(5000, true).value().channel, "t/events");
  // The socket side leaves: Dart's stream goes on until Dart's own cancel.
  ASSERT_TRUE(client.SendCall(3, "t/events", "cancel") && client.WaitReply(3, 5000, true));
  EXPECT_EQ(fake_flutter::TakeHostMessages(messenger_),
            (Sent{{"t/events", channel::EncodeSuccessEnvelope(Value(1)), false}}));
  EXPECT_EQ(heard, (std::vector<std::string>{"listen"}));
  EXPECT_EQ(Call("t/events", "cancel"), Value());
  EXPECT_EQ(heard, (std::vector<std::string>{"listen", "cancel"}));
}

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
    EXPECT_EQ(channel::DecodeEnvelope(client.WaitReply(1, 5000).value()).value.value().kind,
              channel::MethodReply::Kind::kSuccess);
    g_subprocess_send_signal(runner, SIGTERM);
    EXPECT_EQ(testing::Finish(runner).code, 0);
  }
  const auto quiet = testing::Finish(Start({"--headless"}, "", "", testing::kAllPipes));
  EXPECT_NE(quiet.code, 0);
  EXPECT_NE(quiet.err.find("runs no Dart headless"), std::string::npos) << quiet.err;
}

TEST_F(FlutterRunnerTest, RegistersEveryPluginOnceInOrderAfterTheViewIsRealized) {
  testing::XvfbServer xvfb;
  ASSERT_TRUE(xvfb.ok());
  // Each plug-in prints its package and 1/0 for: view realized, the host's first, last own channel
  // answering. The last is the second window's, whose making ends the run; the host logs too.
  std::istringstream out(testing::Finish(Start({}, "", xvfb.display())).out);
  std::vector<std::string> lines;
  for (std::string line; std::getline(out, line);) {
    if (line.find("plug-in ") == line.npos) lines.push_back(line);
  }
  EXPECT_EQ(lines, (std::vector<std::string>{"desktop_multi_window 110", "url_launcher_linux 110",
                                             "window_manager 110", "alpha_extra 111",
                                             "zeta_extra 111", "window_manager 100"}));
  EXPECT_NE(out.str().find("plug-in InAppReviewPlugin (in_app_review): not part of this app"),
            std::string::npos);
}

}  // namespace
}  // namespace corvane::flutter
