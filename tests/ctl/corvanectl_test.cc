// corvanectl end to end: the real binary against a real socket engine in this process, whose
// main loop runs while the client does. Exit codes: 0 ok, 1 error reply, 2 empty reply (nobody
// handles it), 3 usage, input or connection failure, 4 time-out.
#include <gtest/gtest.h>
#include <signal.h>

#include "channel/event_channel.h"
#include "channel/method_channel.h"
#include "engine/socket_engine.h"
#include "host/support.h"

namespace corvane {
namespace {

using channel::MethodError;
using channel::Value;
using Args = std::vector<std::string>;
using OnListen = channel::FunctionStreamHandler::OnListenFn;

// SIGPIPE is ignored here, for this process's own pipe writes; Spawn restores it in the client.
testing::Outcome RunCtl(const Args& args, const std::string& input = {}) {
  signal(SIGPIPE, SIG_IGN);
  GSubprocessLauncher* launcher = g_subprocess_launcher_new(testing::kAllPipes);
  Args argv{CORVANECTL_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  return testing::Finish(testing::Spawn(launcher, argv), input);
}

// An engine at the default socket path of a private runtime folder, which the clients inherit.
class CorvanectlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_setenv("XDG_RUNTIME_DIR", dir_.path().c_str(), TRUE);
    engine_ = std::make_unique<engine::SocketEngine>(engine::SocketEngineOptions{});
    std::string error;
    ASSERT_TRUE(engine_->Start(&error)) << error;
    methods_ = std::make_unique<channel::MethodChannel>(*engine_, "test/methods");
    methods_->SetMethodCallHandler([this](const channel::MethodCall& call, auto r) {
      if (call.method == "echo") return r->Success(call.arguments);
      if (call.method == "fail") return r->Error("bad_thing", "It went wrong", call.arguments);
      if (call.method == "never") return held_.push_back(std::move(r));
      r->NotImplemented();
    });
    AddStream("test/events", [](const Value&, std::unique_ptr<channel::EventSink> sink) {
      sink->Success(Value(int32_t{1}));
      sink->Error("hiccup", std::nullopt, Value(int32_t{2}));
      sink->Success(Value(int32_t{3}));
      return std::optional<MethodError>();
    });
    AddStream("test/ends", [](const Value&, std::unique_ptr<channel::EventSink> sink) {
      sink->Success(Value("last"));
      sink->EndOfStream();
      return std::optional<MethodError>();
    });
    AddStream("test/refuse", [](const Value&, auto) {
      return std::optional<MethodError>(MethodError{"denied", "No", Value(), std::nullopt});
    });
  }
  void AddStream(const std::string& name, OnListen on_listen) {
    streams_.push_back(std::make_unique<channel::EventChannel>(*engine_, name));
    streams_.back()->SetStreamHandler(std::make_unique<channel::FunctionStreamHandler>(
        std::move(on_listen), [this, name](const Value&) {
          cancelled_.push_back(name);
          return std::optional<MethodError>();
        }));
  }

  // Declared so that they go in reverse: the held replies and streams before their engine.
  testing::TempDir dir_;
  Args cancelled_;
  std::unique_ptr<engine::SocketEngine> engine_;
  std::unique_ptr<channel::MethodChannel> methods_;
  std::vector<std::unique_ptr<channel::EventChannel>> streams_;
  std::vector<std::unique_ptr<channel::MethodResult>> held_;
};

TEST_F(CorvanectlTest, EveryCommandPrintsWhatCameBackAndExitsByItsKind) {
  const std::string missing = dir_ / "missing.sock";
  const struct {
    Args args;
    int code;
    std::string out;
    std::string input = {};
  } cases[] = {
      // clang-format off
      // The codec sends a small int64 as int32.
      {{"call", "test/methods", "echo", R"({"a":[1,2.5,{"$int64":3}]})"}, 0, R"({"a":[1,2.5,3]})"},
      {{"call", "test/methods", "echo", "-"}, 0, R"({"$bytes":"00ff"})", R"({"$bytes":"00ff"})"},
      {{"call", "test/methods", "fail", "[1]"}, 1, R"({"code":"bad_thing","message":"It went wrong","details":[1]})"},
      {{"call", "test/methods", "unknown"}, 2, ""},
      {{"call", "test/methods", "never", "--timeout", "200"}, 4, ""},
      {{"--socket", missing, "call", "test/methods", "echo"}, 3, ""},
      {{"listen", "test/events", "--count", "2"}, 0, "1\n" R"({"code":"hiccup","message":null,"details":2})"},
      {{"listen", "test/ends"}, 0, "\"last\""},
      {{"listen", "test/refuse"}, 1, R"({"code":"denied","message":"No","details":null})"},
      {{"listen", "test/nobody"}, 2, ""},
      // The codec's ways in and out; the values themselves are the JSON mapping's tests.
      {{"encode", R"({"a":1})"}, 0, "0d010701610301000000"},
      {{"encode", "--method-call", R"({"method":"m","args":[true]})"}, 0, "07016d0c0101"},
      {{"--envelope", "encode", R"({"error":{"code":"c","stacktrace":null}})"}, 0, "01070163000000"},
      {{"decode", "--envelope", "-"}, 0, R"({"success":"ok"})", "0007026f6b\n"},
      {{"decode", "--method-call", "07016d0c0101"}, 0, R"({"method":"m","args":[true]})"},
      {{"decode", "--envelope", ""}, 2, ""},  // the empty reply
  };  // clang-format on
  for (const auto& c : cases) {
    testing::Outcome r = RunCtl(c.args, c.input);
    EXPECT_EQ(r.code, c.code) << c.args[0] << " " << c.args.back() << ": " << r.err;
    EXPECT_EQ(r.out, c.out.empty() ? "" : c.out + "\n") << c.args[0] << " " << c.args.back();
  }
  EXPECT_EQ(RunCtl({"encode", "-5", "--help"}).out.rfind("Usage: corvanectl", 0), 0u);
  // Cancelled once, by the listener that stopped at its count; a stream that ended is not.
  EXPECT_EQ(cancelled_, Args{"test/events"});
}

// Bad input and usage exit 3 with one line on standard error, named for the tool.
TEST(CorvanectlCodec, MalformedInputAndUsageExitThree) {
  const Args bad[] = {
      // clang-format off
      {"decode", "0001"}, {"decode", "0x01"}, {"decode", "--method-call", "07016d"},  // 0001: a byte left
      {"decode", "--envelope", "0201"}, {"encode", R"({"a":})"}, {"encode", "--method-call", R"({"method":1})"},
      {"encode", "--envelope", R"({"success":1,"error":{}})"}, {"encode", "--envelope", R"({"error":{}})"},
      {"encode", "1", "2"}, {"call", "only-channel"}, {"listen", "x", "--method-call"},
      {"encode", "1", "--count", "2"}, {"frobnicate"}, {"--bogus", "encode", "1"}, {},
  };  // clang-format on
  for (const Args& args : bad) {
    testing::Outcome r = RunCtl(args);
    EXPECT_EQ(r.code, 3) << ::testing::PrintToString(args);
    EXPECT_EQ(r.out, "") << ::testing::PrintToString(args);
    EXPECT_EQ(r.err.rfind("corvanectl: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
}

}  // namespace
}  // namespace corvane
