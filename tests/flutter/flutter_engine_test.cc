// The flutter_linux engine connection and the Flutter window content, against the test double of
// flutter_linux: routing both ways, one response per message, main-thread delivery, plug-in
// registration through the view in start-up order, teardown.
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
#include "flutter/plugin_functions.h"
#include "host/host.h"
#include "host/main_flutter_window.h"
#include "host/registration_table.h"
#include "host/support.h"
#include "host/window_background.h"
#include "host/window_content.h"
#include "support/wire_client.h"

using namespace std::chrono_literals;
using corvane::channel::Value;

namespace {
std::vector<std::string> g_plugin_calls;
}  // namespace

// Plug-ins "linked into the build": found among the program's symbols like real ones.
extern "C" {
void url_launcher_plugin_register_with_registrar(FlPluginRegistrar* registrar) {
  EXPECT_NE(fl_plugin_registrar_get_messenger(registrar), nullptr);
  g_plugin_calls.push_back("url_launcher");
}
void window_manager_plugin_register_with_registrar(FlPluginRegistrar* registrar) {
  EXPECT_NE(fl_plugin_registrar_get_view(registrar), nullptr);
  g_plugin_calls.push_back("window_manager");
}
void audioplayers_linux_plugin_register_with_registrar(FlPluginRegistrar*) {
  g_plugin_calls.push_back("audioplayers_linux");
}
}

namespace corvane::flutter {
namespace {

using fake_flutter::Bytes;

TEST(PluginFunctions, NamesFollowTheFlutterToolsConvention) {
  EXPECT_EQ(SnakeCase("UrlLauncherPlugin"), "url_launcher_plugin");
  EXPECT_EQ(SnakeCase("FPPPackageInfoPlusPlugin"), "fpp_package_info_plus_plugin");
  const auto names = RegisterFunctionNames("ScreenRetrieverMacosPlugin");
  EXPECT_EQ(names.front(), "screen_retriever_macos_plugin_register_with_registrar");
  EXPECT_NE(std::find(names.begin(), names.end(),
                      "screen_retriever_linux_plugin_register_with_registrar"),
            names.end());
  EXPECT_EQ(FindRegisterFunction("UrlLauncherPlugin"),
            &url_launcher_plugin_register_with_registrar);
  EXPECT_EQ(FindRegisterFunction("AudioplayersDarwinPlugin"),
            &audioplayers_linux_plugin_register_with_registrar);
  EXPECT_EQ(FindRegisterFunction("InAppReviewPlugin"), nullptr);
}

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
    auto decoded = channel::DecodeEnvelope(**response);
    EXPECT_TRUE(decoded);
    return decoded.value;
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
  engine.Attach(messenger_);
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
  engine.Attach(messenger_);
  dispatch::SerialQueue queue("test.flutter.service");
  std::vector<std::unique_ptr<channel::MethodResult>> parked;
  channel::MethodChannel service(engine, "t/service");
  service.SetMethodCallHandler([&](const channel::MethodCall& call, auto result) {
    if (call.method == "later") {
      // Answered from a service queue: the response still leaves from the main thread.
      queue.Async([result = std::shared_ptr<channel::MethodResult>(std::move(result))] {
        result->Success(Value("done"));
        result->Success(Value("again"));  // dropped, never a second response
      });
    } else if (call.method == "never") {
      parked.push_back(std::move(result));
    }
  });
  auto later = Call("t/service", "later");
  ASSERT_TRUE(later);
  EXPECT_EQ(later->value, Value("done"));

  std::optional<std::optional<Bytes>> never;
  fake_flutter::DartSend(messenger_, "t/service", channel::EncodeMethodCall({"never", Value()}),
                         [&](std::optional<Bytes> bytes) { never = std::move(bytes); });
  dispatch::RunMainUntil([] { return false; }, 50ms);
  EXPECT_FALSE(never.has_value());
  // Teardown of a service that never answered: Dart still gets its one response.
  parked.clear();
  ASSERT_TRUE(dispatch::RunMainUntil([&] { return never.has_value(); }, 5s));
  ASSERT_TRUE(*never);
  auto decoded = channel::DecodeEnvelope(**never);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded.value->error.code, channel::MethodResult::kUnansweredCode);
}

TEST_F(FlutterEngineTest, ResponsesOutliveTheEngineObject) {
  auto engine = std::make_unique<FlutterLinuxEngine>();
  engine->Attach(messenger_);
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

// The main window of a Flutter build, on a private X server.
class FlutterWindowTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    xvfb_ = std::make_unique<testing::XvfbServer>();
    g_unsetenv("WAYLAND_DISPLAY");
    g_setenv("NO_AT_BRIDGE", "1", TRUE);
    if (xvfb_->ok()) {
      g_setenv("DISPLAY", xvfb_->display().c_str(), TRUE);
      gtk_ready_ = gtk_init_check(nullptr, nullptr);
    }
  }
  static void TearDownTestSuite() { xvfb_.reset(); }
  void SetUp() override {
    ASSERT_TRUE(xvfb_->ok()) << "Xvfb did not start";
    ASSERT_TRUE(gtk_ready_);
  }
  static inline std::unique_ptr<testing::XvfbServer> xvfb_;
  static inline bool gtk_ready_ = false;
};

TEST_F(FlutterWindowTest, RegistersTheTableThroughTheViewInOrder) {
  g_plugin_calls.clear();
  auto owned = std::make_unique<FlutterLinuxEngine>();
  FlutterLinuxEngine& engine = *owned;
  {
    host::Host host(std::move(owned), host::InfoDictionary::Default());
    FlutterWindowContent content(engine, {"--route=/throttle"});
    host::SetWindowContent(&content);
    auto* window = host::MainFlutterWindow::Create(nullptr, host);
    host::SetWindowContent(nullptr);
    FlView* view = FL_VIEW(window->view());
    ASSERT_TRUE(engine.attached());

    std::vector<std::string> standard;
    for (const auto& row : host::StartupTable()) {
      if (row.kind == host::StartupRow::Kind::kStandardPlugin) standard.push_back(row.registrar);
    }
    EXPECT_EQ(standard.size(), 16u);
    EXPECT_EQ(fake_flutter::RegistrarRequests(view), standard);
    EXPECT_EQ(g_plugin_calls,
              (std::vector<std::string>{"audioplayers_linux", "url_launcher", "window_manager"}));
    for (const auto& r : host.registry()->registrations()) {
      const bool linked = r.registrar == "AudioplayersDarwinPlugin" ||
                          r.registrar == "UrlLauncherPlugin" ||
                          r.registrar == "WindowManagerPlugin";
      if (std::find(standard.begin(), standard.end(), r.registrar) == standard.end()) continue;
      EXPECT_EQ(r.status, linked ? host::RegistrationStatus::kRegistered
                                 : host::RegistrationStatus::kNotLinked)
          << r.registrar;
    }
    // The own services answer Dart through the view's messenger.
    FlBinaryMessenger* messenger = fl_engine_get_binary_messenger(fl_view_get_engine(view));
    for (const std::string& channel : engine.HandledChannels()) {
      EXPECT_TRUE(fake_flutter::HasHandler(messenger, channel)) << channel;
    }
    EXPECT_FALSE(engine.HandledChannels().empty());

    // The view paints the window's colour, not Flutter's default black.
    auto color = fake_flutter::BackgroundColor(view);
    ASSERT_TRUE(color);
    EXPECT_EQ(color->alpha, 1.0);
    const bool dark = window->background().dark();
    EXPECT_NEAR(color->red, dark ? 0x0E / 255.0 : 1.0, 1e-9);

    gtk_widget_destroy(GTK_WIDGET(window->window()));
  }
}

TEST(DartProject, CarriesTheEntryPointArguments) {
  FlDartProject* project = MakeDartProject({"--route=/throttle", "layout.corvane"});
  gchar** args = fl_dart_project_get_dart_entrypoint_arguments(project);
  ASSERT_NE(args, nullptr);
  EXPECT_STREQ(args[0], "--route=/throttle");
  EXPECT_STREQ(args[1], "layout.corvane");
  EXPECT_EQ(args[2], nullptr);
  g_object_unref(project);
}

}  // namespace
}  // namespace corvane::flutter

namespace corvane::flutter {
namespace {

// flutter_linux's engine with the socket engine beside it: one set of services, two sides.
TEST_F(FlutterEngineTest, SocketClientsShareTheServicesWithoutDisturbingDart) {
  testing::TempDir dir;
  FlutterLinuxEngine engine;
  engine.Attach(messenger_);
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
  auto listened = client.WaitReply(1, 5000, true);
  ASSERT_TRUE(listened);
  EXPECT_EQ(channel::DecodeEnvelope(*listened).value->kind, channel::MethodReply::Kind::kSuccess);
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
