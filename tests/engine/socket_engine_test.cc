// The socket engine with real clients on a real Unix socket, in one process: the engine runs on
// the main context, which the clients turn while they wait.
#include "engine/socket_engine.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include "channel/event_channel.h"
#include "channel/method_channel.h"
#include "dispatch/queue.h"
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
  void Turn(std::chrono::milliseconds t = 30ms) { dispatch::RunMainUntil([] { return false; }, t); }

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
TEST_F(SocketEngineTest, OneEnginePerSocketAndTheSocketGoesWithIt) {
  Start();

  SocketEngine second({.path = path_});
  std::string error;
  EXPECT_FALSE(second.Start(&error));
  EXPECT_NE(error.find("already"), std::string::npos) << error;

  echo_.reset();
  engine_.reset();
  EXPECT_FALSE(std::filesystem::exists(path_)) << "the socket goes with its engine";
}

TEST_F(SocketEngineTest, StaleSocketFileIsReplaced) {
  std::filesystem::create_directories(root_ + "/run");
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  close(fd);  // a host that crashed leaves this behind
  Start();
  auto client = Connect();
  ASSERT_TRUE(client->SendCall(1, "test/echo", "x", Value("hi")));
  EXPECT_EQ(Decode(client->WaitReply(1, 5000, true)).value, Value("hi"));
}

TEST_F(SocketEngineTest, EachClientGetsItsOwnRepliesAndEveryClientGetsEvents) {
  Start();
  auto a = Connect();
  auto b = Connect();
  // Same ids on both connections: replies are matched per client.
  ASSERT_TRUE(a->SendCall(1, "test/echo", "x", Value("for a")));
  ASSERT_TRUE(b->SendCall(1, "test/echo", "x", Value("for b")));
  EXPECT_EQ(Decode(b->WaitReply(1, 5000, true)).value, Value("for b"));
  EXPECT_EQ(Decode(a->WaitReply(1, 5000, true)).value, Value("for a"));

  ASSERT_TRUE(a->SendCall(2, "nobody/home", "x"));
  auto empty = a->WaitReply(2, 5000, true);
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->empty()) << "no handler: the empty reply";

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

TEST_F(SocketEngineTest, ClientThatLeavesMidCallCostsNothing) {
  Start();
  auto leaving = Connect();
  auto staying = Connect();
  ASSERT_TRUE(leaving->SendCall(5, "test/echo", "hold"));
  dispatch::RunMainUntil([&] { return held_ != nullptr; }, 5s);
  ASSERT_TRUE(held_);
  leaving.reset();
  dispatch::RunMainUntil([&] { return engine_->client_count() == 1; }, 5s);
  EXPECT_EQ(engine_->client_count(), 1u);
  held_->Success(Value("too late"));  // dropped quietly
  held_.reset();
  ASSERT_TRUE(staying->SendCall(6, "test/echo", "x", Value(int32_t{6})));
  EXPECT_EQ(Decode(staying->WaitReply(6, 5000, true)).value, Value(int32_t{6}));
}

TEST_F(SocketEngineTest, BadFramesCloseOnlyTheirClient) {
  Start();
  auto good = Connect();
  const std::vector<Bytes> bad = {
      {0x01, 0x00, 0x00, 0x02, 0x01},        // announces more than the frame limit
      {0x05, 0, 0, 0, 0x09, 1, 0, 0, 0},     // unknown frame kind
      {0x07, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0},  // empty channel name
  };
  for (const Bytes& frame : bad) {
    auto offender = Connect();
    ASSERT_TRUE(offender->SendRaw(frame));
    EXPECT_FALSE(offender->Receive(5000, true));
    EXPECT_TRUE(offender->closed());
  }
  // A frame that stops half-way, then a disconnect.
  {
    auto partial = Connect();
    Bytes frame = EncodeMessageFrame(1, "test/echo", channel::EncodeMethodCall({"x", Value()}));
    frame.resize(frame.size() - 2);
    partial->SendRaw(frame);
    Turn();
  }
  ASSERT_TRUE(good->SendCall(9, "test/echo", "x", Value(true)));
  EXPECT_EQ(Decode(good->WaitReply(9, 5000, true)).value, Value(true));
  dispatch::RunMainUntil([&] { return engine_->client_count() == 1; }, 5s);
  EXPECT_EQ(engine_->client_count(), 1u);
}

TEST_F(SocketEngineTest, LargeFramesPassWhole) {
  Start();
  auto client = Connect();
  channel::Bytes big(16u << 20);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 31);
  // The engine shares this thread, so the write that outgrows the socket buffer runs apart.
  bool sent = false;
  std::thread writer([&] { sent = client->SendCall(3, "test/echo", "x", Value(big)); });
  MethodReply reply = Decode(client->WaitReply(3, 20000, true));
  writer.join();
  EXPECT_TRUE(sent);
  ASSERT_NE(reply.value.bytes_if(), nullptr);
  EXPECT_TRUE(*reply.value.bytes_if() == big);
}

TEST_F(SocketEngineTest, ClientThatStopsReadingIsClosedNotBuffered) {
  Start({.max_pending_output = 256 * 1024});
  auto sleeper = Connect();
  auto reader = Connect();
  Turn();
  const int buffer = 4096;
  setsockopt(sleeper->fd(), SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  const channel::Bytes event = channel::EncodeSuccessEnvelope(Value(channel::Bytes(16 * 1024)));
  for (int i = 0; i < 200 && engine_->client_count() == 2; ++i) {
    engine_->Send("test/events", event);
    reader->Receive(1000, true);  // the reader keeps up
  }
  Turn();
  EXPECT_EQ(engine_->client_count(), 1u);
  ASSERT_TRUE(reader->SendCall(4, "test/echo", "x", Value("alive")));
  EXPECT_EQ(Decode(reader->WaitReply(4, 5000, true)).value, Value("alive"));
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

}  // namespace
}  // namespace corvane::engine
