// The flutter_linux engine connection against the test double of flutter_linux: routing both
// ways, one response per message from the main thread, the engine going, socket mirrors.
#include <gtest/gtest.h>

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
  // Dart calls `method`: the decoded reply, or nullopt for the empty response.
  std::optional<Value> Call(const std::string& channel, const std::string& method) {
    std::optional<Response> response;
    fake_flutter::DartSend(messenger_, channel, channel::EncodeMethodCall({method, Value()}),
                           [&](Response bytes) { response = std::move(bytes); });
    EXPECT_TRUE(dispatch::RunMainUntil([&] { return response.has_value(); }, 5s));
    if (!response.value_or(std::nullopt)) return std::nullopt;
    return channel::DecodeEnvelope(**response).value->value;
  }

  const int faults_ = fake_flutter::faults();
  FlEngine* fl_engine_ = fl_engine_new_headless(nullptr);
  FlBinaryMessenger* messenger_ = fl_engine_get_binary_messenger(fl_engine_);
  std::unique_ptr<FlutterLinuxEngine> engine_ = std::make_unique<FlutterLinuxEngine>();
};

TEST_F(FlutterEngineTest, RoutesBothWaysOneResponseFromTheMainThread) {
  channel::MethodChannel early(*engine_, "t/early");
  dispatch::SerialQueue queue("test.flutter.service");
  early.SetMethodCallHandler([&](const channel::MethodCall& call, auto result) {
    // Answered twice from a service queue: one response, from the main thread.
    queue.Async([result = std::shared_ptr<channel::MethodResult>(std::move(result)), call] {
      result->Success(Value("early:" + call.method));
      result->Success(Value("again"));
    });
  });
  engine_->Attach(fl_engine_);  // handlers set before are installed now
  EXPECT_EQ(Call("t/early", "ping"), Value("early:ping"));
  EXPECT_EQ(Call("t/nobody", "ping"), std::nullopt);

  std::optional<channel::MethodReply> dart_reply;
  early.InvokeMethod("changed", Value(), [&](const channel::MethodReply& r) { dart_reply = r; });
  ASSERT_TRUE(dispatch::RunMainUntil([&] { return dart_reply.has_value(); }, 5s));
  EXPECT_EQ(dart_reply->value, Value("t/early"));
  engine_->Send("t/events", channel::EncodeMessage(Value(7)));
  EXPECT_EQ(fake_flutter::TakeHostMessages(messenger_),
            (Sent{{"t/early", channel::EncodeMethodCall({"changed", Value()}), true},
                  {"t/events", channel::EncodeMessage(Value(7)), false}}));
  early.SetMethodCallHandler(nullptr);
  EXPECT_FALSE(fake_flutter::HasHandler(messenger_, "t/early"));
}

// Replies awaited from Dart end when the engine goes, and later sends are answered at once.
TEST_F(FlutterEngineTest, RepliesEndWithTheEngine) {
  engine_->Attach(fl_engine_);
  std::vector<Bytes> replies;
  for (int i : {1, 2}) {
    engine_->Send("t/host", channel::EncodeMessage(Value(i)),
                  [&](Bytes b) { replies.push_back(b); });
    g_clear_object(&fl_engine_);
  }
  dispatch::RunMainUntil([] { return false; }, 20ms);
  EXPECT_EQ(replies, (std::vector<Bytes>{Bytes(), Bytes()}));
}

// A socket engine mirrors flutter_linux's: one set of services, two sides.
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
  ASSERT_TRUE(Call("t/events", "listen"));
  testing::WireClient client;
  ASSERT_TRUE(client.Connect(dir / "e.sock"));
  // The service hears Dart's listen only; the socket's is answered for it.
  ASSERT_TRUE(client.SendCall(1, "t/events", "listen"));
  EXPECT_EQ(channel::DecodeEnvelope(client.WaitReply(1, 5000, true).value()).value.value().kind,
            channel::MethodReply::Kind::kSuccess);
  sink->Success(Value(1));
  auto event = client.Receive(5000, true);
  ASSERT_TRUE(event);
  EXPECT_EQ(event->channel, "t/events");
  // The socket side leaves: Dart's stream goes on until Dart's own cancel.
  ASSERT_TRUE(client.SendCall(3, "t/events", "cancel"));
  ASSERT_TRUE(client.WaitReply(3, 5000, true));
  sink->Success(Value(2));
  EXPECT_EQ(fake_flutter::TakeHostMessages(messenger_),
            (Sent{{"t/events", channel::EncodeSuccessEnvelope(Value(1)), false},
                  {"t/events", channel::EncodeSuccessEnvelope(Value(2)), false}}));
  EXPECT_EQ(heard, (std::vector<std::string>{"listen"}));
  ASSERT_TRUE(Call("t/events", "cancel"));
  EXPECT_EQ(heard, (std::vector<std::string>{"listen", "cancel"}));
}

}  // namespace
}  // namespace corvane::flutter
