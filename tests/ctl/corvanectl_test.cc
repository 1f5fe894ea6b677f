// corvanectl end to end: the real binary against a real socket engine in this process, whose
// main loop runs while the client does.
#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "channel/event_channel.h"
#include "channel/method_channel.h"
#include "dispatch/queue.h"
#include "engine/socket_engine.h"
#include "json/hex.h"

namespace corvane {
namespace {

using channel::MethodCall;
using channel::MethodError;
using channel::MethodResult;
using channel::Value;

constexpr std::chrono::seconds kProcessLimit{60};

struct CtlResult {
  int code = -1;
  std::string out;
  std::string err;
};

// A running corvanectl with its standard streams on pipes served by the main loop, so the
// engine in this process keeps answering while the client runs.
class CtlProcess {
 public:
  explicit CtlProcess(const std::vector<std::string>& args, std::string input = {})
      : input_(std::move(input)) {
    std::vector<char*> argv{const_cast<char*>(CORVANECTL_PATH)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    GError* error = nullptr;
    // The test ignores SIGPIPE for its own pipe writes; the client gets the default back.
    auto reset_sigpipe = [](gpointer) { signal(SIGPIPE, SIG_DFL); };
    if (!g_spawn_async_with_pipes(nullptr, argv.data(), nullptr, G_SPAWN_DO_NOT_REAP_CHILD,
                                  reset_sigpipe, nullptr, &pid_, &in_.fd, &out_.fd, &err_.fd,
                                  &error)) {
      ADD_FAILURE() << "spawn failed: " << error->message;
      g_error_free(error);
      exited_ = true;
      return;
    }
    child_watch_ = g_child_watch_add(pid_, OnExit, this);
    for (Pipe* p : {&in_, &out_, &err_}) {
      g_unix_set_fd_nonblocking(p->fd, TRUE, nullptr);
      p->self = this;
    }
    out_.watch = g_unix_fd_add(out_.fd, G_IO_IN, OnReadable, &out_);
    err_.watch = g_unix_fd_add(err_.fd, G_IO_IN, OnReadable, &err_);
    in_.watch = g_unix_fd_add(in_.fd, G_IO_OUT, OnWritable, &in_);
  }

  ~CtlProcess() {
    if (child_watch_) g_source_remove(child_watch_);
    for (Pipe* p : {&in_, &out_, &err_}) p->Close();
    if (!exited_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      g_spawn_close_pid(pid_);
    }
  }

  bool RunUntil(const std::function<bool()>& done) {
    return dispatch::RunMainUntil(done, kProcessLimit);
  }

  void Signal(int sig) { kill(pid_, sig); }
  const std::string& out() const { return out_.data; }

  CtlResult Wait() {
    EXPECT_TRUE(RunUntil([this] { return exited_ && out_.fd < 0 && err_.fd < 0; }))
        << "corvanectl did not finish; stderr: " << err_.data;
    return CtlResult{code_, out_.data, err_.data};
  }

 private:
  struct Pipe {
    CtlProcess* self = nullptr;
    int fd = -1;
    guint watch = 0;
    std::string data;  // read from the child, or still to write to it
    size_t written = 0;

    void Close() {
      if (watch) g_source_remove(watch);
      if (fd >= 0) close(fd);
      watch = 0;
      fd = -1;
    }
  };

  // Both callbacks finish a pipe by closing it; the watch is gone once they return REMOVE.
  static gboolean Finish(Pipe* p) {
    p->watch = 0;
    close(p->fd);
    p->fd = -1;
    return G_SOURCE_REMOVE;
  }

  static gboolean OnReadable(gint fd, GIOCondition, gpointer data) {
    auto* p = static_cast<Pipe*>(data);
    char buffer[65536];
    for (;;) {
      const ssize_t n = read(fd, buffer, sizeof buffer);
      if (n > 0) {
        p->data.append(buffer, static_cast<size_t>(n));
      } else if (n < 0 && errno == EAGAIN) {
        return G_SOURCE_CONTINUE;
      } else if (!(n < 0 && errno == EINTR)) {
        return Finish(p);
      }
    }
  }

  static gboolean OnWritable(gint fd, GIOCondition, gpointer data) {
    auto* p = static_cast<Pipe*>(data);
    const std::string& input = p->self->input_;
    while (p->written < input.size()) {
      const ssize_t n = write(fd, input.data() + p->written, input.size() - p->written);
      if (n > 0) {
        p->written += static_cast<size_t>(n);
      } else if (n < 0 && errno == EAGAIN) {
        return G_SOURCE_CONTINUE;
      } else if (!(n < 0 && errno == EINTR)) {
        break;  // the child closed its end
      }
    }
    return Finish(p);
  }

  static void OnExit(GPid pid, gint status, gpointer data) {
    auto* self = static_cast<CtlProcess*>(data);
    self->code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    self->exited_ = true;
    self->child_watch_ = 0;
    g_spawn_close_pid(pid);
  }

  GPid pid_ = 0;
  std::string input_;
  Pipe in_, out_, err_;
  guint child_watch_ = 0;
  bool exited_ = false;
  int code_ = -1;
};

CtlResult RunCtl(const std::vector<std::string>& args, std::string input = {}) {
  return CtlProcess(args, std::move(input)).Wait();
}

class CorvanectlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    gchar* dir = g_dir_make_tmp("corvanectl-XXXXXX", nullptr);
    ASSERT_TRUE(dir);
    dir_ = dir;
    g_free(dir);
    socket_ = dir_ + "/engine.sock";
    engine_ = std::make_unique<engine::SocketEngine>(engine::SocketEngineOptions{socket_});
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

  void TearDown() override {
    held_.clear();
    streams_.clear();
    methods_.reset();
    engine_.reset();
    rmdir(dir_.c_str());
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

  std::vector<std::string> With(std::vector<std::string> args) {
    args.insert(args.begin(), {"--socket", socket_});
    return args;
  }

  std::string dir_;
  std::string socket_;
  std::unique_ptr<engine::SocketEngine> engine_;
  std::unique_ptr<channel::MethodChannel> methods_;
  std::vector<std::unique_ptr<channel::EventChannel>> streams_;
  std::vector<std::unique_ptr<MethodResult>> held_;
  std::unique_ptr<channel::EventSink> quiet_sink_;
  std::vector<std::string> cancelled_;
};

TEST_F(CorvanectlTest, CallPrintsEachReplyKindWithItsExitStatus) {
  CtlResult r = RunCtl(With({"call", "test/methods", "echo", "{\"a\":[1,2.5,{\"$int64\":3}]}"}));
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "{\"a\":[1,2.5,3]}\n");  // the codec sends a small int64 as int32

  r = RunCtl(With({"call", "test/methods", "echo"}));
  EXPECT_EQ(r.out, "null\n");

  r = RunCtl(With({"call", "test/methods", "fail", "{\"why\":{\"$bytes\":\"0102\"}}"}));
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.out,
            "{\"code\":\"bad_thing\",\"message\":\"It went wrong\","
            "\"details\":{\"why\":{\"$bytes\":\"0102\"}}}\n");

  for (const char* channel : {"test/methods", "test/nobody"}) {
    r = RunCtl(With({"call", channel, "unknown"}));
    EXPECT_EQ(r.code, 2) << channel;
    EXPECT_EQ(r.out, "");
  }

  r = RunCtl({"call", "test/methods", "never", "--timeout", "200", "--socket", socket_});
  EXPECT_EQ(r.code, 4);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("no reply"), std::string::npos) << r.err;
}

TEST_F(CorvanectlTest, CallAnswersHostCallsWithTheEmptyReply) {
  CtlResult r = RunCtl(With({"call", "test/methods", "ask"}));
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "\"empty reply\"\n");
}

TEST_F(CorvanectlTest, LargeArgumentsFromStandardInputRoundTrip) {
  channel::Bytes blob(3 << 20);
  for (size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<uint8_t>(i * 7 + (i >> 9));
  const std::string json = "{\"$bytes\":\"" + json::HexEncode(blob) + "\"}";
  CtlResult r = RunCtl(With({"call", "test/methods", "echo", "-"}), json);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(r.out == json + "\n") << "echoed " << r.out.size() << " bytes";

  r = RunCtl({"encode", "-"}, json);
  EXPECT_EQ(r.code, 0) << r.err;
  const std::string hex = "08ff00003000" + json::HexEncode(blob) + "\n";
  EXPECT_TRUE(r.out == hex);
  r = RunCtl({"decode", "-"}, hex);
  EXPECT_TRUE(r.out == json + "\n") << r.err;
}

TEST_F(CorvanectlTest, ListenPrintsEventsAndCancelsAfterCount) {
  CtlResult r = RunCtl(With({"listen", "test/events", "--count", "3"}));
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "1\n{\"code\":\"hiccup\",\"message\":null,\"details\":2}\n{\"n\":3}\n");
  EXPECT_EQ(cancelled_, std::vector<std::string>{"test/events"});

  r = RunCtl(With({"listen", "test/ends"}));
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "\"last\"\n");

  r = RunCtl(With({"listen", "test/refuse"}));
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.out, "{\"code\":\"denied\",\"message\":\"No\",\"details\":null}\n");

  r = RunCtl(With({"listen", "test/nobody"}));
  EXPECT_EQ(r.code, 2);
  EXPECT_EQ(r.out, "");
}

TEST_F(CorvanectlTest, ListenStopsOnSignalAndCancels) {
  for (int sig : {SIGINT, SIGTERM}) {
    cancelled_.clear();
    CtlProcess ctl(With({"listen", "test/quiet"}));
    ASSERT_TRUE(ctl.RunUntil([this] { return quiet_sink_ && quiet_sink_->active(); }));
    quiet_sink_->Success(Value("one"));
    ASSERT_TRUE(ctl.RunUntil([&] { return ctl.out() == "\"one\"\n"; }));
    ctl.Signal(sig);
    CtlResult r = ctl.Wait();
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "\"one\"\n");
    EXPECT_EQ(cancelled_, std::vector<std::string>{"test/quiet"});
    quiet_sink_.reset();
  }
}

TEST_F(CorvanectlTest, ConnectionFailuresExitThree) {
  CtlResult r = RunCtl({"--socket", dir_ + "/missing.sock", "call", "test/methods", "echo"});
  EXPECT_EQ(r.code, 3);
  EXPECT_NE(r.err.find("cannot connect"), std::string::npos) << r.err;

  // A peer that accepts and hangs up before answering.
  const std::string path = dir_ + "/rude.sock";
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(listen(listener, 4), 0);
  const guint watch = g_unix_fd_add(
      listener, G_IO_IN,
      [](gint fd, GIOCondition, gpointer) -> gboolean {
        const int client = accept(fd, nullptr, nullptr);
        if (client >= 0) close(client);
        return G_SOURCE_CONTINUE;
      },
      nullptr);
  r = RunCtl({"--socket", path, "call", "test/methods", "echo"});
  g_source_remove(watch);
  close(listener);
  unlink(path.c_str());
  EXPECT_EQ(r.code, 3);
  EXPECT_NE(r.err.find("closed the connection"), std::string::npos) << r.err;
}

TEST_F(CorvanectlTest, DefaultSocketPathMatchesTheHost) {
  const std::string runtime = dir_ + "/runtime";
  ASSERT_EQ(mkdir(runtime.c_str(), 0700), 0);
  const char* saved = g_getenv("XDG_RUNTIME_DIR");
  const std::string saved_value = saved ? saved : "";
  g_setenv("XDG_RUNTIME_DIR", runtime.c_str(), TRUE);
  {
    engine::SocketEngine host;
    std::string error;
    ASSERT_TRUE(host.Start(&error)) << error;
    CtlResult r = RunCtl({"call", "test/any", "m"});
    EXPECT_EQ(r.code, 2) << r.err;  // connected; nobody handles the channel
  }
  if (saved) {
    g_setenv("XDG_RUNTIME_DIR", saved_value.c_str(), TRUE);
  } else {
    g_unsetenv("XDG_RUNTIME_DIR");
  }
  rmdir((runtime + "/corvane").c_str());
  rmdir(runtime.c_str());
}

TEST(CorvanectlCodec, EncodesAndDecodesKnownBytes) {
  struct Case {
    std::vector<std::string> encode;
    std::string hex;
    std::string decoded;  // what decode prints back
  };
  const std::string kFloat = "06" + std::string(14, '0') + "000000000000f83f";
  const Case cases[] = {
      {{"encode", "{\"a\":1}"}, "0d010701610301000000", "{\"a\":1}"},
      {{"encode", "1.5"}, kFloat, "1.5"},
      {{"encode", "{\"$float32list\":[1.5,-2]}"},
       "0e0200000000c03f000000c0",
       "{\"$float32list\":[1.5,-2]}"},
      {{"encode", "{\"$map\":[[1,null]]}"},
       "0d010301000000"
       "00",
       "{\"$map\":[[1,null]]}"},
      {{"encode", "--method-call", "{\"method\":\"m\",\"args\":[true]}"},
       "07016d0c0101",
       "{\"method\":\"m\",\"args\":[true]}"},
      {{"--envelope", "encode", "{\"success\":\"ok\"}"}, "0007026f6b", "{\"success\":\"ok\"}"},
      {{"encode", "--envelope",
        "{\"error\":{\"code\":\"c\",\"message\":\"m\",\"details\":null,\"stacktrace\":\"s\"}}"},
       "0107016307016d00070173",
       "{\"error\":{\"code\":\"c\",\"message\":\"m\",\"details\":null,\"stacktrace\":\"s\"}}"},
      {{"encode", "--envelope", "{\"error\":{\"code\":\"c\",\"stacktrace\":null}}"},
       "01070163000000",
       "{\"error\":{\"code\":\"c\",\"message\":null,\"details\":null}}"},
  };
  for (const Case& c : cases) {
    CtlResult r = RunCtl(c.encode);
    EXPECT_EQ(r.code, 0) << c.encode.back() << ": " << r.err;
    EXPECT_EQ(r.out, c.hex + "\n") << c.encode.back();
    std::vector<std::string> decode = c.encode;
    for (auto& a : decode) {
      if (a == "encode") a = "decode";
    }
    decode.back() = "-";
    r = RunCtl(decode, c.hex + "\n");  // with the newline a shell pipe leaves
    EXPECT_EQ(r.code, 0) << c.hex << ": " << r.err;
    EXPECT_EQ(r.out, c.decoded + "\n");
  }
  CtlResult r = RunCtl({"decode", ""});
  EXPECT_EQ(r.out, "null\n");
  r = RunCtl({"decode", "--envelope", ""});
  EXPECT_EQ(r.code, 2);
  EXPECT_EQ(r.out, "");
}

TEST(CorvanectlCodec, MalformedInputAndUsageExitThree) {
  const std::vector<std::vector<std::string>> bad = {
      {"decode", "0001"},  // a byte left over after null
      {"decode", "0x01"},
      {"decode", "000"},
      {"decode", "--method-call", "07016d"},
      {"decode", "--envelope", "0201"},
      {"encode", "{\"a\":}"},
      {"encode", "--method-call", "{\"method\":1}"},
      {"encode", "--envelope", "{\"success\":1,\"error\":{}}"},
      {"encode", "--envelope", "{\"error\":{\"message\":\"no code\"}}"},
      {"encode", "1", "2"},
      {"call", "only-channel"},
      {"listen", "x", "--method-call"},
      {"encode", "1", "--count", "2"},
      {"frobnicate"},
      {"--bogus", "encode", "1"},
      {},
  };
  for (const auto& args : bad) {
    CtlResult r = RunCtl(args);
    EXPECT_EQ(r.code, 3) << (args.empty() ? "(none)" : args.front() + " " + args.back());
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("corvanectl: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
  CtlResult r = RunCtl({"encode", "-5", "--help"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out.rfind("Usage: corvanectl", 0), 0u);
}

}  // namespace
}  // namespace corvane
