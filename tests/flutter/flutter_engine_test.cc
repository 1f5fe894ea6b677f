// The flutter_linux engine connection against the test double of flutter_linux: routing both
// ways, one response per message, main-thread delivery, the engine going, teardown.
#include <flutter_linux/flutter_linux.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "channel/event_channel.h"
#include "channel/method_channel.h"
#include "dispatch/queue.h"
#include "engine/socket_engine.h"
#include "fake_flutter.h"
#include "flutter/flutter_linux_engine.h"
#include "flutter/flutter_window_content.h"
#include "host/support.h"
#include "support/wire_client.h"

using namespace std::chrono_literals;
using corvane::channel::Value;

namespace corvane::flutter {
namespace {

using fake_flutter::Bytes;

class FlutterEngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_flutter::ResetCounters();
    project_ = fl_dart_project_new();
    fl_engine_ = fl_engine_new_headless(project_);
    messenger_ = fl_engine_get_binary_messenger(fl_engine_);
  }
  void TearDown() override {
    g_clear_object(&fl_engine_);
    g_clear_object(&project_);
    EXPECT_EQ(fake_flutter::unanswered_handles(), 0);
    EXPECT_EQ(fake_flutter::repeated_responses(), 0);
    EXPECT_EQ(fake_flutter::off_main_thread_calls(), 0);
  }

  // Dart calls `method`; the decoded reply, or nullopt for the empty response.
  std::optional<channel::MethodReply> Call(const std::string& channel, const std::string& method,
                                           Value arguments = Value()) {
    std::optional<std::optional<Bytes>> response;
    fake_flutter::DartSend(messenger_, channel,
                           channel::EncodeMethodCall({method, std::move(arguments)}),
                           [&](std::optional<Bytes> bytes) { response = std::move(bytes); });
    EXPECT_TRUE(dispatch::RunMainUntil([&] { return response.has_value(); }, 5s));
    if (!response || !*response) return std::nullopt;
    return channel::DecodeEnvelope(**response).value;
  }

  FlDartProject* project_ = nullptr;
  FlEngine* fl_engine_ = nullptr;
  FlBinaryMessenger* messenger_ = nullptr;
};

TEST_F(FlutterEngineTest, RoutesBothWaysAndHandlersFollowTheServices) {
  FlutterLinuxEngine engine;
  channel::MethodChannel early(engine, "t/early");
  early.SetMethodCallHandler([](const channel::MethodCall& call, auto result) {
    result->Success(Value("early:" + call.method));
  });
  // Set before the messenger existed: installed on attach.
  engine.Attach(fl_engine_);
  EXPECT_TRUE(fake_flutter::HasHandler(messenger_, "t/early"));
  auto reply = Call("t/early", "ping");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->value, Value("early:ping"));

  // Unknown channels get Flutter's own not-implemented response.
  EXPECT_FALSE(Call("t/nobody", "ping"));

  // Host to Dart, with Dart's answer coming back.
  fake_flutter::SetDartResponder(messenger_, [](const fake_flutter::HostMessage& m) {
    return std::optional<Bytes>(channel::EncodeSuccessEnvelope(Value(m.channel)));
  });
  std::optional<channel::MethodReply> dart_reply;
  early.InvokeMethod("changed", Value(), [&](const channel::MethodReply& r) { dart_reply = r; });
  ASSERT_TRUE(dispatch::RunMainUntil([&] { return dart_reply.has_value(); }, 5s));
  EXPECT_EQ(dart_reply->value, Value("t/early"));
  engine.Send("t/events", channel::EncodeMessage(Value(7)));
  auto sent = fake_flutter::TakeHostMessages(messenger_);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].channel, "t/early");
  EXPECT_TRUE(sent[0].wants_reply);
  EXPECT_EQ(sent[1].channel, "t/events");
  EXPECT_FALSE(sent[1].wants_reply);
  EXPECT_EQ(sent[1].message, channel::EncodeMessage(Value(7)));

  // A service that clears its handler takes it off the messenger too.
  early.SetMethodCallHandler(nullptr);
  EXPECT_FALSE(fake_flutter::HasHandler(messenger_, "t/early"));
  EXPECT_FALSE(Call("t/early", "ping"));
}

TEST_F(FlutterEngineTest, EveryMessageGetsOneResponseFromTheMainThread) {
  FlutterLinuxEngine engine;
  engine.Attach(fl_engine_);
  dispatch::SerialQueue queue("test.flutter.service");
  channel::MethodChannel service(engine, "t/service");
  service.SetMethodCallHandler([&](const channel::MethodCall&, auto result) {
    // Answered from a service queue: the response still leaves from the main thread.
    queue.Async([result = std::shared_ptr<channel::MethodResult>(std::move(result))] {
      result->Success(Value("done"));
      result->Success(Value("again"));  // dropped, never a second response
    });
  });
  auto later = Call("t/service", "later");
  ASSERT_TRUE(later);
  EXPECT_EQ(later->value, Value("done"));
}

TEST_F(FlutterEngineTest, ResponsesOutliveTheEngineObject) {
  auto engine = std::make_unique<FlutterLinuxEngine>();
  engine->Attach(fl_engine_);
  std::unique_ptr<channel::MethodResult> parked;
  auto service = std::make_unique<channel::MethodChannel>(*engine, "t/slow");
  service->SetMethodCallHandler(
      [&](const channel::MethodCall&, auto result) { parked = std::move(result); });
  std::optional<std::optional<Bytes>> response;
  fake_flutter::DartSend(messenger_, "t/slow", channel::EncodeMethodCall({"x", Value()}),
                         [&](std::optional<Bytes> bytes) { response = std::move(bytes); });
  ASSERT_TRUE(parked);
  service.reset();
  EXPECT_FALSE(fake_flutter::HasHandler(messenger_, "t/slow"));
  parked->Success(Value(1));
  parked.reset();
  engine.reset();
  ASSERT_TRUE(dispatch::RunMainUntil([&] { return response.has_value(); }, 5s));
  EXPECT_TRUE(*response);
}

TEST_F(FlutterEngineTest, RepliesAwaitedFromDartEndWhenTheEngineGoes) {
  FlutterLinuxEngine engine;
  engine.Attach(fl_engine_);
  channel::MethodChannel methods(engine, "t/host");
  methods.SetMethodCallHandler([](const channel::MethodCall&, auto result) { result->Success(); });
  // Dart never answers the first; the engine goes before it could.
  fake_flutter::SetDartResponder(messenger_, [](const fake_flutter::HostMessage&) {
    return std::optional<Bytes>(channel::EncodeSuccessEnvelope(Value(1)));
  });
  std::vector<std::optional<Bytes>> replies;
  engine.Send("t/host", channel::EncodeMessage(Value(1)), [&](Bytes b) { replies.push_back(b); });
  g_clear_object(&fl_engine_);
  EXPECT_FALSE(engine.attached());
  EXPECT_FALSE(fake_flutter::HasHandler(messenger_, "t/host"));
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0], Bytes());
  // Later sends are answered at once; the late reply from Dart is not delivered twice.
  engine.Send("t/host", channel::EncodeMessage(Value(2)), [&](Bytes b) { replies.push_back(b); });
  dispatch::RunMainUntil([] { return false; }, 20ms);
  EXPECT_EQ(replies, (std::vector<std::optional<Bytes>>{Bytes(), Bytes()}));
}

TEST(DartProject, CarriesTheEntryPointArguments) {
  FlDartProject* project = MakeDartProject({"--route=/throttle", "layout.corvane"});
  gchar** args = fl_dart_project_get_dart_entrypoint_arguments(project);
  EXPECT_EQ(std::vector<std::string>(args, args + g_strv_length(args)),
            (std::vector<std::string>{"--route=/throttle", "layout.corvane"}));
  g_object_unref(project);
}

// flutter_linux's engine with the socket engine beside it: one set of services, two sides.
TEST_F(FlutterEngineTest, SocketClientsShareTheServicesWithoutDisturbingDart) {
  testing::TempDir dir;
  FlutterLinuxEngine engine;
  engine.Attach(fl_engine_);
  auto socket = std::make_unique<engine::SocketEngine>(engine::SocketEngineOptions{dir / "e.sock"});
  std::string error;
  ASSERT_TRUE(socket->Start(&error)) << error;
  engine.AddMirror(std::move(socket));

  int listens = 0;
  int cancels = 0;
  std::unique_ptr<channel::EventSink> sink;
  channel::EventChannel events(engine, "t/events");
  events.SetStreamHandler(std::make_unique<channel::FunctionStreamHandler>(
      [&](const Value&,
          std::unique_ptr<channel::EventSink> s) -> std::optional<channel::MethodError> {
        ++listens;
        sink = std::move(s);
        return std::nullopt;
      },
      [&](const Value&) -> std::optional<channel::MethodError> {
        ++cancels;
        return std::nullopt;
      }));
  channel::MethodChannel methods(engine, "t/methods");
  methods.SetMethodCallHandler(
      [](const channel::MethodCall& call, auto result) { result->Success(Value(call.method)); });

  ASSERT_TRUE(Call("t/events", "listen"));
  testing::WireClient client;
  ASSERT_TRUE(client.Connect(dir / "e.sock"));
  ASSERT_TRUE(client.SendCall(1, "t/events", "listen"));
  ASSERT_TRUE(client.WaitReply(1, 5000, true));
  EXPECT_EQ(listens, 1) << "the service hears the first listen only";

  // Calls from the socket reach the same services.
  ASSERT_TRUE(client.SendCall(2, "t/methods", "status"));
  auto status = client.WaitReply(2, 5000, true);
  ASSERT_TRUE(status);
  EXPECT_EQ(channel::DecodeEnvelope(*status).value->value, Value("status"));

  fake_flutter::TakeHostMessages(messenger_);
  sink->Success(Value(1));
  auto event = client.Receive(5000, true);
  ASSERT_TRUE(event);
  EXPECT_EQ(event->channel, "t/events");
  auto to_dart = fake_flutter::TakeHostMessages(messenger_);
  ASSERT_EQ(to_dart.size(), 1u);
  EXPECT_EQ(to_dart[0].message, channel::EncodeSuccessEnvelope(Value(1)));

  // The socket side leaves: Dart's stream goes on.
  ASSERT_TRUE(client.SendCall(3, "t/events", "cancel"));
  ASSERT_TRUE(client.WaitReply(3, 5000, true));
  EXPECT_EQ(cancels, 0);
  EXPECT_TRUE(sink->active());
  sink->Success(Value(2));
  dispatch::RunMainUntil([] { return false; }, 20ms);
  EXPECT_EQ(fake_flutter::TakeHostMessages(messenger_).size(), 1u);

  // Dart's own cancel is the last one: now the service hears it.
  ASSERT_TRUE(Call("t/events", "cancel"));
  EXPECT_EQ(cancels, 1);
}

}  // namespace
}  // namespace corvane::flutter
