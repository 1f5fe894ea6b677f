// The socket engine with real clients on a real Unix socket, in one process: the engine runs on
// the main context, which the clients turn while they wait. Bad frames, vanishing clients and a
// non-reading client's memory are covered against the real host (robustness tests).
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
#include <thread>

#include "channel/event_channel.h"
#include "channel/method_channel.h"
#include "dispatch/queue.h"
#include "engine/socket_path.h"
#include "host/support.h"
#include "support/wire_client.h"

namespace corvane::engine {
namespace {

using channel::MethodReply;
using channel::Value;
using testing::WireClient;
using namespace std::chrono_literals;

class SocketEngineTest : public ::testing::Test {
 protected:
  void TearDown() override { Stop(); }
  void Stop() { echo_.reset(), engine_.reset(); }
  void Start(SocketEngineOptions options = {}) {
    options.path = path_;
    engine_ = std::make_unique<SocketEngine>(options);
    std::string error;
    EXPECT_TRUE(engine_->Start(&error)) << error;
    echo_ = std::make_unique<channel::MethodChannel>(*engine_, "test/echo");
    echo_->SetMethodCallHandler(
        [this](const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> r) {
          ++calls_;
          r->Success(call.arguments);
        });
  }

  std::unique_ptr<WireClient> Connect(int receive_buffer = 0) {
    auto client = std::make_unique<WireClient>();
    EXPECT_TRUE(client->Connect(path_));
    if (receive_buffer) setsockopt(client->fd(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, 4);
    return client;
  }

  void Turn(std::chrono::milliseconds t = 30ms) {
    dispatch::RunMainUntil([] { return false; }, t);
  }

  static MethodReply Decode(const std::optional<Bytes>& bytes) {
    auto d = channel::DecodeEnvelope(bytes.value_or(Bytes()));
    EXPECT_TRUE(d) << d.error;
    return d.value.value_or(MethodReply());
  }
  Value Echo(WireClient& client, uint32_t id, Value v) {
    EXPECT_TRUE(client.SendCall(id, "test/echo", "x", std::move(v)));
    return Decode(client.WaitReply(id, 5000, true)).value;
  }

  corvane::testing::TempDir temp_;
  const std::string root_ = temp_.path(), path_ = root_ + "/run/engine.sock";
  std::unique_ptr<SocketEngine> engine_;
  std::unique_ptr<channel::MethodChannel> echo_;
  int calls_ = 0;
};

// Replies go to the client that asked (same ids on both); host calls go to every client and the
// first non-empty answer wins; with nobody (left) to answer, the empty reply.
TEST_F(SocketEngineTest, RepliesGoToTheirClientAndHostCallsTakeTheFirstRealAnswer) {
  Start();
  std::vector<Bytes> replies;
  const auto ask = [&](uint8_t tag) {
    replies.clear();
    engine_->Send("test/ask", Bytes{tag}, [&](Bytes r) { replies.push_back(r); });
  };
  ask(1);
  dispatch::RunMainUntil([&] { return !replies.empty(); }, 5s);
  EXPECT_EQ(replies, std::vector<Bytes>{Bytes()}) << "nobody connected: the empty reply";

  auto a = Connect(), b = Connect(), c = Connect();
  EXPECT_EQ(Echo(*b, 1, Value("for b")), Value("for b"));
  EXPECT_EQ(Echo(*a, 1, Value("for a")), Value("for a"));
  ask(2);
  auto fa = a->Receive(5000, true), fb = b->Receive(5000, true), fc = c->Receive(5000, true);
  ASSERT_TRUE(fa && fb && fc);
  ASSERT_NE(fa->id, 0u);
  a->SendRaw(EncodeReplyFrame(fa->id, Bytes{}));      // a has no handler
  b->SendRaw(EncodeReplyFrame(fb->id, Bytes{0x42}));  // b answers
  c->Close();                                         // c goes away
  dispatch::RunMainUntil([&] { return !replies.empty(); }, 5s);
  Turn();
  EXPECT_EQ(replies, std::vector<Bytes>{Bytes{0x42}}) << "one reply, however many clients";
  ask(3);
  a.reset(), b.reset();
  dispatch::RunMainUntil([&] { return !replies.empty(); }, 5s);
  EXPECT_EQ(replies, std::vector<Bytes>{Bytes()}) << "everyone left without answering";
}

// Output bounds: events past one client's bound, or slow clients together past the total, close
// those clients; a client that sends before it reads is held back (its requests wait unread
// while its output is over half its bound) and served in full once it reads; one that takes
// nothing while held back is closed after a while.
TEST_F(SocketEngineTest, ClientsThatStopReadingAreClosedAndClientsThatWriteFirstHeldBack) {
  // Sleepers, event size and count; the second: 3 MiB each, four times past the total.
  const std::tuple<SocketEngineOptions, int, size_t, int> cases[] = {
      {{.path = {}, .max_pending_output = 256 * 1024}, 1, 16 * 1024, 200},
      {{.path = {}, .max_pending_output = 8u << 20, .max_total_output = 2u << 20}, 4, 65536, 48}};
  for (const auto& [options, sleeping, event_size, events] : cases) {
    Start(options);
    std::vector<std::unique_ptr<WireClient>> sleepers;
    for (int i = 0; i < sleeping; ++i) sleepers.push_back(Connect(4096));
    auto reader = Connect();
    Turn();
    const Bytes event = channel::EncodeSuccessEnvelope(Value(Bytes(event_size)));
    for (int i = 0; i < events; ++i) {
      engine_->Send("test/events", event);
      reader->Receive(1000, true);  // the reader keeps up
    }
    Turn();
    EXPECT_EQ(engine_->client_count(), 1u) << sleeping;
    EXPECT_EQ(Echo(*reader, 4, Value("alive")), Value("alive"));
    Stop();
  }

  Start({.path = {}, .max_pending_output = 1u << 20, .stall_timeout = 2s});
  calls_ = 0;
  auto writer = Connect(4096), stalled = Connect(4096);
  const Value arg(std::string(600 * 1024, 'x'));  // echoed: two replies are past the bound
  constexpr int kCalls = 2;                       // as many as the held-input bound takes
  std::atomic<int> sent = 0;  // more than the sockets hold: sent while the engine runs
  std::thread sender([&] {
    for (int id = 1; id <= kCalls; ++id) sent += writer->SendCall(id, "test/echo", "x", arg);
    sent += stalled->SendCall(1, "test/echo", "x", arg);
  });
  dispatch::RunMainUntil([&] { return sent == kCalls + 1 && calls_ >= 2; }, 10s);
  sender.join();
  Turn(100ms);
  ASSERT_EQ(sent, kCalls + 1) << "the engine stopped reading a client that was still sending";
  EXPECT_EQ(calls_, 2) << "requests were handled faster than their replies were taken";
  for (int id = 1; id <= kCalls; ++id) {
    EXPECT_TRUE(Decode(writer->WaitReply(id, 5000, true)).value == arg) << id;
  }
  dispatch::RunMainUntil([&] { return engine_->client_count() == 1; }, 10s);
  EXPECT_EQ(engine_->client_count(), 1u) << "a client that neither reads nor sends stayed open";
  EXPECT_EQ(calls_, kCalls + 1);
}

TEST_F(SocketEngineTest, ClientOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
  Start();
  // Open the folder and socket to everyone, so that only the credential check stands.
  for (const std::string& p : {root_, root_ + "/run"}) chmod(p.c_str(), 0755);
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
        return std::optional<channel::MethodError>();
      },
      [&](const Value&) {
        ++cancels;
        sink.reset();
        return std::optional<channel::MethodError>();
      }));
  auto a = Connect(), b = Connect(), c = Connect();
  // With and without arguments: only the method name tells listen and cancel apart.
  auto call = [&](WireClient& client, uint32_t id, const char* method) {
    EXPECT_TRUE(client.SendCall(id, "test/stream", method, id > 1 ? Value("args") : Value()));
    return Decode(client.WaitReply(id, 5000, true));
  };
  // What each client has been sent within a moment.
  auto drain = [&](WireClient& client) {
    std::vector<Value> got;
    while (auto frame = client.Receive(100, true)) got.push_back(Decode(frame->payload).value);
    return got;
  };
  EXPECT_EQ(call(*a, 1, "listen").kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(call(*b, 1, "listen").kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(listens, 1) << "the second listener is not the service's business";
  // c never listened: its cancel is answered as the service would, and changes nothing.
  EXPECT_EQ(call(*c, 1, "cancel").error.message, channel::kNoStreamErrorMessage);

  ASSERT_TRUE(sink);
  sink->Success(Value("one"));
  EXPECT_EQ(drain(*a), std::vector<Value>{Value("one")});
  EXPECT_EQ(drain(*b), std::vector<Value>{Value("one")});
  EXPECT_TRUE(drain(*c).empty()) << "an event reached a client that does not listen";
  EXPECT_EQ(call(*b, 2, "cancel").kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(cancels, 0);

  // The last listener leaving without a word cancels the service's stream.
  a.reset();
  dispatch::RunMainUntil([&] { return cancels == 1; }, 5s);
  EXPECT_FALSE(sink);
  EXPECT_EQ(call(*b, 3, "listen").kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(listens, 2);
}

// A frame must arrive whole within the frame time-out; a slow but complete one is served.
TEST_F(SocketEngineTest, AFrameThatNeverCompletesClosesItsClient) {
  Start({.path = {}, .frame_timeout = 300ms});
  auto trickle = Connect();
  auto slow = Connect();
  Bytes frame = EncodeMessageFrame(1, "test/echo", channel::EncodeMethodCall({"x", Value(1)}));
  // Announces 32 MiB and sends a little of it.
  ASSERT_TRUE(trickle->SendRaw(Bytes{0x00, 0x00, 0x00, 0x02, 0x01, 0x01, 0x00, 0x00, 0x00}));
  ASSERT_TRUE(slow->SendRaw(Bytes(frame.begin(), frame.begin() + 6)));
  Turn(150ms);
  ASSERT_TRUE(slow->SendRaw(Bytes(frame.begin() + 6, frame.end())));
  EXPECT_EQ(Decode(slow->WaitReply(1, 5000, true)).value, Value(1));
  EXPECT_FALSE(trickle->Receive(5000, true));
  EXPECT_TRUE(trickle->closed()) << "an incomplete frame held its client open";
  EXPECT_EQ(engine_->client_count(), 1u);
}

// A socket path given in the options may be in a folder others can read but not write into; a
// stale socket is replaced, and only the engine's own socket goes with it. (The default folder's
// rules are checked on the host binary.)
TEST_F(SocketEngineTest, SocketFolderAndPathAreChecked) {
  const std::string dir = root_ + "/run";
  // The folder's mode (0: not there yet), whether a stale socket is in it, the complaint.
  const std::tuple<mode_t, bool, const char*> cases[] = {
      {0, false, ""}, {0777, false, "others may write"}, {0755, false, ""}, {0700, true, ""}};
  for (const auto& [mode, stale, complaint] : cases) {
    std::filesystem::remove_all(dir);
    if (mode) std::filesystem::create_directories(dir), chmod(dir.c_str(), mode);
    if (stale) {
      const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un addr{.sun_family = AF_UNIX, .sun_path = {}};
      std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
      EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
      close(fd);
    }
    const mode_t old_umask = umask(0);  // the socket's mode must not depend on it
    SocketEngine engine({.path = path_});
    std::string error;
    const bool served = engine.Start(&error);
    umask(old_umask);
    EXPECT_EQ(served, *complaint == 0) << complaint;
    EXPECT_NE(error.find(complaint), std::string::npos) << error;
    struct stat st {};
    if (served) EXPECT_EQ(lstat(path_.c_str(), &st) == 0 ? st.st_mode & 07777 : 0u, 0600u);
    EXPECT_EQ(WireClient().Connect(path_), served);
    if (stale) {  // a file put in place of the socket after the bind is not ours to remove
      std::filesystem::remove(path_);
      std::ofstream(path_) << "someone else's";
    }
  }
  EXPECT_TRUE(std::filesystem::is_regular_file(path_));
  // The host's own folder must be private.
  std::string error;
  chmod(dir.c_str(), 0755);
  EXPECT_FALSE(PrepareSocketFolder(dir, FolderRule::kPrivate, &error));
  EXPECT_NE(error.find(dir), std::string::npos) << error;
  chmod(dir.c_str(), 0700);
  EXPECT_TRUE(PrepareSocketFolder(dir, FolderRule::kPrivate, &error)) << error;
}

}  // namespace
}  // namespace corvane::engine
