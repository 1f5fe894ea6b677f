// The socket engine with real clients on a real Unix socket, in one process: the engine runs on
// the main context, which the clients turn while they wait.
#include "engine/socket_engine.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "channel/event_channel.h"
#include "channel/method_channel.h"
#include "dispatch/queue.h"
#include "engine/socket_path.h"
#include "support/wire_client.h"

namespace corvane::engine {
namespace {

using channel::DecodeEnvelope;
using channel::MethodReply;
using channel::Value;
using testing::WireClient;
using namespace std::chrono_literals;

class SocketEngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/corvane-engine-test-XXXXXX";
    root_ = mkdtemp(tmpl);
    path_ = root_ + "/run/engine.sock";
  }
  void TearDown() override {
    held_.reset();
    echo_.reset();
    engine_.reset();
    std::filesystem::remove_all(root_);
  }

  SocketEngine& Start(SocketEngineOptions options = {}) {
    options.path = path_;
    engine_ = std::make_unique<SocketEngine>(options);
    std::string error;
    EXPECT_TRUE(engine_->Start(&error)) << error;
    echo_ = std::make_unique<channel::MethodChannel>(*engine_, "test/echo");
    echo_->SetMethodCallHandler(
        [this](const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> r) {
          if (call.method == "hold") {
            held_ = std::move(r);
          } else {
            r->Success(call.arguments);
          }
        });
    return *engine_;
  }

  std::unique_ptr<WireClient> Connect() {
    auto client = std::make_unique<WireClient>();
    EXPECT_TRUE(client->Connect(path_));
    return client;
  }

  // Lets the engine accept and read what is pending.
  void Turn(std::chrono::milliseconds t = 30ms) {
    dispatch::RunMainUntil([] { return false; }, t);
  }

  static MethodReply Decode(const std::optional<Bytes>& bytes) {
    EXPECT_TRUE(bytes.has_value());
    auto d = DecodeEnvelope(bytes.value_or(Bytes()));
    EXPECT_TRUE(d) << d.error;
    return d.value.value_or(MethodReply());
  }

  std::string root_;
  std::string path_;
  std::unique_ptr<SocketEngine> engine_;
  std::unique_ptr<channel::MethodChannel> echo_;
  std::unique_ptr<channel::MethodResult> held_;
};

// Modes of the socket and its folder are checked on the real binary (host tests).
TEST_F(SocketEngineTest, OneEnginePerSocketWhichGoesWithItUnlessReplaced) {
  Start();
  SocketEngine second({.path = path_});
  std::string error;
  EXPECT_FALSE(second.Start(&error));
  EXPECT_NE(error.find("already"), std::string::npos) << error;
  echo_.reset();
  engine_.reset();
  EXPECT_FALSE(std::filesystem::exists(path_)) << "the socket goes with its engine";

  // A file put in place of the socket after the bind is not ours to remove at exit.
  Start();
  echo_.reset();
  std::filesystem::remove(path_);
  std::ofstream(path_) << "someone else's";
  engine_.reset();
  EXPECT_TRUE(std::filesystem::exists(path_));
}

TEST_F(SocketEngineTest, EachClientGetsItsOwnRepliesAndEveryClientGetsHostMessages) {
  Start();
  auto a = Connect();
  auto b = Connect();
  // Same ids on both connections: replies are matched per client.
  ASSERT_TRUE(a->SendCall(1, "test/echo", "x", Value("for a")));
  ASSERT_TRUE(b->SendCall(1, "test/echo", "x", Value("for b")));
  EXPECT_EQ(Decode(b->WaitReply(1, 5000, true)).value, Value("for b"));
  EXPECT_EQ(Decode(a->WaitReply(1, 5000, true)).value, Value("for a"));

  // Nobody listens on the channel: it is not known as an event channel, so all get it.
  engine_->Send("test/events", channel::EncodeSuccessEnvelope(Value("tick")));
  for (WireClient* c : {a.get(), b.get()}) {
    auto frame = c->Receive(5000, true);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->kind, FrameKind::kMessage);
    EXPECT_EQ(frame->id, 0u) << "events want no reply";
    EXPECT_EQ(frame->channel, "test/events");
    EXPECT_EQ(Decode(frame->payload).value, Value("tick"));
  }
}

TEST_F(SocketEngineTest, HostCallToTheEngineTakesTheFirstRealReply) {
  Start();
  std::vector<Bytes> replies;
  engine_->Send("test/ask", Bytes{1}, [&](Bytes r) { replies.push_back(r); });
  dispatch::RunMainUntil([&] { return !replies.empty(); }, 5s);
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_TRUE(replies[0].empty()) << "nobody connected: the empty reply";

  auto a = Connect();
  auto b = Connect();
  auto c = Connect();
  Turn();
  replies.clear();
  engine_->Send("test/ask", Bytes{2}, [&](Bytes r) { replies.push_back(r); });
  auto fa = a->Receive(5000, true), fb = b->Receive(5000, true), fc = c->Receive(5000, true);
  ASSERT_TRUE(fa && fb && fc);
  ASSERT_NE(fa->id, 0u);
  a->SendRaw(EncodeReplyFrame(fa->id, Bytes{}));      // a has no handler
  b->SendRaw(EncodeReplyFrame(fb->id, Bytes{0x42}));  // b answers
  c->Close();                                         // c goes away
  dispatch::RunMainUntil([&] { return !replies.empty(); }, 5s);
  Turn();
  ASSERT_EQ(replies.size(), 1u) << "one reply, however many clients";
  EXPECT_EQ(replies[0], Bytes{0x42});

  // Every client answers empty or leaves: the caller gets the empty reply, once.
  replies.clear();
  engine_->Send("test/ask", Bytes{3}, [&](Bytes r) { replies.push_back(r); });
  fa = a->Receive(5000, true);
  ASSERT_TRUE(fa);
  b.reset();
  a->SendRaw(EncodeReplyFrame(fa->id, Bytes{}));
  dispatch::RunMainUntil([&] { return !replies.empty(); }, 5s);
  Turn();
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_TRUE(replies[0].empty());
}

// A client that leaves mid-call or sends a bad frame is closed alone: the late answer to its
// call is dropped quietly and the others are served.
TEST_F(SocketEngineTest, ClientsThatLeaveOrSendBadFramesCostTheOthersNothing) {
  Start();
  auto good = Connect();
  auto leaving = Connect();
  ASSERT_TRUE(leaving->SendCall(5, "test/echo", "hold"));
  dispatch::RunMainUntil([&] { return held_ != nullptr; }, 5s);
  ASSERT_TRUE(held_);
  leaving.reset();
  // Every kind of bad frame fails the reader (see the wire tests); the engine acts on that.
  for (const Bytes& frame :
       {Bytes{0x01, 0x00, 0x00, 0x02, 0x01}, Bytes{0x05, 0, 0, 0, 9, 1, 0, 0, 0}}) {
    auto offender = Connect();
    ASSERT_TRUE(offender->SendRaw(frame));
    EXPECT_FALSE(offender->Receive(5000, true));
    EXPECT_TRUE(offender->closed());
  }
  dispatch::RunMainUntil([&] { return engine_->client_count() == 1; }, 5s);
  EXPECT_EQ(engine_->client_count(), 1u);
  held_->Success(Value("too late"));
  held_.reset();
  ASSERT_TRUE(good->SendCall(9, "test/echo", "x", Value(true)));
  EXPECT_EQ(Decode(good->WaitReply(9, 5000, true)).value, Value(true));
}

// A client that stops reading is closed once its own output bound is past, and slow clients
// each within that bound are closed once together they pass the total; a reader that keeps up
// is served throughout.
TEST_F(SocketEngineTest, ClientsThatStopReadingAreClosedNotBuffered) {
  const struct {
    SocketEngineOptions options;
    int sleepers;
    size_t event_size;
    int events;
  } cases[] = {
      {{.path = {}, .max_pending_output = 256 * 1024}, 1, 16 * 1024, 200},
      // 3 MiB for each client: within one client's bound, four times past the total.
      {{.path = {}, .max_pending_output = 8u << 20, .max_total_output = 2u << 20},
       4,
       64 * 1024,
       48},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.sleepers);
    Start(c.options);
    std::vector<std::unique_ptr<WireClient>> sleepers;
    for (int i = 0; i < c.sleepers; ++i) {
      sleepers.push_back(Connect());
      const int buffer = 4096;
      setsockopt(sleepers.back()->fd(), SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    }
    auto reader = Connect();
    Turn();
    const Bytes event = channel::EncodeSuccessEnvelope(Value(Bytes(c.event_size)));
    for (int i = 0; i < c.events; ++i) {
      engine_->Send("test/events", event);
      reader->Receive(1000, true);  // the reader keeps up
    }
    Turn();
    EXPECT_EQ(engine_->client_count(), 1u);
    ASSERT_TRUE(reader->SendCall(4, "test/echo", "x", Value("alive")));
    EXPECT_EQ(Decode(reader->WaitReply(4, 5000, true)).value, Value("alive"));
    echo_.reset();
    engine_.reset();
  }
}

TEST_F(SocketEngineTest, ClientOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
  Start();
  // Open the folder and socket to everyone, so that only the credential check stands.
  chmod((root_ + "/run").c_str(), 0755);
  chmod(root_.c_str(), 0755);
  chmod(path_.c_str(), 0666);
  const pid_t child = fork();
  if (child == 0) {
    if (setuid(65534) != 0) _exit(10);
    WireClient client;
    if (!client.Connect(path_)) _exit(11);
    client.SendCall(1, "test/echo", "x", Value());
    auto reply = client.WaitReply(1, 3000);
    _exit(reply ? 12 : (client.closed() ? 0 : 13));
  }
  int status = 0;
  dispatch::RunMainUntil([&] { return waitpid(child, &status, WNOHANG) == child; }, 10s);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "10: setuid, 11: connect, 12: got a reply, 13: kept open";
}

// The service behind an event channel holds one sink: it must see the first listen and the
// last cancel, and its events must reach exactly the clients that listen.
TEST_F(SocketEngineTest, EventsReachTheClientsThatListenAndTheServiceSeesFirstAndLast) {
  Start();
  int listens = 0, cancels = 0;
  std::unique_ptr<channel::EventSink> sink;
  channel::EventChannel events(*engine_, "test/stream");
  events.SetStreamHandler(std::make_unique<channel::FunctionStreamHandler>(
      [&](const Value&, std::unique_ptr<channel::EventSink> s) {
        ++listens;
        sink = std::move(s);
        sink->Success(Value("hello"));  // from inside the handler, before the listen reply
        return std::optional<channel::MethodError>();
      },
      [&](const Value&) {
        ++cancels;
        sink.reset();
        return std::optional<channel::MethodError>();
      }));
  auto a = Connect(), b = Connect(), c = Connect();
  Turn();
  // Reads frames until the reply to `id`, collecting the events on the way.
  auto call = [&](WireClient& client, uint32_t id, const char* method, std::vector<Value>* seen) {
    EXPECT_TRUE(client.SendCall(id, "test/stream", method));
    for (;;) {
      auto frame = client.Receive(5000, true);
      if (!frame) return MethodReply();
      if (frame->kind == FrameKind::kReply && frame->id == id) return Decode(frame->payload);
      if (seen) seen->push_back(Decode(frame->payload).value);
    }
  };
  // What each client has been sent within a moment.
  auto drain = [&](WireClient& client) {
    std::vector<Value> got;
    while (auto frame = client.Receive(100, true)) got.push_back(Decode(frame->payload).value);
    return got;
  };

  std::vector<Value> early;
  EXPECT_EQ(call(*a, 1, "listen", &early).kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(early, std::vector<Value>{Value("hello")});
  EXPECT_EQ(call(*b, 1, "listen", nullptr).kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(listens, 1) << "the second listener is not the service's business";

  // c never listened: its cancel is answered as the service would, and changes nothing.
  MethodReply refused = call(*c, 1, "cancel", nullptr);
  EXPECT_EQ(refused.kind, MethodReply::Kind::kError);
  EXPECT_EQ(refused.error.message, channel::kNoStreamErrorMessage);

  ASSERT_TRUE(sink);
  sink->Success(Value("one"));
  EXPECT_EQ(drain(*a), std::vector<Value>{Value("one")});
  EXPECT_EQ(drain(*b), std::vector<Value>{Value("one")});
  EXPECT_TRUE(drain(*c).empty()) << "an event reached a client that does not listen";

  // b cancels: a keeps its stream.
  EXPECT_EQ(call(*b, 2, "cancel", nullptr).kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(cancels, 0);
  sink->Success(Value("two"));
  EXPECT_EQ(drain(*a), std::vector<Value>{Value("two")});
  EXPECT_TRUE(drain(*b).empty());

  // Host calls that are not events still go to every client.
  engine_->Send("test/stream", channel::EncodeSuccessEnvelope(Value("ask")), [](Bytes) {});
  for (WireClient* client : {a.get(), b.get(), c.get()}) {
    auto frame = client->Receive(5000, true);
    ASSERT_TRUE(frame);
    EXPECT_NE(frame->id, 0u);
    client->SendRaw(EncodeReplyFrame(frame->id, {}));
  }

  // The last listener leaving without a word cancels the service's stream.
  a.reset();
  dispatch::RunMainUntil([&] { return cancels == 1; }, 5s);
  EXPECT_EQ(cancels, 1);
  EXPECT_FALSE(sink);
  EXPECT_EQ(call(*b, 3, "listen", nullptr).kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(listens, 2);
}

// A frame must arrive whole within the frame time-out; a slow but complete one is served.
TEST_F(SocketEngineTest, AFrameThatNeverCompletesClosesItsClient) {
  Start({.path = {}, .frame_timeout = 300ms});
  auto trickle = Connect();
  auto slow = Connect();
  Bytes frame = EncodeMessageFrame(1, "test/echo", channel::EncodeMethodCall({"x", Value(1)}));
  const Bytes head(frame.begin(), frame.begin() + 6);
  const Bytes tail(frame.begin() + 6, frame.end());
  // Announces 32 MiB and sends a little of it.
  ASSERT_TRUE(trickle->SendRaw(Bytes{0x00, 0x00, 0x00, 0x02, 0x01, 0x01, 0x00, 0x00, 0x00}));
  ASSERT_TRUE(slow->SendRaw(head));
  Turn(150ms);
  ASSERT_TRUE(slow->SendRaw(tail));
  EXPECT_EQ(Decode(slow->WaitReply(1, 5000, true)).value, Value(1));
  EXPECT_FALSE(trickle->Receive(5000, true));
  EXPECT_TRUE(trickle->closed()) << "an incomplete frame held its client open";
  EXPECT_EQ(engine_->client_count(), 1u);
}

// Where the socket may be served: never through a link, never in another user's folder or one
// others can write into, and only a stale socket is ever replaced.
TEST_F(SocketEngineTest, SocketFolderAndPathAreChecked) {
  const std::string dir = root_ + "/run";
  const std::string target = root_ + "/elsewhere";
  std::filesystem::create_directories(target);
  chmod(target.c_str(), 0700);
  auto folder = [&](mode_t mode) {
    std::filesystem::create_directories(dir);
    chmod(dir.c_str(), mode);
  };
  const struct {
    const char* name;
    std::function<void()> prepare;
    const char* complaint;  // empty: served
    bool root_only = false;
  } cases[] = {
      {"new folder", [] {}, ""},
      {"link to a private folder", [&] { std::filesystem::create_directory_symlink(target, dir); },
       "symbolic link"},
      {"folder others may write into", [&] { folder(0777); }, "others may write"},
      {"folder readable by others", [&] { folder(0755); }, ""},
      {"folder of another user",
       [&] {
         folder(0700);
         EXPECT_EQ(chown(dir.c_str(), 65534, 65534), 0);
       },
       "belongs to uid 65534", true},
      {"stale socket of a host that crashed",
       [&] {
         folder(0700);
         const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
         sockaddr_un addr{.sun_family = AF_UNIX, .sun_path = {}};
         std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
         EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
         close(fd);
       },
       ""},
      // Last, so that the file is still there to check below.
      {"regular file at the socket path",
       [&] {
         folder(0700);
         std::ofstream(path_) << "notes";
       },
       "is not a socket"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.root_only && geteuid() != 0) continue;
    std::filesystem::remove_all(dir);
    c.prepare();
    const mode_t old_umask = umask(0);  // the socket's mode must not depend on it
    SocketEngine engine({.path = path_});
    std::string error;
    const bool served = engine.Start(&error);
    umask(old_umask);
    if (*c.complaint == 0) {
      EXPECT_TRUE(served) << error;
      struct stat st {};
      ASSERT_EQ(lstat(path_.c_str(), &st), 0);
      EXPECT_TRUE(S_ISSOCK(st.st_mode));
      EXPECT_EQ(st.st_mode & 0777, 0600u);
      EXPECT_TRUE(WireClient().Connect(path_));
      continue;
    }
    EXPECT_FALSE(served);
    EXPECT_NE(error.find(c.complaint), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << "one line";
    EXPECT_FALSE(std::filesystem::exists(target + "/engine.sock"));
  }
  std::ifstream notes(path_);
  std::string kept((std::istreambuf_iterator<char>(notes)), std::istreambuf_iterator<char>());
  EXPECT_EQ(kept, "notes") << "a file that is not a socket was touched";

  // The host's own folder must be private.
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  chmod(dir.c_str(), 0755);
  std::string error;
  EXPECT_FALSE(PrepareSocketFolder(dir, FolderRule::kPrivate, &error));
  EXPECT_NE(error.find(dir), std::string::npos) << error;
  chmod(dir.c_str(), 0700);
  EXPECT_TRUE(PrepareSocketFolder(dir, FolderRule::kPrivate, &error)) << error;
}

}  // namespace
}  // namespace corvane::engine
