// corvanectl end to end: the real binary against a real socket engine in this process, whose
// main loop runs while the client does.
#include <gio/gio.h>
#include <gio/gunixsocketaddress.h>
#include <glib/gstdio.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "channel/event_channel.h"
#include "channel/method_channel.h"
#include "dispatch/queue.h"
#include "engine/socket_engine.h"
#include "host/support.h"
#include "json/hex.h"

namespace corvane {
namespace {

using channel::MethodCall;
using channel::MethodError;
using channel::MethodResult;
using channel::Value;
using Args = std::vector<std::string>;

constexpr std::chrono::seconds kProcessLimit{60};

// SIGPIPE goes back to its default in the client: this process ignores it for its own pipe
// writes, and a client that dies of it when the host hangs up is a fault to catch.
GSubprocess* SpawnCtl(const Args& args, GSubprocessFlags flags, const std::string& out_file = {}) {
  signal(SIGPIPE, SIG_IGN);
  GSubprocessLauncher* launcher = g_subprocess_launcher_new(flags);
  g_subprocess_launcher_set_child_setup(
      launcher, [](gpointer) { signal(SIGPIPE, SIG_DFL); }, nullptr, nullptr);
  if (!out_file.empty()) g_subprocess_launcher_set_stdout_file_path(launcher, out_file.c_str());
  Args argv{CORVANECTL_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  return testing::Spawn(launcher, argv);
}

testing::Outcome RunCtl(const Args& args, const std::string& input = {}) {
  return testing::Finish(SpawnCtl(args, testing::kAllPipes), input);
}

// An engine at the default socket path of a private runtime folder, which the clients inherit:
// the commands below find it without --socket, as a user's would.
class CorvanectlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_setenv("XDG_RUNTIME_DIR", dir_.path().c_str(), TRUE);
    engine_ = std::make_unique<engine::SocketEngine>(engine::SocketEngineOptions{});
    std::string error;
    ASSERT_TRUE(engine_->Start(&error)) << error;

    methods_ = std::make_unique<channel::MethodChannel>(*engine_, "test/methods");
    methods_->SetMethodCallHandler([this](const MethodCall& call, std::unique_ptr<MethodResult> r) {
      if (call.method == "echo") {
        r->Success(call.arguments);
      } else if (call.method == "fail") {
        r->Error("bad_thing", "It went wrong", call.arguments);
      } else if (call.method == "never") {
        held_.push_back(std::move(r));
      } else if (call.method == "ask") {
        // Answers only once the client has answered the host's own call.
        std::shared_ptr<MethodResult> result(std::move(r));
        engine_->Send("test/question", channel::EncodeMethodCall({"q", Value()}),
                      [result](channel::Bytes reply) {
                        result->Success(Value(reply.empty() ? "empty reply" : "other reply"));
                      });
      } else {
        r->NotImplemented();
      }
    });

    AddStream("test/events", [](const Value&, std::unique_ptr<channel::EventSink> sink) {
      sink->Success(Value(int32_t{1}));
      sink->Error("hiccup", std::nullopt, Value(int32_t{2}));
      sink->Success(Value(channel::ValueMap{{Value("n"), Value(int32_t{3})}}));
      sink->Success(Value(int32_t{4}));
      return std::optional<MethodError>();
    });
    AddStream("test/ends", [](const Value&, std::unique_ptr<channel::EventSink> sink) {
      sink->Success(Value("last"));
      sink->EndOfStream();
      return std::optional<MethodError>();
    });
    AddStream("test/quiet", [this](const Value&, std::unique_ptr<channel::EventSink> sink) {
      quiet_sink_ = std::move(sink);
      return std::optional<MethodError>();
    });
    AddStream("test/refuse", [](const Value&, std::unique_ptr<channel::EventSink>) {
      return std::optional<MethodError>(MethodError{"denied", "No", Value(), std::nullopt});
    });
  }

  void AddStream(const std::string& name, channel::FunctionStreamHandler::OnListenFn on_listen) {
    auto stream = std::make_unique<channel::EventChannel>(*engine_, name);
    stream->SetStreamHandler(std::make_unique<channel::FunctionStreamHandler>(
        std::move(on_listen), [this, name](const Value&) {
          cancelled_.push_back(name);
          return std::optional<MethodError>();
        }));
    streams_.push_back(std::move(stream));
  }

  // Declared so that they go in reverse: the held replies and streams before their engine.
  testing::TempDir dir_;
  std::vector<std::string> cancelled_;
  std::unique_ptr<engine::SocketEngine> engine_;
  std::unique_ptr<channel::MethodChannel> methods_;
  std::vector<std::unique_ptr<channel::EventChannel>> streams_;
  std::vector<std::unique_ptr<MethodResult>> held_;
  std::unique_ptr<channel::EventSink> quiet_sink_;
};

TEST_F(CorvanectlTest, CallAndListenPrintWhatCameBackAndExitByItsKind) {
  const struct {
    Args args;
    int code;
    std::string out;
    bool cancels = false;  // the host sees the stream cancelled once
  } cases[] = {
      // The codec sends a small int64 as int32.
      {{"call", "test/methods", "echo", R"({"a":[1,2.5,{"$int64":3}]})"}, 0, "{\"a\":[1,2.5,3]}\n"},
      {{"call", "test/methods", "echo"}, 0, "null\n"},
      // The host's own call to the client got the empty reply.
      {{"call", "test/methods", "ask"}, 0, "\"empty reply\"\n"},
      {{"call", "test/methods", "fail", R"({"why":{"$bytes":"0102"}})"},
       1,
       R"({"code":"bad_thing","message":"It went wrong","details":{"why":{"$bytes":"0102"}}})"
       "\n"},
      {{"call", "test/methods", "unknown"}, 2, ""},
      {{"call", "test/nobody", "m"}, 2, ""},
      {{"call", "test/methods", "never", "--timeout", "200"}, 4, ""},
      {{"listen", "test/events", "--count", "3"},
       0,
       "1\n{\"code\":\"hiccup\",\"message\":null,\"details\":2}\n{\"n\":3}\n",
       true},
      {{"listen", "test/ends"}, 0, "\"last\"\n"},
      {{"listen", "test/refuse"},
       1,
       R"({"code":"denied","message":"No","details":null})"
       "\n"},
      {{"listen", "test/nobody"}, 2, ""},
  };
  for (const auto& c : cases) {
    cancelled_.clear();
    testing::Outcome r = RunCtl(c.args);
    EXPECT_EQ(r.code, c.code) << c.args[1] << " " << c.args[2] << ": " << r.err;
    EXPECT_EQ(r.out, c.out) << c.args[1] << " " << c.args[2];
    EXPECT_EQ(cancelled_, c.cancels ? Args{c.args[1]} : Args{}) << c.args[1];
  }
}

TEST_F(CorvanectlTest, LargeArgumentsFromStandardInputRoundTrip) {
  channel::Bytes blob(3 << 20);
  for (size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<uint8_t>(i * 7 + (i >> 9));
  const std::string json = "{\"$bytes\":\"" + json::HexEncode(blob) + "\"}";
  testing::Outcome r = RunCtl({"call", "test/methods", "echo", "-"}, json);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(r.out == json + "\n") << "echoed " << r.out.size() << " bytes";

  r = RunCtl({"encode", "-"}, json);
  const std::string hex = "08ff00003000" + json::HexEncode(blob) + "\n";
  EXPECT_TRUE(r.code == 0 && r.out == hex) << r.err;
  r = RunCtl({"decode", "-"}, hex);
  EXPECT_TRUE(r.out == json + "\n") << r.err;
}

TEST_F(CorvanectlTest, ListenStopsOnSignalAndCancels) {
  const std::string out_file = dir_ / "listen.out";
  auto printed = [&] {
    std::ostringstream text;
    text << std::ifstream(out_file).rdbuf();
    return text.str();
  };
  for (int sig : {SIGINT, SIGTERM}) {
    cancelled_.clear();
    GSubprocess* ctl = SpawnCtl({"listen", "test/quiet"}, G_SUBPROCESS_FLAGS_STDIN_PIPE, out_file);
    ASSERT_TRUE(dispatch::RunMainUntil([&] { return quiet_sink_ && quiet_sink_->active(); },
                                       kProcessLimit));
    quiet_sink_->Success(Value("one"));
    // Printed before the signal goes, so the stop cannot overtake the event.
    ASSERT_TRUE(dispatch::RunMainUntil([&] { return printed() == "\"one\"\n"; }, kProcessLimit));
    g_subprocess_send_signal(ctl, sig);
    EXPECT_EQ(testing::Finish(ctl).code, 0) << sig;
    EXPECT_EQ(cancelled_, Args{"test/quiet"}) << sig;
    quiet_sink_.reset();
  }
}

TEST_F(CorvanectlTest, ConnectionFailuresExitThree) {
  testing::Outcome r = RunCtl({"--socket", dir_ / "missing.sock", "call", "test/methods", "echo"});
  EXPECT_EQ(r.code, 3);
  EXPECT_NE(r.err.find("cannot connect"), std::string::npos) << r.err;

  // A peer that accepts and hangs up before answering.
  const std::string path = dir_ / "rude.sock";
  GSocketService* rude = g_socket_service_new();
  GSocketAddress* address = g_unix_socket_address_new(path.c_str());
  ASSERT_TRUE(g_socket_listener_add_address(G_SOCKET_LISTENER(rude), address, G_SOCKET_TYPE_STREAM,
                                            G_SOCKET_PROTOCOL_DEFAULT, nullptr, nullptr, nullptr));
  g_object_unref(address);
  auto hang_up = +[](GSocketService*, GSocketConnection* connection, GObject*, gpointer) {
    g_io_stream_close(G_IO_STREAM(connection), nullptr, nullptr);
    return TRUE;
  };
  g_signal_connect(rude, "incoming", G_CALLBACK(hang_up), nullptr);
  r = RunCtl({"--socket", path, "call", "test/methods", "echo"});
  g_socket_service_stop(rude);
  g_object_unref(rude);
  EXPECT_EQ(r.code, 3);
  EXPECT_NE(r.err.find("closed the connection"), std::string::npos) << r.err;
}

// A socket at the path proves nothing about who serves it: a server of another user is
// refused before anything is sent to it.
TEST_F(CorvanectlTest, AHostOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to serve as another user";
  const std::string folder = dir_ / "shared";
  g_mkdir(folder.c_str(), 0777);
  chmod(folder.c_str(), 0777);
  chmod(dir_.path().c_str(), 0755);
  const std::string path = folder + "/engine.sock";
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  // Only system calls after fork: this process has threads.
  const pid_t impostor = fork();
  if (impostor == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(10);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 4) != 0) {
      _exit(11);
    }
    (void)!write(ready[1], "r", 1);
    for (;;) {
      const int client = accept(fd, nullptr, nullptr);
      char byte;
      if (client >= 0 && read(client, &byte, 1) > 0) _exit(12);  // it was sent something
    }
  }
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1) << "the impostor did not start";
  close(ready[0]);
  testing::Outcome r = RunCtl({"--socket", path, "call", "test/methods", "echo"});
  int status = 0;
  const bool ended = waitpid(impostor, &status, WNOHANG) == impostor;
  kill(impostor, SIGKILL);
  waitpid(impostor, &status, 0);
  EXPECT_FALSE(ended) << "the impostor was sent a message";
  EXPECT_EQ(r.code, 3);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("refusing the host at " + path + ": it runs as uid 65534"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
}

// The tool's ways in and out of the codec; the values themselves are the JSON mapping's and the
// codec's own tests.
TEST(CorvanectlCodec, EncodesAndDecodesKnownBytes) {
  const struct {
    Args encode;
    std::string hex;
    std::string decoded;  // what decode prints back
  } cases[] = {
      {{"encode", R"({"a":1})"}, "0d010701610301000000", R"({"a":1})"},
      {{"encode", "--method-call", R"({"method":"m","args":[true]})"},
       "07016d0c0101",
       R"({"method":"m","args":[true]})"},
      {{"--envelope", "encode", R"({"success":"ok"})"}, "0007026f6b", R"({"success":"ok"})"},
      {{"encode", "--envelope",
        R"({"error":{"code":"c","message":"m","details":null,"stacktrace":"s"}})"},
       "0107016307016d00070173",
       R"({"error":{"code":"c","message":"m","details":null,"stacktrace":"s"}})"},
      {{"encode", "--envelope", R"({"error":{"code":"c","stacktrace":null}})"},
       "01070163000000",
       R"({"error":{"code":"c","message":null,"details":null}})"},
  };
  for (const auto& c : cases) {
    testing::Outcome r = RunCtl(c.encode);
    EXPECT_EQ(r.code, 0) << c.encode.back() << ": " << r.err;
    EXPECT_EQ(r.out, c.hex + "\n") << c.encode.back();
    Args decode = c.encode;
    std::replace(decode.begin(), decode.end(), std::string("encode"), std::string("decode"));
    decode.back() = "-";
    r = RunCtl(decode, c.hex + "\n");  // with the newline a shell pipe leaves
    EXPECT_EQ(r.code, 0) << c.hex << ": " << r.err;
    EXPECT_EQ(r.out, c.decoded + "\n");
  }
  EXPECT_EQ(RunCtl({"decode", ""}).out, "null\n");
  testing::Outcome r = RunCtl({"decode", "--envelope", ""});  // the empty reply
  EXPECT_EQ(r.code, 2);
  EXPECT_EQ(r.out, "");
}

TEST(CorvanectlCodec, MalformedInputAndUsageExitThree) {
  const Args bad[] = {
      {"decode", "0001"},  // a byte left over after null
      {"decode", "0x01"},
      {"decode", "--method-call", "07016d"},
      {"decode", "--envelope", "0201"},
      {"encode", R"({"a":})"},
      {"encode", "--method-call", R"({"method":1})"},
      {"encode", "--envelope", R"({"success":1,"error":{}})"},
      {"encode", "--envelope", R"({"error":{"message":"no code"}})"},
      {"encode", "1", "2"},
      {"call", "only-channel"},
      {"listen", "x", "--method-call"},
      {"encode", "1", "--count", "2"},
      {"frobnicate"},
      {"--bogus", "encode", "1"},
      {},
  };
  for (const Args& args : bad) {
    testing::Outcome r = RunCtl(args);
    const std::string what = args.empty() ? "(none)" : args.front() + " " + args.back();
    EXPECT_EQ(r.code, 3) << what;
    EXPECT_EQ(r.out, "") << what;
    // One line, named for the tool.
    EXPECT_EQ(r.err.rfind("corvanectl: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
  testing::Outcome r = RunCtl({"encode", "-5", "--help"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out.rfind("Usage: corvanectl", 0), 0u);
}

}  // namespace
}  // namespace corvane
